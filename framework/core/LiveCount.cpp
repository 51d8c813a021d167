#include "framework/core/LiveCount.h"

#include <cxxabi.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>

namespace Vesk {
namespace {

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<std::atomic<long>>> counters;
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: counters outlive static objects
  return *r;
}

std::string demangle(char const* name) {
  int status = 0;
  char* d = abi::__cxa_demangle(name, nullptr, nullptr, &status);
  std::string out = (status == 0 && d) ? d : name;
  std::free(d);
  return out;
}

}  // namespace

namespace detail {
std::atomic<long>& registerLiveCounter(std::type_info const& type) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto& slot = r.counters[demangle(type.name())];
  if (!slot) slot = std::make_unique<std::atomic<long>>(0);
  return *slot;
}
}  // namespace detail

std::vector<std::pair<std::string, long>> liveObjectCounts() {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  std::vector<std::pair<std::string, long>> out;
  for (auto& [name, counter] : r.counters) out.emplace_back(name, counter->load());
  return out;
}

long liveObjectTotal() {
  long total = 0;
  for (auto& [name, count] : liveObjectCounts()) total += count;
  return total;
}

}  // namespace Vesk
