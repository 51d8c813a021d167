// Read-only copies: entities that only their attribute log may write.
//
// Every generated mutator begins with checkWritable(*this, "<attribute>"). A write to a
// read-only entity fails with ReadOnlyException, "Attempt to modify read-only attribute
// <attribute> of <fullName>", and changes nothing, unless it is the attribute log applying
// a received change to that very entity (remoteWriteTarget). Notifiees that react to the
// change and write elsewhere in the copy are refused like any local writer. The test is one
// flag for every writable entity.
#pragma once

#include "framework/core/Entity.h"

namespace Vesk {

// The entity a received change is being applied to on this thread, or null.
inline constinit thread_local Entity const* remoteWriteTarget = nullptr;

[[noreturn]] void throwReadOnly(Entity const& entity, char const* attr);

inline void checkWritable(Entity const& entity, char const* attr) {
  if (entity.veskReadOnly() && &entity != remoteWriteTarget) [[unlikely]] {
    throwReadOnly(entity, attr);
  }
}

}  // namespace Vesk
