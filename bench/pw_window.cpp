// The process window workbench on the benchmark matrix (15 focus x 13 dose,
// 9 sites, CD and side wall angle): from the click on the "kPW" tab to the
// window chart drawn, offscreen, with the status line running events as in
// the desktop program. max_gap_ms is the longest the window went without
// handling its events: how long a click or Esc would wait.
//
//   ninja -C build bench_pw_window && ./build/bench/bench_pw_window
#include <benchmark/benchmark.h>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QTabWidget>
#include <QTimer>
#include <algorithm>

#include "base/format.h"
#include "pw_matrix.h"
#include "ui/chart_view.h"
#include "ui/frm_process_window.h"
#include "ui/gui_reporter.h"

using namespace zorv;
using namespace zorv::bench;

namespace {

void ClickToDrawnWindow(benchmark::State& state) {
    ui::GuiReporter gui;
    gui.install();
    auto lot = FemLot();
    const PWSetup setup = Setup(static_cast<int>(state.range(0)));
    auto* w = new ui::frmProcessWindow;
    w->resize(1400, 900);
    w->show();
    w->setLot(lot, nullptr);
    w->cmbPWprecision()->setCurrentText(QString::number(state.range(0)));
    // The targets and limits of the setup, typed into the rows.
    for (int n = 0; n < w->variableCount(); ++n)
        for (int r = 1; r <= setup.variables.rowUb(); ++r) {
            if (w->chkPWvar(n)->text().toStdString() != setup.variables(r, 1).toString()) continue;
            w->chkPWvar(n)->setChecked(true);
            w->txtPWTarget(n)->setText(QString::fromStdString(Format(setup.variables(r, 2).toDouble(), "0.0000")));
            w->txtPWmax(n)->setText(QString::fromStdString(Format(setup.variables(r, 3).toDouble(), "0.0000")));
            w->txtPWmin(n)->setText(QString::fromStdString(Format(setup.variables(r, 4).toDouble(), "0.0000")));
        }
    QElapsedTimer tick;
    qint64 last = 0, gap = 0;
    QTimer beat;
    beat.setInterval(5);
    QObject::connect(&beat, &QTimer::timeout, [&] {
        gap = std::max(gap, tick.elapsed() - last);
        last = tick.elapsed();
    });
    double secs = 0;
    for (auto _ : state) {
        w->tabPWCurve()->setCurrentIndex(0);
        QApplication::processEvents();
        gap = 0;
        tick.start();
        last = 0;
        beat.start();
        QElapsedTimer t;
        t.start();
        w->tabPWCurve()->setCurrentIndex(w->tabIndex(kPW));
        ui::ChartView* v = w->chartView(kPW);
        if (!w->report(kPW) || !v->graphic() || v->grab().isNull() || !v->failureText().isEmpty()) {
            state.SkipWithError("the window chart did not draw");
            break;
        }
        secs += t.elapsed() / 1000.0;
        beat.stop();
        gap = std::max(gap, tick.elapsed() - last);
    }
    state.counters["click_to_chart_s"] = secs / static_cast<double>(std::max<int64_t>(1, state.iterations()));
    state.counters["max_gap_ms"] = static_cast<double>(gap);
    state.counters["figures"] = w->figures().Count();
    w->Unload();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    gui.uninstall();
}
BENCHMARK(ClickToDrawnWindow)->Arg(10)->Arg(20)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
