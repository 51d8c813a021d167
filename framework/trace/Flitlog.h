// Flitlog: the ring-buffer trace. Its image (header, descriptors, ring; FlitlogLayout.h)
// lives in memory the Flitlog allocates, and is copied to the trace file, when there is one,
// for tools/flitread to decode.
//
// Emission stores no text. Each trace call site owns a static FlitSite; the first time the
// site fires against the current file it registers a descriptor (module, line, fixed text
// pieces, one type code per argument) and gets a message id. Every message is then the id
// followed by the raw argument values:
//   char* p = log.startMsg(site.id, payloadBytes);   // exactly payloadBytes bytes follow
//   ... copy the argument values to p ...
//   log.endMsg();
// VESK_TRACE (Trace.h) does all of this; nothing else needs to call it directly.
//
// The current file is chosen by fileIs(); otherwise, at first use, by the environment:
//   VESK_FLITLOG_FILE   path of the trace file (absent or empty: the image stays in memory
//                       and no other process can read it)
//   VESK_FLITLOG_BYTES  its size in bytes (default Flitlog::defaultBytes)
// Every file opened starts a new generation: call sites registered against an earlier file
// register again before their next message.
//
// WHEN THE FILE IS WRITTEN. Emission only touches memory. The whole image goes to the file
//   - when fileIs() creates it (still empty: this sizes the file, so a full disk fails there),
//   - at flush(),
//   - when fileIs() replaces it by another file,
//   - when the process exits normally (returns from main or calls std::exit),
//   - when a failed assertion (Assert.h) stops the process.
// Nothing else is written: a process stopped by a signal or std::abort leaves the file as of
// the last of these. A host that wants the last messages after a fatal signal installs its
// own handler that calls Flitlog::flush(); the library installs none.
//
// THREADS. One writer at a time: startMsg/endMsg and registration must not run
// concurrently, nor concurrently with fileIs() or flush(). The activity thread owns the
// trace.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "framework/core/String.h"
#include "framework/trace/FlitlogLayout.h"

namespace Vesk {

// The static record of one trace call site. Constant-initialised, so a function-local
// static of this type costs no guard check.
struct FlitSite {
  static constexpr uint8_t mirrored = flit::descMirrored;

  constexpr FlitSite(char const* sourceFile, uint32_t sourceLine, uint8_t siteFlags)
      : file(sourceFile), line(sourceLine), flags(siteFlags) {}

  char const* const file;
  uint32_t const line;
  uint8_t const flags;
  uint32_t generation = 0;  // the Flitlog generation `id` belongs to; 0: none yet
  uint32_t id = 0;          // 0 once registered: the file refused it; skip the ring
};

class Flitlog {
 public:
  static constexpr size_t defaultBytes = size_t(8) << 20;

  // Makes `path`, `bytes` long, the current trace file. An existing file is truncated and
  // started afresh. `bytes` is rounded down to a multiple of 8 and must be at least
  // flit::minFileBytes and at most flit::maxFileBytes (RangeException). An empty path keeps the
  // image in memory only. Throws Exception when the memory cannot be had or the file cannot be
  // created and written whole; the previous file then stays. Otherwise the previous image is
  // written to its file, which is then closed.
  static void fileIs(String const& path, size_t bytes = defaultBytes);
  // The current file's path; empty when the image stays in memory.
  static String file();
  static uint32_t generation() noexcept { return generation_; }
  // The current file, opened from the environment at first use.
  static Flitlog& current() { return current_ ? *current_ : openFromEnvironment(); }
  // The whole image of the current file, for decoding in the writing process.
  static std::span<std::byte const> image();
  // Writes the current image to its file, if it has one, over the previous copy. Best
  // effort: the first failure per file is reported on stderr, the others are ignored. Never
  // throws, allocates no memory and opens no trace file, so that a host's fatal-signal
  // handler may call it as a last resort. It uses stdio, which is not async-signal-safe:
  // from a handler it is a best effort, not a guarantee. A flush that interrupts another
  // does nothing, and a message still being written is left out.
  static void flush() noexcept;

  // Registers a descriptor for `site` with the current file and sets site.generation and
  // site.id. `pieces` holds format.size() + 1 fixed texts: the one before each argument and
  // the one after the last.
  static void registerSite(FlitSite& site, std::string_view module, int level,
                           std::string_view format, std::span<std::string const> pieces);

  // The largest payload a message may carry (a quarter of the ring, less the record
  // header). Emitters shorten text arguments to fit.
  size_t maxPayload() const noexcept { return maxPayload_; }

  // Reserves a record with `payload` argument bytes (at most maxPayload()) and returns where
  // they go. The record becomes visible to readers at endMsg().
  char* startMsg(uint32_t id, size_t payload) noexcept {
    uint32_t const bytes = uint32_t(flit::align8(sizeof(flit::MsgHeader) + payload));
    if (headOff_ + bytes > ringBytes_ || headPos_ + bytes - tailPos_ > ringBytes_) [[unlikely]] {
      makeRoom(bytes);
    }
    char* record = ring_ + headOff_;
    flit::MsgHeader const h{bytes, id, sequence_++};
    std::memcpy(record, &h, sizeof h);
    pending_ = bytes;
    return record + sizeof h;
  }
  void endMsg() noexcept {
    headPos_ += pending_;
    headOff_ += pending_;
    if (headOff_ == ringBytes_) headOff_ = 0;
    header_->head = headPos_;
  }

  Flitlog(Flitlog const&) = delete;
  Flitlog& operator=(Flitlog const&) = delete;
  ~Flitlog();

 private:
  Flitlog(String path, size_t bytes);
  static Flitlog* open(String const& path, size_t bytes);
  static Flitlog& openFromEnvironment();
  // Advances the tail until `bytes` fit at the head with a slice of the ring to spare,
  // writing padding to the end of the ring first when the record would straddle it.
  void makeRoom(uint32_t bytes) noexcept;
  void registerDescriptor(FlitSite& site, std::string_view module, int level,
                          std::string_view format, std::span<std::string const> pieces);
  void writeFile() noexcept;

  // Generation 1 has no file yet: its first registration opens one and moves on to 2.
  static inline uint32_t generation_ = 1;
  static inline Flitlog* current_ = nullptr;

  String path_;
  std::byte* image_;
  size_t imageBytes_;
  std::FILE* out_ = nullptr;  // the trace file, unbuffered; null when there is none
  bool writeFailed_ = false;  // a failed write of out_ was reported
  flit::Header* header_;
  char* ring_;
  uint64_t ringBytes_;
  uint64_t headOff_ = 0;
  uint64_t headPos_ = 0;
  uint64_t tailOff_ = 0;
  uint64_t tailPos_ = 0;
  uint64_t sequence_ = 0;
  uint32_t pending_ = 0;
  size_t maxPayload_;
};

}  // namespace Vesk
