#include "framework/core/PtrInterface.h"

#include "framework/core/Notifiee.h"
#include "framework/core/SmallBlocks.h"

namespace Vesk {

bool threadSafePointers_ = false;

namespace {
std::atomic<long> liveAllocations{0};
}

void* veskMemAlloc(unsigned size) {
  void* p = detail::smallBlockAlloc(size);
  liveAllocations.fetch_add(1, std::memory_order_relaxed);
  return p;
}

void veskMemFree(void* p, size_t size) noexcept {
  if (!p) return;
  liveAllocations.fetch_sub(1, std::memory_order_relaxed);
  detail::smallBlockFree(p, size);
}

long veskLiveAllocations() { return liveAllocations.load(std::memory_order_relaxed); }

PtrInterface::~PtrInterface() {
  notifiees_.detachAll([](NotifieeBase* n) { n->detachFromDyingNotifier(); });
}

void PtrInterface::handleZeroRef() {
  // A weak holder's handler may take and drop a reference of its own; that drop lands here
  // again while the first run is telling the holders, and must neither recurse nor delete.
  if (zeroReferences()) return;
  zeroReferencesIs(true);
  // Weak holders learn that the notifier is going, registered for notifications or not; a
  // handler may take a new strong reference, which keeps the object alive.
  notifiees_.forEachBound([](NotifieeBase* n) {
    if (n->isWeakReference()) n->onZeroReferences();
  });
  zeroReferencesIs(false);
  if (references() != 0) return;
  delete this;
}

}  // namespace Vesk
