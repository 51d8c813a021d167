// The byte layout of the attribute log, and the reading and writing of its values.
//
// A stream is a sequence of messages. Every integer is in network byte order (big-endian).
//
//   message := length:u32  kind:u8  entity:u32  attr:i32  value*
//
// `length` counts the bytes after itself (kind to the last value) and is at most
// maxMessageBytes. `entity` is the writer's id of the entity the message is about: 1 is the
// stream's root, members get theirs when they are announced. `attr` is the attribute id
// (the type's own attributes from 258 upward, the common entity attributes below).
//
//   kind 1 change       attr > 0: the attribute's value; for a collection the member's key
//                       and then its value (an owned member: its entity id and its
//                       constructor parameters). attr < 0: the member of collection -attr
//                       whose key follows is deleted.
//   kind 2 begin        a collection's full send starts (a transaction marker); no value
//   kind 3 end          the collection's full send is complete: members the reader holds
//                       that were not sent since the begin are gone
//   kind 4 text piece   a leading part of a long text of the next change message: the
//                       text's position among that message's values ('u', from 0) and the
//                       part ('s'). The pieces come in order, right before their message,
//                       which carries each such text's last part in its place.
//
//   value := tag:u8 payload
//     'b'  u8, 0 or 1                  a bool
//     'u'  u32                         an unsigned or an enumeration
//     'q'  u64                         a 64-bit unsigned
//     'd'  u64, the IEEE-754 bits      a double (seconds)
//     's'  n:u32, then n bytes         a text (a string or a name), n <= maxTextPieceBytes
//     'e'  u32                         a reference by entity id; 0 is null
//
// A text longer than maxTextPieceBytes travels in pieces; a whole text is at most
// maxTextBytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "framework/core/Assert.h"
#include "framework/core/Exception.h"
#include "framework/core/String.h"

namespace Vesk::NboAttrLog {

// A message holds a dozen texts of a piece each with room to spare, so that an entity whose
// key and parameters are all long still goes in one message.
inline constexpr size_t maxTextPieceBytes = 4 * 1024;
inline constexpr size_t maxTextBytes = 16 * 1024 * 1024;
inline constexpr size_t maxMessageBytes = 64 * 1024;  // after the length field
inline constexpr size_t headerBytes = 4 + 1 + 4 + 4;  // length, kind, entity, attr

// The root's announcement: a change of the common attribute `name` (253) of entity 1,
// carrying the root's type and name as two texts. It starts a full send.
inline constexpr int32_t rootAttrId = 253;

enum class Kind : uint8_t { change = 1, begin = 2, end = 3, textPiece = 4 };

enum Tag : uint8_t {
  tagBool = 'b',
  tagU32 = 'u',
  tagU64 = 'q',
  tagDouble = 'd',
  tagText = 's',
  tagEntity = 'e',
};

// A stream that the reader refuses: the text says what was wrong and where.
class DecodeError : public Exception {
  using Exception::Exception;
};

inline uint32_t readU32(char const* p) {
  auto const* b = reinterpret_cast<unsigned char const*>(p);
  return uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | uint32_t(b[3]);
}
inline void writeU32(char* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = char(v >> (24 - 8 * i));
}

// Appends messages to a byte string. A header, and a value's tag with its number or its
// text's length, each go in with one append.
class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}

  // Opens a message; close() fills in its length.
  void open(Kind kind, uint32_t entity, int32_t attr) {
    start_ = out_.size();
    values_ = 0;
    entity_ = entity;
    attr_ = attr;
    char header[headerBytes] = {0, 0, 0, 0, char(kind)};
    writeU32(header + 5, entity);
    writeU32(header + 9, uint32_t(attr));
    out_.append(header, headerBytes);
  }
  // A message over the limit is the writer's fault: an invariant, which stops the process.
  [[noreturn, gnu::noinline, gnu::cold]] static void messageTooLong(size_t length) {
    VESK_ASSERT(length <= maxMessageBytes);
    __builtin_unreachable();
  }
  void close() {
    size_t const length = out_.size() - start_ - 4;
    if (length > maxMessageBytes) [[unlikely]]
      messageTooLong(length);
    writeU32(out_.data() + start_, uint32_t(length));
  }

  void put(bool v) { putValue(tagBool, v ? 1 : 0, 1); }
  void put(uint32_t v) { putValue(tagU32, v, 4); }
  void put(uint64_t v) { putValue(tagU64, v, 8); }
  void put(double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    putValue(tagDouble, bits, 8);
  }
  void putEntity(uint32_t id) { putValue(tagEntity, id, 4); }
  // A text of at most maxTextPieceBytes; longer ones go through putLongText.
  void putText(std::string_view s) {
    putValue(tagText, s.size(), 4);
    out_.append(s);
  }
  // A text of any length: all but its last piece go out as text-piece messages ahead of
  // the open message, which carries the last piece.
  void putLongText(std::string_view s);

  size_t messageStart() const { return start_; }

 private:
  // A tag and the `bytes` low bytes of v, most significant first.
  void putValue(Tag tag, uint64_t v, int bytes) {
    ++values_;
    char value[9] = {char(tag)};
    for (int i = 0; i < bytes; ++i) value[1 + i] = char(v >> (8 * (bytes - 1 - i)));
    out_.append(value, size_t(1 + bytes));
  }

  std::string& out_;
  size_t start_ = 0;
  uint32_t values_ = 0;  // values written into the open message
  uint32_t entity_ = 0;
  int32_t attr_ = 0;
};

// Where in a stream a message stands, for the texts of its refusal; put into words only
// when something is refused.
struct Where {
  uint64_t position = 0;  // the stream byte the message starts at
  uint32_t entity = 0;
  int32_t attr = 0;
  std::string text() const;
};

// Reads the values of one message body. Every read checks the tag and the bounds and throws
// DecodeError naming what it expected and found; `where` prefixes each text. The reader keeps
// a reference to `where`, which must outlive it.
class Reader {
 public:
  Reader(char const* begin, char const* end, Where const& where)
      : p_(begin), end_(end), where_(where) {}

  bool atEnd() const { return p_ == end_; }
  // Values read so far: the position of the next one.
  uint32_t valuesRead() const { return values_; }
  bool getBool() {
    value(tagBool, 1, "bool");
    uint8_t const v = uint8_t(*p_++);
    if (v > 1) [[unlikely]]
      notABool(v);
    return v == 1;
  }
  uint32_t getU32() {
    value(tagU32, 4, "u32");
    return u32Raw();
  }
  uint64_t getU64() {
    value(tagU64, 8, "u64");
    return u64Raw();
  }
  double getDouble() {
    value(tagDouble, 8, "double");
    uint64_t const bits = u64Raw();
    double v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
  }
  uint32_t getEntity() {
    value(tagEntity, 4, "entity reference");
    return u32Raw();
  }
  std::string_view getText();
  // Throws unless every value of the message has been read.
  void expectEnd() {
    if (!atEnd()) [[unlikely]]
      trailingBytes();
  }
  [[noreturn]] void fail(std::string const& what) const;

 private:
  // Takes the next value's tag, which must be `tag`, and checks that n bytes of it follow.
  void value(Tag tag, size_t n, char const* what) {
    if (p_ == end_ || uint8_t(*p_) != tag) [[unlikely]]
      wrongTag(tag);
    ++p_;
    ++values_;
    need(n, what);
  }
  void need(size_t n, char const* what) {
    if (size_t(end_ - p_) < n) [[unlikely]]
      truncated(n, what);
  }
  uint32_t u32Raw() {
    uint32_t const v = readU32(p_);
    p_ += 4;
    return v;
  }
  uint64_t u64Raw() {
    uint64_t const high = u32Raw();
    return high << 32 | u32Raw();
  }
  [[noreturn]] void wrongTag(Tag tag) const;
  [[noreturn]] void truncated(size_t n, char const* what) const;
  [[noreturn]] void notABool(uint8_t v) const;
  [[noreturn]] void trailingBytes() const;

  char const* p_;
  char const* end_;
  Where const& where_;
  uint32_t values_ = 0;
};

}  // namespace Vesk::NboAttrLog
