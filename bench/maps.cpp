// Maps at production scale, each drawn by the chart engine into a PNG file
// (the file's encoding included): a wafer vector map of 100,000 overlay
// sites at 2000 x 2000, and the contour of a 300 mm wafer at 1 mm cells from
// 10,000 CD sites.
//
//   ninja -C build-bench bench_maps && ./build-bench/bench/bench_maps
#include <benchmark/benchmark.h>

#include <cmath>
#include <filesystem>
#include <memory>
#include <string>

#include "base/process.h"
#include "graphics/chart.h"
#include "lot/lot.h"
#include "paint/chart_file.h"

using namespace zorv;

namespace {

// One 300 mm wafer of 26 x 33 mm fields, n x n sites in each field that lies
// on the wafer; value(x, y) in mm gives the point its V, H (display units).
template <class Value2>
std::shared_ptr<cLot> WaferLot(int n, Value2 value, bool scalar) {
    auto lot = cLot::create();
    lot->LotName = scalar ? "CONTOUR" : "VECTORS";
    lot->DataSource(scalar ? eDataSourceCDSEM : eDataSourceRegistration);
    lot->WaferSize = 300000;
    lot->DieSizeX = 26000;
    lot->DieSizeY = 33000;
    lot->DieXarray = -0.5f;
    lot->DieYarray = -0.5f;
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    int key = 0;
    for (int j = -5; j <= 4; ++j)
        for (int i = -6; i <= 5; ++i) {
            const double fx = (i + 0.5) * 26000, fy = (j + 0.5) * 33000;  // field centre
            if (std::hypot(std::fabs(fx) + 13000, std::fabs(fy) + 16500) > 150000 + 20000) continue;
            cField* f = w->AddField(float(i), float(j), isNew, false);
            f->LocationX = f->DieX * lot->DieSizeX;
            f->LocationY = f->DieY * lot->DieSizeY;
            for (int b = 0; b < n; ++b)
                for (int a = 0; a < n; ++a) {
                    Ref<cSite> s = cSite::New();
                    s->setNumberKey(++key);
                    s->LocationX = float((a + 0.5) / n - 0.5) * 26000;
                    s->LocationY = float((b + 0.5) / n - 0.5) * 33000;
                    auto p = std::make_unique<cPoint>();
                    const double x = (fx + s->LocationX) / 1000, y = (fy + s->LocationY) / 1000;
                    const auto [v, h] = value(x, y);
                    p->ValueV = float(v * 1000);
                    if (!scalar) p->ValueH = float(h * 1000);
                    f->AddPoint(s, std::move(p));
                }
        }
    lot->CalcWaferPositions();
    lot->PlotFeature(scalar ? 1 : 0);
    return lot;
}

std::string OutPath(const char* name) { return (std::filesystem::temp_directory_path() / name).string(); }

void Render(benchmark::State& state, cGraphic& g, const char* file, int size) {
    const std::string out = OutPath(file);
    for (auto _ : state) {
        Status drawn = StatusOk();
        const Status st = RenderToFile(out, size, size, [&](Surface& s) {
            g.Container(&s);
            drawn = g.DrawFigure();
        });
        if (!st || !drawn) state.SkipWithError("render");
    }
    std::filesystem::remove(out);
}

void BM_WaferVectorMapPng(benchmark::State& state) {
    // A rotation of 0.1 ppm and a magnification of 0.05 ppm: 15 nm at the edge.
    static auto lot = WaferLot(34, [](double x, double y) {
        return std::pair{1e-4 * (-y) + 5e-5 * x, 1e-4 * x + 5e-5 * y};
    }, false);
    state.counters["sites"] = double(lot->TotalPoints());
    cGraphic g;
    g.Kind = GraphKind::WaferVector;
    g.MapSiteMarks = false;
    g.TitleObj.TitleString = "Overlay, 100,000 sites";
    if (!g.LotData(lot)) state.SkipWithError("lot");
    Render(state, g, "zorv-bench-wafer-vector.png", 2000);
}
BENCHMARK(BM_WaferVectorMapPng)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_WaferContourPng(benchmark::State& state) {
    // A radial CD trend with a tilt.
    static auto lot = WaferLot(11, [](double x, double y) {
        return std::pair{0.045 + 2e-7 * (x * x + y * y) + 2e-5 * x, 0.0};
    }, true);
    state.counters["sites"] = double(lot->TotalPoints());
    cGraphic g;
    g.Kind = GraphKind::WaferContour;
    g.ContourCell = 1;  // mm
    g.TitleObj.TitleString = "CD contour, 1 mm cells";
    if (!g.LotData(lot)) state.SkipWithError("lot");
    Render(state, g, "zorv-bench-wafer-contour.png", 1000);
}
BENCHMARK(BM_WaferContourPng)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
    PreferHugePageHeap(argv);
    EnsureGuiApplication();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
