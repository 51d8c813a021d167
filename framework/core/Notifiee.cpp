#include "framework/core/Notifiee.h"

#include <algorithm>

namespace Vesk {

void NotifieeList::Slots::push_back(NotifieeBase* n) {
  if (size_ == capacity_) {
    uint32_t const grown = capacity_ * 2;
    auto* more = new NotifieeBase*[grown];
    std::copy(begin(), end(), more);
    if (onHeap()) delete[] many_;
    many_ = more;
    capacity_ = grown;
  }
  begin()[size_++] = n;
}

void NotifieeList::newMember(NotifieeBase* n) {
  members_.push_back(n);
  ++live_;
}

void NotifieeList::deleteMember(NotifieeBase* n) {
  auto it = std::find(members_.begin(), members_.end(), n);
  if (it == members_.end()) return;
  --live_;
  if (depth_ > 0) {
    *it = nullptr;
    needsCompact_ = true;
  } else {
    members_.erase(it, it + 1);
  }
}

void NotifieeList::deleteAll() {
  live_ = 0;
  if (depth_ > 0) {
    std::fill(members_.begin(), members_.end(), nullptr);
    needsCompact_ = true;
  } else {
    members_.clear();
  }
}

void NotifieeList::dormantMemberIs(NotifieeBase* n, bool bound) {
  if (!dormant_) {
    if (bound) dormant_ = std::make_unique<std::vector<NotifieeBase*>>(1, n);
    return;
  }
  auto it = std::find(dormant_->begin(), dormant_->end(), n);
  if (bound && it == dormant_->end()) dormant_->push_back(n);
  if (!bound && it != dormant_->end()) dormant_->erase(it);
  if (dormant_->empty()) dormant_.reset();
}

void NotifieeList::compact() {
  members_.erase(std::remove(members_.begin(), members_.end(), nullptr));
  needsCompact_ = false;
}

NotifieeBase::~NotifieeBase() { notifierBaseIs(nullptr); }

void NotifieeBase::notifierBaseIs(PtrInterface const* n) {
  if (n == notifier_) {
    if (n && !registered_) isRegisteredNotifieeIs(true);
    return;
  }
  PtrInterface const* old = notifier_;
  if (old) {
    if (registered_) {
      old->notifieeList().deleteMember(this);
    } else {
      old->notifieeList().dormantMemberIs(this, false);
    }
    registered_ = false;
  }
  notifier_ = n;
  if (n && !weak_) n->newRef();
  if (n) {
    // Bound and registered at once: straight onto the member list.
    registered_ = true;
    n->notifieeList().newMember(this);
    onRegistered();
  }
  // Dropping the old reference last: it may destroy the old notifier.
  if (old && !weak_) old->deleteRef();
}

void NotifieeBase::isRegisteredNotifieeIs(bool b) {
  if (b == registered_ || !notifier_) return;
  registered_ = b;
  NotifieeList& list = notifier_->notifieeList();
  list.dormantMemberIs(this, !b);
  if (b) {
    list.newMember(this);
    onRegistered();
  } else {
    list.deleteMember(this);
  }
}

void NotifieeBase::isWeakReferenceIs(bool b) {
  if (b == weak_) return;
  weak_ = b;
  if (!notifier_) return;
  if (b) {
    notifier_->deleteRef();
  } else {
    notifier_->newRef();
  }
}

void NotifieeBase::handleNotification(ActivityConfig*) {
  if (registered_) onRegistered();
}

void NotifieeBase::onNotificationException() { throw; }

void NotifieeBase::detachFromDyingNotifier() {
  notifier_ = nullptr;
  registered_ = false;
}

}  // namespace Vesk
