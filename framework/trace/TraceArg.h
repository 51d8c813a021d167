// Trace call arguments: how each one is classified, stored in a flitlog record and printed.
//
// traceArg() maps an argument of VESK_TRACE to the form that is stored:
//   string literal (char const[N])                 a fixed piece; stored in the descriptor
//   String, Name, std::string, std::string_view,
//     char const*, char*, char arrays, one char    'p' text
//   bool, integers and enums of up to 32 bits      'i' signed, 'I' unsigned
//   64-bit integers and enums                      'q' signed, 'Q' unsigned
//   float, double                                  'd'
//   a type with a stringValue() member             'p', the stringValue() text
//   any other type with operator<<                 'p', the streamed text
// Anything else does not compile. A const char array that is not a literal still counts
// as a fixed piece: its text is taken once, when the call site registers.
//
// Printing: integers in decimal (bool as 0 or 1), doubles in the shortest form that reads
// back to the same value (std::to_chars), text as is. The reader prints stored values the
// same way, so a decoded message reads exactly as a captured one.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

#include "framework/core/String.h"

namespace Vesk::detail {

template <class T>
concept HasStringValue = requires(T const& t) {
  t.stringValue();
};
template <class T>
concept Streamable = requires(std::ostream& os, T const& t) {
  os << t;
};
template <class>
inline constexpr bool unsupportedTraceArg = false;

String streamedText(void const* value, void (*write)(std::ostream&, void const*));
void appendNumber(std::string& out, int64_t v);
void appendNumber(std::string& out, uint64_t v);
void appendNumber(std::string& out, double v);

template <class I>
auto storedInteger(I v) {
  if constexpr (sizeof(I) <= 4) {
    using Stored = std::conditional_t<std::is_signed_v<I>, int32_t, uint32_t>;
    return Stored(v);
  } else {
    static_assert(sizeof(I) == 8, "trace integers are at most 64 bits wide");
    using Stored = std::conditional_t<std::is_signed_v<I>, int64_t, uint64_t>;
    return Stored(v);
  }
}

template <class T>
decltype(auto) traceArg(T&& a) {
  using R = std::remove_reference_t<T>;
  using D = std::remove_cvref_t<T>;
  using Element = std::remove_extent_t<R>;
  if constexpr (std::is_array_v<R> && std::is_same_v<Element, char const>) {
    return (a);  // a fixed piece, passed on as the array reference
  } else if constexpr (std::is_array_v<R> && std::is_same_v<std::remove_cv_t<Element>, char>) {
    return std::string_view(a, strnlen(a, std::extent_v<R>));
  } else if constexpr (std::is_base_of_v<String, D>) {
    return a.view();
  } else if constexpr (std::is_same_v<D, std::string> || std::is_same_v<D, std::string_view>) {
    return std::string_view(a);
  } else if constexpr (std::is_same_v<D, char const*> || std::is_same_v<D, char*>) {
    return a ? std::string_view(a) : std::string_view();
  } else if constexpr (std::is_same_v<D, char>) {
    return std::string_view(&a, 1);
  } else if constexpr (std::is_same_v<D, bool>) {
    return int32_t(a);
  } else if constexpr (std::is_enum_v<D>) {
    return storedInteger(std::underlying_type_t<D>(a));
  } else if constexpr (std::is_integral_v<D>) {
    return storedInteger(a);
  } else if constexpr (std::is_floating_point_v<D>) {
    return double(a);
  } else if constexpr (HasStringValue<D>) {
    return String(a.stringValue());
  } else if constexpr (Streamable<D>) {
    return streamedText(&a,
                        [](std::ostream& os, void const* p) { os << *static_cast<D const*>(p); });
  } else {
    static_assert(unsupportedTraceArg<D>, "a trace argument needs stringValue() or operator<<");
  }
}

// Storage and printing of the stored forms. A type code of 0 marks a fixed piece.
template <class A>
struct FlitArg;

template <size_t N>
struct FlitArg<char[N]> {
  static constexpr char code = 0;
  static std::string_view text(char const (&a)[N]) { return {a, strnlen(a, N)}; }
  static size_t bytes(char const (&)[N]) { return 0; }
  static size_t textBytes(char const (&)[N]) { return 0; }
  static char* put(char* p, char const (&)[N], size_t&) { return p; }
  static void append(std::string& out, char const (&a)[N]) { out.append(text(a)); }
};

template <>
struct FlitArg<std::string_view> {
  static constexpr char code = 'p';
  static size_t bytes(std::string_view s) { return sizeof(uint32_t) + s.size(); }
  static size_t textBytes(std::string_view s) { return s.size(); }
  // Writes at most `budget` bytes of the text and takes them from the budget.
  static char* put(char* p, std::string_view s, size_t& budget) {
    size_t const n = std::min(s.size(), budget);
    budget -= n;
    uint32_t const length = uint32_t(n);
    std::memcpy(p, &length, sizeof length);
    if (n != 0) std::memcpy(p + sizeof length, s.data(), n);  // an empty text may have no data
    return p + sizeof length + n;
  }
  static void append(std::string& out, std::string_view s) { out.append(s); }
};

template <>
struct FlitArg<String> {
  static constexpr char code = 'p';
  static size_t bytes(String const& s) { return FlitArg<std::string_view>::bytes(s.view()); }
  static size_t textBytes(String const& s) { return s.size(); }
  static char* put(char* p, String const& s, size_t& budget) {
    return FlitArg<std::string_view>::put(p, s.view(), budget);
  }
  static void append(std::string& out, String const& s) { out.append(s.view()); }
};

template <class V, char Code, class Printed>
struct FlitValueArg {
  static constexpr char code = Code;
  static size_t bytes(V) { return sizeof(V); }
  static size_t textBytes(V) { return 0; }
  static char* put(char* p, V v, size_t&) {
    std::memcpy(p, &v, sizeof v);
    return p + sizeof v;
  }
  static void append(std::string& out, V v) { appendNumber(out, Printed(v)); }
};

template <>
struct FlitArg<int32_t> : FlitValueArg<int32_t, 'i', int64_t> {};
template <>
struct FlitArg<uint32_t> : FlitValueArg<uint32_t, 'I', uint64_t> {};
template <>
struct FlitArg<int64_t> : FlitValueArg<int64_t, 'q', int64_t> {};
template <>
struct FlitArg<uint64_t> : FlitValueArg<uint64_t, 'Q', uint64_t> {};
template <>
struct FlitArg<double> : FlitValueArg<double, 'd', double> {};

}  // namespace Vesk::detail
