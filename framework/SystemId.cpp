#include "framework/SystemId.h"

#include <ostream>

#include "framework/MountDesc.h"

namespace Controller {

std::ostream& operator<<(std::ostream& os, SystemId const& id) { return os << id.stringValue(); }

Vesk::String MountDesc::stringValue() const {
  return "MountDesc(" + localPath.strep() + " -> " + remotePath.strep() + ", " + veskType.strep() +
         ", " + serviceName.strep() + ")";
}

std::ostream& operator<<(std::ostream& os, MountDesc const& d) { return os << d.stringValue(); }

}  // namespace Controller
