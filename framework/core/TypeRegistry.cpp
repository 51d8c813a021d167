#include "framework/core/TypeRegistry.h"

#include "framework/core/Dir.h"
#include "framework/core/Exception.h"
#include "framework/core/HashMap.h"

namespace Vesk {

namespace {
HashMap<String, EntityFactory>& factories() {
  static auto* m = [] {
    auto* f = new HashMap<String, EntityFactory>;
    f->emplace(String(Dir::typeName), [](Name const& n) { return Ptr<Entity>(dirFactory(n)); });
    return f;
  }();
  return *m;
}

HashMap<Name, Ptr<Entity>>& singletons() {
  static auto* m = new HashMap<Name, Ptr<Entity>>;
  return *m;
}
}  // namespace

void typeFactoryIs(String const& typeName, EntityFactory factory) {
  if (EntityFactory* f = factories().find(typeName)) {
    *f = factory;
  } else {
    factories().emplace(typeName, factory);
  }
}

EntityFactory typeFactory(String const& typeName) {
  EntityFactory* f = factories().find(typeName);
  return f ? *f : nullptr;
}

Ptr<Entity> entityNew(String const& typeName, Name const& name) {
  EntityFactory f = typeFactory(typeName);
  if (!f) throwRangeException(("no type registered under the name " + typeName).charPtr());
  return f(name);
}

Ptr<Entity> singletonIs(String const& typeName, Name const& name) {
  if (Ptr<Entity>* e = singletons().find(name)) {
    if (typeName == (*e)->veskTypeName()) return *e;
    throwNameInUseException("singleton " + name + " is already in use by a " +
                            (*e)->veskTypeName());
  }
  Ptr<Entity> e = entityNew(typeName, name);
  singletons().emplace(name, e);
  return e;
}

bool singletonExists(Name const& name) { return singletons().contains(name); }

Ptr<Entity> singleton(Name const& name) {
  Ptr<Entity>* e = singletons().find(name);
  return e ? *e : nullptr;
}

void singletonDelAll() { singletons().clear(); }

}  // namespace Vesk
