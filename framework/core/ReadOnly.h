// Read-only copies: entities that only their attribute log may write.
//
// Every generated mutator begins with checkWritable(*this, "<attribute>"). A write to a
// read-only entity fails with ReadOnlyException, "Attempt to modify read-only attribute
// <attribute> of <fullName>", and changes nothing, unless it comes from the attribute log
// applying a received change (remoteWriteDepth above 0). The test is one flag for every
// writable entity.
#pragma once

#include "framework/core/Entity.h"

namespace Vesk {

// Above 0 while a received change is being applied on this thread.
inline thread_local int remoteWriteDepth = 0;

[[noreturn]] void throwReadOnly(Entity const& entity, char const* attr);

inline void checkWritable(Entity const& entity, char const* attr) {
  if (entity.veskReadOnly() && remoteWriteDepth == 0) [[unlikely]] {
    throwReadOnly(entity, attr);
  }
}

}  // namespace Vesk
