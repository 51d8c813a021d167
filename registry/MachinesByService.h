// MachinesByService<T>: the registry machine's children of one kind grouped by the real
// service they count for, so that a report about one service's version visits only the
// children it concerns. A service's group stays when its last child goes, empty: services
// are few, and one whose children all go and come back (as on a leader change) then finds
// its group grown to size instead of growing it again.
#pragma once

#include "framework/core/HashMap.h"
#include "framework/core/Ptr.h"
#include "framework/core/String.h"

namespace Controller {

template <class T>
class MachinesByService {
 public:
  using Set = Vesk::HashMap<Vesk::Name, Vesk::Ptr<T>>;

  void is(Vesk::Name const& service, Vesk::Name const& name, Vesk::Ptr<T> const& machine) {
    sets_.emplace(service).first->emplace(name, machine);
  }
  void del(Vesk::Name const& service, Vesk::Name const& name) {
    Set* set = sets_.find(service);
    if (!set) return;
    set->erase(name);
  }
  // The service's children, or null when it has never had any.
  Set const* find(Vesk::Name const& service) const { return sets_.find(service); }

 private:
  Vesk::HashMap<Vesk::Name, Set> sets_;
};

}  // namespace Controller
