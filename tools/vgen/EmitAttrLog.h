// Writes the attribute-log replication of one entity type: its adapter (the full send, the
// incremental sends from its own notifications), the function that applies a received
// message through the type's mutators, and veskNboAttrLogSaIs(), which enables the type.
#pragma once

#include <string>

#include "Schema.h"

namespace vgen {

// The source text of the entity's replication; it goes after the entity's own definitions.
std::string emitAttrLog(Schema const& schema, Entity const& entity);

}  // namespace vgen
