#include "framework/core/SmallBlocks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "framework/core/ThreadSafePointers.h"

namespace Vesk::detail {
namespace {

struct Block {
  unsigned char* p;
  size_t size;
  unsigned char mark;
};

// Every size from 1 to past the largest class, each block filled with its own mark: a
// block that overlapped another, or was handed out twice, would show another's mark.
std::vector<Block> fillAssorted(unsigned char firstMark) {
  std::vector<Block> blocks;
  for (size_t size = 1; size <= 300; ++size) {
    auto* p = static_cast<unsigned char*>(smallBlockAlloc(size));
    unsigned char const mark = static_cast<unsigned char>(firstMark + size);
    std::memset(p, mark, size);
    blocks.push_back({p, size, mark});
  }
  return blocks;
}

void expectIntactAndRelease(std::vector<Block> const& blocks) {
  for (Block const& b : blocks) {
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b.p) % 16, 0u) << "size " << b.size;
    for (size_t i = 0; i < b.size; ++i) ASSERT_EQ(b.p[i], b.mark) << "size " << b.size;
    smallBlockFree(b.p, b.size);
  }
}

TEST(SmallBlocks, BlocksOfEverySizeAreAlignedAndDisjointAcrossReuse) {
  std::vector<Block> first = fillAssorted(0);
  std::vector<Block> second = fillAssorted(100);
  expectIntactAndRelease(first);
  // Released blocks are served again, beside blocks still held.
  std::vector<Block> third = fillAssorted(200);
  expectIntactAndRelease(second);
  expectIntactAndRelease(third);
}

TEST(SmallBlocks, TwoThreadsAllocateAndReleaseWithoutSharingABlock) {
  threadSafePointers_ = true;
  auto work = [](unsigned char mark) {
    for (int round = 0; round < 200; ++round) {
      std::vector<Block> blocks = fillAssorted(mark);
      expectIntactAndRelease(blocks);
    }
  };
  std::thread one(work, 1), two(work, 128);
  one.join();
  two.join();
  threadSafePointers_ = false;
}

// Blocks released into chunks other than the current one are served again once the
// current chunk is used up, before any new chunk is cut.
TEST(SmallBlocks, ReleasedBlocksInOlderChunksAreServedAgain) {
  if (!kSmallBlockStoreUsed) GTEST_SKIP() << "the sanitizer's heap serves every block";
  constexpr size_t kSize = 48;
  std::vector<void*> held;
  for (size_t made = 0; made < 2 * kSmallBlockChunkBytes; made += kSize) {
    held.push_back(smallBlockAlloc(kSize));
  }
  std::set<void*> released;
  for (size_t i = 0; i < held.size() / 2; i += 2) {
    smallBlockFree(held[i], kSize);
    released.insert(held[i]);
    held[i] = nullptr;
  }
  // Whatever room the current chunk has left, less than a chunk, comes first.
  size_t const requests = released.size() + kSmallBlockChunkBytes / kSize;
  for (size_t i = 0; i < requests; ++i) {
    void* p = smallBlockAlloc(kSize);
    released.erase(p);
    held.push_back(p);
  }
  EXPECT_TRUE(released.empty()) << released.size() << " released blocks were not served again";
  for (void* p : held) smallBlockFree(p, kSize);
}

// After a mass release, chunks are cut afresh from their start: new blocks lie side by side
// in request order, whatever order the old ones were released in.
TEST(SmallBlocks, ChunksEmptiedByAMassReleaseAreCutInOrderAgain) {
  if (!kSmallBlockStoreUsed) GTEST_SKIP() << "the sanitizer's heap serves every block";
  constexpr size_t kSize = 64;
  size_t const count = 3 * kSmallBlockChunkBytes / kSize;
  std::vector<char*> blocks;
  for (size_t i = 0; i < count; ++i) blocks.push_back(static_cast<char*>(smallBlockAlloc(kSize)));
  uint64_t rng = 7;
  for (size_t i = count - 1; i > 0; --i) {  // released in a shuffled order
    rng = rng * 6364136223846793005ull + 1442695040888963407ull;
    std::swap(blocks[i], blocks[size_t(rng >> 33) % (i + 1)]);
  }
  for (char* p : blocks) smallBlockFree(p, kSize);
  blocks.clear();
  for (size_t i = 0; i < count; ++i) blocks.push_back(static_cast<char*>(smallBlockAlloc(kSize)));
  size_t adjacent = 0;
  for (size_t i = 1; i < count; ++i) adjacent += blocks[i] == blocks[i - 1] + kSize;
  EXPECT_GT(adjacent, count * 9 / 10);
  for (char* p : blocks) smallBlockFree(p, kSize);
}

// Once a request is served from another chunk's released blocks, the requests after it take
// that chunk's released blocks of their own sizes, whatever order each size was released
// in: objects made together stay together when they take the places of released ones.
TEST(SmallBlocks, RequestsMadeTogetherReuseOneChunksReleasedBlocks) {
  if (!kSmallBlockStoreUsed) GTEST_SKIP() << "the sanitizer's heap serves every block";
  constexpr size_t kSmall = 48, kLarge = 192;
  auto chunkOf = [](char* p) { return reinterpret_cast<uintptr_t>(p) / kSmallBlockChunkBytes; };
  size_t const count = 3 * kSmallBlockChunkBytes / (kSmall + kLarge);
  std::vector<std::pair<char*, char*>> pairs;
  for (size_t i = 0; i < count; ++i) {
    pairs.emplace_back(static_cast<char*>(smallBlockAlloc(kSmall)),
                       static_cast<char*>(smallBlockAlloc(kLarge)));
  }
  // One pair per chunk stays, so that no chunk empties; the small blocks go in the order
  // they were made, the large ones in the reverse order.
  std::vector<std::pair<char*, char*>> kept, released;
  std::set<uintptr_t> anchored;
  for (auto const& pair : pairs) {
    (anchored.insert(chunkOf(pair.first)).second ? kept : released).push_back(pair);
  }
  for (auto const& pair : released) smallBlockFree(pair.first, kSmall);
  for (auto it = released.rbegin(); it != released.rend(); ++it) smallBlockFree(it->second, kLarge);

  size_t together = 0;
  for (auto& pair : released) {
    pair = {static_cast<char*>(smallBlockAlloc(kSmall)),
            static_cast<char*>(smallBlockAlloc(kLarge))};
    together += chunkOf(pair.first) == chunkOf(pair.second);
  }
  EXPECT_GT(together, released.size() * 9 / 10);
  for (auto const* group : {&kept, &released}) {
    for (auto const& [small, large] : *group) {
      smallBlockFree(small, kSmall);
      smallBlockFree(large, kLarge);
    }
  }
}

// A hosting process's chunk source serves the blocks cut after it is set; a source that has
// nothing leaves the store on the general allocator.
std::vector<char*> suppliedChunks;
void* countedChunk(size_t bytes) {
  void* chunk = std::aligned_alloc(bytes, bytes);
  suppliedChunks.push_back(static_cast<char*>(chunk));
  return chunk;
}
void* noChunk(size_t) { return nullptr; }

TEST(SmallBlocks, ChunksComeFromTheHostsSourceOnceItIsSet) {
  if (!kSmallBlockStoreUsed) GTEST_SKIP() << "the sanitizer's heap serves every block";
  smallBlockChunkSourceIs(countedChunk);
  // Until the store has used up its current chunk and released blocks and needs a new one.
  std::vector<void*> held;
  for (size_t made = 0; suppliedChunks.empty() && made < 8 * kSmallBlockChunkBytes; made += 256) {
    held.push_back(smallBlockAlloc(256));
  }
  ASSERT_FALSE(suppliedChunks.empty());
  held.push_back(smallBlockAlloc(256));
  auto* const last = static_cast<char*>(held.back());
  EXPECT_TRUE(std::any_of(suppliedChunks.begin(), suppliedChunks.end(), [last](char* chunk) {
    return last >= chunk && last < chunk + kSmallBlockChunkBytes;
  }));

  smallBlockChunkSourceIs(noChunk);
  for (size_t made = 0; made <= kSmallBlockChunkBytes; made += 256) {
    held.push_back(smallBlockAlloc(256));
  }
  smallBlockChunkSourceIs(nullptr);
  for (void* p : held) std::memset(p, 0x5a, 256);  // all usable memory
  for (void* p : held) smallBlockFree(p, 256);
}

}  // namespace
}  // namespace Vesk::detail
