// String and Name: immutable, shared byte strings with value semantics.
//
// A String is a pointer to a reference-counted buffer that also holds the length and the
// hash of the bytes, computed once at construction. Copies share the buffer. The empty
// string has no buffer and hashes to 0. Name is the same representation used as a key
// (entity names, collection keys); a Name converts to a String implicitly.
//
// pos() and lastPos() return String::npos when nothing is found.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "framework/core/ThreadSafePointers.h"

namespace Vesk {

using Seconds = double;

namespace detail {
// The shared buffer: the count of the Strings that hold it, the length, the hash of the
// bytes and the bytes themselves, NUL-terminated.
struct StrRep {
  std::atomic<uint32_t> refs;
  uint32_t size;
  uint64_t hash;
  char data[1];
};
void freeRep(StrRep* r) noexcept;

// Counts are plain increments unless pointers are thread-safe (ThreadSafePointers.h).
inline void ref(StrRep* r) noexcept {
  if (!r) return;
  if (threadSafePointers_) {
    r->refs.fetch_add(1, std::memory_order_relaxed);
  } else {
    r->refs.store(r->refs.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
}

inline void unref(StrRep* r) noexcept {
  if (!r) return;
  uint32_t left;
  if (threadSafePointers_) {
    left = r->refs.fetch_sub(1, std::memory_order_acq_rel) - 1;
  } else {
    left = r->refs.load(std::memory_order_relaxed) - 1;
    r->refs.store(left, std::memory_order_relaxed);
  }
  if (left == 0) freeRep(r);
}

uint64_t hashBytes(char const* p, size_t n) noexcept;
// A buffer for n bytes (null for 0), to be written into data and then sealed.
StrRep* newRep(size_t n);
// Terminates the written bytes and computes their hash.
void sealRep(StrRep* r) noexcept;
}  // namespace detail

class String {
 public:
  static constexpr size_t npos = size_t(-1);

  String() noexcept = default;
  String(char const* s);
  String(char const* s, size_t n);
  String(std::string const& s) : String(s.data(), s.size()) {}
  explicit String(std::string_view s) : String(s.data(), s.size()) {}
  String(String const& o) noexcept : rep_(o.rep_) { detail::ref(rep_); }
  String(String&& o) noexcept : rep_(o.rep_) { o.rep_ = nullptr; }
  ~String() { detail::unref(rep_); }
  String& operator=(String const& o) noexcept;
  String& operator=(String&& o) noexcept;

  char const* charPtr() const noexcept { return rep_ ? rep_->data : ""; }
  std::string stdString() const { return std::string(view()); }
  std::string_view view() const noexcept {
    return rep_ ? std::string_view(rep_->data, rep_->size) : std::string_view();
  }
  size_t size() const noexcept { return rep_ ? rep_->size : 0; }
  size_t length() const noexcept { return size(); }
  bool empty() const noexcept { return rep_ == nullptr; }
  uint64_t hash() const noexcept { return rep_ ? rep_->hash : 0; }

  char const* begin() const noexcept { return charPtr(); }
  char const* end() const noexcept { return charPtr() + size(); }
  char operator[](size_t i) const noexcept { return charPtr()[i]; }

  // A string of n bytes that fill(char* out) writes, built in its own buffer directly.
  template <class Fill>
  static String filled(size_t n, Fill&& fill) {
    String s;
    s.rep_ = detail::newRep(n);
    if (s.rep_) {
      fill(s.rep_->data);
      detail::sealRep(s.rep_);
    }
    return s;
  }

  String substr(size_t start, size_t length = npos) const;
  // First index of c at or after start.
  size_t pos(size_t start, char c) const noexcept;
  // Last index at or before start at which s begins.
  size_t lastPos(size_t start, String const& s) const noexcept;
  bool endsWith(std::string_view suffix) const noexcept {
    std::string_view const v = view();
    return v.size() >= suffix.size() && v.substr(v.size() - suffix.size()) == suffix;
  }

  String& operator+=(String const& o);
  String& operator+=(char const* s);

  // The quoted representation used in value string forms: 'text' with \ and ' escaped.
  String strep() const;

  friend bool operator==(String const& a, String const& b) noexcept {
    if (a.rep_ == b.rep_) return true;
    return a.hash() == b.hash() && a.view() == b.view();
  }
  friend bool operator!=(String const& a, String const& b) noexcept { return !(a == b); }
  friend bool operator<(String const& a, String const& b) noexcept { return a.view() < b.view(); }
  friend bool operator==(String const& a, char const* b) noexcept { return a.view() == b; }

 private:
  detail::StrRep* rep_ = nullptr;
};

String operator+(String const& a, String const& b);
String operator+(String const& a, char const* b);
String operator+(char const* a, String const& b);
std::ostream& operator<<(std::ostream& os, String const& s);

class Name : public String {
 public:
  using String::String;
  Name() noexcept = default;
  Name(String const& s) noexcept : String(s) {}
};

struct StringHash {
  size_t operator()(String const& s) const noexcept { return size_t(s.hash()); }
};

}  // namespace Vesk

template <>
struct std::hash<Vesk::String> {
  size_t operator()(Vesk::String const& s) const noexcept { return size_t(s.hash()); }
};
template <>
struct std::hash<Vesk::Name> {
  size_t operator()(Vesk::Name const& s) const noexcept { return size_t(s.hash()); }
};
