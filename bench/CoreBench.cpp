// Benchmarks of the framework core against the standard library doing the same job.
//
// Every benchmark runs the framework's operation and its baseline on the same data inside
// the same iteration, alternating which goes first, so both see the same machine state.
// The Time column is the framework's time for one round; the counters are per operation:
//   vesk_ns   nanoseconds per operation, framework
//   base_ns   nanoseconds per operation, baseline (named in the label)
//   ratio     vesk_ns / base_ns: below 1 the framework is faster
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <queue>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "framework/core/HashMap.h"
#include "framework/core/Ptr.h"
#include "framework/core/PtrInterface.h"
#include "framework/core/String.h"
#include "framework/time/ManualClock.h"
#include "tests/framework/core/TestNotifier.h"

namespace {

using Vesk::HashMap;
using Vesk::Name;
using Vesk::Ptr;
using Vesk::test::Counter;
using StdMap = std::unordered_map<Name, int>;
using Clock = std::chrono::steady_clock;

template <class F>
double elapsedNs(F&& f) {
  auto const start = Clock::now();
  f();
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// Runs one round of each side per iteration. subject() and baseline() return the
// nanoseconds of their timed part (setup and teardown stay outside it); each round is
// opsPerRound operations.
template <class Subject, class Baseline>
void paired(benchmark::State& state, double opsPerRound, char const* baselineName,
            Subject&& subject, Baseline&& baseline) {
  double subjectNs = 0;
  double baselineNs = 0;
  bool subjectFirst = true;
  for (auto _ : state) {
    double s = 0;
    double b = 0;
    if (subjectFirst) {
      s = subject();
      b = baseline();
    } else {
      b = baseline();
      s = subject();
    }
    subjectFirst = !subjectFirst;
    subjectNs += s;
    baselineNs += b;
    state.SetIterationTime(s * 1e-9);
  }
  double const ops = opsPerRound * double(state.iterations());
  state.counters["vesk_ns"] = subjectNs / ops;
  state.counters["base_ns"] = baselineNs / ops;
  state.counters["ratio"] = subjectNs / baselineNs;
  state.SetLabel(std::string("vs ") + baselineName);
}

// ---------------------------------------------------------------------------------------
// HashMap<Name, int> against std::unordered_map<Name, int> (std::hash<Name> is the cached
// hash) on the same 10,000 keys. Lookups use Names built separately from the stored ones
// (equal text, different buffers), in a shuffled order, as a caller's key would be.

constexpr size_t kKeys = 10000;

struct Keys {
  std::vector<Name> stored;
  std::vector<Name> lookups;
  Keys() {
    for (size_t i = 0; i < kKeys; ++i) stored.push_back(Name("switch-" + std::to_string(i)));
    for (Name const& k : stored) lookups.push_back(Name(k.stdString()));
    std::shuffle(lookups.begin(), lookups.end(), std::mt19937(11));
  }
};
Keys const& keys() {
  static Keys const k;
  return k;
}

void fill(HashMap<Name, int>& m) {
  int i = 0;
  for (Name const& k : keys().stored) m.emplace(k, i++);
}
void fill(StdMap& m) {
  int i = 0;
  for (Name const& k : keys().stored) m.emplace(k, i++);
}

void HashMapFind(benchmark::State& state) {
  HashMap<Name, int> vesk;
  StdMap base;
  fill(vesk);
  fill(base);
  auto const& lookups = keys().lookups;
  paired(
      state, kKeys, "std::unordered_map find",
      [&] {
        return elapsedNs([&] {
          long sum = 0;
          for (Name const& k : lookups) sum += *vesk.find(k);
          benchmark::DoNotOptimize(sum);
        });
      },
      [&] {
        return elapsedNs([&] {
          long sum = 0;
          for (Name const& k : lookups) sum += base.find(k)->second;
          benchmark::DoNotOptimize(sum);
        });
      });
}
BENCHMARK(HashMapFind)->UseManualTime();

void HashMapInsert(benchmark::State& state) {
  auto const& lookups = keys().lookups;
  auto insertAll = [&](auto* m) {
    double ns = elapsedNs([&] {
      int i = 0;
      for (Name const& k : lookups) m->emplace(k, i++);
      benchmark::DoNotOptimize(m);
    });
    delete m;
    return ns;
  };
  paired(
      state, kKeys, "std::unordered_map emplace (both start empty)",
      [&] { return insertAll(new HashMap<Name, int>); }, [&] { return insertAll(new StdMap); });
}
BENCHMARK(HashMapInsert)->UseManualTime();

void HashMapErase(benchmark::State& state) {
  auto const& lookups = keys().lookups;
  auto eraseAll = [&](auto* m) {
    fill(*m);
    double ns = elapsedNs([&] {
      for (Name const& k : lookups) m->erase(k);
      benchmark::DoNotOptimize(m);
    });
    delete m;
    return ns;
  };
  paired(
      state, kKeys, "std::unordered_map erase", [&] { return eraseAll(new HashMap<Name, int>); },
      [&] { return eraseAll(new StdMap); });
}
BENCHMARK(HashMapErase)->UseManualTime();

void HashMapIterate(benchmark::State& state) {
  HashMap<Name, int> vesk;
  StdMap base;
  fill(vesk);
  fill(base);
  paired(
      state, kKeys, "std::unordered_map iteration (per member)",
      [&] {
        return elapsedNs([&] {
          long sum = 0;
          for (auto& [k, v] : vesk) sum += v;
          benchmark::DoNotOptimize(sum);
        });
      },
      [&] {
        return elapsedNs([&] {
          long sum = 0;
          for (auto& [k, v] : base) sum += v;
          benchmark::DoNotOptimize(sum);
        });
      });
}
BENCHMARK(HashMapIterate)->UseManualTime();

// A walk over all 10,000 members of one map looking each key up in a second map that holds
// a quarter of them (as a walk over the peers looks for each one's mount): a Cursor, which
// steps through the second map in the walk's order, against find(). Per key sought.
void HashMapSeek(benchmark::State& state) {
  HashMap<Name, int> walked;
  fill(walked);
  HashMap<Name, int> sparse;
  for (size_t i = 0; i < kKeys; i += 4) sparse.emplace(keys().stored[i], int(i));
  paired(
      state, kKeys, "HashMap find in the same walk",
      [&] {
        return elapsedNs([&] {
          long sum = 0;
          HashMap<Name, int>::Cursor cursor(sparse);
          for (auto& [k, v] : walked) {
            if (int const* found = cursor.seek(k)) sum += *found;
          }
          benchmark::DoNotOptimize(sum);
        });
      },
      [&] {
        return elapsedNs([&] {
          long sum = 0;
          for (auto& [k, v] : walked) {
            if (int const* found = sparse.find(k)) sum += *found;
          }
          benchmark::DoNotOptimize(sum);
        });
      });
}
BENCHMARK(HashMapSeek)->UseManualTime();

// ---------------------------------------------------------------------------------------
// One attribute change delivered to N registered notifiees, against a loop of N plain
// virtual calls. One operation is one change (N handler calls).

class Listener {
 public:
  virtual ~Listener() = default;
  virtual void onValue() = 0;
};

// Two implementations on each side, alternating, so that the compiler cannot turn the
// virtual calls of either side into direct ones.
class CountingListener : public Listener {
 public:
  void onValue() override { ++calls; }
  long calls = 0;
};
class OtherCountingListener : public Listener {
 public:
  void onValue() override { calls += 1; }
  long calls = 0;
};

class CountingNotifiee : public Counter::NotifieeConst {
 public:
  void onValue() override { ++calls; }
  long calls = 0;
};
class OtherCountingNotifiee : public CountingNotifiee {
 public:
  void onValue() override { calls += 1; }
};

constexpr int kChanges = 1000;

void NotifyDispatch(benchmark::State& state) {
  size_t const n = size_t(state.range(0));
  Ptr<Counter> counter = Counter::counterNew("counter");
  std::vector<std::unique_ptr<CountingNotifiee>> notifiees;
  std::vector<std::unique_ptr<Listener>> listeners;
  for (size_t i = 0; i < n; ++i) {
    if (i % 2) {
      notifiees.push_back(std::make_unique<OtherCountingNotifiee>());
      listeners.push_back(std::make_unique<OtherCountingListener>());
    } else {
      notifiees.push_back(std::make_unique<CountingNotifiee>());
      listeners.push_back(std::make_unique<CountingListener>());
    }
    notifiees.back()->notifierIs(counter);
  }
  int value = 0;
  paired(
      state, kChanges, "a loop of N virtual calls",
      [&] {
        return elapsedNs([&] {
          for (int i = 0; i < kChanges; ++i) counter->valueIs(++value);
        });
      },
      [&] {
        return elapsedNs([&] {
          for (int i = 0; i < kChanges; ++i) {
            for (auto& l : listeners) l->onValue();
            benchmark::ClobberMemory();
          }
        });
      });
  if (notifiees.front()->calls != long(value)) state.SkipWithError("a notification was lost");
}
BENCHMARK(NotifyDispatch)->Arg(1)->Arg(8)->Arg(64)->ArgName("notifiees")->UseManualTime();

// ---------------------------------------------------------------------------------------
// Timer churn: N armed timers, each re-arming itself 0.05 to 0.5 s ahead when it fires, as
// machines waiting on their mounts do. A round fires 100,000 timers through a manual clock,
// against a std::priority_queue of (time, arming number, timer) popped and pushed with the
// same times: a queue that cannot disarm or move a timer, so it keeps no slots. Each timer
// sits in a record of its own 1 KB apart, as a machine's timer lies among its machine's
// objects, so at 160,000 timers the queue's lower levels and the timers are out of cache.

constexpr int kFires = 100000;
constexpr size_t kRecordBytes = 1024;

struct Latencies {
  std::vector<double> values;
  Latencies() {
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> latency(0.05, 0.5);
    for (int i = 0; i < (1 << 16); ++i) values.push_back(latency(rng));
  }
  double next(size_t& at) const { return values[at++ & (values.size() - 1)]; }
};
Latencies const& latencies() {
  static Latencies const l;
  return l;
}

class ChurnTimer : public Vesk::Clock::Notifiee {
 public:
  void onTime() override { timeMinIs(notifierRaw()->currentTime() + latencies().next(*at)); }
  size_t* at = nullptr;
};

struct BaseEntry {
  double time;
  uint64_t seq;
  struct BaseTimer* timer;
  bool operator>(BaseEntry const& o) const {
    return time > o.time || (time == o.time && seq > o.seq);
  }
};
using BaseQueue = std::priority_queue<BaseEntry, std::vector<BaseEntry>, std::greater<>>;

struct BaseTimer {
  virtual ~BaseTimer() = default;
  virtual void onTime(BaseQueue& q, double now, uint64_t& seq) {
    q.push({now + latencies().next(*at), seq++, this});
  }
  size_t* at = nullptr;
};

template <class T>
struct alignas(64) Record {
  T timer;
  char payload[kRecordBytes - sizeof(T)];
};

void TimerChurn(benchmark::State& state) {
  size_t const n = size_t(state.range(0));
  auto clock = Vesk::Ptr<Vesk::ManualClock>(new Vesk::ManualClock);
  auto veskRecords = std::make_unique<Record<ChurnTimer>[]>(n);
  auto baseRecords = std::make_unique<Record<BaseTimer>[]>(n);
  size_t veskAt = 0;
  size_t baseAt = 0;
  BaseQueue queue;
  uint64_t seq = 0;
  double baseNow = 0;
  for (size_t i = 0; i < n; ++i) {
    ChurnTimer& t = veskRecords[i].timer;
    t.at = &veskAt;
    t.notifierIs(clock);
    t.timeMinIs(latencies().next(veskAt));
    BaseTimer& b = baseRecords[i].timer;
    b.at = &baseAt;
    queue.push({latencies().next(baseAt), seq++, &b});
  }
  paired(
      state, kFires, "std::priority_queue pop and push",
      [&] {
        return elapsedNs([&] {
          for (int fired = 0; fired < kFires;) fired += int(clock->advanceTo(clock->nextWakeup()));
        });
      },
      [&] {
        return elapsedNs([&] {
          for (int fired = 0; fired < kFires; ++fired) {
            BaseEntry const e = queue.top();
            queue.pop();
            baseNow = e.time;
            e.timer->onTime(queue, baseNow, seq);
          }
        });
      });
  for (size_t i = 0; i < n; ++i) veskRecords[i].timer.timeMinIs(Vesk::Clock::never);
}
BENCHMARK(TimerChurn)->Arg(1000)->Arg(160000)->ArgName("timers")->UseManualTime();

// ---------------------------------------------------------------------------------------
// Copying a pointer and destroying the copy, against std::shared_ptr.

constexpr int kCopies = 10000;

void copyLoops(benchmark::State& state, char const* baselineName) {
  Ptr<Counter> ptr = Counter::counterNew("counter");
  auto shared = std::make_shared<int>(0);
  paired(
      state, kCopies, baselineName,
      [&] {
        return elapsedNs([&] {
          for (int i = 0; i < kCopies; ++i) {
            Ptr<Counter> copy(ptr);
            benchmark::DoNotOptimize(copy);
          }
        });
      },
      [&] {
        return elapsedNs([&] {
          for (int i = 0; i < kCopies; ++i) {
            std::shared_ptr<int> copy(shared);
            benchmark::DoNotOptimize(copy);
          }
        });
      });
}

// Plain counts. The standard library also uses plain counts while the process has never
// started a second thread, which is the case up to here.
void PtrCopy(benchmark::State& state) {
  copyLoops(state, "std::shared_ptr copy (process never threaded: plain counts)");
}
BENCHMARK(PtrCopy)->UseManualTime();

// Atomic counts on both sides: threadSafePointers_ on, and a thread started and joined
// first, after which the standard library's counts are atomic for good. Registered last so
// that no other baseline is affected.
void PtrCopyThreadSafe(benchmark::State& state) {
  std::thread([] {}).join();
  Vesk::threadSafePointers_ = true;
  copyLoops(state, "std::shared_ptr copy (atomic counts)");
  Vesk::threadSafePointers_ = false;
}
BENCHMARK(PtrCopyThreadSafe)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
