// TypeRegistry: types that can be created by name, and process-wide singletons.
//
// A type that may live directly in a directory registers a factory under its qualified
// name; Dir::entryIs and the singletons create entities through it. Registration is
// explicit (each model module has a function that registers its types), so that no
// registration depends on static initialisation order or on the linker keeping an object.
#pragma once

#include "framework/core/Entity.h"

namespace Vesk {

using EntityFactory = Ptr<Entity> (*)(Name const&);

void typeFactoryIs(String const& typeName, EntityFactory factory);
// Null when no factory is registered under typeName.
EntityFactory typeFactory(String const& typeName);
// A new entity of the named type; throws RangeException for an unknown type.
Ptr<Entity> entityNew(String const& typeName, Name const& name);

// The one entity of a type under a name, created on first use.
Ptr<Entity> singletonIs(String const& typeName, Name const& name);
template <class T>
Ptr<T> singletonIs(Name const& name) {
  return static_ptr_cast<T>(singletonIs(String(T::typeName), name));
}
bool singletonExists(Name const& name);
Ptr<Entity> singleton(Name const& name);
// Drops every singleton (tests and orderly shut-down).
void singletonDelAll();

}  // namespace Vesk
