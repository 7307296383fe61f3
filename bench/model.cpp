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
#include <cstring>
#include <fstream>
#include <string>

#include "base/process.h"
#include "base/report.h"
#include "lot/lot.h"
#include "model/lot_fit.h"
#include "model/model_sets.h"

using namespace zorv;

namespace {

constexpr int kWafers = 25, kFieldsPerSide = 10, kSitesPerSide = 20;

double statusKB(const char* key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    const size_t n = std::strlen(key);
    while (std::getline(in, line))
        if (line.compare(0, n, key) == 0) return std::stod(line.substr(n + 1));
    return 0;
}

std::shared_ptr<cLot> BuildLot() {
    auto lot = cLot::create();
    lot->LotName = "BenchModel";
    lot->DataSource(eDataSourceOverlay);
    lot->ValueV_Name = std::string("X");  // a plain literal trips a false GCC 12 warning
    lot->ValueH_Name = std::string("Y");
    lot->valueZ_Name = "Length";
    lot->DieSizeX = 26000;
    lot->DieSizeY = 33000;
    unsigned seed = 777;
    auto noise = [&seed]() {
        seed = seed * 1103515245u + 12345u;
        return ((seed >> 8) & 0xffff) / 65536.0 - 0.5;
    };
    for (int w = 1; w <= kWafers; ++w) {
        bool isNew = false;
        std::string name = std::to_string(w);
        name.insert(0, 1, 'W');  // not "W" + ...: GCC 12 warns falsely on that
        cWafer* wf = lot->AddWafer(name, isNew);
        for (int j = 0; j < kFieldsPerSide; ++j)
            for (int i = 0; i < kFieldsPerSide; ++i) {
                cField* f = wf->AddField(float(i - 5), float(j - 5), isNew, false);
                f->LocationX = f->DieX * lot->DieSizeX;
                f->LocationY = f->DieY * lot->DieSizeY;
                f->sites().reserve(kSitesPerSide * kSitesPerSide);
                int key = 0;
                for (int b = 0; b < kSitesPerSide; ++b)
                    for (int a = 0; a < kSitesPerSide; ++a) {
                        ++key;
                        Ref<cSite> s = cSite::New();
                        s->setNumberKey(key);
                        s->LocationX = (a - 9.5f) * 1200;
                        s->LocationY = (b - 9.5f) * 1500;
                        s->setParent(f);
                        s->setFamily(1);
                        f->sites().Add(s, std::to_string(key));
                        auto p = std::make_unique<cPoint>();
                        const double X = (f->LocationX + s->LocationX) / 1000.0, x = s->LocationX / 1000.0;
                        p->ValueV = float((3 + 0.05 * X + 0.6 * x + 1e-4 * X * X + noise()) * 1000);
                        p->ValueH = float((-2 + 0.02 * X + noise()) * 1000);
                        p->setNumberKey(std::to_string(key));
                        f->AddPoint(s, std::move(p));
                    }
            }
    }
    lot->CalcWaferPositions();
    return lot;
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
    state.counters["peak_MB"] = statusKB("VmHWM:") / 1024.0;
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
    state.counters["peak_MB"] = statusKB("VmHWM:") / 1024.0;
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
