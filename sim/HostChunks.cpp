#include "sim/HostChunks.h"

#include <sys/mman.h>

#include <cstdlib>

#include "framework/core/SmallBlocks.h"

namespace Sim {
namespace {

HostChunks chosen;

// A chunk aligned to its own size, so that it can be mapped by whole large pages.
void* hostChunk(size_t bytes) {
  void* chunk = std::aligned_alloc(bytes, bytes);
  if (!chunk) return nullptr;
#ifdef MADV_HUGEPAGE
  if (chosen.largePages) ::madvise(chunk, bytes, MADV_HUGEPAGE);
#endif
#ifdef MADV_POPULATE_WRITE
  // After the large-page advice, so that the pages provided are large ones where they can be.
  if (chosen.populated) ::madvise(chunk, bytes, MADV_POPULATE_WRITE);
#endif
  return chunk;
}

}  // namespace

void useHostChunks(HostChunks const& choice) {
  chosen = choice;
  bool const plain = !choice.largePages && !choice.populated;
  Vesk::smallBlockChunkSourceIs(plain ? nullptr : hostChunk);
}

}  // namespace Sim
