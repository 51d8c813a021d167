// Counter: a small hand-written notifying entity for the framework's tests.
//
// It has what a generated type has, in miniature: a notifying scalar `value`, a keyed
// collection `member` that notifies per key, an owned entity collection `child` reachable
// by path ("child/<name>"), a reflection table, and a LiveCount so a test can prove that a
// scenario left no Counter behind. Its mutators store first and notify after, only on
// change, through PtrInterface::notify() exactly as a generated mutator does.
//
// TYPICAL USAGE:
//   Ptr<Counter> c = Counter::counterNew("c");
//   struct Reactor : Counter::NotifieeConst { void onValue() override { ... } } r;
//   r.notifierIs(c);
//   c->valueIs(3);  // r.onValue()
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "framework/core/Entity.h"
#include "framework/core/HashMap.h"
#include "framework/core/LiveCount.h"
#include "framework/core/Notifiee.h"
#include "framework/core/Ptr.h"
#include "framework/core/Reflection.h"
#include "framework/core/String.h"

namespace Vesk::test {

class Counter : public Entity {
 public:
  static constexpr uint32_t kValueAttr = firstOwnAttributeId;
  static constexpr uint32_t kMemberAttr = firstOwnAttributeId + 1;
  static constexpr uint32_t kChildAttr = firstOwnAttributeId + 2;

  static Ptr<Counter> counterNew(Name const& name) { return new Counter(name); }

  class NotifieeConst : public BaseNotifiee<Counter const> {
   public:
    virtual void onValue() {}
    virtual void onMember(Name const&) {}
  };

  int value() const { return value_; }
  void valueIs(int v) {
    if (v == value_) return;
    value_ = v;
    notify<NotifieeConst>([](NotifieeConst* n) { n->onValue(); });
  }

  int const* member(Name const& key) const { return member_.find(key); }
  size_t members() const { return member_.size(); }
  void memberIs(Name const& key, int v) {
    auto [slot, isNew] = member_.emplace(key, v);
    if (!isNew) {
      if (*slot == v) return;
      *slot = v;
    }
    notifyMember(key);
  }

  Ptr<Counter> child(Name const& name) const {
    Owned<Counter> const* c = child_.find(name);
    return c ? c->ptr() : nullptr;
  }
  size_t children() const { return child_.size(); }
  Ptr<Counter> childNew(Name const& name) {
    if (Ptr<Counter> existing = child(name)) return existing;
    return child_.emplace(name, counterNew(name), this, kChildAttr).first->ptr();
  }
  void childDel(Name const& name) { child_.erase(name); }

  TypeDescription const& veskTypeDescription() const override {
    static AttributeDescription const attributes[] = {
        {kValueAttr, "value", AttributeKind::scalar, "int", true, false,
         [](Entity const& e) { return String(std::to_string(self(e).value_)); }},
        {kMemberAttr, "member", AttributeKind::scalarCollection, "int", true, false},
        {kChildAttr, "child", AttributeKind::entityCollection, "Vesk::test::Counter", false, false,
         nullptr, nullptr, nullptr,
         [](Entity const& e, String const& key) -> Ptr<Entity> { return self(e).child(key); }},
    };
    static TypeDescription const type{"Vesk::test::Counter", attributes};
    return type;
  }

 protected:
  explicit Counter(Name const& name) : Entity(name) {}
  ~Counter() override = default;

 private:
  static Counter const& self(Entity const& e) { return static_cast<Counter const&>(e); }

  void notifyMember(Name const& key) {
    // A handler may erase the member whose key the caller passed by reference.
    Name const k = key;
    notify<NotifieeConst>([&k](NotifieeConst* n) { n->onMember(k); });
  }

  int value_ = 0;
  HashMap<Name, int> member_;
  HashMap<Name, Owned<Counter>> child_;
  [[no_unique_address]] LiveCount<Counter> liveCount_;
};

}  // namespace Vesk::test
