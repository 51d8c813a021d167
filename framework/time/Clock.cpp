#include "framework/time/Clock.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "framework/core/Assert.h"
#include "framework/core/Exception.h"
#include "framework/core/Prefetch.h"

namespace Vesk {

namespace {
constexpr size_t kLineBytes = 64;
}  // namespace

// Armed timers hold the clock, so a dying clock has none left.
Clock::~Clock() {
  VESK_ASSERT(size_ == 0);
  if (heap_) ::operator delete(heap_ - kLead, std::align_val_t(kLineBytes));
}

bool Clock::before(Entry const& a, Entry const& b) {
  return a.time < b.time || (a.time == b.time && a.timer->armedSeq_ < b.timer->armedSeq_);
}

void Clock::heapGrow() {
  size_t const capacity = capacity_ ? 2 * capacity_ : kLineBytes / sizeof(Entry);
  size_t const bytes = (kLead + capacity) * sizeof(Entry);
  auto* block = static_cast<Entry*>(::operator new(bytes, std::align_val_t(kLineBytes)));
  if (heap_) {
    std::memcpy(block + kLead, heap_, size_ * sizeof(Entry));
    ::operator delete(heap_ - kLead, std::align_val_t(kLineBytes));
  }
  heap_ = block + kLead;
  capacity_ = capacity;
}

void Clock::entryAppend(Entry const& e) {
  if (size_ == capacity_) heapGrow();
  heap_[size_++] = e;
}

Clock::Turn::Turn(Clock* c) : clock_(c) {
  VESK_ASSERT_MSG(!c->turning_, "a clock's turn started from inside one of its own timers");
  c->turning_ = true;
}

Clock::Notifiee* Clock::dueTimerTake(Seconds limit, Seconds& due) {
  if (size_ == 0 || heap_[0].time > limit) return nullptr;
  Notifiee* n = heap_[0].timer;
  due = n->timeMin_;
  timerDisarm(n);
  return n;
}

void Clock::timerArm(Notifiee* n, Seconds t) {
  Seconds const old = n->timeMin_;
  n->timeMin_ = t;
  n->armedSeq_ = nextSeq_++;
  Entry const e{t, n};
  if (n->slot_ == kNoSlot) {
    entryAppend(e);
    siftUp(size_ - 1, e);
    return;
  }
  // A later arming number can only move the entry down among its ties; an earlier time
  // moves it up.
  size_t i = n->slot_;
  if (t < old) {
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
  Entry const last = heap_[--size_];
  if (i == size_) return;
  if (i == 0) {
    refillRoot(last);
  } else if (before(last, heap_[parentOf(i)])) {
    siftUp(i, last);
  } else {
    siftDown(i, last);
  }
}

void Clock::entryPlace(size_t i, Entry const& e) {
  heap_[i] = e;
  e.timer->slot_ = i;
}

void Clock::siftUp(size_t i, Entry e) {
  while (i > 0) {
    size_t parent = parentOf(i);
    if (!before(e, heap_[parent])) break;
    entryPlace(i, heap_[parent]);
    i = parent;
  }
  entryPlace(i, e);
}

// The least of the children of the node at i (whose first child is `first` < n).
size_t Clock::leastChild(size_t first, size_t n) const {
  Entry const* const q = heap_;
  if (first + kArity <= n) {
    // All four: two pairs, then their winners.
    size_t const a = before(q[first + 1], q[first]) ? first + 1 : first;
    size_t const b = before(q[first + 3], q[first + 2]) ? first + 3 : first + 2;
    return before(q[b], q[a]) ? b : a;
  }
  size_t least = first;
  for (size_t c = first + 1; c < n; ++c) {
    if (before(q[c], q[least])) least = c;
  }
  return least;
}

void Clock::siftDown(size_t i, Entry e) {
  size_t const n = size_;
  for (;;) {
    size_t const first = kArity * i + 1;
    if (first >= n) break;
    size_t const least = leastChild(first, n);
    if (!before(heap_[least], e)) break;
    entryPlace(i, heap_[least]);
    i = least;
  }
  entryPlace(i, e);
}

// Refills the root's place with `e` (the last entry, just taken off the end): the hole
// first goes down to a leaf along the least children, then e rises from there. The last
// entry nearly always belongs near the bottom, so this saves comparing it on every level
// on the way down.
void Clock::refillRoot(Entry e) {
  size_t const n = size_;
  size_t i = 0;
  for (size_t first = 1; first < n; first = kArity * i + 1) {
    // The next level's candidates: the four children of each of these four, four lines
    // side by side. Loading them while this level is compared hides most of a cold miss.
    size_t const grandchildren = kArity * first + 1;
    if (grandchildren < n) {
      for (size_t line = 0; line < kArity; ++line) prefetch(heap_ + grandchildren + kArity * line);
    }
    size_t const least = leastChild(first, n);
    entryPlace(i, heap_[least]);
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
