// MountDesc: the description of one published mount, as written into a system's publish
// record. Only equality matters to the registry (to tell whether a published mount
// changed); the fields are what a mount-machine component on the far side needs to mount
// the published entity: where it lives locally, where it appears remotely, its type and
// the service that publishes it.
#pragma once

#include <iosfwd>

#include "framework/core/String.h"

namespace Controller {

struct MountDesc {
  Vesk::String localPath;
  Vesk::String remotePath;
  Vesk::String veskType;
  Vesk::String serviceName;

  // An empty description describes nothing.
  bool operator!() const { return localPath.empty(); }
  friend bool operator==(MountDesc const&, MountDesc const&) = default;
  Vesk::String stringValue() const;
};

std::ostream& operator<<(std::ostream& os, MountDesc const& d);

}  // namespace Controller
