// The shared parts of every state machine: its child collections and its reactors.
//
// A machine names its constructor inputs and exposes them as a tuple:
//   static constexpr std::array<char const*, 3> inputNames{"registryEntry", "oobStatus", ...};
//   auto inputs() const { return std::tie(registryEntry_, oobStatus_, ...); }
// A MachineCollection<K, T> then creates a child from the same inputs in the same order,
// returns the existing child when every input is equal, and otherwise fails with
//   "Reinstantiating the pointer interface where constructor parameter attribute _<input>
//    has a different value of"
// naming the first input that differs. A null first input is refused with the framework's
// null-parameter text for the collection.
//
// OwnedReactor<Base, Owner> is a notifiee (Base is some X::NotifieeConst) that belongs to a
// machine: veskReactor() reaches the owner, veskFwkActivity() the activity it runs in (the
// process's current one, whose thread calls its handlers). Reactor<Base, Owner> is the
// same, reference counted, so one that deletes itself from inside its own handler stays
// alive until the handler returns.
//
// TYPICAL USAGE:
//   MachineCollection<Vesk::Name, ChildSm> children_{"Controller::ParentSm", "childSm"};
//   children_.is(name, input1, input2, this);
//   children_.cleanupAndDel(name);   // child->doCleanup(), then erase
#pragma once

#include <array>
#include <tuple>
#include <utility>
#include <vector>

#include "framework/core/Exception.h"
#include "framework/core/HashMap.h"
#include "framework/core/LiveCount.h"
#include "framework/core/Ptr.h"
#include "framework/core/PtrInterface.h"
#include "framework/time/Activity.h"

namespace Vesk {

namespace detail {

template <class T>
bool inputIsNull(T const&) {
  return false;
}
template <class T>
bool inputIsNull(Ptr<T> const& p) {
  return !p;
}
template <class T>
bool inputIsNull(T* p) {
  return p == nullptr;
}

template <class Held, class Given, size_t... I>
void checkInputs(Held const& held, Given const& given,
                 std::array<char const*, sizeof...(I)> const& names, std::index_sequence<I...>) {
  (
      [&] {
        if (!(std::get<I>(held) == std::get<I>(given))) throwPtrInterfaceReinstantiation(names[I]);
      }(),
      ...);
}

}  // namespace detail

// Fails with the reinstantiation text unless every input of existing equals the given one.
template <class T, class... A>
void checkReinstantiation(T const& existing, A const&... inputs) {
  static_assert(sizeof...(A) == T::inputNames.size(), "a machine is created from all its inputs");
  detail::checkInputs(existing.inputs(), std::forward_as_tuple(inputs...), T::inputNames,
                      std::index_sequence_for<A...>{});
}

template <class K, class T>
class MachineCollection {
 public:
  MachineCollection(char const* ownerType, char const* attr) : ownerType_(ownerType), attr_(attr) {}

  Ptr<T> operator()(K const& k) const {
    Ptr<T> const* m = members_.find(k);
    return m ? *m : nullptr;
  }
  size_t size() const { return members_.size(); }
  bool empty() const { return members_.empty(); }
  HashMap<K, Ptr<T>> const& members() const { return members_; }

  // Creates the child under k from its inputs, or returns the existing one.
  template <class First, class... A>
  Ptr<T> is(K const& k, First const& first, A const&... inputs) {
    if (detail::inputIsNull(first)) throwNullParameter(attr_, ownerType_);
    if (Ptr<T> const* held = members_.find(k)) {
      checkReinstantiation(**held, first, inputs...);
      return *held;
    }
    Ptr<T> created(new T(first, inputs...));
    members_.emplace(k, created);
    return created;
  }

  // Tells the child to clean up, then drops it. A child whose cleanup leaves it reacting
  // (a group that withdraws on a stale generation and waits for a current one) has a
  // detach() that stops it, so that one held elsewhere reaches its parent no more.
  void cleanupAndDel(K const& k) {
    Ptr<T> child = (*this)(k);
    if (!child) return;
    child->doCleanup();
    if constexpr (requires { child->detach(); }) child->detach();
    members_.erase(k);
  }
  void cleanupAndDelAll() {
    for (K const& k : keys()) cleanupAndDel(k);
  }
  void del(K const& k) { members_.erase(k); }
  void delAll() { members_.clear(); }

  std::vector<K> keys() const {
    std::vector<K> out;
    out.reserve(members_.size());
    for (auto const& member : members_) out.push_back(member.first);
    return out;
  }

 private:
  char const* ownerType_;
  char const* attr_;
  HashMap<K, Ptr<T>> members_;
};

// A notifiee that belongs to a machine; veskReactor() reaches the owner.
template <class Base, class Owner>
class OwnedReactor : public Base {
 public:
  explicit OwnedReactor(Owner* owner) : owner_(owner) {}
  Owner* veskReactor() const { return owner_; }
  Ptr<Activity> veskFwkActivity() const { return currentActivity(); }

 protected:
  Owner* const owner_;
};

// The same, reference counted, for reactors that live in a machine's collections.
template <class Base, class Owner>
class Reactor : public OwnedReactor<Base, Owner>, public PtrInterface {
 public:
  using OwnedReactor<Base, Owner>::OwnedReactor;
};

}  // namespace Vesk
