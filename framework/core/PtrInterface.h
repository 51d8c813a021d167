// PtrInterface: the base of every reference-counted object.
//
// An object derived from PtrInterface carries its own reference count and the list of
// notifiees (reactors) registered on it. Ptr<T> (Ptr.h) increments and decrements the
// count; when it reaches zero, handleZeroRef() runs. The default handleZeroRef() tells
// every notifiee that still holds the object weakly (onZeroReferences) and then deletes
// the object.
//
// Reference counts are plain increments unless the process-wide switch
// threadSafePointers_ is on, in which case they are atomic read-modify-writes. The switch
// must be set before any second thread touches a pointer.
//
// WARNING: never delete a PtrInterface directly while a Ptr holds it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "framework/core/NotifieeList.h"
#include "framework/core/ThreadSafePointers.h"

namespace Vesk {

// Allocation through the framework allocator, which counts live allocations. A block is
// released with the size it was allocated with.
void* veskMemAlloc(unsigned size);
void veskMemFree(void* p, size_t size) noexcept;
long veskLiveAllocations();

class PtrInterface {
 public:
  PtrInterface() = default;
  PtrInterface(PtrInterface const&) = delete;
  PtrInterface& operator=(PtrInterface const&) = delete;

  void newRef() const {
    if (threadSafePointers_) {
      refs_.fetch_add(1, std::memory_order_relaxed);
    } else {
      refs_.store(refs_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }
  void deleteRef() const {
    uint32_t left;
    if (threadSafePointers_) {
      left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      left = refs_.load(std::memory_order_relaxed) - 1;
      refs_.store(left, std::memory_order_relaxed);
    }
    if (left == 0) const_cast<PtrInterface*>(this)->handleZeroRef();
  }
  uint32_t references() const { return refs_.load(std::memory_order_relaxed); }

  NotifieeList& notifieeList() const { return notifiees_; }

  // Calls f(N*) for every registered notifiee, unless notification is switched off. The
  // object is kept alive for the visit, so a handler may drop the last outside reference.
  template <class N, class F>
  void notify(F&& f) const {
    if (notifiees_.empty() || !(flags_ & kNotificationActive)) return;
    if (references() == 0) {  // under construction or destruction: nothing to keep alive
      notifiees_.doVisit<N>(f);
      return;
    }
    newRef();
    struct Release {
      PtrInterface const* self;
      ~Release() { self->deleteRef(); }
    } release{this};
    notifiees_.doVisit<N>(f);
  }

  bool hasNotificationActive() const { return flags_ & kNotificationActive; }
  virtual void hasNotificationActiveIs(bool b) { flagIs(kNotificationActive, b); }
  bool zeroReferences() const { return flags_ & kZeroReferences; }
  void zeroReferencesIs(bool b) { flagIs(kZeroReferences, b); }
  bool veskMarkedForDeletion() const { return flags_ & kMarkedForDeletion; }
  void veskMarkedForDeletionIs(bool b) { flagIs(kMarkedForDeletion, b); }

  static void* operator new(std::size_t size) { return veskMemAlloc(unsigned(size)); }
  static void operator delete(void* p, std::size_t size) noexcept { veskMemFree(p, size); }

 protected:
  virtual ~PtrInterface();
  // Runs when the last strong reference goes. Overriders that keep the object alive
  // must take a new reference.
  virtual void handleZeroRef();

 private:
  enum : uint8_t { kNotificationActive = 1, kZeroReferences = 2, kMarkedForDeletion = 4 };
  void flagIs(uint8_t f, bool b) { flags_ = b ? (flags_ | f) : (flags_ & ~f); }

  mutable std::atomic<uint32_t> refs_{0};
  uint8_t flags_ = kNotificationActive;
  mutable NotifieeList notifiees_;
};

}  // namespace Vesk
