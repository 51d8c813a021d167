// Trace: per-module trace handles and the VESK_TRACE / VESK_MIRRLOG call sites.
//
// TYPICAL USAGE:
//   static Vesk::TraceHandle traceHandle("MountsRegistrySm", true);  // one per module
//   VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handlePeer", " peer:", id.stringValue(),
//              " added");
//   VESK_MIRRLOG(traceHandle, 1, "MountsRegistrySm: lost peer ", id);
// String literals are the message's fixed pieces; every other argument is a value, stored
// raw (TraceArg.h lists the accepted types). The message's text is the concatenation of
// pieces and values, e.g. "MountsRegistrySm::handlePeer peer:7 added".
//
// LEVELS. The system traces at 1 (rare, important), 5 (routine) and 8 (detail). A message
// at level L is produced when L <= the handle's level. A handle created with `true` starts
// at level 5, with `false` at 0 (silent). The environment variable VESK_TRACE, read when a
// handle is created, overrides that:
//   VESK_TRACE="*=5,MountsRegistrySm=8,Initial*=1"
// Comma-separated entries `pattern=level`: the pattern is a module name, `*` for every
// module, or a prefix followed by `*`; the level is 0 to 127; a bare pattern means 5. The
// last matching entry wins. Entries that do not parse are reported on stderr and skipped.
// levelIs() sets a level afterwards.
//
// WHERE MESSAGES GO. Every produced message is stored in the ring buffer (Flitlog.h).
// Level 8 messages and all VESK_MIRRLOG messages are also formatted into the text trace, one
// line each, "file.cpp:123 Module text": to stderr, or appended to the file VESK_TRACE_TEXT
// names (read at the first line), or to the file given to TraceText::fileIs().
//
// COST. A disabled call is a compare against one byte and evaluates none of its arguments.
// An enabled call copies raw values into the ring; text is formatted only for the text
// trace and while a TraceCapture is alive.
//
// CONTRACT. One handle per name: creating a second throws NameInUseException. A handle
// must outlive every call site that uses it. `handle` and `level` of the macros may be
// evaluated twice. A call site registers its descriptor with the module of the handle it
// first fires with: keep one handle per call site.
//
// THREADS. Single writer: trace calls, handle creation, level changes and captures must not
// run concurrently. The activity thread owns the trace; another thread must not trace.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "framework/core/String.h"
#include "framework/trace/Flitlog.h"
#include "framework/trace/TraceArg.h"

namespace Vesk {

class TraceHandle {
 public:
  static constexpr int onLevel = 5;      // the level of a handle created with `true`
  static constexpr int detailLevel = 8;  // messages at this level also go to the text trace
  static constexpr int maxLevel = 127;

  TraceHandle(String name, bool onByDefault);
  ~TraceHandle();
  TraceHandle(TraceHandle const&) = delete;
  TraceHandle& operator=(TraceHandle const&) = delete;

  Name const& name() const noexcept { return name_; }
  bool enabled(int level) const noexcept { return level <= level_; }
  // The handle's own level, ignoring a TraceCapture's raise.
  int level() const noexcept { return ownLevel_; }
  // Clamped to [0, maxLevel].
  void levelIs(int level);
  // Whether a message at `level` goes to the ring and the text trace; a capture may enable
  // more messages than this, which then reach the capture alone.
  bool recorded(int level) const noexcept { return level <= ownLevel_; }

  // The handle named `name`, or null.
  static TraceHandle* handle(Name const& name);
  // Every handle, in name order.
  static std::vector<TraceHandle*> handles();

 private:
  friend class TraceCapture;
  void applyCapture(bool active) noexcept;

  Name name_;
  int8_t level_ = 0;  // effective level: ownLevel_, raised to detailLevel under a capture
  int8_t ownLevel_ = 0;
};

// The level the VESK_TRACE syntax `config` gives `module`: `level` when no entry matches.
int traceLevelFor(std::string_view config, std::string_view module, int level);

class TraceText {
 public:
  // Appends the text trace to `path` from now on; an empty path means stderr. Throws
  // Exception when the file cannot be opened; the previous destination then stays.
  static void fileIs(String const& path);
  static String file();
  // Writes "<file's base name>:<line> <module> <text>" and a newline in one write.
  static void lineIs(char const* file, uint32_t line, std::string_view module,
                     std::string_view text);
};

// While alive, every handle is enabled up to level 8 and the text of each produced message
// (pieces and values, no prefix) is appended to lines(). Nested captures are allowed and
// must end in reverse order; the innermost one receives the lines.
class TraceCapture {
 public:
  TraceCapture();
  ~TraceCapture();
  TraceCapture(TraceCapture const&) = delete;
  TraceCapture& operator=(TraceCapture const&) = delete;

  std::vector<std::string> const& lines() const noexcept { return lines_; }
  bool contains(std::string_view substring) const;

  static TraceCapture* active() noexcept { return active_; }
  void lineIs(std::string text) { lines_.push_back(std::move(text)); }

 private:
  static inline TraceCapture* active_ = nullptr;
  TraceCapture* outer_;
  std::vector<std::string> lines_;
};

namespace detail {

template <class A>
inline constexpr bool isValueArg = FlitArg<A>::code != 0;

template <class... A>
[[gnu::noinline]] void registerTraceSite(FlitSite& site, TraceHandle const& handle, int level,
                                         A const&... a) {
  std::string format;
  std::vector<std::string> pieces(1);
  auto add = [&]<class X>(X const& x) {
    if constexpr (isValueArg<X>) {
      format.push_back(FlitArg<X>::code);
      pieces.emplace_back();
    } else {
      pieces.back().append(FlitArg<X>::text(x));
    }
  };
  (add(a), ...);
  Flitlog::registerSite(site, handle.name().view(), level, format, pieces);
}

template <class... A>
[[gnu::noinline]] std::string traceText(A const&... a) {
  std::string out;
  (FlitArg<A>::append(out, a), ...);
  return out;
}

template <class... A>
void flitWrite(Flitlog& log, uint32_t id, A const&... a) {
  size_t payload = (size_t(0) + ... + FlitArg<A>::bytes(a));
  size_t budget = SIZE_MAX;
  if (payload > log.maxPayload()) [[unlikely]] {
    // Shorten the text values, earliest first, so the record fits.
    size_t const fixed = payload - (size_t(0) + ... + FlitArg<A>::textBytes(a));
    budget = log.maxPayload() > fixed ? log.maxPayload() - fixed : 0;
    payload = fixed + budget;
  }
  char* p = log.startMsg(id, payload);
  ((p = FlitArg<A>::put(p, a, budget)), ...);
  log.endMsg();
}

// Everything but a plain ring-buffer message: a site's first use with the current file,
// text lines, captures. Kept out of line so that the common case stays short.
template <class... A>
[[gnu::noinline]] void traceEmitSlow(FlitSite& site, TraceHandle const& handle, int level,
                                     A const&... a) {
  if (handle.recorded(level)) {
    if (site.generation != Flitlog::generation()) registerTraceSite(site, handle, level, a...);
    if (site.id) flitWrite(Flitlog::current(), site.id, a...);
    if (level >= TraceHandle::detailLevel || (site.flags & FlitSite::mirrored)) {
      std::string text = traceText(a...);
      TraceText::lineIs(site.file, site.line, handle.name().view(), text);
      if (TraceCapture* capture = TraceCapture::active()) capture->lineIs(std::move(text));
      return;
    }
  }
  if (TraceCapture* capture = TraceCapture::active()) capture->lineIs(traceText(a...));
}

template <class... A>
void traceEmitStored(FlitSite& site, TraceHandle const& handle, int level, A const&... a) {
  static_assert((size_t(0) + ... + size_t(isValueArg<A>)) <= 64,
                "a trace message takes at most 64 values");
  bool const plain = handle.recorded(level) && site.generation == Flitlog::generation() &&
                     site.id && level < TraceHandle::detailLevel &&
                     !(site.flags & FlitSite::mirrored) && !TraceCapture::active();
  if (plain) [[likely]] {
    flitWrite(Flitlog::current(), site.id, a...);
  } else {
    traceEmitSlow(site, handle, level, a...);
  }
}

template <class... A>
void traceEmit(FlitSite& site, TraceHandle const& handle, int level, A&&... a) {
  traceEmitStored(site, handle, level, traceArg(std::forward<A>(a))...);
}

}  // namespace detail
}  // namespace Vesk

#define VESK_TRACE_SITE_(handle, level, flags, ...)                               \
  do {                                                                            \
    if ((handle).enabled(level)) [[unlikely]] {                                   \
      static constinit ::Vesk::FlitSite veskFlitSite_(__FILE__, __LINE__, flags); \
      ::Vesk::detail::traceEmit(veskFlitSite_, (handle), (level), __VA_ARGS__);   \
    }                                                                             \
  } while (false)

// A message to the ring buffer (and, at level 8, to the text trace).
#define VESK_TRACE(handle, level, ...) VESK_TRACE_SITE_(handle, level, 0, __VA_ARGS__)
// A message to both the ring buffer and the text trace, at any level.
#define VESK_MIRRLOG(handle, level, ...) \
  VESK_TRACE_SITE_(handle, level, ::Vesk::FlitSite::mirrored, __VA_ARGS__)
