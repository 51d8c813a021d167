#include "sim/LargePageChunks.h"

#include <sys/mman.h>

#include <cstdlib>

#include "framework/SmallBlocks.h"

namespace Sim {
namespace {

// A chunk aligned to its own size, so that it can be mapped by whole large pages.
void* largePageChunk(size_t bytes) {
  void* chunk = std::aligned_alloc(bytes, bytes);
#ifdef MADV_HUGEPAGE
  // Only advice: refused, the chunk stays ordinary memory.
  if (chunk) ::madvise(chunk, bytes, MADV_HUGEPAGE);
#endif
  return chunk;
}

}  // namespace

void useLargePageChunks() { Vesk::smallBlockChunkSourceIs(largePageChunk); }

}  // namespace Sim
