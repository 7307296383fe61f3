// Wafer and field models at production scale: 25 wafers x 100 fields x 400
// sites, one point per site (1,000,000 points), an overlay lot whose X holds
// wafer and field terms. The wafer fit is the ten-term pentode model on each
// wafer; the field fit the five-term piston, tilt and curvature model on each
// of the 2,500 fields. Reports the time of each lot fit and the peak resident
// set (VmHWM).
//
//   ninja -C build-bench bench_model && ./build-bench/bench/bench_model
#include <benchmark/benchmark.h>

#include <cmath>
#include <string>

#include "base/process.h"
#include "base/report.h"
#include "lot/lot.h"
#include "model/lot_fit.h"
#include "model/model_sets.h"
#include "bench_lot.h"

using namespace zorv;
using namespace zorv::bench;

namespace {

std::shared_ptr<cLot> BuildLot() {
    BenchNoise noise(777);
    return BuildBenchLot(
        "BenchModel", eDataSourceOverlay,
        [](cLot& lot) {
            lot.ValueV_Name = std::string("X");  // a plain literal trips a false GCC 12 warning
            lot.ValueH_Name = std::string("Y");
            lot.valueZ_Name = "Length";
        },
        [&](cPoint& p, const BenchAt& at) {
            const double X = (at.field->LocationX + at.site->LocationX) / 1000.0, x = at.site->LocationX / 1000.0;
            p.ValueV = float((3 + 0.05 * X + 0.6 * x + 1e-4 * X * X + noise()) * 1000);
            p.ValueH = float((-2 + 0.02 * X + noise()) * 1000);
        });
}

cLot& SharedLot() {
    static std::shared_ptr<cLot> lot = BuildLot();
    return *lot;
}

void BM_WaferModelFit(benchmark::State& state) {
    cLot& lot = SharedLot();
    for (cWafer* w : lot.Wafers()) {
        Models& ms = WaferModels(*w);
        ms.Clear();
        auto m = LoadPW_WafModelPentode();
        const std::string key = m->Key;
        ms.models.Add(std::move(m), key);
        WaferModels(*w);
    }
    LotFitSetup setup;
    long fitted = 0;
    for (auto _ : state) {
        auto r = LotModelFit(lot, setup);
        if (!r) state.SkipWithError(r.failure().text.c_str());
        else fitted = r->wafersFitted;
    }
    state.counters["wafers"] = static_cast<double>(fitted);
    state.counters["peak_MB"] = PeakMB();
}
BENCHMARK(BM_WaferModelFit)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_FieldModelFit(benchmark::State& state) {
    cLot& lot = SharedLot();
    for (cWafer* w : lot.Wafers())
        for (cField* f : w->Fields()) {
            ModelsField& mf = FieldModels(*f);
            mf.Clear();
            auto m = LoadPWModel(1);
            const std::string key = m->Key;
            mf.models.Add(std::move(m), key);
            FieldModels(*f);
        }
    LotFitSetup setup;
    setup.doWafer = false;
    setup.doField = true;
    long fitted = 0;
    for (auto _ : state) {
        auto r = LotModelFit(lot, setup);
        if (!r) state.SkipWithError(r.failure().text.c_str());
        else fitted = r->fieldsFitted;
    }
    state.counters["fields"] = static_cast<double>(fitted);
    state.counters["peak_MB"] = PeakMB();
}
BENCHMARK(BM_FieldModelFit)->Unit(benchmark::kMillisecond)->Iterations(3);

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
