#include "framework/trace/TraceArg.h"

#include <charconv>
#include <sstream>

namespace Vesk::detail {

String streamedText(void const* value, void (*write)(std::ostream&, void const*)) {
  std::ostringstream os;
  write(os, value);
  return String(os.str());
}

namespace {
template <class V>
void appendChars(std::string& out, V v) {
  char buf[32];
  auto const result = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, result.ptr);
}
}  // namespace

void appendNumber(std::string& out, int64_t v) { appendChars(out, v); }
void appendNumber(std::string& out, uint64_t v) { appendChars(out, v); }
void appendNumber(std::string& out, double v) { appendChars(out, v); }

}  // namespace Vesk::detail
