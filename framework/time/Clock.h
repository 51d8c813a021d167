// Clock and Clock::Notifiee: virtual or real time, and the timers that wake on it.
//
// A machine never sleeps and has no thread of its own: each of its time-outs is a
// Clock::Notifiee (a timer) bound to the activity's clock. Setting timeMin to a finite time
// arms the timer; the clock calls onTime() once when its time reaches timeMin, and the timer
// is disarmed before the call, so a handler that wants to run again re-arms itself.
//
// TYPICAL USAGE:
//   class RetryTimer : public Clock::Notifiee {
//     void onTime() override { machine_->onRetry(); }
//   };
//   timer.notifierIs(currentActivity()->clock());
//   timer.timeMinIs(timer.notifier()->currentTime() + 5.0);  // arm
//   timer.timeMinIs(Clock::never);                            // disarm
//
// ORDER. Due timers fire in order of timeMin; timers with equal timeMin fire in the order in
// which they were armed (each finite timeMinIs() takes a new arming sequence number, so
// setting the same time again moves the timer behind its ties). A timeMin at or before the
// current time fires on the clock's next turn, never inside timeMinIs().
//
// A handler may arm, move, disarm or destroy any timer of the clock, itself included. A
// timer holds its clock strongly; the clock holds its armed timers only by address, so
// destroying a timer disarms it.
//
// Contract a caller can break (each stops the process): a handler must not start another
// turn of the clock it runs on (advanceTo, fireDue, ...), and a timer must be bound to a
// clock before it is armed. A NaN timeMin throws RangeException. An exception thrown by
// onTime() leaves the turn that called it; the timers still due fire on the next turn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

#include "framework/core/Ptr.h"
#include "framework/core/PtrInterface.h"
#include "framework/core/String.h"

namespace Vesk {

class Clock : public PtrInterface {
 public:
  class Notifiee;
  static constexpr Seconds never = std::numeric_limits<Seconds>::infinity();

  virtual Seconds currentTime() const = 0;
  // The earliest armed timeMin, or never when no timer is armed.
  Seconds nextWakeup() const { return size_ == 0 ? never : heap_[0].time; }
  size_t armedCount() const { return size_; }

 protected:
  Clock() = default;
  ~Clock() override;

  // Marks a turn of the clock: while one exists, another turn stops the process. It also
  // keeps the clock alive through handlers that drop every other reference to it.
  class Turn {
   public:
    explicit Turn(Clock* c);
    Turn(Turn const&) = delete;
    Turn& operator=(Turn const&) = delete;
    ~Turn() { clock_->turning_ = false; }

   private:
    Ptr<Clock> clock_;
  };

  // Removes the earliest timer when its timeMin is at or before `limit` and returns it,
  // already disarmed, with the time it was armed for in `due`; null when none is due.
  Notifiee* dueTimerTake(Seconds limit, Seconds& due);

 private:
  // A heap entry: the armed time and the timer. Ties on time go to the earlier arming,
  // whose number the timer holds; ties are rare, so the entry stays at 16 bytes and the
  // four children of a node fill one cache line.
  struct Entry {
    Seconds time;
    Notifiee* timer;
  };
  static bool before(Entry const& a, Entry const& b);

  static constexpr size_t kNoSlot = size_t(-1);
  // Four children a node: half the levels of a binary heap, and the children of a node lie
  // side by side in one cache line. Each level a sift passes writes the moved timer's
  // slot, which at scale is a cache miss, so fewer levels is what counts.
  static constexpr size_t kArity = 4;
  static size_t parentOf(size_t i) { return (i - 1) / kArity; }
  void timerArm(Notifiee* n, Seconds t);
  void timerDisarm(Notifiee* n);
  void entryPlace(size_t i, Entry const& e);
  void siftUp(size_t i, Entry e);
  void siftDown(size_t i, Entry e);
  void refillRoot(Entry e);
  size_t leastChild(size_t first, size_t n) const;
  void entryAppend(Entry const& e);
  void heapGrow();

  // A 4-ary min-heap on (time, arming number); every timer knows its slot, so disarming or
  // moving an armed timer costs O(log n). The heap starts kLead entries into a
  // line-aligned block, so that every group of four children starts a cache line.
  static constexpr size_t kLead = kArity - 1;
  Entry* heap_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
  uint64_t nextSeq_ = 0;
  bool turning_ = false;
};

class Clock::Notifiee {
 public:
  Notifiee() = default;
  explicit Notifiee(Ptr<Clock> const& clock) : clock_(clock) {}
  Notifiee(Notifiee const&) = delete;
  Notifiee& operator=(Notifiee const&) = delete;
  virtual ~Notifiee();

  Ptr<Clock> notifier() const { return clock_; }
  Clock* notifierRaw() const { return clock_.ptr(); }
  // Binding to another clock (or to none) disarms the timer.
  void notifierIs(Ptr<Clock> const& clock);

  // never while disarmed, including during onTime() unless the handler re-armed it.
  Seconds timeMin() const { return timeMin_; }
  // never disarms; a finite time arms the timer, or moves it when it is armed.
  void timeMinIs(Seconds t);

  virtual void onTime() {}

 private:
  friend class Clock;
  Ptr<Clock> clock_;
  Seconds timeMin_ = never;
  size_t slot_ = kNoSlot;
  uint64_t armedSeq_ = 0;  // the clock's arming number of the current timeMin
};

using ClockNotifiee = Clock::Notifiee;

}  // namespace Vesk
