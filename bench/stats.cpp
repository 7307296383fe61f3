// Statistics and culling at production scale: 25 wafers x 100 fields x 400
// sites, one point per site (1,000,000 points), a CD-SEM lot with 4 features
// and 4 site families. Reports the time of each analysis and the peak
// resident set (VmHWM) of the process.
//
//   ninja -C build-bench bench_stats && ./build-bench/bench/bench_stats
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "base/process.h"
#include "base/report.h"
#include "lot/lot.h"
#include "stats/cull.h"
#include "stats/lot_stats.h"
#include "stats/precision.h"

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

// Values with a wafer, field and site signature and a little noise, so that
// every level of the precision table has something to find, and a CD outlier
// in every 1009 points for the cull.
std::shared_ptr<cLot> BuildLot() {
    auto lot = cLot::create();
    lot->LotName = "BenchStats";
    lot->DataSource(eDataSourceCDSEM);
    lot->ValueV_Name = "CD";
    lot->ValueH_Name = "Height";
    lot->valueZ_Name = "SWA";
    lot->Slope_Name = "Space";
    lot->DieSizeX = 26000;
    lot->DieSizeY = 33000;
    unsigned seed = 12345;
    long planted = 0;
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
                        s->setFamily(1 + (key - 1) % 4);
                        f->sites().Add(s, std::to_string(key));
                        auto p = std::make_unique<cPoint>();
                        double base = 50 + 0.3 * w + 0.1 * (i - j) + 0.02 * (a - b) + noise();
                        if (++planted % 1009 == 0) base += 12;  // an outlier now and then
                        p->ValueV = float(base * 1000);
                        p->ValueH = float((100 + 0.5 * w + noise()) * 1000);
                        p->ValueZ = float((88 + 0.01 * a + noise()) * 1000);
                        p->Slope = float((60 - 0.2 * s->Family() + noise()) * 1000);
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

void ReportPeak(benchmark::State& state) {
    state.counters["peak_MB"] = statusKB("VmHWM:") / 1024.0;
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
