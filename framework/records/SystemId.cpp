#include "framework/records/SystemId.h"

#include <ostream>

#include "framework/records/MountDesc.h"

namespace Controller {

// The canonical form is kept; a text in another accepted spelling (upper case, '-') is
// written anew.
bool SystemId::stringValueIs(Vesk::String const& text) {
  if (!ethAddr_.stringValueIs(text)) return false;
  bool canonical = true;
  for (char c : text) canonical = canonical && !(c >= 'A' && c <= 'F') && c != '-';
  text_ = canonical ? text : ethAddr_.stringValue();
  return true;
}

std::ostream& operator<<(std::ostream& os, SystemId const& id) { return os << id.stringValue(); }

Vesk::String MountDesc::stringValue() const {
  return "MountDesc(" + localPath.strep() + " -> " + remotePath.strep() + ", " + veskType.strep() +
         ", " + serviceName.strep() + ")";
}

std::ostream& operator<<(std::ostream& os, MountDesc const& d) { return os << d.stringValue(); }

}  // namespace Controller
