// Statistics and culling at production scale: 25 wafers x 100 fields x 400
// sites, one point per site (1,000,000 points), a CD-SEM lot with 4 features
// and 4 site families. Reports the time of each analysis and the peak
// resident set (VmHWM) of the process.
//
//   ninja -C build-bench bench_stats && ./build-bench/bench/bench_stats
#include <benchmark/benchmark.h>

#include <cmath>
#include <string>

#include "base/process.h"
#include "base/report.h"
#include "lot/lot.h"
#include "stats/cull.h"
#include "stats/lot_stats.h"
#include "stats/precision.h"
#include "bench_lot.h"

using namespace zorv;
using namespace zorv::bench;

namespace {

// Values with a wafer, field and site signature and a little noise, so that
// every level of the precision table has something to find, and a CD outlier
// in every 1009 points for the cull.
std::shared_ptr<cLot> BuildLot() {
    BenchNoise noise(12345);
    long planted = 0;
    return BuildBenchLot(
        "BenchStats", eDataSourceCDSEM,
        [](cLot& lot) {
            lot.ValueV_Name = "CD";
            lot.ValueH_Name = "Height";
            lot.valueZ_Name = "SWA";
            lot.Slope_Name = "Space";
        },
        [&](cPoint& p, const BenchAt& at) {
            double base = 50 + 0.3 * at.wafer + 0.1 * (at.i - at.j) + 0.02 * (at.a - at.b) + noise();
            if (++planted % 1009 == 0) base += 12;  // an outlier now and then
            p.ValueV = float(base * 1000);
            p.ValueH = float((100 + 0.5 * at.wafer + noise()) * 1000);
            p.ValueZ = float((88 + 0.01 * at.a + noise()) * 1000);
            p.Slope = float((60 - 0.2 * at.site->Family() + noise()) * 1000);
        },
        4);
}

cLot& SharedLot() {
    static std::shared_ptr<cLot> lot = BuildLot();
    return *lot;
}

void ReportPeak(benchmark::State& state) {
    state.counters["peak_MB"] = PeakMB();
}

void BM_CalcPrecision(benchmark::State& state) {
    cLot& lot = SharedLot();
    for (auto _ : state) {
        auto t = CalcPrecision(lot);
        if (!t) state.SkipWithError(t.failure().text.c_str());
        benchmark::DoNotOptimize(t);
    }
    ReportPeak(state);
}
BENCHMARK(BM_CalcPrecision)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_CalcRawStats(benchmark::State& state) {
    cLot& lot = SharedLot();
    for (auto _ : state) {
        Datam t;
        if (Status st = CalcRawStats(lot, &t); !st) state.SkipWithError(st.failure().text.c_str());
        benchmark::DoNotOptimize(t);
    }
    ReportPeak(state);
}
BENCHMARK(BM_CalcRawStats)->Unit(benchmark::kMillisecond)->Iterations(5);

// Every feature and family, on a fresh clone each time (the cull changes
// the lot); the clone is not timed.
void BM_CullRangeSigma(benchmark::State& state) {
    cLot& lot = SharedLot();
    long culled = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto work = lot.clone(true);
        state.ResumeTiming();
        auto r = CullRangeSigma(*work, 8, 3, true);
        if (!r) state.SkipWithError(r.failure().text.c_str());
        else culled = r->rangeCount + r->sigmaCount;
        state.PauseTiming();
        work.reset();
        state.ResumeTiming();
    }
    state.counters["culled"] = static_cast<double>(culled);
    ReportPeak(state);
}
BENCHMARK(BM_CullRangeSigma)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
    // As zorv-cli runs: the heap on huge pages.
    PreferHugePageHeap(argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
