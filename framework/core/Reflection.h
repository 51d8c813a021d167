// Reflection: type descriptions that let a tool read and write any entity generically.
//
// Every entity type publishes one static TypeDescription listing its attributes with their
// ids (the common entity attributes first, then the type's own from 258 upward in
// declaration order). An AttributeDescription carries plain function pointers that read
// an attribute as text, parse and set it, walk a collection, or reach an entity behind a
// reference or a collection key. Enumerations publish an EnumDescription with their string
// forms. Nothing of the system's own behaviour goes through this interface.
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
  // Parses text and sets a settable scalar; false when the text does not parse.
  bool (*set)(Entity&, String const&) = nullptr;
  // Calls visit(keyText, valueText) for every member of a collection.
  void (*forEach)(Entity const&,
                  std::function<void(String const&, String const&)> const&) = nullptr;
  // The entity behind a reference (key ignored) or an entity collection's member.
  Ptr<Entity> (*member)(Entity const&, String const& key) = nullptr;
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
