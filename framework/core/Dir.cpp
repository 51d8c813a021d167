#include "framework/core/Dir.h"

#include <vector>

#include "framework/core/Exception.h"
#include "framework/core/TypeRegistry.h"

namespace Vesk {

namespace {
constexpr uint32_t kEntityPtrId = firstOwnAttributeId;

AttributeDescription const kDirAttributes[] = {
    {kEntityPtrId, "entityPtr", AttributeKind::entityCollection, "Vesk::Entity", true, false,
     nullptr, nullptr,
     [](Entity const& e, std::function<void(String const&, String const&)> const& visit) {
       for (auto const& [k, v] : static_cast<Dir const&>(e).entityPtrMembers()) {
         visit(k, v.ptr()->fullName());
       }
     },
     [](Entity const& e, String const& key) { return static_cast<Dir const&>(e).entry(key); }},
};
}  // namespace

Ptr<Dir> dirFactory(Name const& name) { return Ptr<Dir>(new Dir(name)); }

TypeDescription const& Dir::veskTypeDescription() const {
  static TypeDescription const type{typeName, kDirAttributes};
  return type;
}

String const& Dir::keptFullName() const {
  if (keptFullName_.empty() || !hasFullName(keptFullName_.view())) keptFullName_ = fullName();
  return keptFullName_;
}

Ptr<Entity> Dir::entityPtr(Name const& name) const {
  Owned<Entity> const* e = entityPtr_.find(name);
  return e ? e->ptr() : nullptr;
}

Ptr<Entity> Dir::entityPtrIs(Ptr<Entity> const& e) {
  if (!e) throwNullParameter("entityPtr", typeName);
  if (Owned<Entity> const* held = entityPtr_.find(e->name())) {
    if (held->ptr() == e) return e;
    throwNameInUseException(fullName() + "/" + e->name() + " is already in use");
  }
  entityPtr_.emplace(e->name(), e, this, kEntityPtrId);
  entityPtrNotify(e->name());
  return e;
}

void Dir::entityPtrDel(Name const& name) {
  if (entityPtr_.erase(name)) entityPtrNotify(name);
}

void Dir::entityPtrDelAll() {
  std::vector<Name> names;
  for (auto const& [k, v] : entityPtr_) names.push_back(k);
  for (Name const& n : names) entityPtrDel(n);
}

Ptr<Entity> Dir::entryIs(Name const& name, String const& type) {
  if (Ptr<Entity> e = entityPtr(name)) {
    if (type == e->veskTypeName()) return e;
    throwNameInUseException(e->fullName() + " is already in use by a " + e->veskTypeName());
  }
  return entityPtrIs(entityNew(type, name));
}

Ptr<Dir> Dir::subdirIs(Name const& name) {
  static String const type(typeName);
  return static_ptr_cast<Dir>(entryIs(name, type));
}

void Dir::entityPtrNotify(Name const& name) const {
  notify<NotifieeConst>([&](NotifieeConst* n) { n->onEntityPtr(name); });
}

}  // namespace Vesk
