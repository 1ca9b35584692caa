// Shared close of the benchmark programs: the usual console output, plus the time per iteration
// of every run kept by run name, so that a program can end with ratios of a baseline (a memcpy
// of the same bytes, or another implementation) to each operation measured in the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace mrkit_bench {

// Middle value, the mean of the two middle ones for an even count; 0 when empty.
inline double median(std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    const std::size_t h = v.size() / 2;
    return v.size() % 2 ? v[h] : 0.5 * (v[h - 1] + v[h]);
}

inline double fastest(const std::vector<double>& v) {
    return v.empty() ? 0.0 : *std::min_element(v.begin(), v.end());
}

class RatioReporter : public benchmark::ConsoleReporter {
  public:
    // Seconds per iteration of one repetition.
    struct Times {
        double real = 0, cpu = 0;
    };

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            const double toSeconds = 1.0 / benchmark::GetTimeUnitMultiplier(r.time_unit);
            Record& rec = records_[r.run_name.str()];
            if (r.run_type == Run::RT_Iteration)
                rec.reps.push_back(
                    {r.GetAdjustedRealTime() * toSeconds, r.GetAdjustedCPUTime() * toSeconds});
            else if (r.aggregate_name == "median")
                rec.median = r.GetAdjustedRealTime() * toSeconds;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // Run names as benchmark prints them (e.g. "BM_memcpy/128/real_time"), sorted.
    std::vector<std::string> names() const {
        std::vector<std::string> out;
        for (const auto& entry : records_) out.push_back(entry.first);
        return out;
    }

    // Median real time over the repetitions (the single run without repetitions); 0 for a run
    // that did not take place, e.g. filtered out.
    double median(const std::string& name) const {
        const auto it = records_.find(name);
        if (it == records_.end()) return 0.0;
        if (it->second.median > 0) return it->second.median;
        std::vector<double> real;
        for (const Times& t : it->second.reps) real.push_back(t.real);
        return mrkit_bench::median(real);
    }

    // The repetition with the least real time: on a shared machine the least disturbed one.
    Times fastest(const std::string& name) const {
        Times best;
        const auto it = records_.find(name);
        if (it == records_.end()) return best;
        for (const Times& t : it->second.reps)
            if (best.real == 0 || t.real < best.real) best = t;
        return best;
    }

  private:
    struct Record {
        std::vector<Times> reps;
        double median = 0;  // the library's aggregate, when repetitions were asked for
    };
    std::map<std::string, Record> records_;
};

// Prints "ratio <label> <baseline / time>" with both times in ms; nothing when either run is
// missing. Above 1 the operation is faster than the baseline.
inline void print_ratio(const std::string& label, double baselineSeconds, double seconds) {
    if (baselineSeconds <= 0 || seconds <= 0) return;
    std::printf("ratio %-52s %8.3f  (%.3f ms / %.3f ms)\n", label.c_str(),
                baselineSeconds / seconds, baselineSeconds * 1e3, seconds * 1e3);
}

// Initialises benchmark from the command line and runs the selected benchmarks through
// `reporter`; false on an unrecognised argument.
inline bool run_benchmarks(int* argc, char** argv, benchmark::BenchmarkReporter* reporter) {
    benchmark::Initialize(argc, argv);
    if (benchmark::ReportUnrecognizedArguments(*argc, argv)) return false;
    benchmark::RunSpecifiedBenchmarks(reporter);
    return true;
}

}  // namespace mrkit_bench
