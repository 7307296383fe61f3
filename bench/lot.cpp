// The lot at production scale: 25 wafers x 100 fields x 400 sites, one point
// per site (1,000,000 points). Reports time per operation, heap bytes per
// point (site included) and the peak resident set (VmHWM).
//
//   ninja -C build-lot bench_lot && ./build-lot/bench/bench_lot
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "base/report.h"
#include "lot/lot.h"

using namespace zorv;

namespace {

constexpr int kWafers = 25, kFieldsPerSide = 10, kSitesPerSide = 20;
constexpr double kPoints = double(kWafers) * kFieldsPerSide * kFieldsPerSide * kSitesPerSide * kSitesPerSide;

double statusKB(const char* key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    const size_t n = std::strlen(key);
    while (std::getline(in, line))
        if (line.compare(0, n, key) == 0) return std::stod(line.substr(n + 1));
    return 0;
}

double heapBytes() { return static_cast<double>(mallinfo2().uordblks); }

// Built as the loader builds: wafer, field, site into the field's sites, then
// the point through cField::AddPoint.
std::shared_ptr<cLot> BuildLot() {
    auto lot = cLot::create();
    lot->LotName = "Bench";
    lot->DataSource(1);
    lot->ValueV_Name = std::string("X");
    lot->ValueH_Name = std::string("Y");
    lot->valueZ_Name = "Length";
    lot->DieSizeX = 26000;
    lot->DieSizeY = 33000;
    for (int w = 1; w <= kWafers; ++w) {
        bool isNew = false;
        std::string name = std::to_string(w);
        name.insert(0, 1, 'W');
        cWafer* wf = lot->AddWafer(name, isNew);
        for (int j = 0; j < kFieldsPerSide; ++j)
            for (int i = 0; i < kFieldsPerSide; ++i) {
                cField* f = wf->AddField(float(i - 5), float(j - 5), isNew, false);
                f->LocationX = f->DieX * lot->DieSizeX;
                f->LocationY = f->DieY * lot->DieSizeY;
                f->Focus = 0.05f * i;
                f->Dose = 20 + j;
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
                        p->ValueV = float(a - b);
                        p->ValueH = float(a + b);
                        p->ValueZ = float(a * b);
                        p->setNumberKey(std::to_string(key));
                        f->AddPoint(s, std::move(p));
                    }
            }
    }
    lot->CalcWaferPositions();
    return lot;
}

std::shared_ptr<cLot>& Lot() {
    static std::shared_ptr<cLot> lot;
    if (!lot) lot = BuildLot();
    return lot;
}

void Report(benchmark::State& st) {
    st.counters["VmHWM_MB"] = statusKB("VmHWM:") / 1024.0;
    st.counters["VmRSS_MB"] = statusKB("VmRSS:") / 1024.0;
}

void BM_BuildLot(benchmark::State& st) {
    double perPoint = 0, rssPerPoint = 0;
    for (auto _ : st) {
        const double h0 = heapBytes(), r0 = statusKB("VmRSS:");
        auto lot = BuildLot();
        perPoint = (heapBytes() - h0) / kPoints;
        rssPerPoint = (statusKB("VmRSS:") - r0) * 1024.0 / kPoints;
        benchmark::DoNotOptimize(lot.get());
        if (lot->TotalPoints() != kPoints) st.SkipWithError("wrong point count");
    }
    st.counters["heap_bytes_per_point"] = perPoint;
    st.counters["sizeof_point"] = sizeof(cPoint);
    st.counters["sizeof_site"] = sizeof(cSite);
    st.counters["rss_bytes_per_point"] = rssPerPoint;
    Report(st);
}

void BM_Clone(benchmark::State& st) {
    auto& lot = Lot();
    for (auto _ : st) {
        auto c = lot->clone();
        benchmark::DoNotOptimize(c.get());
    }
    Report(st);
}

void BM_GetDataMatrix(benchmark::State& st) {
    auto& lot = Lot();
    for (auto _ : st) {
        Datam d = lot->GetDataMatrix(0, true);
        benchmark::DoNotOptimize(d.data());
        if (d.rowUb() != kPoints) st.SkipWithError("wrong row count");
    }
    Report(st);
}

void BM_CalcWaferPositions(benchmark::State& st) {
    auto& lot = Lot();
    for (auto _ : st) lot->CalcWaferPositions();
    Report(st);
}

void BM_TotalPointsRecount(benchmark::State& st) {
    auto& lot = Lot();
    for (auto _ : st) benchmark::DoNotOptimize(lot->TotalPoints(nullptr, true));
    Report(st);
}

}  // namespace

BENCHMARK(BM_BuildLot)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Clone)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_GetDataMatrix)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_CalcWaferPositions)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_TotalPointsRecount)->Unit(benchmark::kMillisecond)->Iterations(3);

int main(int argc, char** argv) {
    StreamReporter quiet(stderr, false);
    SetReporter(&quiet);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    SetReporter(nullptr);
    return 0;
}
