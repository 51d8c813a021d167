#include "sim/HostChunks.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "framework/core/SmallBlocks.h"

namespace {

using Vesk::kSmallBlockChunkBytes;
using Vesk::detail::smallBlockAlloc;
using Vesk::detail::smallBlockFree;

constexpr size_t kBlock = 240;

char* chunkOf(void* block) {
  return reinterpret_cast<char*>(reinterpret_cast<uintptr_t>(block) &
                                 ~uintptr_t(kSmallBlockChunkBytes - 1));
}

size_t pageBytes() { return size_t(::sysconf(_SC_PAGESIZE)); }

// Whether every page of the chunk is resident, touched or not.
bool wholeChunkResident(char* chunk) {
  size_t const pages = kSmallBlockChunkBytes / pageBytes();
  std::vector<unsigned char> resident(pages);
  if (::mincore(chunk, kSmallBlockChunkBytes, resident.data()) != 0) return false;
  return std::ranges::all_of(resident, [](unsigned char page) { return page & 1; });
}

bool systemPopulatesOnRequest() {
#ifdef MADV_POPULATE_WRITE
  size_t const page = pageBytes();
  std::unique_ptr<void, decltype(&std::free)> probe(std::aligned_alloc(page, page), &std::free);
  return probe && ::madvise(probe.get(), page, MADV_POPULATE_WRITE) == 0;
#else
  return false;
#endif
}

// A chunk the store takes after the host asked for populated chunks is resident in full
// before its blocks are cut, with or without large pages.
TEST(HostChunks, PopulatedChunksAreResidentWhenTheStoreTakesThem) {
  if (!Vesk::detail::kSmallBlockStoreUsed)
    GTEST_SKIP() << "the sanitizer's heap serves every block";
  if (!systemPopulatesOnRequest()) GTEST_SKIP() << "the system does not populate on request";
  for (Sim::HostChunks const choice : {Sim::HostChunks{.largePages = false, .populated = true},
                                       Sim::HostChunks{.largePages = true, .populated = true}}) {
    Sim::useHostChunks(choice);
    // Three chunks' worth of one class: the last blocks lie in a chunk taken since.
    std::vector<void*> held;
    for (size_t made = 0; made < 3 * kSmallBlockChunkBytes; made += kBlock) {
      held.push_back(smallBlockAlloc(kBlock));
    }
    void* const probe = smallBlockAlloc(kBlock);
    EXPECT_TRUE(wholeChunkResident(chunkOf(probe))) << "large pages " << choice.largePages;
    smallBlockFree(probe, kBlock);
    for (void* p : held) smallBlockFree(p, kBlock);
  }
  Sim::useHostChunks({});
}

}  // namespace
