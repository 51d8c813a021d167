#include "framework/core/Notifiee.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "framework/core/LiveCount.h"
#include "tests/framework/core/TestNotifier.h"

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

// A counter n and three recorders a, b and c, not yet bound; `before` is the Counter census.
class NotifieeTest : public ::testing::Test {
 protected:
  long const before = liveObjects<Counter>();
  Ptr<Counter> n = Counter::counterNew("n");
  Log log;
  Recorder a{"a", &log};
  Recorder b{"b", &log};
  Recorder c{"c", &log};
};

// ---------------------------------------------------------------------------------------
// Synchronous, re-entrant, depth-first delivery in registration order.

TEST_F(NotifieeTest, AChangeMadeByAHandlerReachesEveryoneBeforeTheOuterVisitGoesOn) {
  a.notifierIs(n);
  b.notifierIs(n);
  Ptr<Counter> second = Counter::counterNew("second");
  Recorder s("s", &log), late("late", &log);
  s.notifierIs(second);
  a.action = [&] {
    if (n->value() == 1) n->memberIs("x", 1);                             // another attribute
    if (n->value() >= 10 && n->value() < 12) n->valueIs(n->value() + 1);  // the same one
    if (n->value() == 20) second->valueIs(200);                           // another notifier
    if (n->value() == 30) late.notifierIs(n);  // heard from the next change on
  };
  for (int v : {1, 10, 20, 30, 31}) n->valueIs(v);
  EXPECT_EQ(log, (Log{"a.value=1", "a.member[x]", "b.member[x]", "b.value=1",
                      // Each of the three visits reaches b after the visits nested inside it.
                      "a.value=10", "a.value=11", "a.value=12", "b.value=12", "b.value=12",
                      "b.value=12", "a.value=20", "s.value=200", "b.value=20", "a.value=30",
                      "b.value=30", "a.value=31", "b.value=31", "late.value=31"}));
}

// A list holds its first notifiee inline and moves to the heap for a second; a visit that
// starts inline must not reach members added by its handler, and order must survive moves.
TEST_F(NotifieeTest, ALoneNotifieeThatAddsOthersOrRejoinsKeepsTheOrderOfRegistration) {
  a.notifierIs(n);
  a.action = [&] {
    if (n->value() == 1) b.notifierIs(n);  // heard from the next change on
    if (n->value() == 3) {                 // leaves and rejoins behind b
      a.notifierIs(nullptr);
      a.notifierIs(n);
    }
  };
  for (int v : {1, 2, 3, 4}) n->valueIs(v);
  EXPECT_EQ(log, (Log{"a.value=1", "a.value=2", "b.value=2", "a.value=3", "b.value=3", "b.value=4",
                      "a.value=4"}));
  EXPECT_EQ(n->notifieeList().slots(), 2u);
  a.notifierIs(nullptr);
  b.notifierIs(nullptr);
  EXPECT_TRUE(n->notifieeList().empty());
  log.clear();
  b.notifierIs(n);
  n->valueIs(5);
  EXPECT_EQ(log, Log{"b.value=5"});
}

// ---------------------------------------------------------------------------------------
// Registration and binding.

TEST_F(NotifieeTest, NothingIsDeliveredToAnUnregisteredNotifieeOrWhileNotificationIsOff) {
  a.notifierIs(n);
  EXPECT_TRUE(a.isRegisteredNotifiee());
  a.isRegisteredNotifieeIs(false);
  n->valueIs(1);
  n->memberIs("k", 1);
  EXPECT_EQ(n->notifieeList().members(), 0u);
  // Still bound: it keeps its strong reference.
  EXPECT_EQ(a.notifierBase(), n.ptr());
  EXPECT_EQ(n->references(), 2u);
  a.isRegisteredNotifieeIs(true);

  n->hasNotificationActiveIs(false);
  n->valueIs(2);
  n->memberIs("k", 2);
  EXPECT_EQ(n->value(), 2);  // the change itself is made
  n->hasNotificationActiveIs(true);
  n->valueIs(3);
  EXPECT_EQ(log, (Log{"a.value=3"}));
}

TEST_F(NotifieeTest, BindingTwiceKeepsOneRegistrationRebindingMovesItAndDestroyingDropsIt) {
  a.notifierIs(Ptr<Counter const>(n));
  a.notifierIs(n);
  EXPECT_EQ(n->notifieeList().members(), 1u);
  EXPECT_EQ(a.notifier(), n);
  EXPECT_EQ(n->references(), 2u);

  Ptr<Counter> second = Counter::counterNew("second");
  a.notifierIs(second);
  EXPECT_EQ(n->references(), 1u);
  EXPECT_EQ(second->references(), 2u);
  EXPECT_EQ(n->notifieeList().members(), 0u);
  n->valueIs(1);
  second->valueIs(2);
  EXPECT_EQ(log, (Log{"a.value=2"}));

  // Rebinding away from the only holder destroys the old notifier.
  b.notifierIs(Counter::counterNew("only"));
  EXPECT_EQ(liveObjects<Counter>(), before + 3);
  b.notifierIs(second);
  EXPECT_EQ(liveObjects<Counter>(), before + 2);

  a.notifierIs(nullptr);
  EXPECT_EQ(second->references(), 2u);
  EXPECT_EQ(second->notifieeList().members(), 1u);
  EXPECT_FALSE(a.isRegisteredNotifiee());
  // Binding an unregistered notifiee to its own notifier registers it again.
  b.isRegisteredNotifieeIs(false);
  b.notifierIs(second);
  EXPECT_TRUE(b.isRegisteredNotifiee());

  auto doomed = std::make_unique<Recorder>("doomed", &log);
  doomed->notifierIs(second);
  doomed.reset();
  EXPECT_EQ(second->references(), 2u);
  EXPECT_EQ(second->notifieeList().members(), 1u);
  log.clear();
  second->valueIs(3);
  EXPECT_EQ(log, (Log{"b.value=3"}));
}

// ---------------------------------------------------------------------------------------
// Weak references.

// Every weak notifiee, registered or not, hears of the last reference once and is unbound, so
// registering it again later touches no freed notifier; one unbound from inside another's
// handler hears nothing.
TEST_F(NotifieeTest, AWeakNotifieeDoesNotKeepItsNotifierAliveAndIsUnboundWhenItGoes) {
  for (Recorder* r : {&a, &c, &b}) {
    r->isWeakReferenceIs(true);
    r->notifierIs(n);
  }
  b.isRegisteredNotifieeIs(false);
  a.onZero = [&] { c.notifierIs(nullptr); };
  EXPECT_EQ(n->references(), 1u);
  n->valueIs(1);
  n = nullptr;
  EXPECT_EQ(log, (Log{"a.value=1", "c.value=1", "a.zero", "b.zero"}));
  EXPECT_EQ(liveObjects<Counter>(), before);
  for (Recorder* r : {&a, &c, &b}) {
    EXPECT_EQ(r->notifierBase(), nullptr);
    EXPECT_FALSE(r->isRegisteredNotifiee());
  }
  b.isRegisteredNotifieeIs(true);
}

TEST_F(NotifieeTest, SwitchingBetweenWeakAndStrongMovesOneReference) {
  a.notifierIs(n);
  EXPECT_EQ(n->references(), 2u);
  a.isWeakReferenceIs(true);
  EXPECT_EQ(n->references(), 1u);
  a.isWeakReferenceIs(true);
  EXPECT_EQ(n->references(), 1u);
  a.isWeakReferenceIs(false);
  EXPECT_EQ(n->references(), 2u);

  // A strong notifiee keeps its notifier alive; switched to weak, it lets it go.
  n->valueIs(7);
  n = nullptr;
  EXPECT_EQ(liveObjects<Counter>(), before + 1);
  EXPECT_EQ(a.notifier()->value(), 7);
  EXPECT_EQ(a.notifier()->references(), 2u);  // the notifiee's and the temporary's
  a.isWeakReferenceIs(true);
  EXPECT_EQ(log, (Log{"a.value=7", "a.zero"}));
  EXPECT_EQ(liveObjects<Counter>(), before);
  EXPECT_EQ(a.notifierBase(), nullptr);
}

TEST_F(NotifieeTest, OnZeroReferencesMayTakeAStrongReferenceOrReadTheNotifier) {
  Ptr<Counter> other = Counter::counterNew("other");
  for (Recorder* r : {&a, &b}) r->isWeakReferenceIs(true);
  a.notifierIs(n);
  b.notifierIs(other);
  a.onZero = [&] { a.isWeakReferenceIs(false); };  // keeps n
  // Reading the dying notifier through notifier() makes a Ptr, taking the count from 0 to 1
  // and back to 0 inside the zero-reference handling: that must neither recurse nor delete
  // the notifier twice.
  int seen = -1;
  b.onZero = [&] { seen = b.notifier()->value(); };
  n->valueIs(3);
  other->valueIs(4);
  n = nullptr;
  other = nullptr;
  EXPECT_EQ(log, (Log{"a.value=3", "b.value=4", "a.zero", "b.zero"}));
  EXPECT_EQ(seen, 4);
  EXPECT_EQ(liveObjects<Counter>(), before + 1);
  ASSERT_NE(a.notifierBase(), nullptr);
  EXPECT_EQ(a.notifierRaw()->value(), 3);
  EXPECT_EQ(a.notifierRaw()->references(), 1u);
  a.notifierIs(nullptr);
  EXPECT_EQ(liveObjects<Counter>(), before);
}

// ---------------------------------------------------------------------------------------
// Hostile notifiees. Three recorders a, b, c are registered in that order on one counter;
// each case gives one of them a hostile action and checks who is called. Every case runs
// for an attribute change and for a collection member change.

enum class Change { attribute, member };

class HostileNotifiee : public NotifieeTest, public ::testing::WithParamInterface<Change> {
 protected:
  void SetUp() override {
    for (Recorder* r : {&a, &b, &c}) r->notifierIs(n);
  }

  // One change of the kind under test; a new one each call.
  void change() {
    ++step_;
    if (GetParam() == Change::attribute) {
      n->valueIs(step_);
    } else {
      n->memberIs("k", step_);
    }
  }
  std::string call(char const* tag) const {
    return GetParam() == Change::attribute ? std::string(tag) + ".value=" + std::to_string(step_)
                                           : std::string(tag) + ".member[k]";
  }

  int step_ = 0;
};

TEST_P(HostileNotifiee, OneThatUnregistersOrDestroysOthersMeansTheyAreNotCalled) {
  auto doomed = std::make_unique<Recorder>("doomed", &log);
  c.notifierIs(nullptr);
  doomed->notifierIs(n);
  c.notifierIs(n);  // order: a, b, doomed, c
  a.action = [&] {
    b.isRegisteredNotifieeIs(false);
    doomed.reset();
  };
  change();
  EXPECT_EQ(log, (Log{call("a"), call("c")}));
  EXPECT_EQ(n->notifieeList().members(), 2u);
  EXPECT_EQ(n->references(), 4u);  // b is still bound
  log.clear();
  change();
  EXPECT_EQ(log, (Log{call("a"), call("c")}));
}

// One that removes itself is called once and the others still run. An exception that a
// handler's override swallows lets the others run too; one it lets through stops the visit
// and leaves the mutator. Either way the list is compacted when the visit ends.
TEST_P(HostileNotifiee, OneThatRemovesItselfOrThrows) {
  a.action = [&] { a.notifierIs(nullptr); };
  b.action = [] { throw std::runtime_error("handler failed"); };
  b.swallowExceptions = true;
  EXPECT_NO_THROW(change());
  EXPECT_EQ(log, (Log{call("a"), call("b"), call("c")}));
  EXPECT_EQ(n->notifieeList().slots(), 2u);

  log.clear();
  b.swallowExceptions = false;
  b.action = [&] {
    c.notifierIs(nullptr);
    throw std::runtime_error("handler failed");
  };
  EXPECT_THROW(change(), std::runtime_error);
  EXPECT_EQ(log, (Log{call("b")}));
  EXPECT_EQ(b.exceptions, 2);
  // The change itself was stored.
  if (GetParam() == Change::attribute) {
    EXPECT_EQ(n->value(), step_);
  } else {
    EXPECT_EQ(*n->member("k"), step_);
  }
  EXPECT_EQ(n->notifieeList().slots(), 1u);
  log.clear();
  b.action = nullptr;
  change();
  EXPECT_EQ(log, (Log{call("b")}));
}

// The notifier is kept alive for the visit: it goes when the visit ends, and the weak
// notifiees hear onZeroReferences then, not from inside the handler.
TEST_P(HostileNotifiee, OneThatDropsTheLastReferenceToTheNotifierKeepsItUntilTheVisitEnds) {
  for (Recorder* r : {&a, &b, &c}) r->isWeakReferenceIs(true);
  ASSERT_EQ(n->references(), 1u);
  a.action = [&] { n = nullptr; };
  change();
  EXPECT_EQ(log, (Log{call("a"), call("b"), call("c"), "a.zero", "b.zero", "c.zero"}));
  EXPECT_EQ(liveObjects<Counter>(), before);
  for (Recorder* r : {&a, &b, &c}) EXPECT_EQ(r->notifierBase(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(AttributeAndMember, HostileNotifiee,
                         ::testing::Values(Change::attribute, Change::member),
                         [](auto const& info) {
                           return info.param == Change::attribute ? "attribute" : "member";
                         });

}  // namespace
}  // namespace Vesk::test
