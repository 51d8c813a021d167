// Invariant assertions.
//
// VESK_ASSERT(expr) stops the process when expr is false, after writing
// "Assertion failed: <expr>" to standard error, where <expr> is the expression's own text
// as the preprocessor spells it. VESK_ASSERT_MSG(expr, text) writes text instead. Both
// stay on in every build: an invariant of a state machine never becomes optional.
#pragma once

namespace Vesk {
[[noreturn]] void assertionFailed(char const* text, char const* file, int line);
}

#define VESK_ASSERT(expr) ((expr) ? void(0) : ::Vesk::assertionFailed(#expr, __FILE__, __LINE__))
#define VESK_ASSERT_MSG(expr, text) \
  ((expr) ? void(0) : ::Vesk::assertionFailed(text, __FILE__, __LINE__))
