#include "framework/PtrInterface.h"

#include <cstdlib>
#include <new>

#include "framework/Notifiee.h"

namespace Vesk {

bool threadSafePointers_ = false;

namespace {
std::atomic<long> liveAllocations{0};
}

void* veskMemAlloc(unsigned size) {
  void* p = std::malloc(size ? size : 1);
  if (!p) throw std::bad_alloc();
  liveAllocations.fetch_add(1, std::memory_order_relaxed);
  return p;
}

void veskMemFree(void* p) noexcept {
  if (!p) return;
  liveAllocations.fetch_sub(1, std::memory_order_relaxed);
  std::free(p);
}

long veskLiveAllocations() { return liveAllocations.load(std::memory_order_relaxed); }

PtrInterface::~PtrInterface() {
  for (uint32_t i = 0; i < notifiees_.slots(); ++i) {
    if (NotifieeBase* n = notifiees_.member(i)) n->detachFromDyingNotifier();
  }
  notifiees_.deleteAll();
}

void PtrInterface::handleZeroRef() {
  zeroReferencesIs(true);
  // Weak holders learn that the notifier is going; a handler may take a new strong
  // reference, which keeps the object alive.
  notifiees_.doVisit<NotifieeBase>([](NotifieeBase* n) {
    if (n->isWeakReference()) n->onZeroReferences();
  });
  if (references() != 0) {
    zeroReferencesIs(false);
    return;
  }
  delete this;
}

}  // namespace Vesk
