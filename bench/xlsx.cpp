// The workbook store on a data workbook of 1,000,000 rows x 12 columns:
// save, load (cells per second, peak memory), adding a 1,000-row result
// sheet to the saved file, and python3-openpyxl's read-only mode on the same
// file for comparison.
//
//   bench_xlsx                       all of it (openpyxl on the first 100,000 rows)
//   ZORV_OPENPYXL_ROWS=0 bench_xlsx  openpyxl over the whole file (minutes)
//   ZORV_BENCH_ROWS=200000 ...       a smaller workbook
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "workbook/store.h"

namespace fs = std::filesystem;
using namespace zorv;

namespace {

int Rows() {
    const char* e = std::getenv("ZORV_BENCH_ROWS");
    return e ? std::max(1000, std::atoi(e)) : 1000000;
}

std::string BenchFile() {
    const char* d = std::getenv("ZORV_BENCH_DIR");
    fs::path dir = d ? fs::path(d) : fs::temp_directory_path() / "zorv_bench_xlsx";
    fs::create_directories(dir);
    return (dir / "data_1M.xlsx").string();
}

// Peak resident memory (VmHWM) in MB; reset first where the kernel allows.
void ResetPeak() {
    std::ofstream("/proc/self/clear_refs") << "5";
}
double PeakMB() {
    std::ifstream f("/proc/self/status");
    std::string line;
    while (std::getline(f, line))
        if (line.rfind("VmHWM:", 0) == 0) return std::atof(line.c_str() + 6) / 1024.0;
    return 0;
}
double CurrentMB() {
    std::ifstream f("/proc/self/status");
    std::string line;
    while (std::getline(f, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::atof(line.c_str() + 6) / 1024.0;
    return 0;
}

// CPU seconds of the whole process (all threads), so that figures taken on
// a busy machine still say what the work costs.
double ProcessCpu() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + 1e-6 * double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec);
}

// A data sheet as the importers make it: header, wafer names as text, site
// and field indexes, eight measured values.
Datam MakeTable(int rows) {
    Datam t(rows, 12, 1, 1);
    const char* head[12] = {"Wafer", "Test", "Diex", "Diey", "X_reg", "Y_reg", "Z", "Slope", "Pitch", "A", "B", "C"};
    for (int c = 1; c <= 12; ++c) t(1, c) = head[c - 1];
    std::vector<Value> wafers;
    for (int w = 1; w <= 25; ++w) wafers.emplace_back(std::string(1, 'W').append(std::to_string(w)));
    std::mt19937_64 rng(1);
    std::normal_distribution<double> N(0.0, 12.5);
    for (int r = 2; r <= rows; ++r) {
        t(r, 1) = wafers[static_cast<size_t>((r - 2) / 40000) % 25];
        t(r, 2) = static_cast<double>((r - 2) % 40 + 1);
        t(r, 3) = static_cast<double>(((r - 2) / 40) % 30 - 15);
        t(r, 4) = static_cast<double>(((r - 2) / 1200) % 30 - 15);
        for (int c = 5; c <= 12; ++c) t(r, c) = N(rng);
    }
    return t;
}

void BM_Save(benchmark::State& st) {
    int rows = Rows();
    std::string path = BenchFile();
    for (auto _ : st) {
        st.PauseTiming();
        fs::remove(path);
        Datam t = MakeTable(rows);
        st.ResumeTiming();
        double c0 = ProcessCpu();
        auto wb = Workbook::create(path, "Sites");
        Worksheet* ws = wb->addSheet("data_1M");
        ws->setRange(1, 1, t);
        ws->setComment(1, 1, "DATASHEET");
        auto s = wb->save();
        if (!s) st.SkipWithError(s.failure().message().c_str());
        st.counters["cpu_s"] = ProcessCpu() - c0;
    }
    st.counters["cells"] = double(rows) * 12;
    st.counters["file_MB"] = double(fs::file_size(path)) / 1048576.0;
}

void BM_Load(benchmark::State& st) {
    std::string path = BenchFile();
    double base = CurrentMB();
    ResetPeak();
    double cells = 0;
    double c0 = ProcessCpu();
    for (auto _ : st) {
        auto r = Workbook::open(path);
        if (!r) {
            st.SkipWithError(r.failure().message().c_str());
            break;
        }
        Datam d = (*r)->sheet("data_1M")->usedRange();
        cells = double(d.rowCount()) * d.colCount();
        benchmark::DoNotOptimize(d.data());
    }
    st.counters["cells"] = cells;
    st.counters["cells_per_s"] = benchmark::Counter(cells * double(st.iterations()), benchmark::Counter::kIsRate);
    double cpu = (ProcessCpu() - c0) / double(st.iterations());
    st.counters["cpu_s"] = cpu;
    st.counters["cells_per_cpu_s"] = cpu > 0 ? cells / cpu : 0;
    st.counters["peak_MB"] = PeakMB();
    st.counters["rss_before_MB"] = base;
}

void BM_AddResultSheet(benchmark::State& st) {
    std::string path = BenchFile();
    Datam res(1000, 8, 1, 1);
    for (int r = 1; r <= 1000; ++r)
        for (int c = 1; c <= 8; ++c) res(r, c) = r * 0.5 + c;
    int k = 0;
    double c0 = ProcessCpu();
    for (auto _ : st) {
        auto r = Workbook::open(path, Workbook::Load::Lazy);
        if (!r) {
            st.SkipWithError(r.failure().message().c_str());
            break;
        }
        Worksheet* ws = (*r)->addSheet("Result" + std::to_string(++k));
        ws->setRange(1, 1, res);
        ws->setNumberFormat(Area{1, 1, 1000, 8}, "0.0000");
        auto s = (*r)->save();
        if (!s) st.SkipWithError(s.failure().message().c_str());
    }
    st.counters["cpu_s"] = (ProcessCpu() - c0) / double(st.iterations());
}

void BM_OpenpyxlReadOnly(benchmark::State& st) {
    std::string path = BenchFile();
    const char* e = std::getenv("ZORV_OPENPYXL_ROWS");
    long rows = e ? std::atol(e) : 100000;
    fs::path script = fs::path(ZORV_BENCH_SOURCE_DIR) / "xlsx_openpyxl.py";
    if (!fs::exists("/usr/bin/python3") || !fs::exists(script)) {
        st.SkipWithError("no /usr/bin/python3 or bench/xlsx_openpyxl.py");
        return;
    }
    double cells = 0, secs = 0;
    for (auto _ : st) {
        std::string cmd = "/usr/bin/python3 " + script.string() + " '" + path + "' " + std::to_string(rows) + " data_1M";
        FILE* p = popen(cmd.c_str(), "r");
        if (!p) {
            st.SkipWithError("cannot run python3");
            break;
        }
        char buf[256] = {};
        if (std::fgets(buf, sizeof buf, p)) std::sscanf(buf, "%lf %lf", &cells, &secs);
        if (pclose(p) != 0 || cells <= 0) st.SkipWithError("openpyxl failed");
    }
    st.counters["cells"] = cells;
    st.counters["cells_per_s"] = secs > 0 ? cells / secs : 0;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    // In this order: the save makes the file the others read.
    benchmark::RegisterBenchmark("xlsx/save_1Mx12", BM_Save)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("xlsx/load_1Mx12", BM_Load)->Iterations(2)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("xlsx/add_1000_row_sheet", BM_AddResultSheet)
        ->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("xlsx/openpyxl_read_only", BM_OpenpyxlReadOnly)
        ->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
