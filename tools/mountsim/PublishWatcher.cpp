#include "PublishWatcher.h"

#include <map>

#include "TimedSink.h"

namespace MountSim {

namespace {

using Context = TimedSink<PublishEvent>;

class SystemWatch : public Controllerdb::SystemPublishedMount::NotifieeConst {
 public:
  SystemWatch(Context const& c, Vesk::Ptr<Controllerdb::SystemPublishedMount> const& record)
      : c_(c), system_(record->systemId().stringValue().stdString()) {
    notifierIs(record);
  }
  void onPublishedMount(Vesk::String const& path) override {
    Controller::MountDesc const* desc = notifierRaw()->publishedMountMembers().find(path);
    PublishEvent e{};
    e.kind = desc ? PublishEvent::Kind::published : PublishEvent::Kind::withdrawn;
    e.system = system_;
    e.path = path.stdString();
    if (desc) {
      e.remotePath = desc->remotePath.stdString();
      e.service = desc->serviceName.stdString();
    }
    c_.report(e);
  }

 private:
  Context const& c_;
  std::string const system_;
};

}  // namespace

class PublishWatcher::StatusWatch : public Controllerdb::PublishStatus::NotifieeConst {
 public:
  StatusWatch(Context c, Vesk::Ptr<Controllerdb::PublishStatus> const& status) : c_(std::move(c)) {
    notifierIs(status);
  }
  void onSystem(Controller::SystemId const& id) override {
    auto record = notifierRaw()->system(id);
    if (!record) {
      if (systems_.erase(id) == 0) return;
      PublishEvent e{};
      e.kind = PublishEvent::Kind::recordGone;
      e.system = id.stringValue().stdString();
      c_.report(e);
    } else if (!systems_.count(id)) {
      systems_.emplace(id, std::make_unique<SystemWatch>(c_, record));
    }
  }
  void onSystem() override {
    for (auto const& [id, record] : notifierRaw()->systemMembers()) onSystem(id);
  }
  void onServicePublishReady(Vesk::String const& service) override {
    bool const* flag = notifierRaw()->servicePublishReadyMembers().find(service);
    PublishEvent e{};
    e.kind = flag ? PublishEvent::Kind::ready : PublishEvent::Kind::readyGone;
    e.service = service.stdString();
    e.ready = flag && *flag;
    c_.report(e);
  }

 private:
  Context const c_;
  std::map<Controller::SystemId, std::unique_ptr<SystemWatch>> systems_;
};

PublishWatcher::PublishWatcher(Vesk::Ptr<Controllerdb::PublishStatus> const& publishStatus,
                               Vesk::Ptr<Vesk::Clock> const& clock, Sink sink)
    : status_(std::make_unique<StatusWatch>(Context{clock, std::move(sink)}, publishStatus)) {}

PublishWatcher::~PublishWatcher() = default;

}  // namespace MountSim
