#include "Template.h"

#include <map>
#include <stdexcept>

namespace vgen {

// Replaces every {{NAME}} of a template by its value.
std::string fill(std::string const& tmpl, Vars const& vars) {
  std::string out;
  size_t i = 0;
  while (i < tmpl.size()) {
    size_t open = tmpl.find("{{", i);
    if (open == std::string::npos) {
      out += tmpl.substr(i);
      break;
    }
    size_t close = tmpl.find("}}", open);
    std::string key = tmpl.substr(open + 2, close - open - 2);
    auto it = vars.find(key);
    if (it == vars.end()) throw std::logic_error("template variable " + key + " unset");
    out += tmpl.substr(i, open - i) + it->second;
    i = close + 2;
  }
  return out;
}

std::string upperFirst(std::string s) {
  if (!s.empty()) s[0] = char(toupper(static_cast<unsigned char>(s[0])));
  return s;
}
std::string lowerFirst(std::string s) {
  if (!s.empty()) s[0] = char(tolower(static_cast<unsigned char>(s[0])));
  return s;
}

TypeInfo typeInfo(Schema const& s, std::string const& t) {
  static std::map<std::string, std::string> const primitives{
      {"String", "Vesk::String"}, {"Name", "Vesk::Name"}, {"bool", "bool"},
      {"u32", "uint32_t"},        {"u64", "uint64_t"},    {"Seconds", "Vesk::Seconds"}};
  TypeInfo i;
  if (auto p = primitives.find(t); p != primitives.end()) {
    i.cpp = p->second;
    i.parseable = true;
    bool cheap = t != "String" && t != "Name";
    i.ret = cheap ? i.cpp : i.cpp + " const&";
  } else if (t.rfind("@const ", 0) == 0) {
    i.pointee = t.substr(7) + " const";
  } else if (t[0] == '@') {
    i.pointee = t.substr(1);
  } else {
    i.cpp = t;
    i.parseable = s.isEnum(t);
    i.ret = s.isEnum(t) ? t : t + " const&";
  }
  if (!i.pointee.empty()) {
    i.pointer = true;
    i.cpp = "Vesk::Ptr<" + i.pointee + ">";
    i.ret = i.cpp + " const&";
  }
  return i;
}

}  // namespace vgen
