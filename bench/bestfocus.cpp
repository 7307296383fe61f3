// Field aberration models at scale: 2,500 fields of 25 sites, the row and
// column models and the whole field models of every field.
//
//   ninja -C build-bench bench_bestfocus && ./build-bench/bench/bench_bestfocus
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <string>

#include "calib/best_focus.h"
#include "lot/lot.h"

using namespace zorv;

namespace {

constexpr int kFields = 2500;

std::shared_ptr<cLot> FocusLot() {
    auto lot = cLot::create();
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    for (int i = 0; i < kFields; ++i) {
        cField* f = w->AddField(static_cast<float>(i % 50), static_cast<float>(i / 50), isNew);
        int k = 0;
        for (int yi = -2; yi <= 2; ++yi)
            for (int xi = -2; xi <= 2; ++xi) {
                const double x = 5.0 * xi, y = 5.0 * yi;
                Ref<cSite> s = cSite::New();
                s->setNumberKey(++k);
                s->LocationX = static_cast<float>(x * 1000), s->LocationY = static_cast<float>(y * 1000);
                s->LocationR = static_cast<float>(std::hypot(x, y) * 1000);
                s->LocationTheta = static_cast<float>(std::atan2(y, x));
                s->setParent(f);
                f->sites().Add(s, std::to_string(k));
                auto p = std::make_unique<cPoint>();
                const double fo = 0.01 * (i % 7) + 0.002 * x - 0.001 * y + 0.0003 * (x * x + y * y) + 0.001 * ((k * 7919) % 13);
                p->ValueV = p->ValueH = p->ValueZ = static_cast<float>(1000 * fo);
                f->AddPoint(s, std::move(p));
            }
    }
    return lot;
}

void RowsAndColumns(benchmark::State& state) {
    static auto lot = FocusLot();
    for (auto _ : state) {
        auto r = CalculateFieldTiltCurvature(*lot);
        if (!r) state.SkipWithError("failed");
        benchmark::DoNotOptimize(r);
    }
    state.counters["fields"] = kFields;
}
BENCHMARK(RowsAndColumns)->Unit(benchmark::kMillisecond)->Iterations(3);

void WholeField(benchmark::State& state) {
    static auto lot = FocusLot();
    for (auto _ : state) {
        auto r = CalculateWholeFieldTiltCurvature(*lot);
        if (!r) state.SkipWithError("failed");
        benchmark::DoNotOptimize(r);
    }
    state.counters["fields"] = kFields;
}
BENCHMARK(WholeField)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
