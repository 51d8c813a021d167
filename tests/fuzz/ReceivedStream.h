// One received attribute-log stream, whatever its bytes, applied to a fresh copy of each
// root type it may be for: the mount declaration and the mount status. The stream names its
// root's type in its first message, so at most one copy takes it.
//
// Refusing a message (DecodeError, ReadOnlyProxyException) is a correct answer to a bad
// stream. Whatever a copy holds afterwards was taken through the model's own mutators, so a
// writer must be able to send it in full to yet another fresh copy, which must take all of
// it. Anything else (another exception, a full send that is refused or never completes)
// escapes as an exception.
#pragma once

#include <cstddef>
#include <span>
#include <string>

namespace attrlogfuzz {

struct Outcome {
  size_t applied = 0;   // bytes of the messages applied, the refused one excluded
  std::string refusal;  // the refusal's text; empty when nothing was refused
};

struct Outcomes {
  Outcome config;  // into a Controller::ServiceMountConfig
  Outcome status;  // into a Controller::ServiceMountStatus
};

// The model's types must be enabled for replication (mountInterfaceAttrLogIs).
Outcomes applyToFreshCopies(std::span<char const> stream);

}  // namespace attrlogfuzz
