#include "Schema.h"

#include <cctype>
#include <charconv>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace vgen {

namespace {

struct LineReader {
  std::string path;
  int line = 0;
  [[noreturn]] void fail(std::string const& msg) const {
    throw std::runtime_error(path + ":" + std::to_string(line) + ": " + msg);
  }
};

std::vector<std::string> tokens(std::string const& text) {
  std::vector<std::string> out;
  size_t i = 0;
  while (i < text.size()) {
    if (isspace(static_cast<unsigned char>(text[i]))) {
      ++i;
    } else if (text[i] == '"') {
      size_t end = text.find('"', i + 1);
      if (end == std::string::npos) end = text.size();
      out.push_back(text.substr(i, end + 1 - i));
      i = end + 1;
    } else if (text[i] == '#') {
      break;
    } else {
      size_t end = i;
      while (end < text.size() && !isspace(static_cast<unsigned char>(text[end]))) ++end;
      out.push_back(text.substr(i, end - i));
      i = end;
    }
  }
  return out;
}

bool isIdentifier(std::string_view t) {
  if (t.empty() || std::isdigit(static_cast<unsigned char>(t.front()))) return false;
  for (char c : t) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') return false;
  }
  return true;
}

// A name the generated C++ uses as it is: an identifier, or for a namespace identifiers
// joined by "::".
std::string const& checkedName(LineReader const& r, std::string const& t, bool qualified = false) {
  std::string_view rest(t);
  for (size_t at; qualified && (at = rest.find("::")) != std::string_view::npos;) {
    if (!isIdentifier(rest.substr(0, at))) break;
    rest.remove_prefix(at + 2);
  }
  if (!isIdentifier(rest)) r.fail("'" + t + "' is not a name");
  return t;
}

unsigned enumeratorValue(LineReader const& r, std::string const& t) {
  unsigned value = 0;
  auto [end, error] = std::from_chars(t.data(), t.data() + t.size(), value);
  if (error != std::errc() || end != t.data() + t.size()) {
    r.fail("expected a number from 0 to 4294967295, got '" + t + "'");
  }
  return value;
}

std::string unquote(LineReader const& r, std::string const& t) {
  if (t.size() < 2 || t.front() != '"' || t.back() != '"') r.fail("expected a quoted text");
  return t.substr(1, t.size() - 2);
}

// "<name> : <type...> [flags]" from position 1; a type may be "@const X".
Attr readAttr(LineReader const& r, AttrKind kind, std::vector<std::string> const& t) {
  if (t.size() < 4 || t[2] != ":") r.fail("expected '" + t[0] + " <name> : <type>'");
  Attr a;
  a.kind = kind;
  a.name = checkedName(r, t[1]);
  a.line = r.line;
  size_t i = 3;
  auto readType = [&]() {
    if (i >= t.size()) r.fail("missing type");
    std::string type = t[i++];
    if (type == "@const") {
      if (i >= t.size()) r.fail("missing type after @const");
      type += " " + t[i++];
    }
    return type;
  };
  std::string first = readType();
  if (kind == AttrKind::collection || kind == AttrKind::owned) {
    if (i >= t.size() || t[i] != "->") r.fail("expected '<key> -> <value>'");
    ++i;
    a.keyType = first;
    a.type = readType();
  } else {
    a.type = first;
  }
  for (; i < t.size(); ++i) {
    if (t[i] == "notify") {
      a.notify = true;
    } else if (t[i] == "nonnull") {
      a.nonnull = true;
    } else if (t[i] == "ctor") {
      a.ctor = true;
    } else if (t[i] == "nameInUse") {
      a.nameInUse = true;
    } else {
      r.fail("unknown flag '" + t[i] + "'");
    }
  }
  return a;
}

std::optional<AttrKind> attrKind(std::string const& statement) {
  if (statement == "key") return AttrKind::key;
  if (statement == "param") return AttrKind::param;
  if (statement == "attr") return AttrKind::scalar;
  if (statement == "collection") return AttrKind::collection;
  if (statement == "owned") return AttrKind::owned;
  if (statement == "parent") return AttrKind::parent;
  return std::nullopt;
}

// Each name below is a member of the generated type, so each may appear once.
void addAttr(LineReader const& r, Entity& entity, Attr attr) {
  for (Attr const& a : entity.attrs) {
    if (a.name == attr.name) r.fail("entity " + entity.name + " already has " + attr.name);
  }
  entity.attrs.push_back(std::move(attr));
}

// The generated enum prints and parses each value by its one enumerator.
void addEnumerator(LineReader const& r, Enum& en, std::string const& name, unsigned value) {
  for (auto const& [n, v] : en.values) {
    if (n == name) r.fail("enum " + en.name + " already has " + name);
    if (v == value) r.fail("enum " + en.name + " already has the value " + std::to_string(value));
  }
  en.values.emplace_back(name, value);
}

// The key is the generated constructor's first parameter; the constructor parameters
// (params, and attrs flagged ctor) follow it in declaration order.
void checkKey(LineReader r, Entity const& e) {
  int keys = 0;
  for (auto const& a : e.attrs) keys += a.kind == AttrKind::key;
  if (keys != 1) {
    r.line = e.line;
    r.fail("entity " + e.name + " needs exactly one key");
  }
  for (auto const& a : e.attrs) {
    if (a.kind == AttrKind::key) return;
    if (a.kind == AttrKind::param || a.ctor) {
      r.line = a.line;
      r.fail("constructor parameter " + a.name + " of entity " + e.name + " must follow the key");
    }
  }
}

void declareType(LineReader const& r, std::set<std::string>& types, std::string const& ns,
                 std::string const& name) {
  if (!types.insert(ns + "::" + name).second) r.fail(name + " is declared twice");
}

}  // namespace

Entity const* Schema::entity(std::string const& n) const {
  for (auto const& e : entities) {
    if (e.name == n || e.qualified() == n) return &e;
  }
  return nullptr;
}

bool Schema::isEnum(std::string const& type) const {
  for (auto const& e : enums) {
    if (e.name == type || e.qualified() == type) return true;
  }
  return false;
}

Schema parseSchema(std::string const& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error(path + ": cannot open");
  Schema s;
  s.path = path;
  LineReader r{path};
  std::string ns;
  Entity* entity = nullptr;
  Enum* en = nullptr;
  std::set<std::string> types;  // qualified names of the enums and entities so far
  std::string text;
  while (std::getline(in, text)) {
    ++r.line;
    std::vector<std::string> t = tokens(text);
    if (t.empty()) continue;
    std::string const& w = t[0];
    if (w == "end") {
      if (!entity && !en) r.fail("'end' outside a block");
      entity = nullptr;
      en = nullptr;
    } else if (en) {
      if (t.size() != 3 || t[1] != "=") r.fail("expected '<enumerator> = <number>'");
      addEnumerator(r, *en, checkedName(r, t[0]), enumeratorValue(r, t[2]));
    } else if (entity) {
      if (std::optional<AttrKind> kind = attrKind(w)) {
        addAttr(r, *entity, readAttr(r, *kind, t));
      } else if (w == "declare") {
        if (t.size() != 2) r.fail("expected 'declare \"<declaration>\"'");
        entity->declares.push_back(unquote(r, t[1]));
      } else if (w == "member") {
        if (t.size() != 2) r.fail("expected 'member \"<declaration>\"'");
        entity->members.push_back(unquote(r, t[1]));
      } else {
        r.fail("unknown entity statement '" + w + "'");
      }
    } else if (w == "module" && t.size() == 2) {
      s.module = checkedName(r, t[1]);
    } else if (w == "attrlog" && t.size() == 1) {
      s.attrlog = true;
    } else if (w == "namespace" && t.size() == 2) {
      ns = checkedName(r, t[1], /*qualified=*/true);
    } else if (w == "include" && t.size() == 2) {
      s.includes.push_back(unquote(r, t[1]));
    } else if (w == "enum" && t.size() == 2) {
      declareType(r, types, ns, checkedName(r, t[1]));
      s.enums.push_back(Enum{t[1], ns, {}});
      en = &s.enums.back();
    } else if (w == "entity" && t.size() >= 2) {
      declareType(r, types, ns, checkedName(r, t[1]));
      Entity fresh;
      fresh.name = t[1];
      fresh.ns = ns;
      s.entities.push_back(fresh);
      entity = &s.entities.back();
      entity->line = r.line;
      for (size_t i = 2; i < t.size(); ++i) {
        if (t[i] == "factory") {
          entity->factory = true;
        } else if (t[i] == "hooks") {
          entity->hooks = true;
        } else if (t[i] == "counted") {
          entity->counted = true;
        } else {
          r.fail("unknown entity flag '" + t[i] + "'");
        }
      }
    } else {
      r.fail("unknown statement '" + text + "'");
    }
  }
  if (entity || en) r.fail("missing 'end'");
  if (s.module.empty()) r.fail("missing 'module'");
  for (auto const& e : s.entities) checkKey(r, e);
  return s;
}

}  // namespace vgen
