// Live-object counts per type.
//
// A class that wants its instances counted holds a LiveCount<Self> member:
//   [[no_unique_address]] Vesk::LiveCount<Foo> liveCount_;
// liveObjects<Foo>() is then the number of Foo objects alive, and liveObjectCounts() lists
// every counted type with its count, so a test can prove that a scenario left nothing
// behind.
#pragma once

#include <atomic>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

namespace Vesk {

namespace detail {
std::atomic<long>& registerLiveCounter(std::type_info const& type);
}

template <class T>
std::atomic<long>& liveCounter() {
  static std::atomic<long>& counter = detail::registerLiveCounter(typeid(T));
  return counter;
}

template <class T>
long liveObjects() {
  return liveCounter<T>().load(std::memory_order_relaxed);
}

// Every counted type (demangled name) with its current count.
std::vector<std::pair<std::string, long>> liveObjectCounts();
// The sum over every counted type.
long liveObjectTotal();

template <class T>
class LiveCount {
 public:
  LiveCount() noexcept { liveCounter<T>().fetch_add(1, std::memory_order_relaxed); }
  LiveCount(LiveCount const&) noexcept : LiveCount() {}
  LiveCount& operator=(LiveCount const&) noexcept { return *this; }
  ~LiveCount() { liveCounter<T>().fetch_sub(1, std::memory_order_relaxed); }
};

}  // namespace Vesk
