// Runs the benchmarks. Their figures go to standard error, since standard output carries
// the sinks' trace lines; with a file argument, every figure is also appended to it as
// "NAME.FIGURE=VALUE" lines (NAME without its run options), for bench/table.py.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

namespace {

// Prints as the console reporter does, and writes every run's figures as key=value lines.
class Recorder : public benchmark::ConsoleReporter {
public:
    explicit Recorder(std::FILE* results) : ConsoleReporter(OO_Tabular), mResults(results) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred || mResults == nullptr) continue;
            const std::string name = shortName(run.benchmark_name());
            std::fprintf(mResults, "%s.seconds=%.9g\n", name.c_str(),
                         run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit));
            for (const auto& [figure, counter] : run.counters)
                std::fprintf(mResults, "%s.%s=%.9g\n", name.c_str(), figure.c_str(), counter.value);
        }
        ConsoleReporter::ReportRuns(runs);
    }

private:
    // "BM_Dump300VgaFrames/1/iterations:1" -> "BM_Dump300VgaFrames/1".
    static std::string shortName(std::string name) {
        for (const char* option : {"/iterations:", "/min_time:"}) {
            const auto at = name.find(option);
            if (at != std::string::npos) name.erase(at);
        }
        return name;
    }

    std::FILE* mResults;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    std::FILE* results = argc > 1 ? std::fopen(argv[1], "a") : nullptr;
    if (argc > 1 && results == nullptr) {
        std::perror(argv[1]);
        return 1;
    }
    if (results != nullptr) {
        std::ifstream loadavg("/proc/loadavg");
        std::string one, five, fifteen;
        loadavg >> one >> five >> fifteen;
        std::fprintf(results, "bench.load=%s %s %s\n", one.c_str(), five.c_str(), fifteen.c_str());
    }
    Recorder recorder(results);
    recorder.SetOutputStream(&std::cerr);
    recorder.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&recorder);
    benchmark::Shutdown();
    if (results != nullptr) std::fclose(results);
    return 0;
}
