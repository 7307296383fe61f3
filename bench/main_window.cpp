// The main window on a lot of a million points: the data workbook opened
// (the lot built and the layout drawn) and the first wafer map of the raw
// analysis drawn, as a user waits for them, offscreen.
//
//   ninja -C build bench_main_window && ./build/bench/bench_main_window
#include <benchmark/benchmark.h>

#include <QApplication>
#include <QElapsedTimer>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "base/report.h"
#include "import/import.h"
#include "import/simulate.h"
#include "lot/lot.h"
#include "ui/chart_view.h"
#include "ui/frm_main.h"
#include "ui/metrology_panel.h"
#include "workbook/store.h"

using namespace zorv;
namespace fs = std::filesystem;

namespace {

// The workbook of a simulated 25-wafer overlay lot of a million points,
// kept between runs (its import alone takes a while).
const std::string& BigWorkbook() {
    static const std::string path = [] {
        const fs::path dir = fs::temp_directory_path() / "zorv-bench-main-window";
        const fs::path book = dir / "overlay.xlsx";
        if (fs::exists(book)) return book.string();
        fs::remove_all(dir);
        SimulateOptions o;
        o.outDir = dir.string();
        o.wafers = 25;
        o.rows = 1000000;
        o.seed = 9;
        auto sim = Simulate("overlay", o);
        if (!sim.ok()) std::abort();
        auto req = GetDataFile((dir / sim->file).string());
        if (!req.ok()) std::abort();
        req->workbookPath = book.string();
        auto wb = ImportRawData(*req);
        if (!wb.ok()) std::abort();
        Workbooks::CloseAll();
        return book.string();
    }();
    return path;
}

void OpenAndDrawFirstMap(benchmark::State& state) {
    const std::string book = BigWorkbook();
    double open = 0, map = 0;
    long long points = 0;
    for (auto _ : state) {
        auto* m = new ui::frmMain;
        m->Load();
        m->resize(1400, 900);
        m->show();
        QElapsedTimer t;
        t.start();
        if (!m->mnuFileOpenWorksheet(QString::fromStdString(book))) {
            state.SkipWithError("the workbook did not open");
            break;
        }
        open += t.elapsed() / 1000.0;
        points = m->lot()->TotalPoints();
        t.restart();
        m->showTab("kMetrology");
        // Painting the view is what puts the map on the screen.
        ui::ChartView* view = m->metrologyPanel()->view(ui::MetrologyPanel::kWafer);
        if (!view || view->grab().isNull() || !view->failureText().isEmpty()) {
            state.SkipWithError(view ? view->failureText().toStdString().c_str() : "no map view");
            break;
        }
        map += t.elapsed() / 1000.0;
        m->Unload();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        Workbooks::CloseAll();
    }
    state.counters["open_s"] = open / static_cast<double>(state.iterations());
    state.counters["first_map_s"] = map / static_cast<double>(state.iterations());
    state.counters["points"] = static_cast<double>(points);
}
BENCHMARK(OpenAndDrawFirstMap)->Unit(benchmark::kMillisecond)->Iterations(2);

// Each raw plot of the lot, all wafers: from the tab's click to the drawn
// chart.
void EachRawPlot(benchmark::State& state) {
    const std::string book = BigWorkbook();
    auto* m = new ui::frmMain;
    m->Load();
    m->resize(1400, 900);
    m->show();
    if (!m->mnuFileOpenWorksheet(QString::fromStdString(book))) {
        state.SkipWithError("the workbook did not open");
        return;
    }
    m->showTab("kMetrology");
    ui::MetrologyPanel* panel = m->metrologyPanel();
    const char* names[] = {"wafer_s", "field_s", "residuals_s", "histogram_s", "contour_s", "xy_s"};
    std::vector<double> secs(ui::MetrologyPanel::kPlots, 0.0);
    for (auto _ : state) {
        for (int plot = 0; plot < ui::MetrologyPanel::kPlots; ++plot) {
            // From another tab, so that the click draws.
            panel->tabs()->setCurrentIndex(plot == 0 ? 1 : 0);
            QElapsedTimer t;
            t.start();
            panel->tabs()->setCurrentIndex(plot);
            if (panel->view(plot)->grab().isNull() || !panel->view(plot)->failureText().isEmpty()) {
                state.SkipWithError("a plot did not draw");
                break;
            }
            secs[static_cast<size_t>(plot)] += t.elapsed() / 1000.0;
        }
    }
    for (int plot = 0; plot < ui::MetrologyPanel::kPlots; ++plot)
        state.counters[names[plot]] = secs[static_cast<size_t>(plot)] / static_cast<double>(state.iterations());
    m->Unload();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    Workbooks::CloseAll();
}
BENCHMARK(EachRawPlot)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
