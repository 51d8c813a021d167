// EthAddr: a 48-bit Ethernet address.
//
// Its text form is six two-digit lower-case hex bytes separated by ':'
// ("00:1c:73:0a:00:01"); stringValueIs() also accepts upper-case digits and '-' as the
// separator, and leaves the value unchanged when the text does not parse.
#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>

#include "framework/core/Hash.h"
#include "framework/core/String.h"

namespace Corvex {

class EthAddr {
 public:
  EthAddr() = default;
  explicit EthAddr(uint64_t bits) {
    for (int i = 5; i >= 0; --i, bits >>= 8) bytes_[size_t(i)] = uint8_t(bits);
  }

  uint64_t bits() const {
    uint64_t b = 0;
    for (uint8_t byte : bytes_) b = (b << 8) | byte;
    return b;
  }
  uint64_t hash() const { return Vesk::hashInteger(bits()); }
  Vesk::String stringValue() const;
  bool stringValueIs(Vesk::String const& text);

  // Compared as 48-bit numbers: the byte order is the numeric order.
  friend bool operator==(EthAddr const& a, EthAddr const& b) { return a.bits() == b.bits(); }
  friend bool operator!=(EthAddr const& a, EthAddr const& b) { return !(a == b); }
  friend bool operator<(EthAddr const& a, EthAddr const& b) { return a.bits() < b.bits(); }

 private:
  std::array<uint8_t, 6> bytes_{};
};

std::ostream& operator<<(std::ostream& os, EthAddr const& a);

}  // namespace Corvex
