#include "sim/PublishDeclaration.h"

#include "sim/GroupFilters.h"

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
  return detail::groupSystemFilterIs(*config_, *groupIs(group), group, systems);
}

Ptr<Controller::MountFilterServiceVersion> PublishDeclaration::versionFilterIs(
    Name const& group, std::vector<uint32_t> const& versions) const {
  return detail::groupVersionFilterIs(*config_, *groupIs(group), group, versions);
}

}  // namespace Sim
