#include "framework/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Vesk {

void assertionFailed(char const* text, char const* file, int line) {
  std::fprintf(stderr, "Assertion failed: %s (%s:%d)\n", text, file, line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Vesk
