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

#include "framework/core/Exception.h"
#include "framework/core/String.h"

namespace Vesk::NboAttrLog {

inline constexpr size_t maxTextPieceBytes = 16 * 1024;
inline constexpr size_t maxTextBytes = 16 * 1024 * 1024;
inline constexpr size_t maxMessageBytes = 64 * 1024;  // after the length field
inline constexpr size_t headerBytes = 4 + 1 + 4 + 4;  // length, kind, entity, attr

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

// Appends messages to a byte string.
class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}

  // Opens a message; close() fills in its length.
  void open(Kind kind, uint32_t entity, int32_t attr) {
    start_ = out_.size();
    values_ = 0;
    entity_ = entity;
    attr_ = attr;
    putU32Raw(0);
    out_.push_back(char(kind));
    putU32Raw(entity);
    putU32Raw(uint32_t(attr));
  }
  void close() {
    uint32_t const length = uint32_t(out_.size() - start_ - 4);
    for (int i = 0; i < 4; ++i) out_[start_ + i] = char(length >> (24 - 8 * i));
  }

  void put(bool v) {
    ++values_;
    out_.push_back(char(tagBool));
    out_.push_back(char(v ? 1 : 0));
  }
  void put(uint32_t v) {
    ++values_;
    out_.push_back(char(tagU32));
    putU32Raw(v);
  }
  void put(uint64_t v) {
    ++values_;
    out_.push_back(char(tagU64));
    putU64Raw(v);
  }
  void put(double v) {
    ++values_;
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    out_.push_back(char(tagDouble));
    putU64Raw(bits);
  }
  void putEntity(uint32_t id) {
    ++values_;
    out_.push_back(char(tagEntity));
    putU32Raw(id);
  }
  // A text of at most maxTextPieceBytes; longer ones go through putLongText.
  void putText(std::string_view s) {
    ++values_;
    out_.push_back(char(tagText));
    putU32Raw(uint32_t(s.size()));
    out_.append(s);
  }
  // A text of any length: all but its last piece go out as text-piece messages ahead of
  // the open message, which carries the last piece.
  void putLongText(std::string_view s);

  size_t messageStart() const { return start_; }

 private:
  void putU32Raw(uint32_t v) {
    char b[4] = {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
    out_.append(b, 4);
  }
  void putU64Raw(uint64_t v) {
    putU32Raw(uint32_t(v >> 32));
    putU32Raw(uint32_t(v));
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
// DecodeError naming what it expected and found; `where` prefixes each text.
class Reader {
 public:
  Reader(char const* begin, char const* end, Where const& where)
      : p_(begin), end_(end), where_(where) {}

  bool atEnd() const { return p_ == end_; }
  // Values read so far: the position of the next one.
  uint32_t valuesRead() const { return values_; }
  bool getBool();
  uint32_t getU32();
  uint64_t getU64();
  double getDouble();
  uint32_t getEntity();
  std::string_view getText();
  // Throws unless every value of the message has been read.
  void expectEnd();
  [[noreturn]] void fail(std::string const& what) const;

 private:
  void expectTag(Tag tag);
  void need(size_t n, char const* what);
  uint32_t u32Raw();

  char const* p_;
  char const* end_;
  Where where_;
  uint32_t values_ = 0;
};

inline uint32_t readU32(char const* p) {
  auto const* b = reinterpret_cast<unsigned char const*>(p);
  return uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | uint32_t(b[3]);
}

}  // namespace Vesk::NboAttrLog
