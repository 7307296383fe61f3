// The calibration template library at production scale: a library of 100
// templates of 1,000 sites each (and a best focus set of 10 rows and 10
// columns), written with FileSave and read with FileGet into a fresh library
// in a temporary folder. The file has about 2.8 million lines.
//
//   ninja -C build-bench bench_calib && ./build-bench/bench/bench_calib
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <string>

#include "calib/template_library.h"

using namespace zorv;

namespace {

constexpr int kTemplates = 100, kSites = 1000;

// Numbers of every size, so that their texts are as long as they get.
std::unique_ptr<cTemplateLibrary> MakeLibrary(const std::string& folder) {
    auto lib = std::make_unique<cTemplateLibrary>(folder);
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(-1, 1);
    for (int t = 1; t <= kTemplates; ++t) {
        auto tpl = std::make_shared<cTemplate>();
        tpl->NameTemplate = "Reticle" + std::to_string(t);
        tpl->DataSetName = "Lot" + std::to_string(t);
        tpl->Comment = "calibrated\r\nat order 4";
        tpl->DateCreated = 45000.25 + t;
        tpl->DateModified = 45100.5 + t;
        for (int k = 1; k <= kSites; ++k) {
            auto s = std::make_unique<cSiteCal>();
            s->NumberKey = std::to_string(k) + "_20_0.75_0.3_0.8";
            s->Dose = 20;
            s->NA = 0.75f;
            s->PCinner = 0.3f;
            s->PCouter = 0.8f;
            s->LocationX = 13000 * u(rng);
            s->LocationY = 16000 * u(rng);
            float* c[] = {&s->OffsetX, &s->OffsetXse, &s->OffsetY, &s->OffsetYse, &s->SlopeX,  &s->SlopeXse,
                          &s->SlopeY,  &s->SlopeYse,  &s->X2nd,    &s->X2ndSE,    &s->Y2nd,    &s->Y2ndSE,
                          &s->X3rd,    &s->X3rdSE,    &s->Y3rd,    &s->Y3rdSE,    &s->X4th,    &s->X4thSE,
                          &s->Y4th,    &s->Y4thSE};
            for (float* f : c) *f = u(rng) * 0.01f;
            tpl->AddSite(std::move(s));
        }
        cBestFocus* b = tpl->GetBestFocus(0.75f, 0.3f, 0.8f, 20);
        for (int r = 0; r < 10; ++r) {
            cCalRow row;
            row.KeyName = std::string("R").append(std::to_string(r));
            row.Location = -10.0f + 2 * r;
            row.Piston = u(rng);
            b->UpdateRowData(row);
            cCalColumn col;
            col.KeyName = std::string("C").append(std::to_string(r));
            col.Location = -12.5f + 2.5f * r;
            col.Tilt = u(rng);
            b->UpdateColData(col);
        }
        lib->AddTemplate(tpl);
    }
    return lib;
}

std::string TempFolder() {
    const auto dir = std::filesystem::temp_directory_path() / ("zorv-bench-calib-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    // The library's settings section goes to a scratch file, not the user's.
    setenv("ZORV_SETTINGS_FILE", (dir / "settings.ini").c_str(), 1);
    return (dir / "Templates").string();
}

void BM_FileSave(benchmark::State& state) {
    const std::string folder = TempFolder();
    auto lib = MakeLibrary(folder);
    for (auto _ : state) {
        if (!lib->FileSave()) state.SkipWithError("FileSave failed");
    }
    state.counters["MB"] = static_cast<double>(std::filesystem::file_size(lib->FilePath())) / 1e6;
    std::filesystem::remove_all(std::filesystem::path(folder).parent_path());
}
BENCHMARK(BM_FileSave)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FileGet(benchmark::State& state) {
    const std::string folder = TempFolder();
    if (!MakeLibrary(folder)->FileSave()) state.SkipWithError("FileSave failed");
    for (auto _ : state) {
        cTemplateLibrary lib(folder);
        if (!lib.FileGet() || lib.Count() != kTemplates) state.SkipWithError("FileGet failed");
        benchmark::DoNotOptimize(lib.Templates().data());
    }
    std::filesystem::remove_all(std::filesystem::path(folder).parent_path());
}
BENCHMARK(BM_FileGet)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
