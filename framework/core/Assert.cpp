#include "framework/core/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Vesk {

namespace {
AssertionHook assertionHook = nullptr;
}

void assertionHookIs(AssertionHook hook) noexcept { assertionHook = hook; }

void assertionFailed(char const* text, char const* file, int line) {
  std::fprintf(stderr, "Assertion failed: %s (%s:%d)\n", text, file, line);
  std::fflush(stderr);
  // Cleared first: an assertion failing inside the hook must not call it again.
  if (AssertionHook hook = assertionHook) {
    assertionHook = nullptr;
    hook();
  }
  std::abort();
}

}  // namespace Vesk
