#include "framework/SmallBlocks.h"

#include <gtest/gtest.h>

#include <cstdint>
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

}  // namespace
}  // namespace Vesk::detail
