// veskText and veskParse: the text form of attribute values, and its parser.
//
// Generated code uses these for reflection and for the values quoted in reinstantiation
// failures. Strings print as they are, booleans as "true"/"false", numbers in decimal, a
// pointer to an entity as that entity's fullName ("null" for none). Enumerations and value
// types take part through their own valueToStrep / stringValue and stringValueIs, found by
// argument-dependent lookup.
#pragma once

#include <charconv>
#include <cstdint>
#include <string>
#include <type_traits>

#include "framework/core/Ptr.h"
#include "framework/core/String.h"

namespace Vesk {

inline String veskText(String const& s) { return s; }
inline String veskText(char const* s) { return String(s); }
inline String veskText(bool b) { return String(b ? "true" : "false"); }
String veskText(double d);

template <class T>
requires std::is_integral_v<T> String veskText(T v) { return String(std::to_string(v)); }

template <class T>
requires std::is_enum_v<T> String veskText(T v) { return valueToStrep(v); }

template <class T>
requires requires(T const& t) { t.stringValue(); }
String veskText(T const& v) { return v.stringValue(); }

template <class T>
String veskText(Ptr<T> const& p) {
  if (!p) return String("null");
  if constexpr (requires { p->fullName(); }) {
    return p->fullName();
  } else {
    return String(std::to_string(reinterpret_cast<uintptr_t>(p.ptr())));
  }
}

inline bool veskParse(String const& s, String& out) {
  out = s;
  return true;
}
inline bool veskParse(String const& s, Name& out) {
  out = Name(s);
  return true;
}
bool veskParse(String const& s, bool& out);
bool veskParse(String const& s, double& out);

template <class T>
requires std::is_integral_v<T>
bool veskParse(String const& s, T& out) {
  auto [p, ec] = std::from_chars(s.begin(), s.end(), out);
  return ec == std::errc() && p == s.end() && !s.empty();
}

template <class T>
requires std::is_enum_v<T>
bool veskParse(String const& s, T& out) { return sequenceToValue(s.begin(), s.end(), out); }

template <class T>
requires requires(T& t, String const& s) { t.stringValueIs(s); }
bool veskParse(String const& s, T& out) { return out.stringValueIs(s); }

}  // namespace Vesk
