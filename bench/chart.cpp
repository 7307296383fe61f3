// Charts at production scale: an XY chart of 1,000,000 points and a
// histogram of 1,000,000 values, each drawn by the chart engine into a
// 1600 x 1000 PNG file (the file's encoding included).
//
//   ninja -C build-bench bench_chart && ./build-bench/bench/bench_chart
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>

#include "base/process.h"
#include "graphics/chart.h"
#include "paint/chart_file.h"

using namespace zorv;

namespace {

constexpr int kPoints = 1000000;

// x across 0..100, y a slow wave with a little deterministic noise.
const Datam& Table() {
    static const Datam t = [] {
        Datam d(kPoints, 2, 0, 0);
        d(0, 1) = Value("Dose");
        d(0, 2) = Value("CD");
        unsigned seed = 99;
        for (int i = 1; i <= kPoints; ++i) {
            seed = seed * 1103515245u + 12345u;
            const double x = 100.0 * i / kPoints;
            d(i, 1) = Value(x);
            d(i, 2) = Value(50 + 5 * std::sin(x / 8) + ((seed >> 8) & 0xffff) / 65536.0);
        }
        return d;
    }();
    return t;
}

std::string OutPath(const char* name) {
    return (std::filesystem::temp_directory_path() / name).string();
}

void BM_XyChartPng(benchmark::State& state) {
    const Datam& t = Table();
    const std::string out = OutPath("zorv-bench-xy.png");
    for (auto _ : state) {
        cGraphic g;
        if (!g.RegisterData(t)) state.SkipWithError("register");
        cSeries& c = g.Series.Add("CD");
        c.Xcol = 1;
        c.Ycol = 2;
        c.Symbol = SymbolShape::Dot;
        g.TitleObj.TitleString = "CD against dose, 1,000,000 points";
        Status drawn = StatusOk();
        const Status st = RenderToFile(out, 1600, 1000, [&](Surface& s) {
            g.Container(&s);
            drawn = g.PlotChart();
        });
        if (!st || !drawn) state.SkipWithError("render");
    }
    std::filesystem::remove(out);
}
BENCHMARK(BM_XyChartPng)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_HistogramPng(benchmark::State& state) {
    const Datam& t = Table();
    const std::string out = OutPath("zorv-bench-hist.png");
    for (auto _ : state) {
        cGraphic g;
        if (!g.RegisterData(t, false)) state.SkipWithError("register");
        g.HistoXcol = 2;
        g.HistoDisplayResolution = 50;
        g.doBoxPlot = true;
        Status drawn = StatusOk();
        const Status st = RenderToFile(out, 1600, 1000, [&](Surface& s) {
            g.Container(&s);
            drawn = g.PlotHistogram();
        });
        if (!st || !drawn) state.SkipWithError("render");
    }
    std::filesystem::remove(out);
}
BENCHMARK(BM_HistogramPng)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
    PreferHugePageHeap(argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
