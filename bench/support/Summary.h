#pragma once

#include <benchmark/benchmark.h>

#include <optional>
#include <string>
#include <vector>

// Keeps every run that Google Benchmark reports, so that a program can set figures of one road
// against its baseline measured in the same process, and prints them as rows of one table.
class Summary : public benchmark::ConsoleReporter {
public:
    // Colours only on a terminal.
    Summary();
    void ReportRuns(const std::vector<Run>& runs) override;

    // Median over repetitions of the real (or manual) time of one iteration, in nanoseconds.
    // Empty when the benchmark did not run or skipped with an error.
    std::optional<double> nanoseconds(const std::string& name, int threads = 1) const;
    // Median over repetitions of a user counter, such as items_per_second.
    std::optional<double> counter(const std::string& name, const std::string& counter,
                                  int threads = 1) const;
    // The error text of a benchmark that skipped, or empty.
    std::string error(const std::string& name, int threads = 1) const;

private:
    std::vector<const Run*> matching(const std::string& name, int threads) const;
    std::vector<Run> m_runs;
};

// Google Benchmark's flags with this project's defaults in front of the caller's own, which
// win. OSTRELINK_BENCH_QUICK=1 asks for one short repetition of everything.
void initializeBenchmarks(int& argc, char** argv);
bool quickMode();

// A row of the table: printed on standard output and appended to the file that
// OSTRELINK_BENCH_TABLE names, if any.
void tableRow(const std::string& road, const std::string& ours, const std::string& baseline,
              const std::string& ratio, const std::string& goal, const std::string& verdict);

std::string formatNanoseconds(std::optional<double> ns);
std::string formatRate(std::optional<double> perSecond);
std::string formatRatio(std::optional<double> ratio);
std::optional<double> divide(std::optional<double> a, std::optional<double> b);
// "met", "missed" or "not measured".
std::string verdict(std::optional<double> value, bool met);
