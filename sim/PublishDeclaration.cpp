#include "sim/PublishDeclaration.h"

namespace Sim {

using Controller::ServicePublishGroupConfig;
using Vesk::Name;
using Vesk::Ptr;
using Vesk::String;

Ptr<ServicePublishGroupConfig> PublishDeclaration::groupIs(Name const& group) const {
  return config_->publishGroupConfigIs(group);
}

Ptr<Controller::PublishConfig> PublishDeclaration::publishIs(Name const& group,
                                                             Name const& localPath,
                                                             String const& remotePath,
                                                             String const& plovType,
                                                             bool ready) const {
  Ptr<Controller::PublishConfig> publish =
      groupIs(group)->publishConfigIs(localPath, remotePath, plovType);
  publish->readyToPublishIs(ready);
  return publish;
}

Ptr<Controller::PublishDir> PublishDeclaration::publishDirIs(Name const& group,
                                                             Name const& localPath,
                                                             String const& remoteTargetPath,
                                                             String const& veskType,
                                                             bool ready) const {
  Ptr<Controller::PublishDir> dir = groupIs(group)->publishDirIs(localPath, veskType);
  dir->remoteTargetPathIs(remoteTargetPath);
  dir->readyToPublishIs(ready);
  return dir;
}

Ptr<Controller::MountFilterSystem> PublishDeclaration::systemFilterIs(
    Name const& group, std::vector<Controller::SystemId> const& systems) const {
  Ptr<Controller::MountFilterSystem> filter = config_->systemFilterIs(group);
  for (Controller::SystemId const& s : systems) filter->includedSystemIs(s.stringValue(), true);
  groupIs(group)->systemFilterIs(filter);
  return filter;
}

Ptr<Controller::MountFilterServiceVersion> PublishDeclaration::versionFilterIs(
    Name const& group, std::vector<uint32_t> const& versions) const {
  Ptr<Controller::MountFilterServiceVersion> filter = config_->versionFilterIs(group);
  for (uint32_t v : versions) filter->includedServiceVersionIs(v, true);
  groupIs(group)->versionFilterIs(filter);
  return filter;
}

}  // namespace Sim
