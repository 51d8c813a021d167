// useLargePageChunks: the hosting process's choice to have the framework's small-block
// store take its chunks from memory that the system is asked to back with large pages.
//
// A controller that holds hundreds of thousands of mounts touches a few hundred megabytes
// of small objects in no particular order; with ordinary pages, each first touch of a page
// is a fault and most accesses miss the address-translation cache. Where the system
// honours the request (transparent large pages enabled for advised memory), one fault
// maps two megabytes. Where it does not, the chunks are ordinary memory.
#pragma once

namespace Sim {

void useLargePageChunks();

}  // namespace Sim
