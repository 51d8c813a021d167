// MountGroupSummaries: every mount group status's summary state, kept incrementally.
//
// A group status summarises the mount statuses in it: failed (3) as soon as one mount has
// failed, the state every mount shares when they all agree, and not mounted (0) when they
// disagree. Walking the group's mount statuses on every change of one of them costs a pass
// over the group, and at scale a cache miss per member. Instead the summaries count each
// group's mount statuses per state, and the registry changes mount statuses through them,
// so that every change is counted:
//
//   mountStatusIs(group, path)          adds the mount status unless it is there
//   mountStatusDel(group, path)         removes it, and summarises the group's other mounts
//   mountStateIs(group, status, state)  changes its state
//   groupDel(group)                     the group status is being removed
//
// summary(group, state) then answers in constant time. A group whose number of members no
// longer matches the count (a change that was not reported) is counted afresh by one walk,
// and so is a group seen for the first time. Debug builds check every answer against the
// walk.
//
// A record holds its group status, so a group status that is removed without groupDel stays
// alive (and its record with it) until clear().
//
// The records lie side by side in one array. A writer that changes the same group again and
// again may keep the record's place (a Place) and hand it back: a place that still holds the
// group is used without a lookup, any other is found afresh and updated.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "framework/core/HashMap.h"
#include "model/MountInterface.h"

namespace Controller {

class MountGroupSummaries {
 public:
  using Place = uint32_t;
  static constexpr Place kNoPlace = ~Place(0);

  Vesk::Ptr<MountStatus> mountStatusIs(ServiceMountGroupStatus& group, Vesk::Name const& path);
  void mountStatusDel(ServiceMountGroupStatus& group, Vesk::Name const& path);
  void mountStateIs(ServiceMountGroupStatus& group, MountStatus& status, MountState state,
                    Place* place = nullptr);
  void groupDel(ServiceMountGroupStatus const& group);
  void clear();
  size_t groups() const { return places_.size(); }

  // The group's summary after one of its mounts has moved to `state`.
  MountState summary(ServiceMountGroupStatus& group, MountState state, Place* place = nullptr);

  // The same, computed by walking the group's mount statuses.
  static MountState walkedSummary(ServiceMountGroupStatus const& group, MountState state);

  // The group's summary from its mounts alone, as after one of them has left it: not
  // mounted when none is left.
  MountState membersSummary(ServiceMountGroupStatus& group);
  static MountState walkedMembersSummary(ServiceMountGroupStatus const& group);

 private:
  // States at or above kCounted are rare enough to be counted together; a summary that
  // needs to tell them apart walks the group.
  static constexpr uint32_t kCounted = 8;
  struct Counts {
    Vesk::Ptr<ServiceMountGroupStatus> group;
    std::array<uint32_t, kCounted + 1> perState{};
    uint32_t members = 0;
  };

  static uint64_t keyOf(ServiceMountGroupStatus const& group) {
    return uint64_t(reinterpret_cast<uintptr_t>(&group));
  }
  static uint32_t slotOf(MountState state) { return state < kCounted ? state : kCounted; }
  // The group's record, counted afresh when it is new or out of step with the group.
  Counts& countsOf(ServiceMountGroupStatus& group, Place* place);
  // The record as it stands, or null; for reports that the next countsOf would redo anyway.
  Counts* heldCounts(ServiceMountGroupStatus const& group, Place* place = nullptr);
  // The counts after a mount status in `state` joined the group, left it, or changed state.
  void memberIs(ServiceMountGroupStatus& group, MountState state);
  void memberDel(ServiceMountGroupStatus& group, MountState state);
  void memberStateIs(ServiceMountGroupStatus& group, MountState from, MountState to, Place* place);
  // Forgets the group's record, so that its next use counts afresh.
  void recordDel(ServiceMountGroupStatus const& group);

  std::vector<Counts> records_;
  std::vector<Place> freePlaces_;
  Vesk::HashMap<uint64_t, Place> places_;
};

}  // namespace Controller
