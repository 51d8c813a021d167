#include "framework/attrlog/TypeSupport.h"

#include <unordered_map>

namespace Vesk::NboAttrLog {

namespace {

std::unordered_map<TypeDescription const*, TypeSupport const*>& enabledTypes() {
  static std::unordered_map<TypeDescription const*, TypeSupport const*> types;
  return types;
}

}  // namespace

void typeSupportIs(TypeSupport const& support, bool enabled) {
  ++typeSupportChangeCount;
  if (enabled) {
    enabledTypes()[&support.type] = &support;
  } else {
    enabledTypes().erase(&support.type);
  }
}

TypeSupport const* typeSupport(Entity const& entity) {
  auto const& types = enabledTypes();
  auto it = types.find(&entity.veskTypeDescription());
  return it == types.end() ? nullptr : it->second;
}

}  // namespace Vesk::NboAttrLog
