// clsEquation on a 10-term wafer model over 1,000,000 sites: every term is its
// own equation, X, Y, R and THETA are set per site and each term solved, as
// the model fit's MITP load does.
#include <benchmark/benchmark.h>

#include <array>
#include <cmath>
#include <vector>

#include "numerics/equation.h"

namespace {

constexpr int kSites = 1000000;
const char* const kTerms[10] = {"X",     "Y",          "X^2",        "X*Y",   "Y^2",
                                "R^2",   "SIN(THETA)", "COS(THETA)", "R^3",   "X*Y^2"};

struct Sites {
    std::vector<double> x, y, r, t;
    Sites() {
        x.resize(kSites), y.resize(kSites), r.resize(kSites), t.resize(kSites);
        for (int i = 0; i < kSites; ++i) {
            x[i] = -150 + 300.0 * (i % 1000) / 999;
            y[i] = -150 + 300.0 * (i / 1000) / 999;
            r[i] = std::hypot(x[i], y[i]);
            t[i] = std::atan2(y[i], x[i]);
        }
    }
};
const Sites& sites() {
    static const Sites s;
    return s;
}

std::vector<zorv::clsEquation> model() {
    std::vector<zorv::clsEquation> eq(10);
    for (int k = 0; k < 10; ++k) {
        eq[k].setEquation(kTerms[k]);
        for (const char* v : {"X", "Y", "R", "THETA"}) eq[k].Var(v, 0.0);
    }
    return eq;
}

// Values set by name on every equation, as the model fit's load does.
void BM_WaferModel_ByName(benchmark::State& state) {
    const Sites& s = sites();
    auto eq = model();
    for (auto _ : state) {
        double sum = 0;
        for (int i = 0; i < kSites; ++i) {
            for (auto& e : eq) {
                e.Var("X", s.x[i]);
                e.Var("Y", s.y[i]);
                e.Var("R", s.r[i]);
                e.Var("THETA", s.t[i]);
                sum += e.Solution();
            }
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kSites * 10);
}
BENCHMARK(BM_WaferModel_ByName)->Unit(benchmark::kMillisecond);

// Values set through slots looked up once.
void BM_WaferModel_BySlot(benchmark::State& state) {
    const Sites& s = sites();
    auto eq = model();
    std::vector<std::array<int, 4>> slot(10);
    for (int k = 0; k < 10; ++k)
        slot[k] = {eq[k].VarSlot("x"), eq[k].VarSlot("y"), eq[k].VarSlot("r"), eq[k].VarSlot("theta")};
    for (auto _ : state) {
        double sum = 0;
        for (int i = 0; i < kSites; ++i) {
            for (int k = 0; k < 10; ++k) {
                auto& e = eq[k];
                e.SetSlot(slot[k][0], s.x[i]);
                e.SetSlot(slot[k][1], s.y[i]);
                e.SetSlot(slot[k][2], s.r[i]);
                e.SetSlot(slot[k][3], s.t[i]);
                sum += e.Solution();
            }
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kSites * 10);
}
BENCHMARK(BM_WaferModel_BySlot)->Unit(benchmark::kMillisecond);

// One equation holding the whole model text.
void BM_WaferModel_OneText(benchmark::State& state) {
    const Sites& s = sites();
    zorv::clsEquation e(
        "1.5 + 0.2*X - 0.3*Y + 1e-3*X^2 + 2e-4*X*Y - 1e-3*Y^2 + 5e-5*R^2 + 0.01*SIN(THETA) "
        "- 0.02*COS(THETA) + 1e-7*R^3");
    const int sx = e.VarSlot("X"), sy = e.VarSlot("Y"), sr = e.VarSlot("R"), st = e.VarSlot("THETA");
    for (auto _ : state) {
        double sum = 0;
        for (int i = 0; i < kSites; ++i) {
            e.SetSlot(sx, s.x[i]);
            e.SetSlot(sy, s.y[i]);
            e.SetSlot(sr, s.r[i]);
            e.SetSlot(st, s.t[i]);
            sum += e.Solution();
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kSites);
}
BENCHMARK(BM_WaferModel_OneText)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
