// The floor of any load: inflating the worksheet parts of a workbook with
// zlib (through libzip) into a reused buffer, with no parsing at all. The
// data workbook load is measured against it.
//   bench_inflate_floor FILE.xlsx   (default: $ZORV_BENCH_DIR/Big1M.xlsx)
#include <benchmark/benchmark.h>
#include <zip.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::string g_path;

void BM_InflateSheetParts(benchmark::State& state) {
    std::vector<char> buf(1 << 20);
    for (auto _ : state) {
        int err = 0;
        zip_t* z = zip_open(g_path.c_str(), ZIP_RDONLY, &err);
        if (!z) {
            state.SkipWithError(("cannot open " + g_path).c_str());
            return;
        }
        uint64_t bytes = 0;
        const zip_int64_t n = zip_get_num_entries(z, 0);
        for (zip_int64_t i = 0; i < n; ++i) {
            const char* name = zip_get_name(z, static_cast<zip_uint64_t>(i), 0);
            if (!name || std::strncmp(name, "xl/worksheets/sheet", 19) != 0) continue;
            zip_file_t* f = zip_fopen_index(z, static_cast<zip_uint64_t>(i), 0);
            if (!f) continue;
            for (zip_int64_t got; (got = zip_fread(f, buf.data(), buf.size())) > 0;) bytes += static_cast<uint64_t>(got);
            zip_fclose(f);
        }
        zip_discard(z);
        benchmark::DoNotOptimize(bytes);
        state.counters["MB_xml"] = static_cast<double>(bytes) / 1e6;
    }
}
BENCHMARK(BM_InflateSheetParts)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (argc > 1) {
        g_path = argv[1];
    } else {
        const char* d = std::getenv("ZORV_BENCH_DIR");
        g_path = std::string(d ? d : "/tmp/zorv_bench_datawb") + "/Big1M.xlsx";
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
