// Sorts and unique values of lot-sized tables (a million rows).
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "numerics/matrix.h"

using namespace zorv;

namespace {

// A lot matrix: wafer, site, X, value, and a text family; values repeat so
// that the sort sees ties.
Datam LotTable(int rows) {
    std::mt19937 rng(42);
    std::uniform_real_distribution<double> val(-50, 50);
    std::vector<Value> families;
    for (int i = 0; i < 200; ++i) families.emplace_back("Family_" + std::to_string(i));
    Datam m(rows, 5, 0, 1);
    m(0, 1) = Value("Wafer");
    m(0, 2) = Value("Site");
    m(0, 3) = Value("Xloc");
    m(0, 4) = Value("CD");
    m(0, 5) = Value("Family");
    for (int r = 1; r <= rows; ++r) {
        m(r, 1) = Value(static_cast<int32_t>(1 + rng() % 25));
        m(r, 2) = Value(static_cast<int32_t>(1 + rng() % 1000));
        m(r, 3) = Value(static_cast<double>(rng() % 20000) / 100.0);
        m(r, 4) = Value(val(rng));
        m(r, 5) = families[rng() % families.size()];
    }
    return m;
}

const Datam& Table() {
    static const Datam t = LotTable(1000000);
    return t;
}

void BM_mat_sortCol_numbers(benchmark::State& state) {
    const Datam& m = Table();
    for (auto _ : state) {
        Datam unique;
        Datam s = mat_sortCol(m, 4, false, nullptr, &unique);
        benchmark::DoNotOptimize(s);
    }
    state.SetItemsProcessed(state.iterations() * m.rowUb());
}
BENCHMARK(BM_mat_sortCol_numbers)->Unit(benchmark::kMillisecond);

void BM_mat_sortCol_ties(benchmark::State& state) {
    const Datam& m = Table();
    for (auto _ : state) {
        Datam unique;
        Datam s = mat_sortCol(m, 2, false, nullptr, &unique);
        benchmark::DoNotOptimize(s);
    }
    state.SetItemsProcessed(state.iterations() * m.rowUb());
}
BENCHMARK(BM_mat_sortCol_ties)->Unit(benchmark::kMillisecond);

void BM_mat_sortCol_text(benchmark::State& state) {
    const Datam& m = Table();
    for (auto _ : state) {
        Datam unique;
        Datam s = mat_sortCol(m, 5, false, nullptr, &unique);
        benchmark::DoNotOptimize(s);
    }
    state.SetItemsProcessed(state.iterations() * m.rowUb());
}
BENCHMARK(BM_mat_sortCol_text)->Unit(benchmark::kMillisecond);

void BM_mat_sort_two_keys(benchmark::State& state) {
    const Datam& m = Table();
    Datam keys(2, 1, 1, 1);
    keys(1, 1) = Value(int32_t(1));
    keys(2, 1) = Value(int32_t(2));
    for (auto _ : state) {
        Datam s = mat_sort(m, keys);
        benchmark::DoNotOptimize(s);
    }
    state.SetItemsProcessed(state.iterations() * m.rowUb());
}
BENCHMARK(BM_mat_sort_two_keys)->Unit(benchmark::kMillisecond);

void BM_GetUniqueValues_sites(benchmark::State& state) {
    const Datam& m = Table();
    for (auto _ : state) {
        Datam u = GetUniqueValues(m, 2);
        benchmark::DoNotOptimize(u);
    }
    state.SetItemsProcessed(state.iterations() * m.rowUb());
}
BENCHMARK(BM_GetUniqueValues_sites)->Unit(benchmark::kMillisecond);

void BM_GetUniqueValues_values(benchmark::State& state) {
    const Datam& m = Table();
    for (auto _ : state) {
        Datam u = GetUniqueValues(m, 4);
        benchmark::DoNotOptimize(u);
    }
    state.SetItemsProcessed(state.iterations() * m.rowUb());
}
BENCHMARK(BM_GetUniqueValues_values)->Unit(benchmark::kMillisecond);

void BM_mat_rcstat_all_columns(benchmark::State& state) {
    const Datam& m = Table();
    for (auto _ : state) {
        Datam summary;
        Datam s = mat_rcstat(m, "MEAN", true, -1, &summary);
        benchmark::DoNotOptimize(s);
    }
    state.SetItemsProcessed(state.iterations() * m.rowUb());
}
BENCHMARK(BM_mat_rcstat_all_columns)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
