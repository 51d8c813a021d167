// The registry model's hand-written create-or-return operations.
#include "registry/MountsRegistry.h"

namespace Controller {

// The remote path is always taken first, even when the re-declaration then fails on a
// constructor parameter; the filters are taken only by a declaration that succeeds.
Vesk::Ptr<PublishRegistryEntry> MountsRegistry::publishEntryIs(
    Vesk::Name const& name, Vesk::String const& remotePath, Vesk::String const& serviceName,
    bool isPrefixPath, Vesk::String const& veskType,
    Vesk::Ptr<MountFilterServiceVersion const> const& versionFilter,
    Vesk::Ptr<MountFilterSystem const> const& systemFilter) {
  if (Vesk::Ptr<PublishRegistryEntry> existing = publishEntry(name)) {
    existing->remotePathIs(remotePath);
    publishEntryIs(name, isPrefixPath, serviceName, veskType);
    existing->versionFilterIs(versionFilter);
    existing->systemFilterIs(systemFilter);
    return existing;
  }
  Vesk::Ptr<PublishRegistryEntry> created =
      publishEntryNew(name, isPrefixPath, serviceName, veskType);
  created->remotePathIs(remotePath);
  created->versionFilterIs(versionFilter);
  created->systemFilterIs(systemFilter);
  publishEntryNotify(name);
  return created;
}

Vesk::Ptr<Mounter> MountsRegistryEntry::mounterIs(
    MounterName const& mounterName, Vesk::Ptr<MountConfig const> const& mountConfig,
    Vesk::Ptr<ServiceMountGroupConfig const> const& mountGroupConfig,
    Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus) {
  return mounterIs(mounterName.serviceName(), mounterName, mountConfig, mountGroupConfig,
                   serviceMountStatus);
}

}  // namespace Controller
