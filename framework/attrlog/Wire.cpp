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

void Reader::truncated(size_t n, char const* what) const {
  fail(std::string("truncated ") + what + ": " + std::to_string(n) + " bytes needed, " +
       std::to_string(end_ - p_) + " left");
}

void Reader::wrongTag(Tag tag) const {
  if (p_ == end_) truncated(1, "value");
  uint8_t const found = uint8_t(*p_);
  fail(std::string("expected a ") + tagName(tag) + " value, found " + tagName(found) + " (" +
       std::to_string(found) + ")");
}

void Reader::notABool(uint8_t v) const {
  fail("a bool must be 0 or 1, found " + std::to_string(v));
}

void Reader::trailingBytes() const {
  fail(std::to_string(end_ - p_) + " unexpected bytes after the last value");
}

std::string_view Reader::getText() {
  value(tagText, 4, "text length");
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

}  // namespace Vesk::NboAttrLog
