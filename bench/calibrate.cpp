// The PSFM calibration at its largest: 11 focus steps x 25 fields each, 100
// sites per field (27,500 points), fitted at order 6 and inverted, with and
// without the chart per site.
//
//   ninja -C build-bench bench_calibrate && ./build-bench/bench/bench_calibrate
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "calib/calibrate.h"
#include "graphics/chart.h"
#include "lot/lot.h"

using namespace zorv;

namespace {

constexpr int kFocus = 11, kFieldsPerFocus = 25, kSites = 100;

std::shared_ptr<cLot> PsfmLot() {
    auto lot = cLot::create();
    lot->LotName = "PSFM";
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    unsigned seed = 11;
    auto noise = [&] {
        seed = seed * 1103515245u + 12345u;
        return ((seed >> 8) % 1000) / 1000.0 - 0.5;
    };
    for (int i = 0; i < kFocus * kFieldsPerFocus; ++i) {
        cField* f = w->AddField(static_cast<float>(i % 17), static_cast<float>(i / 17), isNew);
        const double focus = -0.25 + 0.05 * (i % kFocus);
        f->Focus = static_cast<float>(focus);
        f->Dose = 24;
        for (int s = 1; s <= kSites; ++s) {
            Ref<cSite> site = cSite::New();
            site->setNumberKey(s);
            site->LocationX = static_cast<float>(1000 * (s % 10));
            site->LocationY = static_cast<float>(1000 * (s / 10));
            site->setParent(f);
            f->sites().Add(site, std::to_string(s));
            auto p = std::make_unique<cPoint>();
            p->ValueV = static_cast<float>(1000 * (2 + 150 * focus + 10 * focus * focus - 20 * focus * focus * focus + noise()));
            p->ValueH = static_cast<float>(1000 * (-1 + 140 * focus - 6 * focus * focus + 15 * focus * focus * focus + noise()));
            f->AddPoint(site, std::move(p));
        }
    }
    return lot;
}

void Calibrate(benchmark::State& state) {
    auto lot = PsfmLot();
    const bool charts = state.range(0) != 0;
    for (auto _ : state) {
        cTemplate t;
        CalibrateOut out;
        CalGraphs graphs;
        CalibrateArgs a;
        a.fitOrder = 6;
        a.graphs = charts ? &graphs : nullptr;
        if (!CalibrateReticle(t, *lot, a, out)) state.SkipWithError("calibration failed");
        benchmark::DoNotOptimize(out.results);
    }
    state.counters["points"] = kFocus * kFieldsPerFocus * kSites;
}
BENCHMARK(Calibrate)->Arg(0)->Arg(1)->ArgName("charts")->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
