#include "StatusWatcher.h"

#include "TimedSink.h"

namespace MountSim {

namespace {

using Controller::MountState;

using Context = TimedSink<StatusEvent>;

// Keeps one child watch per present key of a collection.
template <class Watch, class Record>
void follow(std::map<std::string, std::unique_ptr<Watch>>& children, std::string const& key,
            Vesk::Ptr<Record> const& record, std::function<std::unique_ptr<Watch>()> const& make) {
  if (!record) {
    children.erase(key);
  } else if (!children.count(key)) {
    children.emplace(key, make());
  }
}

class MountWatch : public Controller::MountStatus::NotifieeConst {
 public:
  MountWatch(Context const& c, StatusEvent where, Vesk::Ptr<Controller::MountStatus> const& s)
      : c_(c), where_(std::move(where)) {
    notifierIs(s);
  }
  void onMountState() override { report(); }
  void onMountedPath() override { report(); }

 private:
  void report() {
    StatusEvent e = where_;
    e.state = notifierRaw()->mountState();
    e.mountedPath = notifierRaw()->mountedPath().stdString();
    c_.report(e);
  }
  Context const& c_;
  StatusEvent const where_;
};

class GroupWatch : public Controller::ServiceMountGroupStatus::NotifieeConst {
 public:
  GroupWatch(Context const& c, StatusEvent where,
             Vesk::Ptr<Controller::ServiceMountGroupStatus> const& s)
      : c_(c), where_(std::move(where)) {
    notifierIs(s);
  }
  void onMountState() override {
    StatusEvent e = where_;
    e.state = notifierRaw()->mountState();
    c_.report(e);
  }
  void onMountStatus(Vesk::Name const& path) override {
    auto record = notifierRaw()->mountStatus(path);
    StatusEvent where = where_;
    where.path = path.stdString();
    follow<MountWatch>(mounts_, where.path, record,
                       [&] { return std::make_unique<MountWatch>(c_, where, record); });
  }
  void onMountStatus() override {
    for (auto const& [path, m] : notifierRaw()->mountStatusMembers()) onMountStatus(path);
  }

 private:
  Context const& c_;
  StatusEvent const where_;
  std::map<std::string, std::unique_ptr<MountWatch>> mounts_;
};

class SystemWatch : public Controller::SystemStatus::NotifieeConst {
 public:
  SystemWatch(Context const& c, StatusEvent where, Vesk::Ptr<Controller::SystemStatus> const& s)
      : c_(c), where_(std::move(where)) {
    notifierIs(s);
  }
  void onServiceMountGroupStatus(Vesk::Name const& group) override {
    auto record = notifierRaw()->serviceMountGroupStatus(group);
    StatusEvent where = where_;
    where.group = group.stdString();
    follow<GroupWatch>(groups_, where.group, record,
                       [&] { return std::make_unique<GroupWatch>(c_, where, record); });
  }
  void onServiceMountGroupStatus() override {
    for (auto const& [g, s] : notifierRaw()->serviceMountGroupStatusMembers()) {
      onServiceMountGroupStatus(g);
    }
  }

 private:
  Context const& c_;
  StatusEvent const where_;
  std::map<std::string, std::unique_ptr<GroupWatch>> groups_;
};

class ServiceWatch : public Controller::ServiceMountStatus::NotifieeConst {
 public:
  ServiceWatch(Context const& c, StatusEvent where,
               Vesk::Ptr<Controller::ServiceMountStatus> const& s)
      : c_(c), where_(std::move(where)) {
    notifierIs(s);
  }
  void onSystemStatus(Vesk::Name const& system) override {
    auto record = notifierRaw()->systemStatus(system);
    StatusEvent where = where_;
    where.system = system.stdString();
    follow<SystemWatch>(systems_, where.system, record,
                        [&] { return std::make_unique<SystemWatch>(c_, where, record); });
  }
  void onSystemStatus() override {
    for (auto const& [s, r] : notifierRaw()->systemStatusMembers()) onSystemStatus(s);
  }

 private:
  Context const& c_;
  StatusEvent const where_;
  std::map<std::string, std::unique_ptr<SystemWatch>> systems_;
};

}  // namespace

class StatusWatcher::DirWatch : public Vesk::Dir::NotifieeConst {
 public:
  DirWatch(Vesk::Ptr<Vesk::Dir> const& dir, Context c) : c_(std::move(c)) { notifierIs(dir); }
  void onEntityPtr(Vesk::Name const& name) override {
    auto record = Vesk::ptr_cast<Controller::ServiceMountStatus>(notifierRaw()->entry(name));
    StatusEvent where{};
    where.service = name.stdString();
    follow<ServiceWatch>(services_, where.service, record,
                         [&] { return std::make_unique<ServiceWatch>(c_, where, record); });
  }
  void onEntityPtr() override {
    for (auto const& [name, e] : notifierRaw()->entityPtrMembers()) onEntityPtr(name);
  }

 private:
  Context const c_;
  std::map<std::string, std::unique_ptr<ServiceWatch>> services_;
};

StatusWatcher::StatusWatcher(Vesk::Ptr<Vesk::Dir> const& statusDir,
                             Vesk::Ptr<Vesk::Clock> const& clock, Sink sink)
    : dir_(std::make_unique<DirWatch>(statusDir, Context{clock, std::move(sink)})) {}

StatusWatcher::~StatusWatcher() = default;

}  // namespace MountSim
