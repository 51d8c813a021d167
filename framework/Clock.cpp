#include "framework/Clock.h"

#include <algorithm>
#include <cmath>

#include "framework/Assert.h"
#include "framework/Exception.h"

namespace Vesk {

// Armed timers hold the clock, so a dying clock has none left.
Clock::~Clock() { VESK_ASSERT(queue_.empty()); }

Clock::Turn::Turn(Clock* c) : clock_(c) {
  VESK_ASSERT_MSG(!c->turning_, "a clock's turn started from inside one of its own timers");
  c->turning_ = true;
}

Clock::Notifiee* Clock::dueTimerTake(Seconds limit, Seconds& due) {
  if (queue_.empty() || queue_.front().time > limit) return nullptr;
  Notifiee* n = queue_.front().timer;
  due = n->timeMin_;
  timerDisarm(n);
  return n;
}

void Clock::timerArm(Notifiee* n, Seconds t) {
  n->timeMin_ = t;
  Entry e{t, nextSeq_++, n};
  if (n->slot_ == kNoSlot) {
    queue_.push_back(e);
    siftUp(queue_.size() - 1, e);
    return;
  }
  // A later arming sequence can only move the entry down among its ties; an earlier time
  // moves it up.
  size_t i = n->slot_;
  if (e < queue_[i]) {
    siftUp(i, e);
  } else {
    siftDown(i, e);
  }
}

void Clock::timerDisarm(Notifiee* n) {
  n->timeMin_ = never;
  size_t i = n->slot_;
  if (i == kNoSlot) return;
  n->slot_ = kNoSlot;
  Entry last = queue_.back();
  queue_.pop_back();
  if (i == queue_.size()) return;
  if (i == 0) {
    refillRoot(last);
  } else if (last < queue_[parentOf(i)]) {
    siftUp(i, last);
  } else {
    siftDown(i, last);
  }
}

void Clock::entryPlace(size_t i, Entry const& e) {
  queue_[i] = e;
  e.timer->slot_ = i;
}

void Clock::siftUp(size_t i, Entry e) {
  while (i > 0) {
    size_t parent = parentOf(i);
    if (!(e < queue_[parent])) break;
    entryPlace(i, queue_[parent]);
    i = parent;
  }
  entryPlace(i, e);
}

// The least of the children of the node at i (whose first child is `first` < n).
size_t Clock::leastChild(size_t first, size_t n) const {
  Entry const* const q = queue_.data();
  if (first + kArity <= n) {
    // All four: two pairs, then their winners.
    size_t const a = q[first + 1] < q[first] ? first + 1 : first;
    size_t const b = q[first + 3] < q[first + 2] ? first + 3 : first + 2;
    return q[b] < q[a] ? b : a;
  }
  size_t least = first;
  for (size_t c = first + 1; c < n; ++c) {
    if (q[c] < q[least]) least = c;
  }
  return least;
}

void Clock::siftDown(size_t i, Entry e) {
  size_t const n = queue_.size();
  for (;;) {
    size_t const first = kArity * i + 1;
    if (first >= n) break;
    size_t const least = leastChild(first, n);
    if (!(queue_[least] < e)) break;
    entryPlace(i, queue_[least]);
    i = least;
  }
  entryPlace(i, e);
}

// Refills the root's place with `e` (the last entry, just taken off the end): the hole
// first goes down to a leaf along the least children, then e rises from there. The last
// entry nearly always belongs near the bottom, so this saves comparing it on every level
// on the way down.
void Clock::refillRoot(Entry e) {
  size_t const n = queue_.size();
  size_t i = 0;
  for (size_t first = 1; first < n; first = kArity * i + 1) {
    size_t const least = leastChild(first, n);
    entryPlace(i, queue_[least]);
    i = least;
  }
  siftUp(i, e);
}

Clock::Notifiee::~Notifiee() {
  if (clock_) clock_->timerDisarm(this);
}

void Clock::Notifiee::notifierIs(Ptr<Clock> const& clock) {
  if (clock == clock_) return;
  if (clock_) clock_->timerDisarm(this);
  // The old clock may die here; this timer no longer refers to it.
  clock_ = clock;
}

void Clock::Notifiee::timeMinIs(Seconds t) {
  if (std::isnan(t)) throwRangeException("a timer's timeMin must not be NaN");
  if (t == never) {
    if (clock_) clock_->timerDisarm(this);
    return;
  }
  VESK_ASSERT_MSG(clock_, "a timer armed before it was bound to a clock");
  clock_->timerArm(this, t);
}

}  // namespace Vesk
