#include "registry/MountGroupSummary.h"

#include "framework/core/Assert.h"

namespace Controller {

MountState MountGroupSummaries::walkedSummary(ServiceMountGroupStatus const& group,
                                              MountState state) {
  bool allAgree = true;
  for (auto const& [path, mount] : group.mountStatusMembers()) {
    MountState s = mount->mountState();
    if (s == mountStateFailed) return mountStateFailed;
    if (s != state) allAgree = false;
  }
  return allAgree ? state : mountStateNotMounted;
}

namespace {
// The state of one of the group's mounts (not mounted when it has none): the state they all
// share, if they agree.
MountState someMemberState(ServiceMountGroupStatus const& group) {
  auto const first = group.mountStatusMembers().begin();
  return first == group.mountStatusMembers().end() ? mountStateNotMounted
                                                   : first->second->mountState();
}
}  // namespace

MountState MountGroupSummaries::walkedMembersSummary(ServiceMountGroupStatus const& group) {
  return walkedSummary(group, someMemberState(group));
}

MountGroupSummaries::Counts* MountGroupSummaries::heldCounts(ServiceMountGroupStatus const& group,
                                                             Place* place) {
  if (place && *place < records_.size() && records_[*place].group.ptr() == &group) {
    return &records_[*place];
  }
  Place const* held = places_.find(keyOf(group));
  if (!held) return nullptr;
  if (place) *place = *held;
  return &records_[*held];
}

MountGroupSummaries::Counts& MountGroupSummaries::countsOf(ServiceMountGroupStatus& group,
                                                           Place* place) {
  Counts* counts = heldCounts(group, place);
  if (counts && counts->members == group.mountStatusSize()) return *counts;
  if (!counts) {
    Place const at = freePlaces_.empty() ? Place(records_.size()) : freePlaces_.back();
    if (at == records_.size()) {
      records_.emplace_back();
    } else {
      freePlaces_.pop_back();
    }
    places_.emplace(keyOf(group), at);
    if (place) *place = at;
    counts = &records_[at];
    counts->group = Vesk::Ptr<ServiceMountGroupStatus>(&group);
  }
  counts->perState.fill(0);
  counts->members = 0;
  for (auto const& [path, mount] : group.mountStatusMembers()) {
    ++counts->perState[slotOf(mount->mountState())];
    ++counts->members;
  }
  return *counts;
}

void MountGroupSummaries::recordDel(ServiceMountGroupStatus const& group) {
  Place const* held = places_.find(keyOf(group));
  if (!held) return;
  records_[*held].group = nullptr;
  freePlaces_.push_back(*held);
  places_.erase(keyOf(group));
}

void MountGroupSummaries::clear() {
  records_.clear();
  freePlaces_.clear();
  places_.clear();
}

Vesk::Ptr<MountStatus> MountGroupSummaries::mountStatusIs(ServiceMountGroupStatus& group,
                                                          Vesk::Name const& path) {
  size_t const before = group.mountStatusSize();
  Vesk::Ptr<MountStatus> status = group.mountStatusIs(path);
  if (group.mountStatusSize() != before) memberIs(group, status->mountState());
  return status;
}

void MountGroupSummaries::mountStatusDel(ServiceMountGroupStatus& group, Vesk::Name const& path) {
  Vesk::Ptr<MountStatus> status = group.mountStatus(path);
  if (!status) return;
  group.mountStatusDel(path);
  memberDel(group, status->mountState());
  // The summary counted the mount that left; what the group shows now comes from the rest.
  group.mountStateIs(membersSummary(group));
}

void MountGroupSummaries::mountStateIs(ServiceMountGroupStatus& group, MountStatus& status,
                                       MountState state, Place* place) {
  MountState const from = status.mountState();
  status.mountStateIs(state);
  memberStateIs(group, from, state, place);
}

void MountGroupSummaries::memberIs(ServiceMountGroupStatus& group, MountState state) {
  Counts* counts = heldCounts(group);
  // The group already holds the new member; a record that did not know the group before
  // is counted afresh on its next use.
  if (!counts || counts->members + 1 != group.mountStatusSize()) return;
  ++counts->perState[slotOf(state)];
  ++counts->members;
}

void MountGroupSummaries::memberDel(ServiceMountGroupStatus& group, MountState state) {
  Counts* counts = heldCounts(group);
  if (!counts || counts->members != group.mountStatusSize() + 1) return;
  uint32_t& inState = counts->perState[slotOf(state)];
  if (inState == 0) {
    recordDel(group);  // out of step: count afresh on the next use
    return;
  }
  --inState;
  --counts->members;
}

void MountGroupSummaries::memberStateIs(ServiceMountGroupStatus& group, MountState from,
                                        MountState to, Place* place) {
  Counts* counts = heldCounts(group, place);
  if (!counts) return;
  uint32_t& before = counts->perState[slotOf(from)];
  if (before == 0) {
    recordDel(group);
    return;
  }
  --before;
  ++counts->perState[slotOf(to)];
}

void MountGroupSummaries::groupDel(ServiceMountGroupStatus const& group) { recordDel(group); }

MountState MountGroupSummaries::summary(ServiceMountGroupStatus& group, MountState state,
                                        Place* place) {
  Counts const& counts = countsOf(group, place);
  MountState result;
  if (counts.perState[slotOf(mountStateFailed)] != 0) {
    result = mountStateFailed;
  } else if (slotOf(state) == kCounted && counts.perState[kCounted] != 0) {
    result = walkedSummary(group, state);
  } else {
    result = counts.perState[slotOf(state)] == counts.members ? state : mountStateNotMounted;
  }
#ifndef NDEBUG
  VESK_ASSERT(result == walkedSummary(group, state));
#endif
  return result;
}

MountState MountGroupSummaries::membersSummary(ServiceMountGroupStatus& group) {
  return summary(group, someMemberState(group));
}

}  // namespace Controller
