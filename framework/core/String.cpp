#include "framework/core/String.h"

#include <bit>
#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>

#include "framework/core/PtrInterface.h"
#include "framework/core/SmallBlocks.h"

namespace Vesk {
namespace detail {

namespace {
// Bytes read as a little-endian number, so that a hash is the same on every machine.
uint64_t littleEndianWord(char const* p) noexcept {
  uint64_t w;
  std::memcpy(&w, p, sizeof w);
  if constexpr (std::endian::native == std::endian::big) w = __builtin_bswap64(w);
  return w;
}
uint64_t littleEndianTail(char const* p, size_t n) noexcept {
  uint64_t w = 0;
  for (size_t k = 0; k < n; ++k) w |= uint64_t(uint8_t(p[k])) << (8 * k);
  return w;
}
size_t repBytes(size_t n) { return offsetof(StrRep, data) + n + 1; }
}  // namespace

uint64_t hashBytes(char const* p, size_t n) noexcept {
  // Eight bytes at a time, each word mixed in by a multiply, then a 64-bit finalizer so
  // that the low and high bits both mix. The length seeds it, so trailing NULs count.
  constexpr uint64_t kMul = 0xff51afd7ed558ccdull;
  uint64_t h = 0x9e3779b97f4a7c15ull ^ (uint64_t(n) * 0xc4ceb9fe1a85ec53ull);
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    h = (h ^ littleEndianWord(p + i)) * kMul;
    h ^= h >> 29;
  }
  h = (h ^ littleEndianTail(p + i, n - i)) * kMul;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53ull;
  h ^= h >> 33;
  return h;
}

StrRep* newRep(size_t n) {
  if (n == 0) return nullptr;
  auto* r = static_cast<StrRep*>(smallBlockAlloc(repBytes(n)));
  new (&r->refs) std::atomic<uint32_t>(1);
  r->size = uint32_t(n);
  return r;
}

void freeRep(StrRep* r) noexcept { smallBlockFree(r, repBytes(r->size)); }

void sealRep(StrRep* r) noexcept {
  r->data[r->size] = '\0';
  r->hash = hashBytes(r->data, r->size);
}

namespace {

StrRep* makeRep(char const* a, size_t an, char const* b = nullptr, size_t bn = 0) {
  StrRep* r = newRep(an + bn);
  if (!r) return nullptr;
  std::memcpy(r->data, a, an);
  if (bn) std::memcpy(r->data + an, b, bn);
  sealRep(r);
  return r;
}

}  // namespace
}  // namespace detail

String::String(char const* s) : String(s, s ? std::strlen(s) : 0) {}
String::String(char const* s, size_t n) : rep_(detail::makeRep(s, n)) {}

String& String::operator=(String const& o) noexcept {
  detail::ref(o.rep_);
  detail::unref(rep_);
  rep_ = o.rep_;
  return *this;
}

String& String::operator=(String&& o) noexcept {
  if (this != &o) {
    detail::unref(rep_);
    rep_ = o.rep_;
    o.rep_ = nullptr;
  }
  return *this;
}

String String::substr(size_t start, size_t length) const {
  std::string_view v = view();
  if (start >= v.size()) return String();
  return String(v.substr(start, length));
}

size_t String::pos(size_t start, char c) const noexcept {
  size_t i = view().find(c, start);
  return i == std::string_view::npos ? npos : i;
}

size_t String::lastPos(size_t start, String const& s) const noexcept {
  size_t i = view().rfind(s.view(), start);
  return i == std::string_view::npos ? npos : i;
}

String& String::operator+=(String const& o) { return *this = *this + o; }
String& String::operator+=(char const* s) { return *this = *this + s; }

String String::strep() const {
  std::string out = "'";
  for (char c : view()) {
    if (c == '\'' || c == '\\') out += '\\';
    out += c;
  }
  out += '\'';
  return String(out);
}

namespace {
String concat(std::string_view a, std::string_view b) {
  return String::filled(a.size() + b.size(), [&](char* out) {
    a.copy(out, a.size());
    b.copy(out + a.size(), b.size());
  });
}
}  // namespace

String operator+(String const& a, String const& b) {
  if (b.empty()) return a;
  if (a.empty()) return b;
  return concat(a.view(), b.view());
}
String operator+(String const& a, char const* b) { return concat(a.view(), b ? b : ""); }
String operator+(char const* a, String const& b) { return concat(a ? a : "", b.view()); }

std::ostream& operator<<(std::ostream& os, String const& s) { return os << s.view(); }

}  // namespace Vesk
