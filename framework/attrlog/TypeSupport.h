// The replication of each entity type, as its generated code provides it, and which types
// are enabled.
//
// A generated type T has a static T::veskNboAttrLogSaIs(bool) that enables or disables it
// here. Only entities of enabled types are replicated: a stream's root must be one, and a
// member of another type is left out of its collection's replication.
#pragma once

#include <cstdint>
#include <memory>

#include "framework/core/Entity.h"
#include "framework/core/Reflection.h"

namespace Vesk::NboAttrLog {

class FlowOut;
class InMessage;
class Out;

struct TypeSupport {
  TypeDescription const& type;
  std::unique_ptr<FlowOut> (*makeFlowOut)(Out& out, Entity const& entity, uint32_t id);
  // Applies one received message (a change, or a collection's end marker) to `entity`.
  void (*apply)(InMessage& message, Entity& entity);
};

void typeSupportIs(TypeSupport const& support, bool enabled);
// The support of the entity's type when it is enabled, or null.
TypeSupport const* typeSupport(Entity const& entity);

inline uint64_t typeSupportChangeCount = 0;  // calls of typeSupportIs so far
// The answers of typeSupport() hold while this count stands, so a reader may keep them.
inline uint64_t typeSupportChanges() { return typeSupportChangeCount; }

}  // namespace Vesk::NboAttrLog
