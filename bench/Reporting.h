// A benchmark binary's main for binaries that need more than the library's own: it honours the
// same output flags (--benchmark_format, --benchmark_out, --benchmark_out_format), and
//  - lets the binary amend each set of runs before any format sees it, for figures that
//    compare one benchmark with another (a ratio against a baseline), so they appear as
//    counters in every format: columns on the console, fields in JSON and CSV;
//  - writes CSV as one table at the end. The library's CSV writer takes its columns from the
//    first benchmark it is given; a later counter it has no column for is dropped, or stops
//    the process where the library keeps its checks (the distribution's build does), so
//    benchmarks with different counters need their rows handed over together.
#pragma once

#include <benchmark/benchmark.h>

#include <cctype>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace VeskBench {

using Runs = std::vector<benchmark::BenchmarkReporter::Run>;

// Nanoseconds in one of a run's time units, to compare runs reported in different units.
inline double unitNs(benchmark::TimeUnit unit) {
  switch (unit) {
    case benchmark::kSecond:
      return 1e9;
    case benchmark::kMillisecond:
      return 1e6;
    case benchmark::kMicrosecond:
      return 1e3;
    default:
      return 1;
  }
}
// Called with each set of runs in the order they are reported; each reporter has a copy of
// its own, so the function may keep what it saw of earlier sets.
using Amend = std::function<void(Runs&)>;

class Reporter : public benchmark::BenchmarkReporter {
 public:
  Reporter(std::unique_ptr<benchmark::BenchmarkReporter> format, Amend amend)
      : format_(std::move(format)), amend_(std::move(amend)) {
    BENCHMARK_DISABLE_DEPRECATED_WARNING
    wholeTable_ = dynamic_cast<benchmark::CSVReporter*>(format_.get()) != nullptr;
    BENCHMARK_RESTORE_DEPRECATED_WARNING
  }

  bool ReportContext(Context const& context) override {
    // The library has pointed this reporter at the console or the output file by now.
    format_->SetOutputStream(&GetOutputStream());
    format_->SetErrorStream(&GetErrorStream());
    return format_->ReportContext(context);
  }

  void ReportRuns(Runs const& runs) override {
    Runs amended = runs;
    if (amend_) amend_(amended);
    if (wholeTable_) {
      held_.insert(held_.end(), amended.begin(), amended.end());
    } else {
      format_->ReportRuns(amended);
    }
  }

  void Finalize() override {
    if (!held_.empty()) format_->ReportRuns(held_);
    format_->Finalize();
  }

 private:
  std::unique_ptr<benchmark::BenchmarkReporter> format_;
  Amend amend_;
  bool wholeTable_ = false;
  Runs held_;
};

// The value the library will take for one of its string flags: the last --name=value on the
// command line, else the environment variable of the name in capitals, else the default. Read
// before benchmark::Initialize, which removes the flags it knows from the command line.
inline std::string libraryFlag(int argc, char** argv, std::string_view name, char const* fallback) {
  std::string const prefix = "--" + std::string(name) + "=";
  for (int i = argc - 1; i > 0; --i) {
    std::string_view const arg(argv[i]);
    if (arg.starts_with(prefix)) return std::string(arg.substr(prefix.size()));
  }
  std::string variable(name);
  for (char& c : variable) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  char const* const value = std::getenv(variable.c_str());
  return value ? value : fallback;
}

inline std::unique_ptr<benchmark::BenchmarkReporter> fileFormat(std::string const& format) {
  if (format == "console") {
    return std::make_unique<benchmark::ConsoleReporter>(benchmark::ConsoleReporter::OO_None);
  }
  BENCHMARK_DISABLE_DEPRECATED_WARNING
  if (format == "csv") return std::make_unique<benchmark::CSVReporter>();
  BENCHMARK_RESTORE_DEPRECATED_WARNING
  return std::make_unique<benchmark::JSONReporter>();
}

// Parses the library's flags and runs the benchmarks they select; the exit status for main.
inline int runBenchmarks(int argc, char** argv, Amend const& amend = {}) {
  std::string const outFile = libraryFlag(argc, argv, "benchmark_out", "");
  std::string const outFormat = libraryFlag(argc, argv, "benchmark_out_format", "json");
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // The display format the library would choose itself, from --benchmark_format.
  Reporter display(
      std::unique_ptr<benchmark::BenchmarkReporter>(benchmark::CreateDefaultDisplayReporter()),
      amend);
  if (outFile.empty()) {
    benchmark::RunSpecifiedBenchmarks(&display);
  } else {
    Reporter file(fileFormat(outFormat), amend);
    benchmark::RunSpecifiedBenchmarks(&display, &file);
  }
  benchmark::Shutdown();
  return 0;
}

}  // namespace VeskBench
