// Notifiee: the base of every reactor.
//
// A notifiee is bound to one notifier by notifierIs() and is called only while it is
// registered (isRegisteredNotifieeIs(true)); binding a notifiee registers it. It holds its
// notifier strongly unless isWeakReferenceIs(true), in which case onZeroReferences() runs
// when the notifier's last strong reference goes, and the notifiee is unbound after it.
//
// Each notifying type Foo derives Foo::NotifieeConst from BaseNotifiee<Foo const>, with one
// virtual handler per notifying attribute; a reactor overrides only what it needs.
//
// TYPICAL USAGE:
//   class Reactor : public Foo::NotifieeConst {
//     void onBar() override { ... }
//   };
//   reactor.notifierIs(foo);
//
// Destroying a notifiee removes it from its notifier's list: a destroyed notifiee is never
// called.
//
// handleNotification(ActivityConfig*) is the entry for what the running activity delivers
// rather than a mutator: the notifier's current state, handed over as registration does.
#pragma once

#include "framework/core/Ptr.h"
#include "framework/core/PtrInterface.h"

namespace Vesk {

class ActivityConfig;

class NotifieeBase {
 public:
  NotifieeBase() = default;
  NotifieeBase(NotifieeBase const&) = delete;
  NotifieeBase& operator=(NotifieeBase const&) = delete;
  virtual ~NotifieeBase();

  PtrInterface const* notifierBase() const { return notifier_; }

  bool isRegisteredNotifiee() const { return registered_; }
  void isRegisteredNotifieeIs(bool b);

  bool isWeakReference() const { return weak_; }
  void isWeakReferenceIs(bool b);

  // Called when a handler throws; runs inside the catch block. The default rethrows, so
  // the exception leaves the mutator that caused it.
  virtual void onNotificationException();
  // Called when a weakly held notifier loses its last strong reference.
  virtual void onZeroReferences() {}
  // Called once the notifiee is registered on a notifier; generated notifiees use it to
  // deliver the immediate (whole-collection) notifications.
  virtual void onRegistered() {}
  // Called by the activity that runs the notifiee, with that activity's settings. The
  // default delivers the immediate notifications (onRegistered) while registered; an
  // unregistered notifiee is told nothing.
  virtual void handleNotification(ActivityConfig* config);

 protected:
  void notifierBaseIs(PtrInterface const* n);

 private:
  friend class NotifieeList;
  friend class PtrInterface;
  void detachFromDyingNotifier();

  PtrInterface const* notifier_ = nullptr;
  bool registered_ = false;
  bool weak_ = false;
};

template <class Notifier>
class BaseNotifiee : public NotifieeBase {
 public:
  using NotifierType = Notifier;
  Ptr<Notifier> notifier() const { return Ptr<Notifier>(static_cast<Notifier*>(raw())); }
  Notifier* notifierRaw() const { return static_cast<Notifier*>(raw()); }
  void notifierIs(Ptr<Notifier> const& n) { notifierBaseIs(n.ptr()); }
  void notifierIs(Notifier* n) { notifierBaseIs(n); }

 private:
  // Undo the constness the base stores, preserving Notifier's own qualification.
  PtrInterface* raw() const { return const_cast<PtrInterface*>(notifierBase()); }
};

}  // namespace Vesk
