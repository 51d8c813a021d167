#include "framework/core/ValueText.h"

#include <cstdlib>

namespace Vesk {

String veskText(double d) {
  char buf[32];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, d);
  return String(buf, size_t(end - buf));
}

bool veskParse(String const& s, bool& out) {
  if (s == "true" || s == "1") {
    out = true;
  } else if (s == "false" || s == "0") {
    out = false;
  } else {
    return false;
  }
  return true;
}

bool veskParse(String const& s, double& out) {
  if (s.empty()) return false;
  char* end = nullptr;
  std::string text = s.stdString();
  out = std::strtod(text.c_str(), &end);
  return end == text.c_str() + text.size();
}

}  // namespace Vesk
