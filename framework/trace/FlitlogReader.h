// FlitlogReader: decodes a flitlog trace file (FlitlogLayout.h) into text messages, without
// the process that wrote it.
//
// TYPICAL USAGE:
//   FlitDecoding d = readFlitlogFile("/var/tmp/agent.flit");
//   for (FlitMessage const& m : d.messages) std::puts(m.lineText().c_str());
//   if (!d.ok()) report(d.error);
//
// Messages come out oldest first. Every length and offset in the image is checked before
// it is used: a damaged image yields an error and the messages before the damage, never a
// read outside the image.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace Vesk {

struct FlitMessage {
  uint64_t sequence = 0;
  std::string module;
  std::string file;  // base name of the source file
  uint32_t line = 0;
  int level = 0;
  std::string text;  // fixed pieces and values, printed as TraceArg.h describes

  // "Module:line text"
  std::string lineText() const;
};

struct FlitDecoding {
  std::vector<FlitMessage> messages;
  uint32_t lostDescriptors = 0;  // call sites the writer could not register (area full)
  // Messages the ring dropped to make room before the oldest one kept; nonzero once the
  // ring has wrapped.
  uint64_t lostMessages = 0;
  std::string error;  // empty when the whole image decoded
  bool ok() const { return error.empty(); }
};

FlitDecoding decodeFlitlog(std::span<std::byte const> image);
// Reads and decodes the file at `path`; an unreadable file is an error like a damaged one.
// It reads the header first and then no more than the file the header announces (at most
// flit::maxFileBytes), so a stream that never ends, or a file that is not a trace, is
// refused without being read whole; a file shorter than its header says is "truncated".
FlitDecoding readFlitlogFile(std::string const& path);

}  // namespace Vesk
