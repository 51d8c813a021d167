// Dir: an entity that holds named entries.
//
// The entries form the collection entityPtr (Name -> entity); a directory owns its entries
// and is their parent. A notifiee's onEntityPtr(name) runs for every added and every
// removed name, and onEntityPtr() on the immediate turn, when the notifiee is registered.
//
// entryIs(name, typeName) creates an entry of a type registered by name (TypeRegistry.h)
// unless one exists; an existing entry of another type is a name-in-use failure.
//
// TYPICAL USAGE:
//   Ptr<Dir> root = dirFactory("root");
//   Ptr<Dir> sub = root->subdirIs("mounts");
//   sub->entityPtrIs(someEntity);           // placed under its own name
//   Ptr<Entity> e = root->entity("mounts/" + name);
#pragma once

#include "framework/core/Entity.h"
#include "framework/core/HashMap.h"
#include "framework/core/Notifiee.h"

namespace Vesk {

class Dir : public Entity {
 public:
  static constexpr char const* typeName = "Vesk::Dir";

  Ptr<Entity> entityPtr(Name const& name) const;
  Ptr<Entity> entry(Name const& name) const { return entityPtr(name); }
  Ptr<Entity> entityRef(Name const& name) const { return entityPtr(name); }
  HashMap<Name, Owned<Entity>> const& entityPtrMembers() const { return entityPtr_; }
  size_t entityPtrSize() const { return entityPtr_.size(); }

  // Places e under its own name. The name may not be held by another entity.
  Ptr<Entity> entityPtrIs(Ptr<Entity> const& e);
  void entityPtrDel(Name const& name);
  void entityPtrDelAll();

  Ptr<Entity> entryIs(Name const& name, String const& typeName);
  Ptr<Dir> subdirIs(Name const& name);

  // fullName(), built once and handed out again while it is still right, so that callers
  // naming the same directory many times (every mount from one connection names that
  // connection's directory) share one string.
  String const& keptFullName() const;

  TypeDescription const& veskTypeDescription() const override;

  class NotifieeConst : public BaseNotifiee<Dir const> {
   public:
    virtual void onEntityPtr(Name const&) {}
    virtual void onEntityPtr() {}
    virtual void onEntityPtrveskImmediate() { onEntityPtr(); }
    void onRegistered() override { onEntityPtrveskImmediate(); }
  };
  class Notifiee : public NotifieeConst {
   public:
    Ptr<Dir> notifier() const { return const_ptr_cast<Dir>(NotifieeConst::notifier()); }
  };

 protected:
  explicit Dir(Name const& name) : Entity(name) {}
  Ptr<Entity> namedEntry(Name const& name) const override { return entityPtr(name); }

 private:
  friend Ptr<Dir> dirFactory(Name const& name);
  void entityPtrNotify(Name const& name) const;

  HashMap<Name, Owned<Entity>> entityPtr_;
  mutable String keptFullName_;
  [[no_unique_address]] LiveCount<Dir> liveCount_;
};

Ptr<Dir> dirFactory(Name const& name);

}  // namespace Vesk
