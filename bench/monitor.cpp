// The daily monitor as a host runs it: the raw overlay template on a
// 25-wafer, 100,000-point overlay file, from the tool file to the three
// result files (and the JSON), in process and as a zorv-cli process with its
// start-up.
//
//   ninja -C build-bench bench_monitor zorv-cli && ./build-bench/bench/bench_monitor
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "base/report.h"
#include "import/import.h"
#include "import/simulate.h"
#include "monitor/dm_run.h"
#include "workbook/store.h"

using namespace zorv;
namespace fs = std::filesystem;

namespace {

struct Setup {
    std::string data, tpl, out;
};

const Setup& Files() {
    static const Setup s = [] {
        Setup r;
        const fs::path dir = fs::temp_directory_path() / "zorv-bench-monitor";
        fs::remove_all(dir);
        fs::create_directories(dir / "out");
        SimulateOptions o;
        o.outDir = (dir / "data").string();
        o.wafers = 25;
        o.rows = 100000;
        o.seed = 4;
        auto sim = Simulate("overlay", o);
        if (!sim.ok()) std::abort();
        r.data = (fs::path(o.outDir) / sim->file).string();
        // The template from a small lot of the same kind.
        SimulateOptions small;
        small.outDir = (dir / "small").string();
        auto s2 = Simulate("overlay", small);
        auto req = GetDataFile((fs::path(small.outDir) / s2->file).string());
        if (!s2.ok() || !req.ok()) std::abort();
        auto wb = ImportRawData(*req);
        if (!wb.ok()) std::abort();
        auto made = NewDMTemplate(*wb, "overlay", (dir / "OverlayMonitor.xlt").string());
        if (!made.ok()) std::abort();
        r.tpl = made->path;
        r.out = (dir / "out").string();
        Workbooks::CloseAll();
        return r;
    }();
    return s;
}

void RunInProcess(benchmark::State& state) {
    const Setup& f = Files();
    GetLogFile((fs::path(f.out) / "RemoteCall.Log").string());
    DMAOptions o;
    o.saveSettings = false;
    const std::string line = "-f " + f.data + " -t " + f.tpl + " -o " + f.out + " -x " + f.out + " -w " + f.out;
    for (auto _ : state) {
        Workbooks::CloseAll();
        DMAResult r = RunDMA(line, o);
        if (!r.succeeded) state.SkipWithError(r.resultText.c_str());
        benchmark::DoNotOptimize(r);
    }
}
BENCHMARK(RunInProcess)->Unit(benchmark::kMillisecond)->Iterations(3);

#ifdef ZORV_CLI_PATH
void RunAsHost(benchmark::State& state) {
    const Setup& f = Files();
    const std::string cmd = std::string(ZORV_CLI_PATH) + " monitor -f " + f.data + " -t " + f.tpl + " -o " + f.out +
                            " -x " + f.out + " -w " + f.out + " > /dev/null 2>&1";
    for (auto _ : state)
        if (std::system(cmd.c_str()) != 0) state.SkipWithError("zorv-cli monitor failed");
}
BENCHMARK(RunAsHost)->Unit(benchmark::kMillisecond)->Iterations(3);
#endif

}  // namespace

BENCHMARK_MAIN();
