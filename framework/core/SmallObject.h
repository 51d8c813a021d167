// SmallObject: a base that places a class's objects in the framework's small-block store
// (SmallBlocks.h), beside the framework objects made just before them, instead of in the
// general heap.
//
// TYPICAL USAGE:
//   struct Record : Vesk::SmallObject { ... };
//   auto* r = new Record;  // from the store
#pragma once

#include <cstddef>

#include "framework/core/SmallBlocks.h"

namespace Vesk {

struct SmallObject {
  static void* operator new(std::size_t size) { return detail::smallBlockAlloc(size); }
  static void operator delete(void* p, std::size_t size) noexcept {
    detail::smallBlockFree(p, size);
  }
};

}  // namespace Vesk
