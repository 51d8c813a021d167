// The store of small blocks behind the framework allocator.
//
// Requests of up to 256 bytes are served in classes of 16-byte steps. A fresh block is cut
// from the current chunk in the order of the requests, so objects made together lie
// together, as they would from the general allocator, without its per-block header; a
// released block waits on its class's free list for the next request of that class.
// Chunks are never given back. Larger requests go to the general allocator, and so does
// every request in a build whose address sanitizer tracks the heap, so that its checks
// see each object.
//
// The caller gives the size back on release. The store takes a lock only while
// threadSafePointers_ is on.
#pragma once

#include <cstddef>

namespace Vesk::detail {

void* smallBlockAlloc(size_t size);
void smallBlockFree(void* p, size_t size) noexcept;

}  // namespace Vesk::detail
