// Import at scale: a simulated KLA 8xxx CD-SEM report of 1,000,000 rows read
// into a data workbook, and that workbook loaded as a lot.
//
// Every stage runs in a forked child, so that each one starts from the same
// small heap and its peak (VmHWM, reset at the child's start) is its own; the
// child times itself and the benchmark takes that as manual time.
//   Parse         ImportCall until its "Saving data for" status (the hand-over
//                 from the reader to SaveData); parse_MBps is the file's size
//                 over that time. Then, as a cross-check, a SaveData of the
//                 very tables it wrote (read back from the workbook) alone:
//                 parse_by_subtraction_MBps is the size over import - save.
//   Whole         ImportCall alone: parse and SaveData.
//   WithLoad      ImportCall, Workbooks::CloseAll(), GetExcelWBLot from disk.
//   Pandas        bench/import_pandas.py (pandas.read_csv of the same file),
//                 skipped when /usr/bin/python3 has no pandas.
// The file is made once in ZORV_BENCH_DIR (default /tmp/zorv-bench).
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "base/process.h"
#include "base/report.h"
#include "import/import.h"
#include "import/simulate.h"
#include "lot/lot.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

namespace fs = std::filesystem;
using namespace zorv;

namespace {

constexpr long long kRows = 1'000'000;
constexpr const char* kFormat = "KLA 8xxx CD-SEM";

std::string BenchDir() {
    const char* t = std::getenv("ZORV_BENCH_DIR");
    fs::path d = fs::path(t && *t ? t : "/tmp/zorv-bench") / "import";
    fs::create_directories(d / "out");
    return d.string();
}
std::string WorkbookOut() { return BenchDir() + "/out/fem1M.xlsx"; }
std::string SaveAloneOut() { return BenchDir() + "/out/save_alone.xlsx"; }

double Now() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}
double Cpu() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// Boxes and the status line cost nothing and print nothing. The ending every
// reader shares says "Saving data for ..." just before SaveData: the moment
// is kept, and splits an import into its reading and its save.
class QuietReporter : public Reporter {
public:
    int showBox(const std::string&, int, const std::string&) override { return 0; }
    void status(const std::string& text) override {
        if (savingAt == 0 && text.rfind("Saving data for ", 0) == 0) {
            savingAt = Now();
            savingCpu = Cpu();
        }
    }
    double savingAt = 0, savingCpu = 0;
};
QuietReporter* g_quiet = nullptr;  // the child's

// The simulated report, made once; a stamp beside it says it is complete
// and of this size and seed.
std::string SourceFile(std::string& error) {
    const std::string dir = BenchDir();
    const std::string stamp = dir + "/fem1M.stamp";
    const std::string want = "rows=" + std::to_string(kRows) + " seed=1 format=kla";
    {
        std::ifstream in(stamp);
        std::string have, file;
        if (std::getline(in, have) && have == want && std::getline(in, file) && fs::exists(file)) return file;
    }
    SimulateOptions o;
    o.outDir = dir;
    o.name = "fem1M";
    o.format = "kla";
    o.rows = kRows;
    o.seed = 1;
    Result<SimulateOutput> r = Simulate("fem", o);
    if (!r) {
        error = "Simulate failed: " + r.failure().message();
        return {};
    }
    std::ofstream(stamp) << want << "\n" << r->file << "\n";
    return r->file;
}

// A top-level whole number of truth.json (they come before the nested objects).
long long TruthNumber(const std::string& source, const std::string& key) {
    std::ifstream in(fs::path(source).parent_path() / "truth.json");
    std::stringstream ss;
    ss << in.rdbuf();
    const std::string text = ss.str(), mark = "\"" + key + "\":";
    const size_t at = text.find(mark);
    return at == std::string::npos ? -1 : std::atoll(text.c_str() + at + mark.size());
}

// The data rows the loaded lot must have: the lines written less those a
// reader skips or moves to "Excluded".
long long ExpectedRows(const std::string& source) {
    return TruthNumber(source, "rows") - TruthNumber(source, "skippedRows") - TruthNumber(source, "excludedRows");
}

// A field of /proc/self/status in MB ("VmHWM", "VmRSS").
double StatusMb(const char* key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    const size_t n = std::strlen(key);
    while (std::getline(in, line))
        if (line.compare(0, n, key) == 0 && line.size() > n && line[n] == ':')
            return std::atof(line.c_str() + n + 1) / 1024.0;
    return 0;
}

// What a child hands back through its pipe.
struct StageResult {
    bool ok = false;
    double seconds[3] = {0, 0, 0};  // the stage's parts, as the stage names them
    double cpu[3] = {0, 0, 0};      // and their processor time (the machine may be busy)
    double peakMb[3] = {0, 0, 0};   // VmHWM after each part
    double readSeconds = 0, readCpu = 0;  // of the import: until "Saving data for"
    double startRssMb = 0;                // inherited from the parent at the fork
    double count = 0;               // rows or points
    char error[512] = {0};
};

void SetError(StageResult& r, const std::string& text) {
    std::snprintf(r.error, sizeof r.error, "%s", text.c_str());
}

// Runs f(result) in a forked child and answers what it filled in.
template <class F>
StageResult InChild(F&& f) {
    StageResult r;
    int fd[2];
    if (pipe(fd) != 0) {
        SetError(r, "pipe failed");
        return r;
    }
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        SetError(r, "fork failed");
        return r;
    }
    if (pid == 0) {
        close(fd[0]);
        // The peak from here on is the stage's own.
        std::ofstream("/proc/self/clear_refs") << "5";
        StageResult c;
        c.startRssMb = StatusMb("VmRSS");
        QuietReporter quiet;
        g_quiet = &quiet;
        SetReporter(&quiet);
        f(c);
        SetReporter(nullptr);
        g_quiet = nullptr;
        (void)!write(fd[1], &c, sizeof c);
        _exit(0);
    }
    close(fd[1]);
    size_t got = 0;
    char* p = reinterpret_cast<char*>(&r);
    while (got < sizeof r) {
        ssize_t n = read(fd[0], p + got, sizeof r - got);
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    close(fd[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (got != sizeof r) {
        r = StageResult();
        SetError(r, "the stage's process ended without a result (status " + std::to_string(status) + ")");
    }
    return r;
}

// ImportCall of the source into a fresh workbook; seconds[i] and peakMb[i].
bool TimedImport(const std::string& source, StageResult& r, int i) {
    fs::remove(WorkbookOut());
    Workbooks::CloseAll();
    ImportRequest q;
    q.path = source;
    q.workbookPath = WorkbookOut();
    q.description = kFormat;
    g_quiet->savingAt = 0;
    const double t0 = Now(), c0 = Cpu();
    Result<std::string> out = ImportCall(q);
    r.seconds[i] = Now() - t0;
    r.cpu[i] = Cpu() - c0;
    r.peakMb[i] = StatusMb("VmHWM");
    if (!out) {
        SetError(r, "ImportCall failed: " + out.failure().message());
        return false;
    }
    if (g_quiet->savingAt == 0) {
        SetError(r, "the import said no \"Saving data for\": the split of reading and save has moved");
        return false;
    }
    r.readSeconds = g_quiet->savingAt - t0;
    r.readCpu = g_quiet->savingCpu - c0;
    return true;
}

// A sheet's rows as a table from (0, 0): sheet row 1 is table row 0, as
// SaveData wrote the reader's tables (header row 0, column 0 in column A).
bool SheetTable(Workbook& wb, const std::string& name, Datam& out, std::string& error) {
    Worksheet* ws = wb.sheet(name);
    if (!ws) {
        error = "no sheet " + name;
        return false;
    }
    int rows = 0, cols = 0;
    Status s = ws->forEachRow([&](int row, const Value*, int count) {
        rows = std::max(rows, row);
        cols = std::max(cols, count);
        return true;
    });
    if (!s || rows == 0) {
        error = "cannot read sheet " + name;
        return false;
    }
    out = Datam(rows - 1, cols - 1, 0, 0);
    s = ws->forEachRow([&](int row, const Value* cells, int count) {
        for (int c = 0; c < count; ++c) out(row - 1, c) = cells[c];
        return true;
    });
    return static_cast<bool>(s);
}

// SaveData of the tables the import wrote, to another workbook: the data
// sheet, "Sites", the keys and values of "Information", and "Layout". (The
// handful of "Excluded" rows is left out.)
bool TimedSaveAlone(StageResult& r, int i) {
    Workbooks::CloseAll();
    std::string error;
    Datam data, sites, info, layout;
    {
        auto wb = Workbook::open(WorkbookOut(), Workbook::Load::Lazy);
        if (!wb) {
            SetError(r, "cannot open the imported workbook: " + wb.failure().message());
            return false;
        }
        Workbook& w = **wb;
        Worksheet* ds = nullptr;
        for (int k = 1; k <= w.sheetCount(); ++k) {
            const std::string& n = w.sheet(k)->name();
            if (n != "Sites" && n != "Information" && n != "Layout" && n != "Excluded") ds = w.sheet(k);
        }
        if (!ds || !SheetTable(w, ds->name(), data, error) || !SheetTable(w, "Sites", sites, error) ||
            !SheetTable(w, "Information", info, error)) {
            SetError(r, "read back: " + error);
            return false;
        }
        if (w.sheet("Layout") && !SheetTable(w, "Layout", layout, error)) {
            SetError(r, "read back: " + error);
            return false;
        }
    }
    // Information: its key and value columns only, the workbook path changed.
    Datam keys(info.rowUb(), 1, 0, 0);
    for (int row = 0; row <= info.rowUb(); ++row) {
        keys(row, 0) = info(row, 0);
        keys(row, 1) = info(row, 1);
        if (info(row, 0).isString() && info(row, 0).str() == "WorkBookPath") keys(row, 1) = SaveAloneOut();
    }
    r.count = data.rowUb();
    fs::remove(SaveAloneOut());
    Workbooks::CloseAll();
    const double t0 = Now(), c0 = Cpu();
    Result<std::string> saved = SaveData(data, Datam(), sites, keys, {}, layout.isArray() ? &layout : nullptr);
    r.seconds[i] = Now() - t0;
    r.cpu[i] = Cpu() - c0;
    r.peakMb[i] = StatusMb("VmHWM");
    Workbooks::CloseAll();
    if (!saved) {
        SetError(r, "SaveData failed: " + saved.failure().message());
        return false;
    }
    if (saved.value() != SaveAloneOut()) {
        SetError(r, "SaveData wrote " + saved.value() + " instead of " + SaveAloneOut());
        return false;
    }
    return true;
}

// The source, or a skipped benchmark.
bool Source(benchmark::State& state, std::string& path, double& bytes) {
    std::string error;
    path = SourceFile(error);
    if (path.empty()) {
        state.SkipWithError(error.c_str());
        return false;
    }
    bytes = static_cast<double>(fs::file_size(path));
    return true;
}

void BM_Import_Parse(benchmark::State& state) {
    std::string source;
    double bytes = 0;
    if (!Source(state, source, bytes)) return;
    const double mb = bytes / 1048576.0;
    double importS = 0, readCpu = 0, saveAlone = 0;
    long long rows = 0;
    for (auto _ : state) {
        StageResult r = InChild([&](StageResult& c) { c.ok = TimedImport(source, c, 0) && TimedSaveAlone(c, 1); });
        if (!r.ok) {
            state.SkipWithError(r.error);
            return;
        }
        rows = static_cast<long long>(r.count);
        if (rows != ExpectedRows(source)) {
            state.SkipWithError(("the workbook has " + std::to_string(rows) + " data rows, truth.json says " +
                                 std::to_string(ExpectedRows(source)))
                                    .c_str());
            return;
        }
        state.SetIterationTime(r.readSeconds);
        importS += r.seconds[0];
        readCpu += r.readCpu;
        saveAlone += r.seconds[1];
    }
    const double n = static_cast<double>(state.iterations());
    // The reading until "Saving data for", over the manual time.
    state.counters["parse_MBps"] = benchmark::Counter(mb * n, benchmark::Counter::kIsRate);
    state.counters["parse_cpu_MBps"] = mb * n / std::max(1e-9, readCpu);
    state.counters["import_s"] = importS / n;
    // The split the other way: the import less a SaveData of its tables alone.
    state.counters["save_alone_s"] = saveAlone / n;
    state.counters["parse_by_subtraction_MBps"] = mb * n / std::max(1e-9, importS - saveAlone);
    state.counters["rows"] = static_cast<double>(rows);
    state.counters["fileMB"] = mb;
}
BENCHMARK(BM_Import_Parse)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3);

void BM_Import_Whole(benchmark::State& state) {
    std::string source;
    double bytes = 0;
    if (!Source(state, source, bytes)) return;
    StageResult last;
    double peak = 0;
    for (auto _ : state) {
        last = InChild([&](StageResult& r) { r.ok = TimedImport(source, r, 0); });
        if (!last.ok) {
            state.SkipWithError(last.error);
            return;
        }
        state.SetIterationTime(last.seconds[0]);
        peak = std::max(peak, last.peakMb[0]);
    }
    state.counters["import_MBps"] = benchmark::Counter(bytes / 1048576.0 * state.iterations(), benchmark::Counter::kIsRate);
    state.counters["peak_MB"] = peak;
    state.counters["start_RSS_MB"] = last.startRssMb;
    state.counters["import_cpu_s"] = last.cpu[0];
    state.counters["workbookMB"] = static_cast<double>(fs::file_size(WorkbookOut())) / 1048576.0;
}
BENCHMARK(BM_Import_Whole)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3);

void BM_Import_WithLoad(benchmark::State& state) {
    std::string source;
    double bytes = 0;
    if (!Source(state, source, bytes)) return;
    StageResult last;
    for (auto _ : state) {
        last = InChild([&](StageResult& r) {
            if (!TimedImport(source, r, 0)) return;
            // From disk: nothing of the import stays open.
            Workbooks::CloseAll();
            std::shared_ptr<cLot> lot;
            const double t0 = Now(), c0 = Cpu();
            Status s = GetExcelWBLot(WorkbookOut(), LoadOptions{}, lot);
            r.seconds[1] = Now() - t0;
            r.cpu[1] = Cpu() - c0;
            r.peakMb[1] = StatusMb("VmHWM");
            if (!s) {
                SetError(r, "GetExcelWBLot failed: " + s.failure().message());
                return;
            }
            r.count = static_cast<double>(lot->TotalPoints());
            r.ok = true;
        });
        if (!last.ok) {
            state.SkipWithError(last.error);
            return;
        }
        if (last.count != static_cast<double>(ExpectedRows(source))) {
            state.SkipWithError(("the lot has " + std::to_string(static_cast<long long>(last.count)) +
                                 " points, truth.json says " + std::to_string(ExpectedRows(source)))
                                    .c_str());
            return;
        }
        state.SetIterationTime(last.seconds[0] + last.seconds[1]);
    }
    state.counters["import_s"] = last.seconds[0];
    state.counters["load_s"] = last.seconds[1];
    state.counters["peak_import_MB"] = last.peakMb[0];
    state.counters["peak_MB"] = last.peakMb[1];
    state.counters["points"] = last.count;
    state.counters["import_cpu_s"] = last.cpu[0];
    state.counters["load_cpu_s"] = last.cpu[1];
}
BENCHMARK(BM_Import_WithLoad)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);

// pandas.read_csv of the same file, through Debian's python3.
void BM_Import_Pandas(benchmark::State& state) {
    std::string source;
    double bytes = 0;
    if (!Source(state, source, bytes)) return;
    if (std::system("/usr/bin/python3 -c 'import pandas' >/dev/null 2>&1") != 0) {
        state.SkipWithError("skipped: /usr/bin/python3 cannot import pandas (Debian package python3-pandas)");
        return;
    }
    const std::string cmd = "/usr/bin/python3 " ZORV_BENCH_SOURCE_DIR "/import_pandas.py '" + source + "'";
    double seconds = 0, rows = 0, mean = 0, peak = 0;
    for (auto _ : state) {
        std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(cmd.c_str(), "r"), pclose);
        char buf[512] = {0};
        if (!pipe || !std::fgets(buf, sizeof buf, pipe.get())) {
            state.SkipWithError("import_pandas.py printed nothing");
            return;
        }
        // "rows seconds MBps mean peakMB"
        std::istringstream in(buf);
        double mbps = 0;
        if (!(in >> rows >> seconds >> mbps >> mean >> peak)) {
            state.SkipWithError(("import_pandas.py: " + std::string(buf)).c_str());
            return;
        }
        if (rows != static_cast<double>(TruthNumber(source, "rows"))) {
            state.SkipWithError(("pandas read " + std::to_string(static_cast<long long>(rows)) + " rows, truth.json says " +
                                 std::to_string(TruthNumber(source, "rows")))
                                    .c_str());
            return;
        }
        state.SetIterationTime(seconds);
    }
    state.counters["pandas_MBps"] = benchmark::Counter(bytes / 1048576.0 * state.iterations(), benchmark::Counter::kIsRate);
    state.counters["rows"] = rows;
    state.counters["first_mean"] = mean;
    state.counters["peak_MB"] = peak;
}
BENCHMARK(BM_Import_Pandas)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3);

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
