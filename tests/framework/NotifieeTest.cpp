#include "framework/Notifiee.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "framework/LiveCount.h"
#include "tests/framework/TestNotifier.h"

namespace Vesk::test {
namespace {

using Log = std::vector<std::string>;

// Appends "<tag>.value=<v>", "<tag>.member[<key>]" or "<tag>.zero" to a shared log for every
// call, then runs the optional action: the hostile behaviours below are actions.
class Recorder : public Counter::NotifieeConst {
 public:
  Recorder(std::string tag, Log* log) : tag_(std::move(tag)), log_(log) {}

  void onValue() override {
    log_->push_back(tag_ + ".value=" + std::to_string(notifierRaw()->value()));
    if (action) action();
  }
  void onMember(Name const& key) override {
    log_->push_back(tag_ + ".member[" + key.stdString() + "]");
    if (action) action();
  }
  void onZeroReferences() override {
    log_->push_back(tag_ + ".zero");
    if (onZero) onZero();
  }
  void onNotificationException() override {
    ++exceptions;
    if (!swallowExceptions) throw;
  }

  std::function<void()> action;
  std::function<void()> onZero;
  bool swallowExceptions = false;
  int exceptions = 0;

 private:
  std::string tag_;
  Log* log_;
};

// ---------------------------------------------------------------------------------------
// Notify only on change.

TEST(NotifyOnChange, ValueNotifiesOnceForEachChangeAndNeverForTheSameValue) {
  Ptr<Counter> c = Counter::counterNew("c");
  Log log;
  Recorder r("r", &log);
  r.notifierIs(c);

  c->valueIs(0);  // the initial value
  EXPECT_TRUE(log.empty());
  c->valueIs(5);
  c->valueIs(5);
  c->valueIs(6);
  // The handler reads the new value: the mutator stores before it notifies.
  EXPECT_EQ(log, (Log{"r.value=5", "r.value=6"}));
}

TEST(NotifyOnChange, MemberNotifiesOnceForInsertChangeAndDeleteOfThatKey) {
  Ptr<Counter> c = Counter::counterNew("c");
  Log log;
  Recorder r("r", &log);
  r.notifierIs(c);
  std::vector<int> seen;  // the member as each handler found it; -1 when absent
  r.action = [&] { seen.push_back(c->member("k") ? *c->member("k") : -1); };

  c->memberIs("k", 1);  // new key
  c->memberIs("k", 1);  // unchanged
  c->memberIs("k", 2);  // new value
  c->memberDel("other");
  c->memberDel("k");
  c->memberDel("k");  // no longer present
  EXPECT_EQ(log, (Log{"r.member[k]", "r.member[k]", "r.member[k]"}));
  EXPECT_EQ(seen, (std::vector<int>{1, 2, -1}));
}

// ---------------------------------------------------------------------------------------
// Synchronous, re-entrant, depth-first delivery in registration order.

TEST(Delivery, AChangeMadeByAHandlerIsDeliveredToEveryoneBeforeTheOuterVisitGoesOn) {
  Ptr<Counter> c = Counter::counterNew("c");
  Log log;
  Recorder a("a", &log), b("b", &log);
  a.notifierIs(c);
  b.notifierIs(c);
  a.action = [&] {
    if (c->value() == 1) c->memberIs("x", 1);
  };

  c->valueIs(1);
  EXPECT_EQ(log, (Log{"a.value=1", "a.member[x]", "b.member[x]", "b.value=1"}));
}

TEST(Delivery, NestedChangesOfTheSameAttributeEachReachEveryNotifiee) {
  Ptr<Counter> c = Counter::counterNew("c");
  Log log;
  Recorder a("a", &log), b("b", &log);
  a.notifierIs(c);
  b.notifierIs(c);
  a.action = [&] {
    if (c->value() < 3) c->valueIs(c->value() + 1);
  };

  c->valueIs(1);
  // Each of the three visits reaches b, after the visits nested inside it are done.
  EXPECT_EQ(log,
            (Log{"a.value=1", "a.value=2", "a.value=3", "b.value=3", "b.value=3", "b.value=3"}));
}

TEST(Delivery, AHandlerMayNotifyThroughAnotherNotifier) {
  Ptr<Counter> first = Counter::counterNew("first");
  Ptr<Counter> second = Counter::counterNew("second");
  Log log;
  Recorder a("a", &log), b("b", &log), onSecond("s", &log);
  a.notifierIs(first);
  b.notifierIs(first);
  onSecond.notifierIs(second);
  a.action = [&] { second->valueIs(first->value() * 10); };

  first->valueIs(2);
  EXPECT_EQ(log, (Log{"a.value=2", "s.value=20", "b.value=2"}));
}

TEST(Delivery, ANotifieeRegisteredDuringAVisitIsCalledFromTheNextChangeOn) {
  Ptr<Counter> c = Counter::counterNew("c");
  Log log;
  Recorder a("a", &log), late("late", &log);
  a.notifierIs(c);
  a.action = [&] { late.notifierIs(c); };

  c->valueIs(1);
  EXPECT_EQ(log, (Log{"a.value=1"}));
  log.clear();
  c->valueIs(2);
  EXPECT_EQ(log, (Log{"a.value=2", "late.value=2"}));
}

// ---------------------------------------------------------------------------------------
// Registration and binding.

TEST(Registration, AnUnregisteredNotifieeIsNotCalledUntilItRegistersAgain) {
  Ptr<Counter> c = Counter::counterNew("c");
  Log log;
  Recorder r("r", &log);
  r.notifierIs(c);
  EXPECT_TRUE(r.isRegisteredNotifiee());

  r.isRegisteredNotifieeIs(false);
  c->valueIs(1);
  c->memberIs("k", 1);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(c->notifieeList().members(), 0u);
  // Still bound: it keeps its strong reference.
  EXPECT_EQ(r.notifierBase(), c.ptr());
  EXPECT_EQ(c->references(), 2u);

  r.isRegisteredNotifieeIs(true);
  c->valueIs(2);
  EXPECT_EQ(log, (Log{"r.value=2"}));
}

TEST(Registration, NothingIsDeliveredWhileTheNotifierHasNotificationSwitchedOff) {
  Ptr<Counter> c = Counter::counterNew("c");
  Log log;
  Recorder r("r", &log);
  r.notifierIs(c);
  c->hasNotificationActiveIs(false);
  c->valueIs(1);
  c->memberIs("k", 1);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(c->value(), 1);  // the change itself is made
  c->hasNotificationActiveIs(true);
  c->valueIs(2);
  EXPECT_EQ(log, (Log{"r.value=2"}));
}

TEST(Registration, BindingTheSameNotifierTwiceKeepsOneRegistrationAndOneReference) {
  Ptr<Counter> c = Counter::counterNew("c");
  Log log;
  Recorder r("r", &log);
  r.notifierIs(c);
  r.notifierIs(c);
  EXPECT_EQ(c->notifieeList().members(), 1u);
  EXPECT_EQ(c->references(), 2u);
  c->valueIs(1);
  EXPECT_EQ(log.size(), 1u);
}

TEST(Registration, RebindingMovesTheRegistrationAndTheReference) {
  Ptr<Counter> first = Counter::counterNew("first");
  Ptr<Counter> second = Counter::counterNew("second");
  Log log;
  Recorder r("r", &log);
  r.notifierIs(first);
  r.notifierIs(second);

  EXPECT_EQ(first->references(), 1u);
  EXPECT_EQ(second->references(), 2u);
  EXPECT_EQ(first->notifieeList().members(), 0u);
  first->valueIs(1);
  second->valueIs(2);
  EXPECT_EQ(log, (Log{"r.value=2"}));

  r.notifierIs(nullptr);
  EXPECT_EQ(second->references(), 1u);
  EXPECT_EQ(second->notifieeList().members(), 0u);
  EXPECT_FALSE(r.isRegisteredNotifiee());
}

TEST(Registration, RebindingAwayFromTheOnlyHolderDestroysTheOldNotifier) {
  long const before = liveObjects<Counter>();
  Ptr<Counter> second = Counter::counterNew("second");
  Log log;
  Recorder r("r", &log);
  r.notifierIs(Counter::counterNew("first"));
  EXPECT_EQ(liveObjects<Counter>(), before + 2);
  r.notifierIs(second);
  EXPECT_EQ(liveObjects<Counter>(), before + 1);
  second->valueIs(1);
  EXPECT_EQ(log, (Log{"r.value=1"}));
}

TEST(Registration, DestroyingANotifieeRemovesItAndDropsItsReference) {
  Ptr<Counter> c = Counter::counterNew("c");
  Log log;
  auto r = std::make_unique<Recorder>("r", &log);
  Recorder other("other", &log);
  r->notifierIs(c);
  other.notifierIs(c);
  EXPECT_EQ(c->references(), 3u);

  r.reset();
  EXPECT_EQ(c->references(), 2u);
  EXPECT_EQ(c->notifieeList().members(), 1u);
  c->valueIs(1);
  EXPECT_EQ(log, (Log{"other.value=1"}));
}

TEST(Registration, ANotifieeOfTheConstNotifierReachesItThroughAConstPointer) {
  Ptr<Counter> c = Counter::counterNew("c");
  Log log;
  Recorder r("r", &log);
  r.notifierIs(Ptr<Counter const>(c));
  Ptr<Counter const> n = r.notifier();
  EXPECT_EQ(n, c);
  EXPECT_EQ(c->references(), 3u);
}

// ---------------------------------------------------------------------------------------
// Weak references.

TEST(WeakReference, AWeakNotifieeDoesNotKeepItsNotifierAlive) {
  long const before = liveObjects<Counter>();
  Log log;
  {
    Recorder r("r", &log);
    {
      Ptr<Counter> c = Counter::counterNew("c");
      r.isWeakReferenceIs(true);
      r.notifierIs(c);
      EXPECT_EQ(c->references(), 1u);
      c->valueIs(1);
    }
    EXPECT_EQ(log, (Log{"r.value=1", "r.zero"}));
    EXPECT_EQ(liveObjects<Counter>(), before);
    // Unbound after the notifier went: nothing dangles.
    EXPECT_EQ(r.notifierBase(), nullptr);
    EXPECT_FALSE(r.isRegisteredNotifiee());
  }  // destroying it now touches nothing of the dead notifier
  EXPECT_EQ(log.size(), 2u);
}

TEST(WeakReference, AStrongNotifieeKeepsItsNotifierAliveUntilItGoes) {
  long const before = liveObjects<Counter>();
  Log log;
  auto r = std::make_unique<Recorder>("r", &log);
  {
    Ptr<Counter> c = Counter::counterNew("c");
    r->notifierIs(c);
    c->valueIs(7);
  }
  EXPECT_EQ(liveObjects<Counter>(), before + 1);
  EXPECT_EQ(r->notifier()->value(), 7);
  EXPECT_EQ(r->notifier()->references(), 2u);  // the notifiee's and the temporary's

  r.reset();
  EXPECT_EQ(liveObjects<Counter>(), before);
  EXPECT_EQ(log, (Log{"r.value=7"}));
}

TEST(WeakReference, SwitchingABoundNotifieeBetweenWeakAndStrongMovesOneReference) {
  Ptr<Counter> c = Counter::counterNew("c");
  Log log;
  Recorder r("r", &log);
  r.notifierIs(c);
  EXPECT_EQ(c->references(), 2u);
  r.isWeakReferenceIs(true);
  EXPECT_EQ(c->references(), 1u);
  r.isWeakReferenceIs(true);
  EXPECT_EQ(c->references(), 1u);
  r.isWeakReferenceIs(false);
  EXPECT_EQ(c->references(), 2u);
}

TEST(WeakReference, SwitchingTheOnlyHolderToWeakLetsTheNotifierGo) {
  long const before = liveObjects<Counter>();
  Log log;
  Recorder r("r", &log);
  r.notifierIs(Counter::counterNew("c"));
  r.isWeakReferenceIs(true);
  EXPECT_EQ(log, (Log{"r.zero"}));
  EXPECT_EQ(liveObjects<Counter>(), before);
  EXPECT_EQ(r.notifierBase(), nullptr);
}

TEST(WeakReference, OnZeroReferencesMayTakeAStrongReferenceAndKeepTheNotifier) {
  long const before = liveObjects<Counter>();
  Log log;
  auto r = std::make_unique<Recorder>("r", &log);
  r->isWeakReferenceIs(true);
  r->onZero = [&] { r->isWeakReferenceIs(false); };
  {
    Ptr<Counter> c = Counter::counterNew("c");
    r->notifierIs(c);
    c->valueIs(3);
  }
  EXPECT_EQ(liveObjects<Counter>(), before + 1);
  ASSERT_NE(r->notifierBase(), nullptr);
  EXPECT_EQ(r->notifierRaw()->value(), 3);
  EXPECT_EQ(r->notifierRaw()->references(), 1u);

  r.reset();
  EXPECT_EQ(liveObjects<Counter>(), before);
  EXPECT_EQ(log, (Log{"r.value=3", "r.zero"}));
}

TEST(WeakReference, EveryWeakNotifieeHearsZeroReferencesOnceAndIsUnbound) {
  long const before = liveObjects<Counter>();
  Log log;
  Recorder a("a", &log), b("b", &log);
  {
    Ptr<Counter> c = Counter::counterNew("c");
    for (Recorder* r : {&a, &b}) {
      r->isWeakReferenceIs(true);
      r->notifierIs(c);
    }
    // a unbinding b from inside its own zero-references handler must not disturb the visit.
    a.onZero = [&] { b.notifierIs(nullptr); };
  }
  EXPECT_EQ(log, (Log{"a.zero"}));
  EXPECT_EQ(liveObjects<Counter>(), before);
  EXPECT_EQ(a.notifierBase(), nullptr);
  EXPECT_EQ(b.notifierBase(), nullptr);
}

// Reading the dying notifier through notifier() makes a Ptr, taking the count from 0 to 1
// and back to 0 inside the zero-reference handling: that must neither recurse nor delete
// the notifier twice.
TEST(WeakReference, OnZeroReferencesMayReadTheNotifierThroughAPtr) {
  long const before = liveObjects<Counter>();
  Log log;
  Recorder r("r", &log);
  int seen = -1;
  r.onZero = [&] { seen = r.notifier()->value(); };
  {
    Ptr<Counter> c = Counter::counterNew("c");
    r.isWeakReferenceIs(true);
    r.notifierIs(c);
    c->valueIs(4);
  }
  EXPECT_EQ(seen, 4);
  EXPECT_EQ(log, (Log{"r.value=4", "r.zero"}));
  EXPECT_EQ(liveObjects<Counter>(), before);
}

// A weak notifiee that is bound but not registered still learns of the last reference and
// is unbound, so registering it again later touches no freed notifier.
TEST(WeakReference, AnUnregisteredWeakNotifieeIsUnboundWhenTheNotifierGoes) {
  Log log;
  Recorder r("r", &log);
  {
    Ptr<Counter> c = Counter::counterNew("c");
    r.isWeakReferenceIs(true);
    r.notifierIs(c);
    r.isRegisteredNotifieeIs(false);
  }
  EXPECT_EQ(log, (Log{"r.zero"}));
  EXPECT_EQ(r.notifierBase(), nullptr);
  r.isRegisteredNotifieeIs(true);
}

// ---------------------------------------------------------------------------------------
// Hostile notifiees. Three recorders a, b, c are registered in that order on one counter;
// each case gives one of them a hostile action and checks who is called. Every case runs
// for an attribute change and for a collection member change.

enum class Change { attribute, member };

class HostileNotifiee : public ::testing::TestWithParam<Change> {
 protected:
  void SetUp() override {
    before_ = liveObjects<Counter>();
    counter_ = Counter::counterNew("counter");
    for (Recorder* r : {&a_, &b_, &c_}) r->notifierIs(counter_);
  }

  // One change of the kind under test; a new one each call.
  void change() {
    ++step_;
    if (GetParam() == Change::attribute) {
      counter_->valueIs(step_);
    } else {
      counter_->memberIs("k", step_);
    }
  }
  std::string call(char const* tag) const {
    return GetParam() == Change::attribute ? std::string(tag) + ".value=" + std::to_string(step_)
                                           : std::string(tag) + ".member[k]";
  }

  long before_ = 0;
  int step_ = 0;
  Log log_;
  Ptr<Counter> counter_;
  Recorder a_{"a", &log_};
  Recorder b_{"b", &log_};
  Recorder c_{"c", &log_};
};

TEST_P(HostileNotifiee, OneThatRemovesItselfIsCalledOnceAndTheOthersStillRun) {
  a_.action = [&] { a_.notifierIs(nullptr); };
  change();
  EXPECT_EQ(log_, (Log{call("a"), call("b"), call("c")}));
  // The list is compacted when the visit ends.
  EXPECT_EQ(counter_->notifieeList().slots(), 2u);

  log_.clear();
  change();
  EXPECT_EQ(log_, (Log{call("b"), call("c")}));
}

TEST_P(HostileNotifiee, OneThatUnregistersTheNextMeansTheNextIsNotCalled) {
  a_.action = [&] { b_.isRegisteredNotifieeIs(false); };
  change();
  EXPECT_EQ(log_, (Log{call("a"), call("c")}));
  log_.clear();
  change();
  EXPECT_EQ(log_, (Log{call("a"), call("c")}));
}

TEST_P(HostileNotifiee, OneThatDestroysTheNextMeansTheNextIsNotCalled) {
  auto doomed = std::make_unique<Recorder>("doomed", &log_);
  c_.notifierIs(nullptr);
  doomed->notifierIs(counter_);
  c_.notifierIs(counter_);  // order: a, b, doomed, c
  b_.action = [&] { doomed.reset(); };
  change();
  EXPECT_EQ(log_, (Log{call("a"), call("b"), call("c")}));
  EXPECT_EQ(counter_->notifieeList().members(), 3u);
  EXPECT_EQ(counter_->references(), 4u);
}

TEST_P(HostileNotifiee, OneThatThrowsStopsTheVisitAndTheExceptionLeavesTheMutator) {
  a_.action = [&] { a_.notifierIs(nullptr); };
  b_.action = [] { throw std::runtime_error("handler failed"); };
  EXPECT_THROW(change(), std::runtime_error);
  EXPECT_EQ(log_, (Log{call("a"), call("b")}));
  EXPECT_EQ(b_.exceptions, 1);
  // The change itself was stored, and the unwound visit left the list compacted and usable.
  if (GetParam() == Change::attribute) {
    EXPECT_EQ(counter_->value(), step_);
  } else {
    EXPECT_EQ(*counter_->member("k"), step_);
  }
  EXPECT_EQ(counter_->notifieeList().slots(), 2u);

  log_.clear();
  b_.action = nullptr;
  change();
  EXPECT_EQ(log_, (Log{call("b"), call("c")}));
}

TEST_P(HostileNotifiee, OneThatThrowsAndSwallowsInItsOverrideLetsTheOthersRun) {
  b_.action = [] { throw std::runtime_error("handler failed"); };
  b_.swallowExceptions = true;
  EXPECT_NO_THROW(change());
  EXPECT_EQ(log_, (Log{call("a"), call("b"), call("c")}));
  EXPECT_EQ(b_.exceptions, 1);
}

// The notifier is kept alive for the visit: it goes when the visit ends, and the weak
// notifiees hear onZeroReferences then, not from inside the handler.
TEST_P(HostileNotifiee, OneThatDropsTheLastReferenceToTheNotifierKeepsItUntilTheVisitEnds) {
  for (Recorder* r : {&a_, &b_, &c_}) r->isWeakReferenceIs(true);
  ASSERT_EQ(counter_->references(), 1u);
  a_.action = [&] { counter_ = nullptr; };
  change();
  EXPECT_EQ(log_, (Log{call("a"), call("b"), call("c"), "a.zero", "b.zero", "c.zero"}));
  EXPECT_EQ(liveObjects<Counter>(), before_);
  for (Recorder* r : {&a_, &b_, &c_}) EXPECT_EQ(r->notifierBase(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(AttributeAndMember, HostileNotifiee,
                         ::testing::Values(Change::attribute, Change::member),
                         [](auto const& info) {
                           return info.param == Change::attribute ? "attribute" : "member";
                         });

}  // namespace
}  // namespace Vesk::test
