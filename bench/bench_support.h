// Shared by the benchmarks: run everything registered, then print how each measurement
// compares with its reference from the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace corvane::bench {

// A size a person may change for one run through an environment variable (a positive number).
inline int sizeFromEnvironment(const char* variable, int fallback) {
  const char* text = std::getenv(variable);
  const int value = text != nullptr ? std::atoi(text) : 0;
  return value > 0 ? value : fallback;
}

// The process's scratch folder in the system's temporary folder ($TMPDIR), made on first use and
// named by the first call's `name` (one per process).
inline const std::string& scratchFolder(const char* name) {
  static const std::string path = [name] {
    std::string p =
        (std::filesystem::temp_directory_path() / (std::string(name) + "-" + std::to_string(::getpid()))).string();
    std::filesystem::create_directories(p);
    return p;
  }();
  return path;
}

// One line of the ratio table: the benchmark measuring our code and the one measuring the
// reference doing the same work.
struct Comparison {
  std::string label;
  std::string ours;
  std::string reference;
};

// Prints as usual and keeps every finished run, so that a table comparing them can be printed
// once all have run (printTable()).
class KeepingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (keeps(run)) kept_[keyOf(run)] = run;
    }
  }
  virtual void printTable() const = 0;

 protected:
  // Timing runs that did not fail, by benchmark name ("BM_X/iterations:5").
  virtual bool keeps(const Run& run) const { return run.run_type == Run::RT_Iteration && !run.error_occurred; }
  virtual std::string keyOf(const Run& run) const { return run.benchmark_name(); }

  const Run* find(const std::string& key) const {
    auto it = kept_.find(key);
    return it != kept_.end() ? &it->second : nullptr;
  }
  // The first kept run whose name starts so.
  const Run* findPrefix(const std::string& prefix) const {
    for (const auto& [name, run] : kept_) {
      if (name.rfind(prefix, 0) == 0) return &run;
    }
    return nullptr;
  }
  static double counter(const Run& run, const char* name) {
    auto it = run.counters.find(name);
    return it != run.counters.end() ? it->second.value : 0.0;
  }

  std::map<std::string, Run> kept_;
};

// The whole main() of a benchmark whose reporter prints a table at the end.
inline int runReporting(int argc, char** argv, KeepingReporter& reporter) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printTable();
  benchmark::Shutdown();
  return 0;
}

// Compares one counter (e.g. "bytes_per_second") of each measurement with its reference's.
class RatioReporter final : public KeepingReporter {
 public:
  // `scale` divides the rates for display (1e6 for MB/s), `unit` heads their columns.
  RatioReporter(std::string title, std::string counter, std::vector<Comparison> comparisons, double scale,
                const char* unit)
      : title_(std::move(title)),
        counter_(std::move(counter)),
        comparisons_(std::move(comparisons)),
        scale_(scale),
        unit_(unit) {}

  void printTable() const override {
    std::printf("\n%s\n%-28s %16s %16s %7s\n", title_.c_str(), "measurement", ("ours " + unit_).c_str(),
                ("reference " + unit_).c_str(), "ratio");
    for (const Comparison& c : comparisons_) {
      const Run* ours = find(c.ours);
      const Run* theirs = find(c.reference);
      if (ours == nullptr || theirs == nullptr || !ours->counters.contains(counter_) ||
          !theirs->counters.contains(counter_)) {
        continue;
      }
      const double a = counter(*ours, counter_.c_str());
      const double b = counter(*theirs, counter_.c_str());
      if (b == 0) continue;
      std::printf("%-28s %16.2f %16.2f %7.3f\n", c.label.c_str(), a / scale_, b / scale_, a / b);
    }
  }

 private:
  std::string title_;
  std::string counter_;
  std::vector<Comparison> comparisons_;
  double scale_;
  std::string unit_;
};

// The whole main() of a benchmark that reports ratios of one counter.
inline int runWithRatios(int argc, char** argv, const std::string& title, const std::string& counter,
                         const std::vector<Comparison>& comparisons, double scale = 1e6, const char* unit = "MB/s") {
  RatioReporter reporter(title, counter, comparisons, scale, unit);
  return runReporting(argc, argv, reporter);
}

// Compares the real time per iteration of each measurement with its reference's.
class TimeRatioReporter final : public KeepingReporter {
 public:
  struct Row {
    std::string label;
    std::string ours;  // benchmark names as reported ("BM_X/iterations:5")
    std::string reference;
    std::string goal;  // "" when there is none
  };
  explicit TimeRatioReporter(std::vector<Row> rows) : rows_(std::move(rows)) {}

  void printTable() const override {
    std::printf("\n%-30s %12s %12s %8s %8s\n", "time ratio", "ours ms", "ref ms", "ratio", "goal");
    auto seconds = [](const Run& run) { return run.real_accumulated_time / static_cast<double>(run.iterations); };
    for (const Row& row : rows_) {
      const Run* ours = find(row.ours);
      const Run* ref = find(row.reference);
      if (ours == nullptr || ref == nullptr || seconds(*ref) == 0) continue;
      std::printf("%-30s %12.3f %12.3f %8.3f %8s\n", row.label.c_str(), seconds(*ours) * 1e3, seconds(*ref) * 1e3,
                  seconds(*ours) / seconds(*ref), row.goal.c_str());
    }
  }

 private:
  std::vector<Row> rows_;
};

}  // namespace corvane::bench
