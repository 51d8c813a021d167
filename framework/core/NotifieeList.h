// NotifieeList: the registered notifiees (reactors) of one notifier.
//
// TYPICAL USAGE (inside a generated mutator, after the new value is stored), through the
// notifier's notify(), which keeps the notifier alive for the visit:
//   notify<Foo::NotifieeConst>([&](auto* n) { n->onBar(); });
// Calling doVisit directly is only safe where no handler can drop the last reference.
//
// A visit calls every member present when it starts, in list order. A handler may add or
// remove members, and may start further visits on this or other notifiers (re-entrant,
// depth-first). A member removed during a visit is only nulled out, and is not called
// afterwards; the list is compacted when the outermost visit ends. Members added during a
// visit are called from the next visit on.
//
// A handler that throws hands the exception to its notifiee's onNotificationException(),
// which is called inside the catch block and may rethrow it.
//
// Every reference-counted object carries a list, and most have no member or one, so the
// list is small: one member is held inline, and notifiees bound without registering (rare)
// live on the heap.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

namespace Vesk {

class NotifieeBase;

class NotifieeList {
 public:
  NotifieeList() = default;
  NotifieeList(NotifieeList const&) = delete;
  NotifieeList& operator=(NotifieeList const&) = delete;

  bool empty() const { return live_ == 0; }
  uint32_t members() const { return live_; }
  NotifieeBase* member(uint32_t i) const { return members_[i]; }
  uint32_t slots() const { return members_.size(); }

  void newMember(NotifieeBase* n);
  void deleteMember(NotifieeBase* n);
  void deleteAll();

  // Notifiees bound to the notifier but not registered for notifications. They are not
  // called by visits, but they too must learn of the notifier's last reference and death.
  void dormantMemberIs(NotifieeBase* n, bool bound);

  // Calls f for every bound notifiee, registered or not; f may unbind any of them.
  template <class F>
  void forEachBound(F&& f) {
    VisitGuard guard(*this);
    uint32_t const end = uint32_t(members_.size());
    for (uint32_t i = 0; i < end; ++i) {
      if (members_[i]) f(members_[i]);
    }
    if (!dormant_) return;
    std::vector<NotifieeBase*> dormant = *dormant_;
    for (NotifieeBase* n : dormant) {
      if (dormant_ && std::find(dormant_->begin(), dormant_->end(), n) != dormant_->end()) f(n);
    }
  }
  // Calls f for every bound notifiee and forgets them all (the notifier is dying).
  template <class F>
  void detachAll(F&& f) {
    for (NotifieeBase* n : members_) {
      if (n) f(n);
    }
    if (dormant_) {
      for (NotifieeBase* n : *dormant_) f(n);
      dormant_.reset();
    }
    deleteAll();
  }

  template <class N, class F>
  void doVisit(F&& f) {
    if (live_ == 0) return;
    VisitGuard guard(*this);
    uint32_t const end = members_.size();
    if (!members_.onHeap()) {
      if (end == 1 && members_[0]) call<N>(members_[0], f);
      return;
    }
    // Members added by a handler may move the heap array, but never back inline.
    for (uint32_t i = 0; i < end; ++i) {
      if (NotifieeBase* raw = members_.heapSlot(i)) call<N>(raw, f);
    }
  }

 private:
  struct VisitGuard {
    explicit VisitGuard(NotifieeList& l) : list(l) { ++list.depth_; }
    ~VisitGuard() {
      if (--list.depth_ == 0 && list.needsCompact_) list.compact();
    }
    NotifieeList& list;
  };
  void compact();
  template <class N, class F>
  static void call(NotifieeBase* raw, F& f) {
    N* n = static_cast<N*>(raw);
    try {
      f(n);
    } catch (...) {
      n->onNotificationException();
    }
  }

  // Pointers in order, the first held inline; a second moves them all to the heap, for
  // good.
  class Slots {
   public:
    Slots() = default;
    Slots(Slots const&) = delete;
    Slots& operator=(Slots const&) = delete;
    ~Slots() {
      if (onHeap()) delete[] many_;
    }
    uint32_t size() const { return size_; }
    bool onHeap() const { return capacity_ > 1; }
    NotifieeBase** begin() { return onHeap() ? many_ : &one_; }
    NotifieeBase** end() { return begin() + size_; }
    NotifieeBase* const* begin() const { return onHeap() ? many_ : &one_; }
    NotifieeBase* const* end() const { return begin() + size_; }
    NotifieeBase*& operator[](uint32_t i) { return begin()[i]; }
    NotifieeBase* operator[](uint32_t i) const { return begin()[i]; }
    NotifieeBase* heapSlot(uint32_t i) const { return many_[i]; }
    void push_back(NotifieeBase* n);
    // Removes the slots from `from` to the end.
    void erase(NotifieeBase** from) { size_ = uint32_t(from - begin()); }
    void erase(NotifieeBase** at, NotifieeBase** next) { erase(std::move(next, end(), at)); }
    void clear() { size_ = 0; }

   private:
    union {
      NotifieeBase* one_ = nullptr;
      NotifieeBase** many_;
    };
    uint32_t size_ = 0;
    uint32_t capacity_ = 1;
  };

  Slots members_;
  std::unique_ptr<std::vector<NotifieeBase*>> dormant_;
  uint32_t live_ = 0;
  uint16_t depth_ = 0;
  bool needsCompact_ = false;
};

}  // namespace Vesk
