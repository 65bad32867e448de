// Vorlink's benchmark suite. Every ratio it reports compares two calls run in
// the same process, interleaved; bench/run turns the output into one table.

#include <benchmark/benchmark.h>

#include <QLoggingCategory>
#include <QString>

namespace vorbench {
void registerRowBenchmarks();
}

int main(int argc, char **argv)
{
    // The union messages write a debug line on every call. A host that keeps
    // debug output off pays only for the test; convertWithWarning measures
    // the line being made.
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    vorbench::registerRowBenchmarks();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
