// SystemId: the identity of one connected system (a switch).
//
// It carries the system's Ethernet address. Its text form, stringValue(), is the system's
// name wherever a collection is keyed by name, the name of its connection, and what every
// trace prints. As a collection key it hashes by its Ethernet address. The text form is
// made once, when the identity is made, and shared by copies: reading it never allocates.
#pragma once

#include <iosfwd>

#include "framework/core/String.h"
#include "framework/records/EthAddr.h"

namespace Controller {

class SystemId {
 public:
  SystemId() : text_(Corvex::EthAddr().stringValue()) {}
  explicit SystemId(Corvex::EthAddr const& addr) : ethAddr_(addr), text_(addr.stringValue()) {}

  Corvex::EthAddr const& ethAddr() const { return ethAddr_; }
  uint64_t hash() const { return ethAddr_.hash(); }
  Vesk::Name const& stringValue() const { return text_; }
  // Parses the text form; false (value unchanged) when it does not parse.
  bool stringValueIs(Vesk::String const& text);

  friend bool operator==(SystemId const& a, SystemId const& b) { return a.ethAddr_ == b.ethAddr_; }
  friend bool operator!=(SystemId const& a, SystemId const& b) { return !(a == b); }
  friend bool operator<(SystemId const& a, SystemId const& b) { return a.ethAddr_ < b.ethAddr_; }

 private:
  Corvex::EthAddr ethAddr_;
  Vesk::Name text_;
};

std::ostream& operator<<(std::ostream& os, SystemId const& id);

}  // namespace Controller
