// MounterName: which service, and which of its mount groups, declared interest in a path.
//
// Equal when both fields are; ordered by serviceName, then groupName. Its string form,
// used by traces and stream output, is
//   Value('Controller::MounterName', ** {'serviceName': 'svc', 'groupName': 'grp'})
// with each field in its quoted representation; stringValueIs() reads that form back.
#pragma once

#include <iosfwd>

#include "framework/core/String.h"

namespace Controller {

class MounterName {
 public:
  MounterName() = default;
  MounterName(Vesk::String serviceName, Vesk::String groupName)
      : serviceName_(std::move(serviceName)), groupName_(std::move(groupName)) {}
  // Parses the string form in [begin, end); an unparsable text gives the empty name. The
  // tag keeps two character strings from being taken for a range.
  struct FromText {};
  MounterName(FromText, char const* begin, char const* end);

  Vesk::Name const& serviceName() const { return serviceName_; }
  Vesk::Name const& groupName() const { return groupName_; }

  // An empty string hashes to 0, so a default name hashes to 0.
  uint64_t hash() const { return groupName_.hash() ^ serviceName_.hash(); }
  bool operator!() const { return serviceName_.empty() && groupName_.empty(); }
  friend bool operator==(MounterName const& a, MounterName const& b) {
    return a.serviceName_ == b.serviceName_ && a.groupName_ == b.groupName_;
  }
  friend bool operator!=(MounterName const& a, MounterName const& b) { return !(a == b); }
  friend bool operator<(MounterName const& a, MounterName const& b) {
    if (a.serviceName_ != b.serviceName_) return a.serviceName_ < b.serviceName_;
    return a.groupName_ < b.groupName_;
  }

  Vesk::String stringValue() const;
  // Reads the string form; false (value unchanged) when the text is not one.
  bool stringValueIs(Vesk::String const& text);

 private:
  Vesk::Name serviceName_;
  Vesk::Name groupName_;
};

Vesk::String valueToStrep(MounterName const& name);
std::ostream& operator<<(std::ostream& os, MounterName const& name);

// Whether name ends with the proxy suffix "-Proxy" (case-sensitive; "-Proxy" alone counts).
bool isProxyServiceName(Vesk::String const& name);
// name without its last six characters: the real service of a proxy service name. Only
// meaningful where isProxyServiceName(name) holds.
Vesk::String realServiceNameOfProxy(Vesk::String const& name);

}  // namespace Controller
