#include "framework/records/EthAddr.h"

#include <ostream>

namespace Corvex {

Vesk::String EthAddr::stringValue() const {
  static char const hex[] = "0123456789abcdef";
  char text[17];
  for (size_t i = 0; i < 6; ++i) {
    text[3 * i] = hex[bytes_[i] >> 4];
    text[3 * i + 1] = hex[bytes_[i] & 15];
    if (i < 5) text[3 * i + 2] = ':';
  }
  return Vesk::String(text, 17);
}

bool EthAddr::stringValueIs(Vesk::String const& text) {
  auto digit = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  if (text.size() != 17) return false;
  std::array<uint8_t, 6> parsed{};
  for (size_t i = 0; i < 6; ++i) {
    int hi = digit(text[3 * i]);
    int lo = digit(text[3 * i + 1]);
    if (hi < 0 || lo < 0) return false;
    if (i < 5 && text[3 * i + 2] != ':' && text[3 * i + 2] != '-') return false;
    parsed[i] = uint8_t(hi * 16 + lo);
  }
  bytes_ = parsed;
  return true;
}

std::ostream& operator<<(std::ostream& os, EthAddr const& a) { return os << a.stringValue(); }

}  // namespace Corvex
