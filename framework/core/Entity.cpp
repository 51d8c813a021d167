#include "framework/core/Entity.h"

#include "framework/core/Exception.h"
#include "framework/core/ReadOnly.h"

#include <string>
#include <vector>

namespace Vesk {

String Entity::parentAttrName() const {
  if (!parent_) return String();
  AttributeDescription const* a = parent_->veskTypeDescription().attribute(parentAttrId_);
  return a ? String(a->name) : String();
}

String Entity::fullName() const {
  size_t size = 0;
  for (Entity const* e = this; e; e = e->parent_) size += 1 + e->name_.size();
  // Written from the end, this entity's name last.
  return String::filled(size, [this, size](char* out) {
    char* at = out + size;
    for (Entity const* e = this; e; e = e->parent_) {
      std::string_view const name = e->name_.view();
      at -= name.size();
      name.copy(at, name.size());
      *--at = '/';
    }
  });
}

bool Entity::hasFullName(std::string_view path) const {
  for (Entity const* e = this; e; e = e->parent_) {
    std::string_view const name = e->name_.view();
    if (path.size() < name.size() + 1 || !path.ends_with(name)) return false;
    path.remove_suffix(name.size());
    if (path.back() != '/') return false;
    path.remove_suffix(1);
  }
  return path.empty();
}

String Entity::uriPath() const {
  static char const hex[] = "0123456789ABCDEF";
  std::string out;
  String const path = fullName();  // the loop must not outlive its string
  for (unsigned char c : path.view()) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '-' || c == '_' || c == '.' || c == '~' || c == '/';
    if (plain) {
      out += char(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return String(out);
}

namespace {
std::string_view nextComponent(std::string_view& rest) {
  while (!rest.empty() && rest.front() == '/') rest.remove_prefix(1);
  size_t slash = rest.find('/');
  std::string_view c = rest.substr(0, slash);
  rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
  return c;
}
}  // namespace

Ptr<Entity> Entity::step(std::string_view component, std::string_view& rest) const {
  if (Ptr<Entity> e = namedEntry(Name(String(component)))) return e;
  AttributeDescription const* a = veskTypeDescription().attribute(component);
  if (!a || !a->member) return nullptr;
  if (a->kind == AttributeKind::reference) return a->member(*this, String());
  if (a->kind != AttributeKind::entityCollection) return nullptr;
  std::string_view key = nextComponent(rest);
  if (key.empty()) return nullptr;
  return a->member(*this, String(key));
}

Ptr<Entity> Entity::entity(String const& path) const {
  std::string_view rest = path.view();
  Ptr<Entity> cur(const_cast<Entity*>(this));
  for (std::string_view c = nextComponent(rest); !c.empty(); c = nextComponent(rest)) {
    cur = cur->step(c, rest);
    if (!cur) return nullptr;
  }
  return cur;
}

Ptr<Entity> Entity::child(std::string_view name) const {
  String const key(name);
  if (Ptr<Entity> e = namedEntry(Name(key))) return e;
  for (AttributeDescription const& a : veskTypeDescription().attributes) {
    if (a.kind != AttributeKind::entityCollection || !a.member) continue;
    if (Ptr<Entity> e = a.member(*this, key)) return e;
  }
  return nullptr;
}

Ptr<Entity> Entity::entityAtFullName(String const& fullName) const {
  Entity const* root = this;
  while (root->parent_) root = root->parent_;
  std::string_view rest = fullName.view();
  if (!rest.starts_with('/') || nextComponent(rest) != root->name_.view()) return nullptr;
  Ptr<Entity> cur(const_cast<Entity*>(root));
  for (std::string_view c = nextComponent(rest); cur && !c.empty(); c = nextComponent(rest)) {
    cur = cur->child(c);
  }
  return cur;
}

TypeDescription const& Entity::veskTypeDescription() const {
  static TypeDescription const type{"Vesk::Entity", commonAttributes()};
  return type;
}

}  // namespace Vesk

namespace Vesk {

void throwReadOnly(Entity const& entity, char const* attr) {
  throw ReadOnlyException(readOnlyText(attr, entity.fullName()));
}

}  // namespace Vesk
