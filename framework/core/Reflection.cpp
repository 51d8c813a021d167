#include "framework/core/Reflection.h"

#include <charconv>

#include "framework/core/Entity.h"
#include "framework/core/Exception.h"
#include "framework/core/ReflectionWriters.h"

namespace Vesk {

namespace {
String parentText(Entity const& e) {
  Entity* p = e.parentRaw();
  return p ? p->fullName() : String();
}

AttributeDescription const kCommon[] = {
    {253, "name", AttributeKind::key, "Vesk::Name", false, false,
     [](Entity const& e) { return String(e.name()); }},
    {254, "fullName", AttributeKind::scalar, "Vesk::String", false, false,
     [](Entity const& e) { return e.fullName(); }},
    {255, "parent", AttributeKind::reference, "Vesk::Entity", false, false, parentText, nullptr,
     nullptr, [](Entity const& e, String const&) { return e.parent(); }},
    {256, "parentAttrName", AttributeKind::scalar, "Vesk::String", false, false,
     [](Entity const& e) { return e.parentAttrName(); }},
    {257, "entity", AttributeKind::scalar, "Vesk::String", false, false,
     [](Entity const& e) { return e.uriPath(); }},
};
}  // namespace

std::span<AttributeDescription const> commonAttributes() { return kCommon; }

AttributeDescription const* TypeDescription::attribute(std::string_view attrName) const {
  for (auto const& a : attributes) {
    if (attrName == a.name) return &a;
  }
  if (attributes.data() != kCommon) {
    for (auto const& a : kCommon) {
      if (attrName == a.name) return &a;
    }
  }
  return nullptr;
}

AttributeDescription const* TypeDescription::attribute(uint32_t id) const {
  if (id < firstOwnAttributeId) {
    for (auto const& a : kCommon) {
      if (a.id == id) return &a;
    }
    return nullptr;
  }
  size_t i = id - firstOwnAttributeId;
  if (i < attributes.size() && attributes[i].id == id) return &attributes[i];
  for (auto const& a : attributes) {
    if (a.id == id) return &a;
  }
  return nullptr;
}

namespace detail {

Ptr<Entity> referenceTarget(Entity const& holder, char const* attr, String const& fullName) {
  if (!fullName.view().starts_with('/')) return nullptr;
  Ptr<Entity> target = holder.entityAtFullName(fullName);
  if (!target) {
    throw RangeException(String(holder.veskTypeName()) + "::" + attr + ": no entity " + fullName +
                         " in the tree of " + holder.fullName());
  }
  return target;
}

void throwReferenceTypeMismatch(Entity const& holder, char const* attr, Entity const& target,
                                char const* expectedType) {
  throw RangeException(String(holder.veskTypeName()) + "::" + attr + ": " + target.fullName() +
                       " is a " + target.veskTypeName() + ", not a " + expectedType);
}

}  // namespace detail

String EnumDescription::valueToStrep(uint32_t v) const {
  for (auto const& e : values) {
    if (e.value == v) return String(e.name);
  }
  return String(std::to_string(v));
}

bool EnumDescription::sequenceToValue(char const* begin, char const* end, uint32_t& out) const {
  std::string_view text(begin, size_t(end - begin));
  for (auto const& e : values) {
    if (text == e.name) {
      out = e.value;
      return true;
    }
  }
  uint32_t v = 0;
  auto [p, ec] = std::from_chars(begin, end, v);
  if (ec != std::errc() || p != end || text.empty()) return false;
  out = v;
  return true;
}

}  // namespace Vesk
