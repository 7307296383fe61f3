// svdfit_std on tall designs: the Datam entry (cells of tagged values) and
// the array entry, centred and scaled, range cull 0 (four sigma), so that the
// Gaussian noise gives the usual two or three passes.
//   bench_svdfit --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "base/report.h"
#include "numerics/lsq.h"

using namespace zorv;

namespace {

struct Design {
    int n = 0, m = 0;
    std::vector<double> x, y;  // row-major
};

// m = 10: a cubic wafer model in x and y; otherwise random normal columns.
Design makeDesign(int n, int m) {
    Design d;
    d.n = n;
    d.m = m;
    d.x.resize(static_cast<size_t>(n) * m);
    d.y.resize(static_cast<size_t>(n));
    std::mt19937_64 rng(1234);
    std::uniform_real_distribution<double> pos(-150, 150);
    std::normal_distribution<double> nd(0, 1);
    for (int i = 0; i < n; ++i) {
        double* r = d.x.data() + static_cast<size_t>(i) * m;
        double yv = 5.0;
        if (m == 10) {
            const double px = pos(rng), py = pos(rng);
            const double t[10] = {px, py, px * px, px * py, py * py,
                                  px * px * px, px * px * py, px * py * py, py * py * py,
                                  std::sqrt(px * px + py * py)};
            for (int j = 0; j < 10; ++j) {
                r[j] = t[j];
                yv += t[j] * 1e-3 / (1 + j * j);
            }
        } else {
            for (int j = 0; j < m; ++j) {
                r[j] = nd(rng);
                yv += r[j] * (0.5 + 0.1 * j);
            }
        }
        d.y[i] = yv + 0.05 * nd(rng);
    }
    return d;
}

Datam mitpOf(const Design& d) {
    Datam t(d.n, d.m, 0, 0);
    for (int j = 1; j <= d.m; ++j) t(0, j) = Value(std::string(1, 'T').append(std::to_string(j)));
    for (int i = 0; i < d.n; ++i) {
        t(i + 1, 0) = Value(static_cast<int32_t>(i + 1));
        for (int j = 0; j < d.m; ++j) t(i + 1, j + 1) = Value(d.x[static_cast<size_t>(i) * d.m + j]);
    }
    return t;
}

Datam vdtpOf(const Design& d) {
    Datam t(d.n, 1, 0, 0);
    for (int i = 0; i < d.n; ++i) t(i + 1, 1) = Value(d.y[i]);
    return t;
}

void BM_SvdfitDatam(benchmark::State& st) {
    const Design d = makeDesign(static_cast<int>(st.range(0)), static_cast<int>(st.range(1)));
    const Datam mitp = mitpOf(d), vdtp = vdtpOf(d);
    int culled = 0;
    for (auto _ : st) {
        SvdFit f = svdfit_std(mitp, vdtp, 0, true, true, 3, 0);
        culled = f.result;
        benchmark::DoNotOptimize(f.coef);
    }
    st.counters["culled"] = culled;
}

void BM_SvdfitArrays(benchmark::State& st) {
    const Design d = makeDesign(static_cast<int>(st.range(0)), static_cast<int>(st.range(1)));
    int culled = 0;
    for (auto _ : st) {
        SvdFitArrays f = svdfit_std(d.x.data(), d.y.data(), d.n, d.m, 0, true, true, 3, 0);
        culled = f.result;
        benchmark::DoNotOptimize(f.coef.data());
    }
    st.counters["culled"] = culled;
}

}  // namespace

BENCHMARK(BM_SvdfitDatam)->Args({1000000, 10})->Args({100000, 30})->Args({10000, 10})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SvdfitArrays)->Args({1000000, 10})->Args({100000, 30})->Args({10000, 10})
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
