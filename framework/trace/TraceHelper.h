// TraceHelper: one text-trace line whose text is finished at run time, for a message that
// code builds up itself rather than through a VESK_TRACE call site.
//
// createIfEnabled() formats its arguments as VESK_TRACE prints them (TraceArg.h) into the
// start of the line, and returns a helper only when the handle has the level on; trace()
// adds the rest of the text and prints the line, "file.cpp:123 Module text", through the
// text trace (TraceText in Trace.h) when the handle records the level, and to the active
// TraceCapture in any case, like a VESK_MIRRLOG message. The ring buffer does not see it.
//
// TYPICAL USAGE:
//   if (auto t = TraceHelper::createIfEnabled(traceHandle, 5, "MountsRegistrySm::", peer)) {
//     t->trace(" peer added", __LINE__, __FILE__);
//   }
//
// Unlike the macros, the arguments are evaluated even when the level is off.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "framework/core/String.h"
#include "framework/trace/Trace.h"

namespace Vesk {

class TraceHelper {
 public:
  template <class... A>
  static std::optional<TraceHelper> createIfEnabled(TraceHandle const& handle, int level,
                                                    A const&... a) {
    if (!handle.enabled(level)) return std::nullopt;
    return TraceHelper(handle, level, detail::traceText(detail::traceArg(a)...));
  }

  void trace(String const& text, uint32_t line, char const* file) const;

 private:
  TraceHelper(TraceHandle const& handle, int level, std::string start)
      : handle_(&handle), level_(level), start_(std::move(start)) {}

  TraceHandle const* handle_;
  int level_;
  std::string start_;
};

}  // namespace Vesk
