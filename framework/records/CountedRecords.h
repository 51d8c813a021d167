// Changes to counted records.
//
// A record type declared `counted` in its schema adds every change of its state (an
// attribute set to a new value; a collection member added, changed or removed) to one
// process-wide count, before any notifiee hears of the change. A machine that keeps a value
// it derived from such records keeps the count of the moment with it: while the count is
// the same, none of those records has changed, so the value still holds, whatever order the
// notifiees of a change run in.
//
// TYPICAL USAGE:
//   if (memo.changes != Vesk::countedRecordChanges()) {
//     memo.value = deriveFromRecords();
//     memo.changes = Vesk::countedRecordChanges();
//   }
#pragma once

#include <atomic>
#include <cstdint>

namespace Vesk {

namespace detail {
inline std::atomic<uint64_t> countedRecordChanges{0};
}  // namespace detail

inline uint64_t countedRecordChanges() noexcept {
  return detail::countedRecordChanges.load(std::memory_order_relaxed);
}

// Called by the generated setters of counted types.
inline void countedRecordChanged() noexcept {
  detail::countedRecordChanges.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace Vesk
