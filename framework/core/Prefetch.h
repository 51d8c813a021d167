// prefetch: a hint that the memory at an address will be read soon.
//
// Code that is about to follow several pointers that are rarely in cache can start all the
// loads at once instead of waiting for each in turn. The hint has no effect on meaning:
// it may be ignored, and a null or stale address is harmless.
#pragma once

namespace Vesk {

inline void prefetch(void const* address) {
#if defined(__GNUC__) || defined(__clang__)
  __builtin_prefetch(address);
#else
  (void)address;
#endif
}

}  // namespace Vesk
