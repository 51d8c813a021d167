#include "registry/MountGroupSummary.h"

#include "framework/Assert.h"

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

MountGroupSummaries::Counts* MountGroupSummaries::heldCounts(ServiceMountGroupStatus const& group) {
  return counts_.find(keyOf(group));
}

MountGroupSummaries::Counts& MountGroupSummaries::countsOf(ServiceMountGroupStatus& group) {
  auto [counts, isNew] = counts_.emplace(keyOf(group));
  if (!isNew && counts->members == group.mountStatusSize()) return *counts;
  counts->group = Vesk::Ptr<ServiceMountGroupStatus>(&group);
  counts->perState.fill(0);
  counts->members = 0;
  for (auto const& [path, mount] : group.mountStatusMembers()) {
    ++counts->perState[slotOf(mount->mountState())];
    ++counts->members;
  }
  return *counts;
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
    counts_.erase(keyOf(group));  // out of step: count afresh on the next use
    return;
  }
  --inState;
  --counts->members;
}

void MountGroupSummaries::memberStateIs(ServiceMountGroupStatus& group, MountState from,
                                        MountState to) {
  Counts* counts = heldCounts(group);
  if (!counts) return;
  uint32_t& before = counts->perState[slotOf(from)];
  if (before == 0) {
    counts_.erase(keyOf(group));
    return;
  }
  --before;
  ++counts->perState[slotOf(to)];
}

void MountGroupSummaries::groupDel(ServiceMountGroupStatus const& group) {
  counts_.erase(keyOf(group));
}

MountState MountGroupSummaries::summary(ServiceMountGroupStatus& group, MountState state) {
  Counts const& counts = countsOf(group);
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

}  // namespace Controller
