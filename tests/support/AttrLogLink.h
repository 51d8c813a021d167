// A writer's attribute-log output joined to a reader's copy in one process, through the
// output's own bounded buffer: what a transport would carry, carried here in chunks.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>

#include "framework/attrlog/In.h"
#include "framework/attrlog/Out.h"
#include "framework/core/Entity.h"
#include "framework/core/Reflection.h"

namespace testsupport {

struct AttrLogLink {
  AttrLogLink(Vesk::Ptr<Vesk::Entity const> const& original, Vesk::Ptr<Vesk::Entity> const& copy,
              size_t capacity = Vesk::NboAttrLog::Out::defaultCapacity)
      : out(new Vesk::NboAttrLog::Out(capacity)), in(copy) {
    out->rootIs(original);
  }

  // Carries at most `limit` bytes; returns how many the reader applied.
  size_t carry(size_t limit = SIZE_MAX) {
    out->flowOut();
    auto bytes = out->bytes();
    size_t const used = in.apply(bytes.first(std::min(limit, bytes.size())));
    if (record) record->append(bytes.data(), used);
    out->consumed(used);
    carried += used;
    return used;
  }
  // Carries until the writer has nothing more to say; a link that never settles throws.
  void settle() {
    while (carry() != 0 || !out->flowOutComplete()) {
      if (++turns > 10'000'000) throw std::runtime_error("the attribute log link never settles");
    }
  }

  Vesk::Ptr<Vesk::NboAttrLog::Out> out;
  Vesk::NboAttrLog::In in;
  size_t carried = 0;
  long turns = 0;
  std::string* record = nullptr;  // when set, every byte carried is appended to it
};

// The whole tree below `e` as text, through reflection: every attribute, every member,
// references by their target's path below the root. Two trees replicate alike when their
// texts are equal.
inline std::string treeText(Vesk::Entity const& e, std::string const& indent = "") {
  std::string out = indent + e.veskTypeName() + " " + e.name().stdString() + "\n";
  for (auto const& a : e.veskTypeDescription().attributes) {
    if (a.id < Vesk::firstOwnAttributeId) continue;
    out += indent + "  " + a.name + ":";
    switch (a.kind) {
      case Vesk::AttributeKind::key:
      case Vesk::AttributeKind::scalar:
        out += " " + a.get(e).stdString() + "\n";
        break;
      case Vesk::AttributeKind::reference: {
        Vesk::Ptr<Vesk::Entity> target = a.member(e, "");
        out += " " + (target ? target->name().stdString() : std::string("null")) + "\n";
        break;
      }
      case Vesk::AttributeKind::scalarCollection:
        out += "\n";
        a.forEach(e, [&](Vesk::String const& k, Vesk::String const& v) {
          out += indent + "    " + k.stdString() + "=" + v.stdString() + "\n";
        });
        break;
      case Vesk::AttributeKind::entityCollection:
        out += "\n";
        a.forEach(e, [&](Vesk::String const& k, Vesk::String const&) {
          out += treeText(*a.member(e, k), indent + "    ");
        });
        break;
    }
  }
  return out;
}

}  // namespace testsupport
