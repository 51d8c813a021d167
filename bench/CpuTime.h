// The process's CPU time, for benchmarks that time one step of a larger run themselves.
#pragma once

#include <ctime>

namespace VeskBench {

inline double cpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

}  // namespace VeskBench
