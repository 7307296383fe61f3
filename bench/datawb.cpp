// Data workbook at scale: SaveData of 1,000,000 rows x 12 columns, the load of
// that workbook into a lot, and a 1,000-row result sheet added with SaveArray.
// Peak RSS is the process's; run each benchmark on its own for its figure:
//   bench_datawb --benchmark_filter=SaveData
//   bench_datawb --benchmark_filter=GetExcelWBLot
//   bench_datawb --benchmark_filter=SaveArray
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "base/report.h"
#include "lot/lot.h"
#include "workbook/data_workbook.h"
#include "workbook/data_workbook_sample.h"
#include "workbook/workbook_ops.h"

namespace fs = std::filesystem;
using namespace zorv;

namespace {

std::string BenchDir() {
    const char* t = std::getenv("ZORV_BENCH_DIR");
    fs::path d = t ? fs::path(t) : fs::temp_directory_path() / "zorv_bench_datawb";
    fs::create_directories(d);
    return d.string();
}
std::string BigPath() { return BenchDir() + "/Big1M.xlsx"; }

SampleSpec BigSpec() {
    SampleSpec s;
    s.wafers = 25;
    s.fieldsX = s.fieldsY = 10;
    s.sitesX = s.sitesY = 20;  // 25 x 100 x 400 = 1,000,000 rows
    s.values = 7;              // columns A..L
    s.dataType = 1;
    s.dataTable = "Big1M";
    s.workbookPath = BigPath();
    return s;
}

double PeakRssMb() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss / 1024.0;
}

void WriteBig(benchmark::State* state) {
    SampleTables t = MakeSampleTables(BigSpec());
    fs::remove(BigPath());
    Workbooks::CloseAll();
    if (state) state->ResumeTiming();
    const bool ok = SaveData(t.data, t.excluded, t.sites, t.information).ok();
    if (state) state->PauseTiming();
    Workbooks::CloseAll();
    if (!ok && state) state->SkipWithError("SaveData failed");
}

struct Quiet {
    Quiet() { SetReporter(&r); }
    ~Quiet() { SetReporter(nullptr); }
    StreamReporter r{stderr, false};
};

void BM_SaveData_1M(benchmark::State& state) {
    Quiet q;
    for (auto _ : state) {
        state.PauseTiming();
        WriteBig(&state);
        state.ResumeTiming();
    }
    state.counters["rows"] = 1e6;
    state.counters["fileMB"] = fs::file_size(BigPath()) / 1048576.0;
    state.counters["peakRSS_MB"] = PeakRssMb();
}
BENCHMARK(BM_SaveData_1M)->Unit(benchmark::kMillisecond)->Iterations(1);

void BM_GetExcelWBLot_1M(benchmark::State& state) {
    Quiet q;
    if (!fs::exists(BigPath())) WriteBig(nullptr);
    long points = 0;
    for (auto _ : state) {
        std::shared_ptr<cLot> lot;
        if (!GetExcelWBLot(BigPath(), LoadOptions{}, lot)) {
            state.SkipWithError("load failed");
            break;
        }
        state.PauseTiming();
        points = lot->TotalPoints();
        lot->Kill();
        lot.reset();
        Workbooks::CloseAll();
        state.ResumeTiming();
    }
    state.counters["points"] = static_cast<double>(points);
    state.counters["peakRSS_MB"] = PeakRssMb();
}
BENCHMARK(BM_GetExcelWBLot_1M)->Unit(benchmark::kMillisecond)->Iterations(1);

// The load without the tree: the data sheet's rows streamed (inflate and
// parse) to a visitor that only counts them.
void BM_StreamDataSheet_1M(benchmark::State& state) {
    Quiet q;
    if (!fs::exists(BigPath())) WriteBig(nullptr);
    long rows = 0;
    for (auto _ : state) {
        auto wb = Workbook::open(BigPath(), Workbook::Load::Lazy);
        Worksheet* ws = wb ? (*wb)->sheet("Big1M") : nullptr;
        if (!ws) {
            state.SkipWithError("open failed");
            break;
        }
        rows = 0;
        Status st = ws->forEachRow([&](int, const Value*, int) { return ++rows > 0; });
        if (!st) {
            state.SkipWithError("stream failed");
            break;
        }
    }
    state.counters["rows"] = static_cast<double>(rows);
    state.counters["peakRSS_MB"] = PeakRssMb();
}
BENCHMARK(BM_StreamDataSheet_1M)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_SaveArray_1000(benchmark::State& state) {
    Quiet q;
    if (!fs::exists(BigPath())) WriteBig(nullptr);
    Datam result(1000, 10, 0, 0);
    for (int c = 0; c <= 10; ++c) result(0, c) = "Col" + std::to_string(c);
    for (int r = 1; r <= 1000; ++r)
        for (int c = 0; c <= 10; ++c) result(r, c) = r * 0.001 + c;
    int n = 0;
    for (auto _ : state) {
        state.PauseTiming();
        WorkbookPtr wb;
        Worksheet* ws = nullptr;
        if (!OpenExcelWorksheet(BigPath(), wb, &ws, false)) {
            state.SkipWithError("open failed");
            break;
        }
        state.ResumeTiming();
        if (!SaveArray(result, "Result" + std::to_string(++n), "Result", wb.get())) {
            state.SkipWithError("SaveArray failed");
            break;
        }
        state.PauseTiming();
        Workbooks::CloseAll();
        state.ResumeTiming();
    }
    state.counters["peakRSS_MB"] = PeakRssMb();
}
BENCHMARK(BM_SaveArray_1000)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
