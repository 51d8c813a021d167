#include "framework/attrlog/Wire.h"

namespace Vesk::NboAttrLog {

namespace {

char const* tagName(uint8_t tag) {
  switch (tag) {
    case tagBool:
      return "bool";
    case tagU32:
      return "u32";
    case tagU64:
      return "u64";
    case tagDouble:
      return "double";
    case tagText:
      return "text";
    case tagEntity:
      return "entity reference";
    default:
      return "unknown tag";
  }
}

}  // namespace

void Writer::putLongText(std::string_view s) {
  // The pieces go ahead of the open message, which moves behind them.
  std::string const open = out_.substr(start_);
  uint32_t const position = values_;
  out_.resize(start_);
  while (s.size() > maxTextPieceBytes) {
    Writer piece(out_);
    piece.open(Kind::textPiece, entity_, attr_);
    piece.put(position);
    piece.putText(s.substr(0, maxTextPieceBytes));
    piece.close();
    s.remove_prefix(maxTextPieceBytes);
  }
  start_ = out_.size();
  out_.append(open);
  putText(s);
}

std::string Where::text() const {
  return "attribute log at byte " + std::to_string(position) + ", entity " +
         std::to_string(entity) + ", attribute " + std::to_string(attr);
}

void Reader::fail(std::string const& what) const {
  throw DecodeError(String(where_.text() + ": " + what));
}

void Reader::need(size_t n, char const* what) {
  if (size_t(end_ - p_) < n) {
    fail(std::string("truncated ") + what + ": " + std::to_string(n) + " bytes needed, " +
         std::to_string(end_ - p_) + " left");
  }
}

void Reader::expectTag(Tag tag) {
  need(1, "value");
  uint8_t const found = uint8_t(*p_);
  if (found != tag) {
    fail(std::string("expected a ") + tagName(tag) + " value, found " + tagName(found) + " (" +
         std::to_string(found) + ")");
  }
  ++p_;
}

uint32_t Reader::u32Raw() {
  uint32_t const v = readU32(p_);
  p_ += 4;
  return v;
}

bool Reader::getBool() {
  expectTag(tagBool);
  ++values_;
  need(1, "bool");
  uint8_t const v = uint8_t(*p_++);
  if (v > 1) fail("a bool must be 0 or 1, found " + std::to_string(v));
  return v == 1;
}

uint32_t Reader::getU32() {
  expectTag(tagU32);
  ++values_;
  need(4, "u32");
  return u32Raw();
}

uint64_t Reader::getU64() {
  expectTag(tagU64);
  ++values_;
  need(8, "u64");
  uint64_t const high = u32Raw();
  return high << 32 | u32Raw();
}

double Reader::getDouble() {
  expectTag(tagDouble);
  ++values_;
  need(8, "double");
  uint64_t const high = u32Raw();
  uint64_t const bits = high << 32 | u32Raw();
  double v;
  std::memcpy(&v, &bits, sizeof v);
  return v;
}

uint32_t Reader::getEntity() {
  expectTag(tagEntity);
  ++values_;
  need(4, "entity reference");
  return u32Raw();
}

std::string_view Reader::getText() {
  expectTag(tagText);
  ++values_;
  need(4, "text length");
  uint32_t const n = u32Raw();
  if (n > maxTextPieceBytes) {
    fail("text of " + std::to_string(n) + " bytes exceeds the limit of " +
         std::to_string(maxTextPieceBytes));
  }
  need(n, "text");
  std::string_view const s(p_, n);
  p_ += n;
  return s;
}

void Reader::expectEnd() {
  if (!atEnd()) fail(std::to_string(end_ - p_) + " unexpected bytes after the last value");
}

}  // namespace Vesk::NboAttrLog
