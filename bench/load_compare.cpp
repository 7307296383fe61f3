// The data workbook load as a user meets it, beside its floor and the usual
// alternative, in one run on one file:
//   - `zorv-cli info FILE`, the whole process: wall time and peak memory;
//   - zlib (through libzip) inflating the worksheet parts into a reused
//     buffer with no parsing at all, the usual floor of any load, and ISA-L
//     doing the same (with its CRC), the floor of ours;
//   - openpyxl's read-only mode reading every cell of the data sheet
//     (skipped with ZORV_OPENPYXL=0; it takes over half a minute).
// Then the ratios. Make the file with bench_datawb (BM_SaveData_1M).
//   bench_load_compare [FILE.xlsx]   (default: $ZORV_BENCH_DIR/Big1M.xlsx)
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <isa-l/igzip_lib.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <zip.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;

std::string g_path;
std::vector<double> g_info, g_floor, g_isal;
double g_infoPeakMb = 0, g_openpyxl = 0;

double Median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// One run of the program with its output thrown away: false when it fails.
bool RunProcess(const std::vector<std::string>& argv, double& seconds, double& peakMb) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    const auto t0 = std::chrono::steady_clock::now();
    pid_t pid = 0;
    const int rc = posix_spawn(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) return false;
    int status = 0;
    rusage ru{};
    if (wait4(pid, &status, 0, &ru) != pid) return false;
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    peakMb = static_cast<double>(ru.ru_maxrss) / 1024.0;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void BM_ZorvInfoProcess(benchmark::State& state) {
    for (auto _ : state) {
        double s = 0, mb = 0;
        if (!RunProcess({ZORV_CLI_PATH, "info", g_path}, s, mb)) {
            state.SkipWithError(("zorv-cli info failed on " + g_path).c_str());
            return;
        }
        state.SetIterationTime(s);
        g_info.push_back(s);
        g_infoPeakMb = std::max(g_infoPeakMb, mb);
    }
    state.counters["peak_MB"] = g_infoPeakMb;
}
BENCHMARK(BM_ZorvInfoProcess)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(7);

// Inflates every worksheet part of the file with inflate(zip, index), which
// returns the bytes it made (or -1 on failure), and keeps the whole time.
template <class Inflate>
void TimeSheetParts(benchmark::State& state, std::vector<double>& times, Inflate inflate) {
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        int err = 0;
        zip_t* z = zip_open(g_path.c_str(), ZIP_RDONLY, &err);
        if (!z) {
            state.SkipWithError(("cannot open " + g_path).c_str());
            return;
        }
        int64_t bytes = 0;
        const zip_int64_t n = zip_get_num_entries(z, 0);
        for (zip_int64_t i = 0; i < n; ++i) {
            const char* name = zip_get_name(z, static_cast<zip_uint64_t>(i), 0);
            if (!name || std::strncmp(name, "xl/worksheets/sheet", 19) != 0) continue;
            const int64_t made = inflate(z, static_cast<zip_uint64_t>(i));
            if (made < 0) {
                zip_discard(z);
                state.SkipWithError(("cannot inflate " + std::string(name)).c_str());
                return;
            }
            bytes += made;
        }
        zip_discard(z);
        benchmark::DoNotOptimize(bytes);
        times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
        state.counters["MB_xml"] = static_cast<double>(bytes) / 1e6;
    }
}

void BM_InflateSheetParts(benchmark::State& state) {
    std::vector<char> buf(1 << 20);
    TimeSheetParts(state, g_floor, [&](zip_t* z, zip_uint64_t i) -> int64_t {
        zip_file_t* f = zip_fopen_index(z, i, 0);
        if (!f) return -1;
        int64_t bytes = 0;
        zip_int64_t got;
        while ((got = zip_fread(f, buf.data(), buf.size())) > 0) bytes += got;
        zip_fclose(f);
        return got < 0 ? -1 : bytes;
    });
}
BENCHMARK(BM_InflateSheetParts)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

void BM_InflateSheetPartsIsal(benchmark::State& state) {
    std::vector<uint8_t> in(256u << 10), out(1 << 20);
    TimeSheetParts(state, g_isal, [&](zip_t* z, zip_uint64_t i) -> int64_t {
        zip_stat_t st;
        if (zip_stat_index(z, i, 0, &st) != 0 || st.comp_method != ZIP_CM_DEFLATE) return -1;
        zip_file_t* f = zip_fopen_index(z, i, ZIP_FL_COMPRESSED);
        if (!f) return -1;
        inflate_state s;
        isal_inflate_init(&s);
        s.crc_flag = ISAL_GZIP_NO_HDR;
        int64_t bytes = 0;
        while (s.block_state != ISAL_BLOCK_FINISH) {
            if (s.avail_in == 0) {
                const zip_int64_t got = zip_fread(f, in.data(), in.size());
                if (got <= 0) break;
                s.next_in = in.data();
                s.avail_in = static_cast<uint32_t>(got);
            }
            s.next_out = out.data();
            s.avail_out = static_cast<uint32_t>(out.size());
            if (isal_inflate(&s) < 0) break;
            bytes += static_cast<int64_t>(out.size() - s.avail_out);
        }
        zip_fclose(f);
        return s.block_state == ISAL_BLOCK_FINISH && s.crc == st.crc ? bytes : -1;
    });
}
BENCHMARK(BM_InflateSheetPartsIsal)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

void BM_OpenpyxlReadOnly(benchmark::State& state) {
    const fs::path script = fs::path(ZORV_BENCH_SOURCE_DIR) / "xlsx_openpyxl.py";
    if (const char* e = std::getenv("ZORV_OPENPYXL"); e && std::string(e) == "0") {
        state.SkipWithError("skipped (ZORV_OPENPYXL=0)");
        return;
    }
    if (!fs::exists("/usr/bin/python3") || !fs::exists(script)) {
        state.SkipWithError("no /usr/bin/python3 or bench/xlsx_openpyxl.py");
        return;
    }
    for (auto _ : state) {
        const std::string cmd = "/usr/bin/python3 '" + script.string() + "' '" + g_path + "' 0";
        const auto t0 = std::chrono::steady_clock::now();
        FILE* p = popen(cmd.c_str(), "r");
        if (!p) {
            state.SkipWithError("cannot run python3");
            return;
        }
        double cells = 0, secs = 0;
        char line[256] = {};
        if (std::fgets(line, sizeof line, p)) std::sscanf(line, "%lf %lf", &cells, &secs);
        if (pclose(p) != 0 || cells <= 0) {
            state.SkipWithError("openpyxl failed (is python3-openpyxl installed?)");
            return;
        }
        // the interpreter's start-up counts, as the program's does
        g_openpyxl = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        state.counters["cells"] = cells;
    }
}
BENCHMARK(BM_OpenpyxlReadOnly)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (argc > 1) {
        g_path = argv[1];
    } else {
        const char* d = std::getenv("ZORV_BENCH_DIR");
        g_path = std::string(d ? d : "/tmp/zorv_bench_datawb") + "/Big1M.xlsx";
    }
    if (!fs::exists(g_path)) {
        std::fprintf(stderr, "bench_load_compare: no %s; make it with bench_datawb --benchmark_filter=SaveData\n",
                     g_path.c_str());
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    const double info = Median(g_info), floor = Median(g_floor);
    std::printf("\n%s\n", g_path.c_str());
    if (info > 0)
        std::printf("zorv-cli info, whole process: median %.2f s of %zu runs (fastest %.2f), peak %.0f MB\n", info,
                    g_info.size(), *std::min_element(g_info.begin(), g_info.end()), g_infoPeakMb);
    if (info > 0 && floor > 0)
        std::printf("inflate floor (zlib): median %.2f s; the load takes %.2f times it\n", floor, info / floor);
    if (const double isal = Median(g_isal); info > 0 && isal > 0)
        std::printf("inflate floor (ISA-L, as the load inflates): median %.2f s; the load takes %.2f times it\n", isal,
                    info / isal);
    if (info > 0 && g_openpyxl > 0)
        std::printf("openpyxl read-only: %.1f s; the load is %.1f times faster\n", g_openpyxl, g_openpyxl / info);
    return 0;
}
