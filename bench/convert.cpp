// Conversion to focus at scale: a lot of 1,000 fields x 1,000 sites (one
// point each, 1,000,000 points) through a template of 1,000 sites, on the
// slope path and on the higher-order path.
//
//   ninja -C build-bench bench_convert && ./build-bench/bench/bench_convert
#include <benchmark/benchmark.h>

#include <filesystem>
#include <memory>
#include <string>

#include "calib/convert.h"
#include "lot/lot.h"

using namespace zorv;

namespace {

constexpr int kFields = 1000, kSites = 1000;

std::shared_ptr<cLot> ShiftLot() {
    auto lot = cLot::create();
    lot->LotName = "Prod";
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    for (int i = 0; i < kFields; ++i) {
        cField* f = w->AddField(static_cast<float>(i % 40), static_cast<float>(i / 40), isNew);
        f->Dose = 24;
        f->NA = 0.75f;
        for (int s = 1; s <= kSites; ++s) {
            Ref<cSite> site = cSite::New();
            site->setNumberKey(s);
            site->LocationX = static_cast<float>(100 * (s % 32));
            site->LocationY = static_cast<float>(100 * (s / 32));
            site->setParent(f);
            f->sites().Add(site, std::to_string(s));
            auto p = std::make_unique<cPoint>();
            p->ValueV = static_cast<float>(10 * (s % 7) - 30), p->ValueH = static_cast<float>(20 - 5 * (s % 9));
            f->AddPoint(site, std::move(p));
        }
    }
    return lot;
}

void Convert(benchmark::State& state) {
    static auto lot = ShiftLot();
    cTemplateLibrary lib((std::filesystem::temp_directory_path() / "zorv-bench-convert").string());
    auto t = std::make_shared<cTemplate>();
    for (int s = 1; s <= kSites; ++s) {
        auto c = std::make_unique<cSiteCal>();
        c->NumberKey = std::to_string(s) + "_24_0.75_0_0";
        c->Dose = 24, c->NA = 0.75f;
        c->SlopeX = 0.0066f, c->SlopeY = 0.007f;
        if (state.range(0)) c->X2nd = 1e-6f, c->X3rd = 2e-8f, c->Y2nd = 3e-7f;
        t->AddSite(std::move(c));
    }
    lib.AddTemplate(t, "Big");
    ConvertOptions o;
    o.templateName = "Big";
    for (auto _ : state) {
        auto r = ConvertLot(*lot, lib, o);
        if (!r || !*r) state.SkipWithError("conversion failed");
        benchmark::DoNotOptimize(r);
    }
    state.counters["points"] = static_cast<double>(kFields) * kSites;
}
BENCHMARK(Convert)->Arg(0)->Arg(1)->ArgName("higherOrder")->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
