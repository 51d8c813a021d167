#include "service_config/DirPath.h"

#include <string_view>
#include <vector>

#include "framework/core/Exception.h"
#include "framework/trace/Trace.h"

namespace Controller {

namespace {
Vesk::TraceHandle traceHandle("DirPath", true);

std::vector<Vesk::Name> nonEmptyComponents(Vesk::String const& path) {
  std::vector<Vesk::Name> out;
  std::string_view rest = path.view();
  while (!rest.empty()) {
    size_t const slash = rest.find('/');
    std::string_view const component = rest.substr(0, slash);
    if (!component.empty()) out.emplace_back(component);
    if (slash == std::string_view::npos) break;
    rest.remove_prefix(slash + 1);
  }
  return out;
}

// The directory named `name` in dir, created when missing; null when the name is held by
// an entity of another type. The type is tested first so that no name-in-use failure is
// raised for an ordinary outcome of the walk.
Vesk::Ptr<Vesk::Dir> subdirOf(Vesk::Ptr<Vesk::Dir> const& dir, Vesk::Name const& name, bool final) {
  Vesk::Ptr<Vesk::Entity> existing = dir->entry(name);
  if (!existing) {
    if (final) {
      VESK_TRACE(traceHandle, 5, "doCreateDirPath", " creating final ", name);
    } else {
      VESK_TRACE(traceHandle, 5, "doCreateDirPath", " creating ", name);
    }
    try {
      dir->entryIs(name, Vesk::Dir::typeName);
    } catch (Vesk::Exception const& e) {
      // A notifiee of the directory refused the new entry: the walk stops here.
      VESK_TRACE(traceHandle, 5, "doCreateDirPath", " could not create ", name, ": ", e.what());
      return nullptr;
    }
  }
  // Read again: a notifiee of the directory may have replaced or removed the new entry.
  Vesk::Ptr<Vesk::Entity> held = dir->entityRef(name);
  Vesk::Ptr<Vesk::Dir> sub = Vesk::ptr_cast<Vesk::Dir>(held);
  if (!sub) {
    VESK_TRACE(traceHandle, 5, "doCreateDirPath", " not a directory:", name,
               " type:", held ? held->veskTypeName() : "none", " in ", dir->fullName());
  }
  return sub;
}
}  // namespace

Vesk::Ptr<Vesk::Dir> doCreateDirPath(Vesk::Ptr<Vesk::Dir> root, Vesk::String path) {
  VESK_TRACE(traceHandle, 5, "doCreateDirPath", " path:", path);
  if (!root) {
    VESK_TRACE(traceHandle, 5, "doCreateDirPath", " no root for ", path);
    return nullptr;
  }
  std::vector<Vesk::Name> const components = nonEmptyComponents(path);
  Vesk::Ptr<Vesk::Dir> dir = root;
  for (size_t i = 0; i < components.size() && dir; ++i) {
    bool const final = i + 1 == components.size();
    if (final) VESK_TRACE(traceHandle, 5, "doCreateDirPath", " final:", components[i]);
    dir = subdirOf(dir, components[i], final);
  }
  return dir;
}

}  // namespace Controller
