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
  // The values of the open message so far (its key, say) lead every piece.
  std::string const prefix = out_.substr(start_ + headerBytes);
  uint32_t const entity = readU32(out_.data() + start_ + 5);
  int32_t const attr = int32_t(readU32(out_.data() + start_ + 9));
  out_.resize(start_);
  while (s.size() > maxTextPieceBytes) {
    open(Kind::textPiece, entity, attr);
    out_.append(prefix);
    putText(s.substr(0, maxTextPieceBytes));
    close();
    s.remove_prefix(maxTextPieceBytes);
  }
  open(Kind::change, entity, attr);
  out_.append(prefix);
  putText(s);
}

void Reader::fail(std::string const& what) const {
  throw DecodeError(String(where_ + ": " + what));
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
  need(1, "bool");
  uint8_t const v = uint8_t(*p_++);
  if (v > 1) fail("a bool must be 0 or 1, found " + std::to_string(v));
  return v == 1;
}

uint32_t Reader::getU32() {
  expectTag(tagU32);
  need(4, "u32");
  return u32Raw();
}

uint64_t Reader::getU64() {
  expectTag(tagU64);
  need(8, "u64");
  uint64_t const high = u32Raw();
  return high << 32 | u32Raw();
}

double Reader::getDouble() {
  expectTag(tagDouble);
  need(8, "double");
  uint64_t const high = u32Raw();
  uint64_t const bits = high << 32 | u32Raw();
  double v;
  std::memcpy(&v, &bits, sizeof v);
  return v;
}

uint32_t Reader::getEntity() {
  expectTag(tagEntity);
  need(4, "entity reference");
  return u32Raw();
}

std::string_view Reader::getText() {
  expectTag(tagText);
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
