// How each attribute value type goes on the wire (Wire.h) and comes back.
//
// Codec<T>::put writes a value, Codec<T>::get reads one through a Reader. Texts longer than
// one piece are split by the writer (Writer::putLongText) and put together again by the
// reader's message (In.h), so get() of a text goes through the message, not the Reader.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>

#include "framework/attrlog/Wire.h"
#include "framework/core/String.h"

namespace Vesk::NboAttrLog {

template <class T, class = void>
struct Codec;

template <>
struct Codec<bool> {
  static void put(Writer& w, bool v) { w.put(v); }
  template <class M>
  static bool get(M& m) {
    return m.reader().getBool();
  }
};

template <>
struct Codec<uint32_t> {
  static void put(Writer& w, uint32_t v) { w.put(v); }
  template <class M>
  static uint32_t get(M& m) {
    return m.reader().getU32();
  }
};

template <>
struct Codec<uint64_t> {
  static void put(Writer& w, uint64_t v) { w.put(v); }
  template <class M>
  static uint64_t get(M& m) {
    return m.reader().getU64();
  }
};

template <>
struct Codec<double> {
  static void put(Writer& w, double v) { w.put(v); }
  template <class M>
  static double get(M& m) {
    return m.reader().getDouble();
  }
};

// Enumerations travel as unsigned 32-bit values; a received one must be an enumerator
// (veskIsValue, found with the enumeration).
template <class E>
struct Codec<E, std::enable_if_t<std::is_enum_v<E>>> {
  static void put(Writer& w, E v) { w.put(uint32_t(v)); }
  template <class M>
  static E get(M& m) {
    E const v = E(m.reader().getU32());
    if (!veskIsValue(v)) [[unlikely]]
      notAnEnumerator(m, uint32_t(v));
    return v;
  }

 private:
  template <class M>
  [[noreturn, gnu::noinline, gnu::cold]] static void notAnEnumerator(M& m, uint32_t v) {
    m.fail(std::to_string(v) + " is not an enumerator");
  }
};

template <>
struct Codec<String> {
  static void put(Writer& w, String const& v) {
    if (v.size() > maxTextPieceBytes) {
      w.putLongText(v.view());
    } else {
      w.putText(v.view());
    }
  }
  template <class M>
  static String get(M& m) {
    return String(m.text());
  }
};

template <>
struct Codec<Name> {
  static void put(Writer& w, Name const& v) { Codec<String>::put(w, v); }
  template <class M>
  static Name get(M& m) {
    return Name(m.text());
  }
};

}  // namespace Vesk::NboAttrLog
