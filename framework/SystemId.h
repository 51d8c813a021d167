// SystemId: the identity of one connected system (a switch).
//
// It carries the system's Ethernet address. Its text form, stringValue(), is the system's
// name wherever a collection is keyed by name, the name of its connection, and what every
// trace prints. As a collection key it hashes by its Ethernet address.
#pragma once

#include <iosfwd>

#include "framework/EthAddr.h"
#include "framework/String.h"

namespace Controller {

class SystemId {
 public:
  SystemId() = default;
  explicit SystemId(Corvex::EthAddr const& addr) : ethAddr_(addr) {}

  Corvex::EthAddr const& ethAddr() const { return ethAddr_; }
  uint64_t hash() const { return ethAddr_.hash(); }
  Vesk::String stringValue() const { return ethAddr_.stringValue(); }
  // Parses the text form; false (value unchanged) when it does not parse.
  bool stringValueIs(Vesk::String const& text) { return ethAddr_.stringValueIs(text); }

  friend bool operator==(SystemId const& a, SystemId const& b) { return a.ethAddr_ == b.ethAddr_; }
  friend bool operator!=(SystemId const& a, SystemId const& b) { return !(a == b); }
  friend bool operator<(SystemId const& a, SystemId const& b) { return a.ethAddr_ < b.ethAddr_; }

 private:
  Corvex::EthAddr ethAddr_;
};

std::ostream& operator<<(std::ostream& os, SystemId const& id);

}  // namespace Controller
