// mountsim: runs the mounts registry in a simulated controller.
//
// Without options it runs the built-in scenario: 16 switches, 6 entries and 4 services,
// printing each status change with its virtual time and, at the end, the status tree per
// service, switch, group and path, checked against the reference evaluator.
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include "Scenario.h"
#include "framework/trace/Flitlog.h"
#include "framework/trace/Trace.h"

namespace {

char const kUsage[] =
    "usage: mountsim [options]\n"
    "  --switches N      connected switches (1-4096, default 16)\n"
    "  --entries N       mounted paths (1-1000, default 6)\n"
    "  --services N      declaring services (1-100, default 4)\n"
    "  --seed N          seed of the simulated latencies and failures (default 1)\n"
    "  --trace-level N   trace level of every module, 0-127 (default: VESK_TRACE)\n"
    "  --trace-file F    keep the ring-buffer trace in F (read it with flitread)\n"
    "  --quiet           print only the final status tree\n"
    "  --help            this text\n";

int usage(char const* problem) {
  if (problem) std::fprintf(stderr, "mountsim: %s\n", problem);
  std::fputs(kUsage, problem ? stderr : stdout);
  return problem ? 2 : 0;
}

// The trace library writes its file only at exit, at a failed assertion and when asked:
// on a fatal or stopping signal, write the last messages out, then die of the signal as
// the default action would.
extern "C" void onFatalSignal(int sig) {
  Vesk::Flitlog::flush();
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}

void flushTraceOnFatalSignals() {
  for (int sig : {SIGSEGV, SIGFPE, SIGILL, SIGABRT, SIGTERM, SIGINT}) {
    std::signal(sig, onFatalSignal);
  }
}

template <class T>
bool number(std::string_view text, T lo, T hi, T& out) {
  T v{};
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || end != text.data() + text.size() || v < lo || v > hi) return false;
  out = v;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  MountSim::ScenarioOptions options;
  int traceLevel = -1;
  std::string traceFile;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (arg == "--help") return usage(nullptr);
    if (arg == "--quiet") {
      options.events = false;
      continue;
    }
    if (i + 1 >= argc)
      return usage(("unknown option or missing value: " + std::string(arg)).c_str());
    std::string_view value = argv[++i];
    bool ok = false;
    if (arg == "--switches") {
      ok = number(value, 1u, 4096u, options.switches);
    } else if (arg == "--entries") {
      ok = number(value, 1u, 1000u, options.entries);
    } else if (arg == "--services") {
      ok = number(value, 1u, 100u, options.services);
    } else if (arg == "--seed") {
      ok = number<uint64_t>(value, 0, UINT64_MAX, options.seed);
    } else if (arg == "--trace-level") {
      ok = number(value, 0, Vesk::TraceHandle::maxLevel, traceLevel);
    } else if (arg == "--trace-file") {
      traceFile = std::string(value);
      ok = !traceFile.empty();
    } else {
      return usage(("unknown option: " + std::string(arg)).c_str());
    }
    if (!ok)
      return usage(("bad value for " + std::string(arg) + ": " + std::string(value)).c_str());
  }
  flushTraceOnFatalSignals();
  try {
    if (!traceFile.empty()) Vesk::Flitlog::fileIs(Vesk::String(traceFile));
    if (traceLevel >= 0) {
      for (Vesk::TraceHandle* h : Vesk::TraceHandle::handles()) h->levelIs(traceLevel);
    }
    unsigned disagreements = MountSim::runScenario(options, std::cout);
    return disagreements == 0 ? 0 : 1;
  } catch (std::exception const& e) {
    std::cerr << "mountsim: " << e.what() << "\n";
    return 1;
  }
}
