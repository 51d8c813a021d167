// Reflection: type descriptions that let a tool read and write any entity generically.
//
// Every entity type publishes one static TypeDescription listing its attributes with their
// ids (the common entity attributes first, then the type's own from 258 upward in
// declaration order). An AttributeDescription carries plain function pointers that read
// an attribute as text, parse and set it, walk a collection, reach an entity behind a
// reference or a collection key, and set, create or delete collection members by key text.
// A pointer is null where the attribute cannot be written that way; generated rows make the
// writing ones from their mutators (ReflectionWriters.h). Enumerations publish an
// EnumDescription with their string forms. Nothing of the system's own behaviour goes
// through this interface.
//
// TEXT FORMS. Values and keys are read and parsed as ValueText.h writes them. A reference
// is written as its target's fullName(), the form get() reads it in, and "null" clears it;
// the target is looked up in the holder's own tree (Entity::entityAtFullName). A full name
// that names no entity there, or names one of another type than the reference's, throws
// RangeException; clearing a reference that may not be null throws NullParameterException.
//
// TYPICAL USAGE (a tool):
//   TypeDescription const& type = shelf->veskTypeDescription();
//   type.attribute("count")->set(*shelf, "42");
//   type.attribute("favourite")->set(*shelf, "/shelf/b");
//   type.attribute("tag")->memberIs(*shelf, "new", "true");
//   type.attribute("tag")->memberDel(*shelf, "old");
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

#include "framework/core/Ptr.h"
#include "framework/core/String.h"

namespace Vesk {

class Entity;

enum class AttributeKind : uint8_t {
  key,               // the entity's own name under its key attribute name
  scalar,            // a value held by the entity
  reference,         // a pointer to another entity
  scalarCollection,  // keyed collection of values
  entityCollection,  // keyed collection of owned entities
};

struct AttributeDescription {
  uint32_t id;
  char const* name;
  AttributeKind kind;
  char const* typeName;
  bool notifying;
  bool settable;
  // Text form of a key, scalar or reference (a reference by the target's fullName).
  String (*get)(Entity const&) = nullptr;
  // Parses text and sets a settable scalar or reference; false when the text does not parse
  // (for a reference: is neither a full name nor "null").
  bool (*set)(Entity&, String const&) = nullptr;
  // Calls visit(keyText, valueText) for every member of a collection.
  void (*forEach)(Entity const&,
                  std::function<void(String const&, String const&)> const&) = nullptr;
  // The entity behind a reference (key ignored) or an entity collection's member.
  Ptr<Entity> (*member)(Entity const&, String const& key) = nullptr;
  // Scalar collections: sets the member under key to value, notifying as fooIs does; false
  // when either text does not parse.
  bool (*memberIs)(Entity&, String const& key, String const& value) = nullptr;
  // Entity collections whose members are made from their key alone: the member under key,
  // created if absent; null when the key does not parse.
  Ptr<Entity> (*memberNew)(Entity&, String const& key) = nullptr;
  // Either kind of collection: deletes the member under key, if present; false when the key
  // does not parse.
  bool (*memberDel)(Entity&, String const& key) = nullptr;
};

struct TypeDescription {
  char const* name;  // qualified, e.g. "Controller::MountConfig"
  std::span<AttributeDescription const> attributes;

  AttributeDescription const* attribute(std::string_view attrName) const;
  AttributeDescription const* attribute(uint32_t id) const;
};

// The attributes every entity has, ids 253 to 257.
std::span<AttributeDescription const> commonAttributes();
constexpr uint32_t firstOwnAttributeId = 258;

struct EnumDescription {
  struct Value {
    uint32_t value;
    char const* name;
  };
  char const* name;
  std::span<Value const> values;

  // The enumerator's name, or the number as text for a value without one.
  String valueToStrep(uint32_t v) const;
  // Parses a name or a decimal number from [begin, end); false when it is neither.
  bool sequenceToValue(char const* begin, char const* end, uint32_t& out) const;
};

}  // namespace Vesk
