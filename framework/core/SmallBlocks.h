// The store of small blocks behind the framework allocator, the keyed collections and the
// strings.
//
// Requests of up to 256 bytes are served in classes of 16-byte steps, cut from 2 MB chunks.
// Blocks are cut from one current chunk in the order of the requests, whatever their
// class, so objects made together lie together, as they would from the general allocator,
// without its per-block header. A released block goes back to its own chunk's list for its
// class and serves a later request of that class; a chunk whose blocks have all come back
// is cut afresh from its start, so that after a mass release (a fleet of switches gone)
// new objects lie together again instead of filling scattered holes. A chunk that still
// holds some blocks serves its released ones chunk by chunk: the request that turns to it
// makes it current, so the requests after it fill that chunk's holes of their own sizes
// and objects made together stay in one chunk. Chunks are never
// given back. Larger requests go to the general allocator, and so does every request in a
// build whose address sanitizer tracks the heap, so that its checks see each object.
//
// The caller gives the size back on release. The store takes a lock only while
// threadSafePointers_ is on.
//
// Chunks come from the general allocator unless the hosting process supplies a source of
// its own, for example memory that it has asked the system to back with large pages or to
// provide whole when it is taken: at scale that spares most of the page faults and
// address-translation misses of the framework's objects.
#pragma once

#include <cstddef>

namespace Vesk {

// The store cuts its blocks from chunks of this size.
inline constexpr size_t kSmallBlockChunkBytes = size_t(2) << 20;

// Returns kSmallBlockChunkBytes bytes aligned to kSmallBlockChunkBytes (anything else stops
// the process), or null when it has none: the store then falls back to the general
// allocator. Chunks are never given back.
using SmallBlockChunkSource = void* (*)(size_t bytes);
// Where later chunks come from; null restores the general allocator. Set it before a
// second thread allocates.
void smallBlockChunkSourceIs(SmallBlockChunkSource source);

}  // namespace Vesk

#if defined(__SANITIZE_ADDRESS__)
#define VESK_HEAP_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VESK_HEAP_SANITIZED 1
#endif
#endif

namespace Vesk::detail {

#ifdef VESK_HEAP_SANITIZED
inline constexpr bool kSmallBlockStoreUsed = false;
#else
inline constexpr bool kSmallBlockStoreUsed = true;
#endif

void* smallBlockAlloc(size_t size);
void smallBlockFree(void* p, size_t size) noexcept;

}  // namespace Vesk::detail
