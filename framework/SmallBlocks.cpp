#include "framework/SmallBlocks.h"

#include <cstdlib>
#include <mutex>
#include <new>

#include "framework/ThreadSafePointers.h"

namespace Vesk::detail {
namespace {

constexpr size_t kStep = 16;
constexpr size_t kLargestBlock = 256;
constexpr size_t kClasses = kLargestBlock / kStep;
SmallBlockChunkSource chunkSource = nullptr;

void* generalAlloc(size_t size) {
  void* p = std::malloc(size ? size : 1);
  if (!p) throw std::bad_alloc();
  return p;
}

size_t classOf(size_t size) { return size ? (size - 1) / kStep : 0; }

class Store {
 public:
  void* take(size_t cls) {
    if (FreeBlock* b = free_[cls]) {
      free_[cls] = b->next;
      return b;
    }
    size_t const bytes = (cls + 1) * kStep;
    if (size_t(end_ - next_) < bytes) [[unlikely]]
      newChunk();
    void* p = next_;
    next_ += bytes;
    return p;
  }
  void give(void* p, size_t cls) noexcept {
    auto* b = static_cast<FreeBlock*>(p);
    b->next = free_[cls];
    free_[cls] = b;
  }
  std::mutex& mutex() { return mutex_; }

 private:
  struct FreeBlock {
    FreeBlock* next;
  };
  // What is left of the current chunk is smaller than the block asked for; it stays unused.
  [[gnu::noinline]] void newChunk() {
    void* chunk = chunkSource ? chunkSource(kSmallBlockChunkBytes) : nullptr;
    next_ = static_cast<char*>(chunk ? chunk : generalAlloc(kSmallBlockChunkBytes));
    end_ = next_ + kSmallBlockChunkBytes;
  }

  FreeBlock* free_[kClasses] = {};
  char* next_ = nullptr;
  char* end_ = nullptr;
  std::mutex mutex_;
};

// Made before any dynamic initialization and never destroyed: blocks may be released by
// other static objects' destructors at exit.
union NeverDestroyed {
  constexpr NeverDestroyed() : store() {}
  ~NeverDestroyed() {}
  Store store;
};
constinit NeverDestroyed held;

[[gnu::noinline]] void* takeLocked(size_t cls) {
  std::lock_guard lock(held.store.mutex());
  return held.store.take(cls);
}

[[gnu::noinline]] void giveLocked(void* p, size_t cls) noexcept {
  std::lock_guard lock(held.store.mutex());
  held.store.give(p, cls);
}

}  // namespace

void* smallBlockAlloc(size_t size) {
  if (!kSmallBlockStoreUsed || size > kLargestBlock) return generalAlloc(size);
  if (threadSafePointers_) return takeLocked(classOf(size));
  return held.store.take(classOf(size));
}

void smallBlockFree(void* p, size_t size) noexcept {
  if (!p) return;
  if (!kSmallBlockStoreUsed || size > kLargestBlock) {
    std::free(p);
  } else if (threadSafePointers_) {
    giveLocked(p, classOf(size));
  } else {
    held.store.give(p, classOf(size));
  }
}

}  // namespace Vesk::detail

namespace Vesk {

void smallBlockChunkSourceIs(SmallBlockChunkSource source) { detail::chunkSource = source; }

}  // namespace Vesk
