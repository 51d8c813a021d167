// useHostChunks: the hosting process's choice of memory for the framework's small-block
// store's chunks.
//
// A controller that holds hundreds of thousands of mounts touches a few hundred megabytes
// of small objects in no particular order. Left to itself, the system provides that memory
// one 4 KB page at a time, with a page fault at each page's first touch, and most accesses
// miss the address-translation cache. Two requests make it cheaper:
// - largePages: back each chunk with large pages where the system honours the request
//   (transparent large pages enabled for advised memory), so that one fault maps two
//   megabytes and address translation mostly hits;
// - populated: provide every page of a chunk when the store takes it, in one request,
//   instead of faulting page by page later. Where a fault is a trip through a hypervisor,
//   the one request costs a fraction of the faults it replaces.
// Both are only requests: where the system refuses one, the chunk stays ordinary memory.
//
// TYPICAL USAGE (before the registry is built):
//   Sim::useHostChunks({.populated = true});
#pragma once

namespace Sim {

struct HostChunks {
  bool largePages = false;
  bool populated = false;
};

// Where the store's later chunks come from; {} restores the general heap.
void useHostChunks(HostChunks const& choice);

}  // namespace Sim
