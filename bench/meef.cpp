// The mask error factor analysis at production scale: FindMEF on one wafer of
// 100 fields (10 x 10) x 400 sites (20 x 20 at 1.2 x 1.5 mm) against a
// reticle of the same 400 sites: 40,000 table rows, two local fits each of up
// to 25 points, and the field-wide fits. Target: under 2 s.
//
//   cmake ... -DZORV_BUILD_BENCH=ON && ninja -C build bench_meef && ./build/bench/bench_meef
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <string>

#include "lot/lot.h"
#include "reticle/meef.h"

using namespace zorv;

namespace {

constexpr int kFieldsPerSide = 10, kSitesPerSide = 20;

// A small deterministic noise in -0.5 .. 0.5.
struct Noise {
    unsigned seed;
    double operator()() {
        seed = seed * 1103515245u + 12345u;
        return ((seed >> 8) & 0xffff) / 65536.0 - 0.5;
    }
};

double MaskCD(int key) {
    Noise n{static_cast<unsigned>(key) * 2654435761u};
    return 360 + 12 * n();
}

void AddSite(cField* f, int key, float x, float y, double value) {
    Ref<cSite> s = cSite::New();
    s->setNumberKey(key);
    s->LocationX = x;
    s->LocationY = y;
    s->setParent(f);
    f->sites().Add(s, std::to_string(key));
    auto p = std::make_unique<cPoint>();
    p->ValueV = static_cast<float>(value * 1000);
    f->AddPoint(s, std::move(p));
}

std::shared_ptr<cLot> WaferLot() {
    auto lot = cLot::create();
    lot->LotName = "MEEF";
    lot->DataSource(eDataSourceCDSEM);
    lot->ValueV_Name = "CD";
    lot->DieSizeX = 26000;
    lot->DieSizeY = 33000;
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    Noise noise{3};
    for (int j = 0; j < kFieldsPerSide; ++j)
        for (int i = 0; i < kFieldsPerSide; ++i) {
            cField* f = w->AddField(float(i - 5), float(j - 5), isNew, false);
            f->sites().reserve(kSitesPerSide * kSitesPerSide);
            int key = 0;
            for (int b = 0; b < kSitesPerSide; ++b)
                for (int a = 0; a < kSitesPerSide; ++a) {
                    ++key;
                    const float x = (a - 9.5f) * 1200, y = (b - 9.5f) * 1500;
                    const double meef = 2 + 0.01 * x / 1000 - 0.01 * y / 1000;
                    AddSite(f, key, x, y, 90 + meef * (MaskCD(key) / 4 - 90) + 0.6 * noise());
                }
        }
    return lot;
}

std::shared_ptr<cLot> ReticleLot() {
    auto lot = cLot::create();
    lot->LotName = "RETICLE";
    lot->DataSource(eDataSourceCDSEM);
    lot->ValueV_Name = "Mask_CD";
    bool isNew = false;
    cField* f = lot->AddWafer("W1", isNew)->AddField(0, 0, isNew, false);
    int key = 0;
    for (int b = 0; b < kSitesPerSide; ++b)
        for (int a = 0; a < kSitesPerSide; ++a) {
            ++key;
            AddSite(f, key, (a - 9.5f) * 1200, (b - 9.5f) * 1500, MaskCD(key));
        }
    return lot;
}

void BM_FindMEF(benchmark::State& state) {
    const auto lot = WaferLot();
    const auto reticle = ReticleLot();
    MEFSetup setup;
    setup.feature = "CD";
    setup.reticleFeature = "Mask_CD";
    setup.mag = 4;
    size_t rows = 0;
    for (auto _ : state) {
        auto r = FindMEF(lot.get(), reticle.get(), setup);
        if (!r) {
            state.SkipWithError(r.failure().text.c_str());
            return;
        }
        rows = r->rows.size();
        benchmark::DoNotOptimize(r->table);
    }
    state.counters["rows"] = static_cast<double>(rows);
}
BENCHMARK(BM_FindMEF)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
