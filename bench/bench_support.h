// Shared by the benchmarks: run everything registered, then print how each measurement
// compares with its reference from the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace corvane::bench {

// One line of the ratio table: the benchmark measuring our code and the one measuring the
// reference doing the same work.
struct Comparison {
  std::string label;
  std::string ours;
  std::string reference;
};

// Prints as usual and remembers each run's counter (e.g. "bytes_per_second").
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(std::string counter) : counter_(std::move(counter)) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      auto it = run.counters.find(counter_);
      if (it != run.counters.end()) rates_[run.benchmark_name()] = it->second.value;
    }
  }

  // `scale` divides the rates for display (1e6 for MB/s), `unit` heads their columns.
  void printRatios(const std::string& title, const std::vector<Comparison>& comparisons, double scale,
                   const char* unit) const {
    std::printf("\n%s\n%-28s %16s %16s %7s\n", title.c_str(), "measurement", ("ours " + std::string(unit)).c_str(),
                ("reference " + std::string(unit)).c_str(), "ratio");
    for (const Comparison& c : comparisons) {
      auto ours = rates_.find(c.ours);
      auto theirs = rates_.find(c.reference);
      if (ours == rates_.end() || theirs == rates_.end() || theirs->second == 0) continue;
      std::printf("%-28s %16.2f %16.2f %7.3f\n", c.label.c_str(), ours->second / scale, theirs->second / scale,
                  ours->second / theirs->second);
    }
  }

 private:
  std::string counter_;
  std::map<std::string, double> rates_;
};

// The whole main() of a benchmark that reports ratios.
inline int runWithRatios(int argc, char** argv, const std::string& title, const std::string& counter,
                         const std::vector<Comparison>& comparisons, double scale = 1e6, const char* unit = "MB/s") {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter(counter);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios(title, comparisons, scale, unit);
  benchmark::Shutdown();
  return 0;
}

}  // namespace corvane::bench
