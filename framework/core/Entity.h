// Entity: a named, reference-counted object in a tree.
//
// An entity's name is fixed at construction. Its parent is set by the collection that owns
// it and cleared when the collection lets it go; a child never keeps its parent alive, so
// the tree has no ownership cycle. fullName() is the path of names from the root, each
// preceded by "/". entity(path) resolves a path below this entity: a directory's entries
// by name, elsewhere an attribute name followed, for an entity collection, by a key.
// entityAtFullName(fullName) finds an entity of this entity's tree by its fullName().
#pragma once

#include "framework/core/LiveCount.h"
#include "framework/core/Ptr.h"
#include "framework/core/PtrInterface.h"
#include "framework/core/Reflection.h"
#include "framework/core/String.h"

namespace Vesk {

class Entity : public PtrInterface {
 public:
  Name const& name() const { return name_; }
  Ptr<Entity> parent() const { return Ptr<Entity>(parent_); }
  Entity* parentRaw() const { return parent_; }
  void parentIs(Entity* p) { parent_ = p; }
  uint32_t parentAttrId() const { return parentAttrId_; }
  void parentAttrIdIs(uint32_t id) { parentAttrId_ = id; }
  String parentAttrName() const;

  bool nameIsFromBackup() const { return nameIsFromBackup_; }
  void nameIsFromBackupIs(bool b) { nameIsFromBackup_ = b; }

  // A read-only copy refuses local writes (ReadOnly.h); only its attribute log writes it.
  bool veskReadOnly() const { return readOnly_; }
  void veskReadOnlyIs(bool b) { readOnly_ = b; }

  String fullName() const;
  // Whether fullName() would equal `path`, without building it.
  bool hasFullName(std::string_view path) const;
  String uriPath() const;

  // Resolves a "/"-separated path below this entity; null when any step is missing.
  Ptr<Entity> entity(String const& path) const;
  // The entity of this entity's tree whose fullName() is `fullName`; null when none. Each
  // name below the root is a directory's entry or else a member of the first entity
  // collection, in declaration order, that has the name as its key: a full name is not
  // unique when two collections hold the same key, and the first collection wins.
  Ptr<Entity> entityAtFullName(String const& fullName) const;

  virtual TypeDescription const& veskTypeDescription() const;
  char const* veskTypeName() const { return veskTypeDescription().name; }

 protected:
  explicit Entity(Name const& name) : name_(name) {}
  ~Entity() override = default;

  // A directory's entry by name; other entities have none.
  virtual Ptr<Entity> namedEntry(Name const&) const { return nullptr; }

 private:
  Ptr<Entity> step(std::string_view component, std::string_view& rest) const;
  Ptr<Entity> child(std::string_view name) const;

  Name name_;
  Entity* parent_ = nullptr;
  uint32_t parentAttrId_ = 0;
  bool nameIsFromBackup_ = false;
  bool readOnly_ = false;
};

// The value stored by owned entity collections: holds the member and clears its parent
// when the collection lets it go.
template <class T>
class Owned {
 public:
  Owned(Ptr<T> p, Entity* parent, uint32_t attrId) : p_(std::move(p)) {
    p_->parentIs(parent);
    p_->parentAttrIdIs(attrId);
  }
  Owned(Owned const&) = delete;
  ~Owned() {
    if (p_) p_->parentIs(nullptr);
  }
  Ptr<T> const& ptr() const { return p_; }
  T* operator->() const { return p_.ptr(); }

 private:
  Ptr<T> p_;
};

}  // namespace Vesk
