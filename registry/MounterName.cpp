#include "registry/MounterName.h"

#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace Controller {

namespace {

constexpr std::string_view kPrefix = "Value('Controller::MounterName', ** {'serviceName': ";
constexpr std::string_view kMiddle = ", 'groupName': ";
constexpr std::string_view kSuffix = "})";
constexpr std::string_view kProxySuffix = "-Proxy";

// Reads one quoted representation ('text' with \ escapes) from the front of text.
std::optional<std::string> readQuoted(std::string_view& text) {
  if (text.empty() || text.front() != '\'') return std::nullopt;
  std::string out;
  for (size_t i = 1; i < text.size(); ++i) {
    char c = text[i];
    if (c == '\\' && i + 1 < text.size()) {
      out += text[++i];
    } else if (c == '\'') {
      text.remove_prefix(i + 1);
      return out;
    } else {
      out += c;
    }
  }
  return std::nullopt;
}

bool consume(std::string_view& text, std::string_view expected) {
  if (text.substr(0, expected.size()) != expected) return false;
  text.remove_prefix(expected.size());
  return true;
}

}  // namespace

MounterName::MounterName(FromText, char const* begin, char const* end) {
  stringValueIs(Vesk::String(begin, size_t(end - begin)));
}

Vesk::String MounterName::stringValue() const {
  return Vesk::String(kPrefix) + serviceName_.strep() + Vesk::String(kMiddle) + groupName_.strep() +
         Vesk::String(kSuffix);
}

bool MounterName::stringValueIs(Vesk::String const& value) {
  std::string_view text = value.view();
  if (!consume(text, kPrefix)) return false;
  auto service = readQuoted(text);
  if (!service || !consume(text, kMiddle)) return false;
  auto group = readQuoted(text);
  if (!group || text != kSuffix) return false;
  serviceName_ = Vesk::String(*service);
  groupName_ = Vesk::String(*group);
  return true;
}

Vesk::String valueToStrep(MounterName const& name) { return name.stringValue(); }

std::ostream& operator<<(std::ostream& os, MounterName const& name) {
  return os << name.stringValue();
}

bool isProxyServiceName(Vesk::String const& name) { return name.endsWith(kProxySuffix); }

Vesk::String realServiceNameOfProxy(Vesk::String const& name) {
  return name.substr(0, name.size() - kProxySuffix.size());
}

}  // namespace Controller
