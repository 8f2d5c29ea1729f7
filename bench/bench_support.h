// Runs the registered benchmarks, then prints the mean real times held to
// absolute limits, and the ratio of the mean real times of named pairs
// ("ours" against the alternative) with their targets.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace kvbench {

struct Ratio {
  std::string label;
  std::string ours;         // benchmark name, as reported
  std::string alternative;  // benchmark name, as reported
  double target = 0.0;      // the most ours may cost relative to the alternative; 0 = report only
};

// An absolute limit on one benchmark's mean real time, in the benchmark's time unit.
struct Limit {
  std::string label;
  std::string name;  // benchmark name, as reported
  double limit = 0.0;
};

class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
      if (run.run_type == Run::RT_Iteration && !run.error_occurred)
        times_[run.benchmark_name()] = run.GetAdjustedRealTime();
  }
  const std::map<std::string, double>& times() const { return times_; }

 private:
  std::map<std::string, double> times_;
};

inline int run_with_ratios(int argc, char** argv, const std::vector<Ratio>& ratios,
                           const std::vector<Limit>& limits = {}) {
  benchmark::Initialize(&argc, argv);
  RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  if (!limits.empty()) std::printf("\n%-58s %10s %8s\n", "time", "measured", "limit");
  for (const Limit& l : limits) {
    auto found = reporter.times().find(l.name);
    if (found != reporter.times().end())
      std::printf("%-58s %10.2f %8.2f %s\n", l.label.c_str(), found->second, l.limit,
                  found->second <= l.limit ? "ok" : "OVER");
  }
  std::printf("\n%-58s %10s %8s\n", "ratio (ours / alternative)", "measured", "target");
  for (const Ratio& r : ratios) {
    auto a = reporter.times().find(r.ours);
    auto b = reporter.times().find(r.alternative);
    if (a == reporter.times().end() || b == reporter.times().end() || b->second <= 0.0) continue;
    const double ratio = a->second / b->second;
    if (r.target > 0.0)
      std::printf("%-58s %10.2f %7.2fx %s\n", r.label.c_str(), ratio, r.target, ratio <= r.target ? "ok" : "OVER");
    else
      std::printf("%-58s %10.2f %8s\n", r.label.c_str(), ratio, "-");
  }
  benchmark::Shutdown();
  return 0;
}

}  // namespace kvbench
