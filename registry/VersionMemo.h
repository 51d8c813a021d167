// VersionMemo: a negotiated version read from the records, kept while they stand.
//
// Reading one service's negotiated version on one system passes through the peer table,
// the peer, its service status directory, the service's status and its version status:
// five records, rarely in cache. A caller that asks again and again for the same service
// on the same system (a mount reporting each step of its progress) keeps what it read with
// the count of counted-record changes of that moment (framework/records/CountedRecords.h); while
// the count stands, none of those records has changed and the reading still holds.
#pragma once

#include <cstdint>

namespace Controller {

// What the records say of one service's version on one system.
struct VersionReading {
  bool peerKnown = false;
  uint32_t version = 0;  // 0: none negotiated, or not complete and compatible
};

struct VersionMemo {
  uint64_t changes = UINT64_MAX;  // the count when read; the count never reaches this value
  VersionReading reading;
};

class Peer;

// What a caller may already hold that spares a version reading its searches: a memo of an
// earlier reading, and the system's peer when the caller has found it in the peer table (a
// walk over the table, a decision on one system). Either may be null.
struct VersionHints {
  VersionMemo* memo = nullptr;
  Peer const* peer = nullptr;
};

}  // namespace Controller
