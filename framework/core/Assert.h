// Invariant assertions.
//
// VESK_ASSERT(expr) stops the process when expr is false, after writing
// "Assertion failed: <expr>" to standard error, where <expr> is the expression's own text
// as the preprocessor spells it. VESK_ASSERT_MSG(expr, text) writes text instead. Both
// stay on in every build: an invariant of a state machine never becomes optional.
//
// Just before stopping, a failed assertion calls the hook given to assertionHookIs(), once:
// the ring-buffer trace uses it to write its file, so that the messages leading up to the
// failure can be read afterwards.
#pragma once

namespace Vesk {
[[noreturn]] void assertionFailed(char const* text, char const* file, int line);

using AssertionHook = void (*)() noexcept;
// Replaces the hook; null removes it. The hook must not assert.
void assertionHookIs(AssertionHook hook) noexcept;
}  // namespace Vesk

#define VESK_ASSERT(expr) ((expr) ? void(0) : ::Vesk::assertionFailed(#expr, __FILE__, __LINE__))
#define VESK_ASSERT_MSG(expr, text) \
  ((expr) ? void(0) : ::Vesk::assertionFailed(text, __FILE__, __LINE__))
