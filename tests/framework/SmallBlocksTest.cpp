#include "framework/SmallBlocks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "framework/ThreadSafePointers.h"

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

// A hosting process's chunk source serves the blocks cut after it is set; a source that has
// nothing leaves the store on the general allocator.
std::vector<char*> suppliedChunks;
void* countedChunk(size_t bytes) {
  void* chunk = std::aligned_alloc(16, bytes);
  suppliedChunks.push_back(static_cast<char*>(chunk));
  return chunk;
}
void* noChunk(size_t) { return nullptr; }

TEST(SmallBlocks, ChunksComeFromTheHostsSourceOnceItIsSet) {
  if (!kSmallBlockStoreUsed) GTEST_SKIP() << "the sanitizer's heap serves every block";
  smallBlockChunkSourceIs(countedChunk);
  // More than a chunk's worth of the largest class, so that the store must cut a new one.
  std::vector<void*> held;
  for (size_t made = 0; made <= kSmallBlockChunkBytes; made += 256) {
    held.push_back(smallBlockAlloc(256));
  }
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
