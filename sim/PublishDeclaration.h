// Sim::PublishDeclaration: one service's publish declaration, its configuration and status
// records under one agent name, as World::declarePublishService places them.
//
// The helpers write what a service writes, one record at a time; each creates the group it
// names when it is missing. Local paths are the full names of the entities to publish.
//
// TYPICAL USAGE:
//   Sim::PublishDeclaration foo = world.declarePublishService("FooAgent", "Foo");
//   foo.publishIs("group", "/controller/local/foo/state", "/remote/foo/state");
//   foo.versionFilterIs("group", {2, 3});
//   foo.readyIs(true);
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "framework/records/SystemId.h"
#include "model/MountInterface.h"

namespace Sim {

class PublishDeclaration {
 public:
  PublishDeclaration() = default;
  PublishDeclaration(Vesk::Ptr<Controller::ServicePublishConfig> config,
                     Vesk::Ptr<Controller::ServicePublishStatus> status)
      : config_(std::move(config)), status_(std::move(status)) {}

  Vesk::Ptr<Controller::ServicePublishConfig> const& config() const { return config_; }
  Vesk::Ptr<Controller::ServicePublishStatus> const& status() const { return status_; }
  Vesk::String const& serviceName() const { return config_->serviceName(); }

  Vesk::Ptr<Controller::ServicePublishGroupConfig> groupIs(Vesk::Name const& group) const;
  // A single published entity (created if missing), then its ready flag.
  Vesk::Ptr<Controller::PublishConfig> publishIs(Vesk::Name const& group,
                                                 Vesk::Name const& localPath,
                                                 Vesk::String const& remotePath,
                                                 Vesk::String const& plovType = "Sim::LocalEntity",
                                                 bool ready = true) const;
  // A published directory (created if missing), then its remote target path and ready flag.
  Vesk::Ptr<Controller::PublishDir> publishDirIs(Vesk::Name const& group,
                                                 Vesk::Name const& localPath,
                                                 Vesk::String const& remoteTargetPath,
                                                 Vesk::String const& veskType = "Vesk::Dir",
                                                 bool ready = true) const;
  // Fills the service's filter named after the group with the given members, then points
  // the group at it.
  Vesk::Ptr<Controller::MountFilterSystem> systemFilterIs(
      Vesk::Name const& group, std::vector<Controller::SystemId> const& systems) const;
  Vesk::Ptr<Controller::MountFilterServiceVersion> versionFilterIs(
      Vesk::Name const& group, std::vector<uint32_t> const& versions) const;
  void readyIs(bool ready) const { config_->readyIs(ready); }

 private:
  Vesk::Ptr<Controller::ServicePublishConfig> config_;
  Vesk::Ptr<Controller::ServicePublishStatus> status_;
};

}  // namespace Sim
