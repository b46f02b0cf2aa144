#include "support/Summary.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include <unistd.h>

namespace {

std::optional<double> median(std::vector<double> values) {
    if (values.empty()) {
        return std::nullopt;
    }
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::string fixed(double value, int decimals) {
    std::ostringstream text;
    text.setf(std::ios::fixed);
    text.precision(decimals);
    text << value;
    return text.str();
}

}  // namespace

Summary::Summary() : ConsoleReporter(isatty(STDOUT_FILENO) == 1 ? OO_Defaults : OO_Tabular) {}

void Summary::ReportRuns(const std::vector<Run>& runs) {
    m_runs.insert(m_runs.end(), runs.begin(), runs.end());
    // With repetitions the console shows the aggregates only; single runs are shown as they are.
    std::vector<Run> shown;
    for (const Run& run : runs) {
        if (run.run_type == Run::RT_Aggregate || run.repetitions <= 1 || run.error_occurred) {
            shown.push_back(run);
        }
    }
    if (!shown.empty()) {
        ConsoleReporter::ReportRuns(shown);
    }
}

std::vector<const benchmark::BenchmarkReporter::Run*> Summary::matching(const std::string& name,
                                                                        int threads) const {
    std::vector<const Run*> found;
    for (const Run& run : m_runs) {
        if (run.run_type == Run::RT_Iteration && run.run_name.function_name == name &&
            run.threads == threads) {
            found.push_back(&run);
        }
    }
    return found;
}

std::optional<double> Summary::nanoseconds(const std::string& name, int threads) const {
    std::vector<double> values;
    for (const Run* run : matching(name, threads)) {
        if (!run->error_occurred) {
            values.push_back(run->GetAdjustedRealTime() * 1e9 /
                             benchmark::GetTimeUnitMultiplier(run->time_unit));
        }
    }
    return median(values);
}

std::optional<double> Summary::counter(const std::string& name, const std::string& counterName,
                                       int threads) const {
    std::vector<double> values;
    for (const Run* run : matching(name, threads)) {
        const auto found = run->counters.find(counterName);
        if (!run->error_occurred && found != run->counters.end()) {
            values.push_back(found->second.value);
        }
    }
    return median(values);
}

std::string Summary::error(const std::string& name, int threads) const {
    for (const Run* run : matching(name, threads)) {
        if (run->error_occurred) {
            return run->error_message;
        }
    }
    return {};
}

bool quickMode() {
    const char* quick = std::getenv("OSTRELINK_BENCH_QUICK");
    return quick != nullptr && std::strcmp(quick, "1") == 0;
}

void initializeBenchmarks(int& argc, char** argv) {
    // Repetitions interleaved at random, so that a road and its baseline see the same noise of
    // a shared machine; the table takes the median of the repetitions.
    static std::vector<std::string> defaults =
        quickMode()
            ? std::vector<std::string>{"--benchmark_repetitions=1", "--benchmark_min_time=0.01"}
            : std::vector<std::string>{"--benchmark_repetitions=12",
                                       "--benchmark_enable_random_interleaving=true",
                                       "--benchmark_min_time=0.2"};
    static std::vector<char*> arguments;
    arguments.push_back(argv[0]);
    for (std::string& flag : defaults) {
        arguments.push_back(flag.data());
    }
    for (int i = 1; i < argc; ++i) {
        arguments.push_back(argv[i]);
    }
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
}

void tableRow(const std::string& road, const std::string& ours, const std::string& baseline,
              const std::string& ratio, const std::string& goal, const std::string& verdictText) {
    const std::string row = "| " + road + " | " + ours + " | " + baseline + " | " + ratio + " | " +
                            goal + " | " + verdictText + " |";
    std::cout << row << std::endl;
    if (const char* path = std::getenv("OSTRELINK_BENCH_TABLE")) {
        std::ofstream table(path, std::ios::app);
        table << row << '\n';
    }
}

std::string formatNanoseconds(std::optional<double> ns) {
    if (!ns) {
        return "not measured";
    }
    if (*ns >= 1e6) {
        return fixed(*ns / 1e6, 2) + " ms";
    }
    if (*ns >= 1e3) {
        return fixed(*ns / 1e3, *ns >= 1e5 ? 0 : (*ns >= 1e4 ? 1 : 2)) + " µs";
    }
    return fixed(*ns, 0) + " ns";
}

std::string formatRate(std::optional<double> perSecond) {
    if (!perSecond) {
        return "not measured";
    }
    return fixed(*perSecond / 1e6, 2) + " M/s";
}

std::string formatRatio(std::optional<double> ratio) {
    return ratio ? fixed(*ratio, 2) : "–";
}

std::optional<double> divide(std::optional<double> a, std::optional<double> b) {
    if (!a || !b || *b == 0) {
        return std::nullopt;
    }
    return *a / *b;
}

std::string verdict(std::optional<double> value, bool met) {
    if (!value) {
        return "not measured";
    }
    return met ? "met" : "missed";
}
