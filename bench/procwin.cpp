// The process window at production scale: "kPW" on a 15-focus x 13-dose
// matrix with 9 sites and 2 variables, at precision 10 and 20; the window
// geometry (composite, rectangles, ellipses) alone on the painted grids; and
// a 200-resample bootstrap of the two response surfaces.
//
//   ninja -C build-bench bench_procwin && ./build-bench/bench/bench_procwin
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <string>

#include "base/process.h"
#include "lot/lot.h"
#include "procwin/pw_bootstrap.h"
#include "procwin/pw_calculate.h"
#include "procwin/pw_fit.h"
#include "procwin/pw_geometry.h"
#include "pw_matrix.h"

using namespace zorv;
using namespace zorv::bench;

namespace {

void BM_ProcessWindow(benchmark::State& state) {
    static auto lot = FemLot();
    const PWSetup setup = Setup(static_cast<int>(state.range(0)));
    long n = 0;
    Datam focus;
    const Datam dose = lot->GetUniqueExposures(n, focus);
    for (auto _ : state) {
        PWState st;
        PWReport report;
        auto r = PWcalculate(setup, *lot, focus, dose, st, true, &report);
        if (!r) state.SkipWithError(r.failure().text.c_str());
        benchmark::DoNotOptimize(report.rectDoF);
    }
}
BENCHMARK(BM_ProcessWindow)->Arg(10)->Arg(20)->Unit(benchmark::kMillisecond)->Iterations(3);

// The geometry alone: the two surfaces painted once over the grid.
void BM_WindowGeometry(benchmark::State& state) {
    const int precision = static_cast<int>(state.range(0));
    const PWSetup setup = Setup(precision);
    auto grid = PWgridSetup(18, 30, 1, -0.35, 0.35, 0.05, precision);
    if (!grid) {
        state.SkipWithError("grid");
        return;
    }
    std::vector<std::pair<std::string, Datam>> painted;
    const double c1[8] = {0, 0.20, -0.004, 0.01, -0.30, 0.0005, 0.02, 0.004};
    const double c2[8] = {0, 92, -0.25, 2, -20, 0, 0, 0};
    for (const double* c : {c1, c2}) {
        Datam cv(7, 1, 0, 1);
        for (int i = 1; i <= 7; ++i) cv(i, 1) = Value(c[i]);
        Datam g = *grid;
        long n = 0;
        const int r = c == c1 ? 1 : 2;
        if (!PWsurfFill(g, setup.variables(r, 4).toDouble(), setup.variables(r, 3).toDouble(), cv, n))
            state.SkipWithError("paint");
        painted.emplace_back(r == 1 ? "CD_0" : "SWA_0", std::move(g));
    }
    for (auto _ : state) {
        PWState st;
        auto r = GetInscribe(setup, painted, st);
        if (!r) state.SkipWithError(r.failure().text.c_str());
    }
}
BENCHMARK(BM_WindowGeometry)->Arg(10)->Arg(20)->Unit(benchmark::kMillisecond)->Iterations(3);

// 200 resamples of both surfaces over every site's points, isofocal doses measured.
void BM_Bootstrap(benchmark::State& state) {
    Datam t(kFemFocus * kFemDose * kFemSites, 4, 0, 0);
    t(0, 1) = Value("Focus"), t(0, 2) = Value("Dose"), t(0, 3) = Value("CD"), t(0, 4) = Value("SWA");
    int r = 0;
    unsigned seed = 9;
    for (int i = 0; i < kFemFocus; ++i)
        for (int j = 0; j < kFemDose; ++j)
            for (int k = 0; k < kFemSites; ++k) {
                ++r;
                seed = seed * 1103515245u + 12345u;
                const double e = ((seed >> 8) & 0xffff) / 65536.0 - 0.5, f = -0.35 + 0.05 * i, d = 18.0 + j;
                t(r, 1) = Value(f), t(r, 2) = Value(d), t(r, 3) = Value(Cd(d, f) + 0.0005 * e), t(r, 4) = Value(Swa(d, f) + 0.05 * e);
            }
    const PWMeasure measure = [](const std::vector<Datam>& cs) {
        std::vector<std::pair<std::string, double>> out;
        double d;
        for (size_t k = 0; k < cs.size(); ++k)
            if (IsoFocalDose(cs[k], true, d)) out.emplace_back(k == 0 ? "CD" : "SWA", d);
        return out;
    };
    for (auto _ : state) {
        auto b = PWbootstrap(t, {3, 4}, {}, 200, 1, 0.95, measure);
        if (!b) state.SkipWithError("bootstrap");
    }
}
BENCHMARK(BM_Bootstrap)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
    PreferHugePageHeap(argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
