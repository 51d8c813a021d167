#include "framework/core/SmallBlocks.h"

#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>

#include "framework/core/Assert.h"
#include "framework/core/ThreadSafePointers.h"

namespace Vesk::detail {
namespace {

constexpr size_t kStep = 16;
constexpr size_t kLargestBlock = 256;
constexpr size_t kClasses = kLargestBlock / kStep;
constexpr size_t kChunkBytes = kSmallBlockChunkBytes;
SmallBlockChunkSource chunkSource = nullptr;

void* generalAlloc(size_t size) {
  void* p = std::malloc(size ? size : 1);
  if (!p) throw std::bad_alloc();
  return p;
}

size_t classOf(size_t size) { return size ? (size - 1) / kStep : 0; }
uint32_t bitOf(size_t cls) { return uint32_t(1) << cls; }

struct FreeBlock {
  FreeBlock* next;
};

// The head of every chunk (chunks are aligned to their size, so a block finds its chunk
// by masking its address): the part not yet cut, the chunk's own released blocks per
// class, how many of its blocks are handed out, and its places in the store's lists.
struct Chunk {
  char* next;
  char* end;
  uint32_t live = 0;
  // Classes for which the chunk is on the store's list of chunks with released blocks.
  uint32_t partialMask = 0;
  bool onEmptyList = false;
  FreeBlock* free[kClasses] = {};
  Chunk* partialNext[kClasses] = {};
  Chunk* emptyNext = nullptr;

  char* firstBlock() { return reinterpret_cast<char*>(this) + kHeaderBytes; }
  static constexpr size_t kHeaderBytes = 512;
};
static_assert(sizeof(Chunk) <= Chunk::kHeaderBytes);

Chunk* chunkOf(void* block) {
  return reinterpret_cast<Chunk*>(reinterpret_cast<uintptr_t>(block) & ~(kChunkBytes - 1));
}

// Blocks are cut from one current chunk in the order of the requests, whatever their
// class, so that objects made together lie together. A released block goes back to its
// own chunk; a chunk whose blocks have all come back is cut afresh from its start, so that
// after a mass release new objects lie together again instead of filling scattered holes.
class Store {
 public:
  void* take(size_t cls) {
    if (Chunk* c = current_) {
      if (FreeBlock* b = c->free[cls]) {
        c->free[cls] = b->next;
        ++c->live;
        return b;
      }
      size_t const bytes = (cls + 1) * kStep;
      if (size_t(c->end - c->next) >= bytes) {
        void* p = c->next;
        c->next += bytes;
        ++c->live;
        return p;
      }
    }
    return takeElsewhere(cls);
  }

  void give(void* p, size_t cls) noexcept {
    Chunk* c = chunkOf(p);
    if (--c->live == 0) {
      reset(c);
      return;
    }
    auto* b = static_cast<FreeBlock*>(p);
    b->next = c->free[cls];
    c->free[cls] = b;
    if (c != current_) listPartial(c, cls);
  }

  std::mutex& mutex() { return mutex_; }

 private:
  [[gnu::noinline]] void* takeElsewhere(size_t cls) {
    // A released block of this class in another chunk; entries whose blocks are gone
    // (taken, or the chunk was emptied) are dropped on the way. That chunk becomes the
    // current one, so that the requests that follow (the other parts of the same object
    // group, as a rule) take its released blocks of their classes too: objects released
    // together were neighbours, and their successors become neighbours again.
    while (Chunk* c = partial_[cls]) {
      if (FreeBlock* b = c->free[cls]) {
        c->free[cls] = b->next;
        ++c->live;
        unlistPartial(cls);
        if (current_) retire(current_);
        current_ = c;
        return b;
      }
      unlistPartial(cls);
    }
    // Otherwise cut from an emptied chunk, or from a new one.
    if (current_) retire(current_);
    current_ = empty_ ? popEmpty() : newChunk();
    return take(cls);
  }

  // The current chunk's released blocks become visible to the other classes' searches
  // once it stops being current.
  void retire(Chunk* c) {
    for (size_t cls = 0; cls < kClasses; ++cls) {
      if (c->free[cls]) listPartial(c, cls);
    }
  }

  void listPartial(Chunk* c, size_t cls) {
    if (c->partialMask & bitOf(cls)) return;
    c->partialMask |= bitOf(cls);
    c->partialNext[cls] = partial_[cls];
    partial_[cls] = c;
  }
  void unlistPartial(size_t cls) {
    Chunk* c = partial_[cls];
    partial_[cls] = c->partialNext[cls];
    c->partialMask &= ~bitOf(cls);
  }

  // Every block of c is back: its released blocks are forgotten and it is cut afresh.
  // Its entries on the partial lists go stale and are dropped when next met.
  void reset(Chunk* c) {
    for (FreeBlock*& f : c->free) f = nullptr;
    c->next = c->firstBlock();
    if (c == current_ || c->onEmptyList) return;
    c->onEmptyList = true;
    c->emptyNext = empty_;
    empty_ = c;
  }

  Chunk* popEmpty() {
    Chunk* c = empty_;
    empty_ = c->emptyNext;
    c->onEmptyList = false;
    return c;
  }

  Chunk* newChunk() {
    void* memory = chunkSource ? chunkSource(kChunkBytes) : nullptr;
    if (!memory) memory = std::aligned_alloc(kChunkBytes, kChunkBytes);
    if (!memory) throw std::bad_alloc();
    VESK_ASSERT_MSG(chunkOf(memory) == memory, "a small-block chunk aligned to its size");
    auto* c = new (memory) Chunk;
    c->next = c->firstBlock();
    c->end = static_cast<char*>(memory) + kChunkBytes;
    return c;
  }

  Chunk* current_ = nullptr;
  Chunk* partial_[kClasses] = {};
  Chunk* empty_ = nullptr;
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
