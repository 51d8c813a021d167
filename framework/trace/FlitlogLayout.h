// The byte layout of a flitlog trace file, shared by the writer (Flitlog) and the reader
// (FlitlogReader). Integers are stored in the writing machine's byte order; a file is read
// on the architecture that wrote it.
//
//   [0, headerAreaBytes)          Header
//   [descOffset, +descBytes)      descriptor area: DescHeader records appended in id order;
//                                 Header::descFill bytes are in use
//   [ringOffset, +ringBytes)      ring area: MsgHeader records
//
// A descriptor record is a DescHeader followed by
//   u16 module length, module bytes, u16 file length, file bytes,
//   `args` type codes (one byte each),
//   args + 1 fixed pieces, each a u32 length and its bytes,
// padded with zeros to a multiple of 8 bytes.
//
// A message record is a MsgHeader followed by the argument values in order, padded to a
// multiple of 8 bytes. Per type code:
//   'p' text: u32 length, bytes      'i' int32    'I' uint32
//   'q' int64                        'Q' uint64   'd' double (IEEE 754 binary64)
// A record with id 0 is padding up to the end of the ring area: the writer never lets a
// record straddle the end.
//
// Header::head and Header::tail are byte positions in the unbounded stream of records; the
// record at position p starts at ring offset p % ringBytes. The records from tail up to head
// are whole and readable. The writer advances tail over old records before it overwrites
// them and moves head only after a record is complete, so a process that dies mid-message
// leaves a file whose [tail, head) range is still intact.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Vesk::flit {

inline constexpr char magic[8] = {'V', 'E', 'S', 'K', 'F', 'L', 'I', 'T'};
inline constexpr uint32_t formatVersion = 1;
inline constexpr size_t headerAreaBytes = 256;
// The smallest file fileIs() accepts; a quarter of a file holds descriptors.
inline constexpr size_t minFileBytes = 16 * 1024;
// The largest; a reader reads no more than this of anything it is given.
inline constexpr size_t maxFileBytes = size_t(1) << 30;

struct Header {
  char magic[8];
  uint32_t version;
  uint32_t headerBytes;  // sizeof(Header), to catch a reader built with another layout
  uint64_t fileBytes;
  uint64_t descOffset;
  uint64_t descBytes;
  uint64_t ringOffset;
  uint64_t ringBytes;
  uint64_t descFill;
  uint64_t head;
  uint64_t tail;
  uint32_t descriptors;      // descriptors registered; ids run from 1 to this
  uint32_t lostDescriptors;  // registrations refused because the descriptor area was full
  uint32_t pid;              // the writing process's id; 0: not recorded
  uint32_t reserved;
};
static_assert(sizeof(Header) <= headerAreaBytes);

struct DescHeader {
  uint32_t bytes;
  uint32_t id;
  uint32_t line;
  uint8_t level;
  uint8_t flags;
  uint16_t args;
};
static_assert(sizeof(DescHeader) == 16);

inline constexpr uint8_t descMirrored = 1;  // the call site also writes the text trace

struct MsgHeader {
  uint32_t bytes;  // whole record, header included; a multiple of 8
  uint32_t id;     // descriptor id; 0 for padding (only `bytes` and `id` are then present)
  uint64_t sequence;
};
static_assert(sizeof(MsgHeader) == 16);

inline constexpr uint32_t paddingBytes = 8;

constexpr uint64_t align8(uint64_t n) { return (n + 7) & ~uint64_t(7); }

}  // namespace Vesk::flit
