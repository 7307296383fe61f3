#include "procwin/pw_bootstrap.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <random>

#include "base/report.h"
#include "numerics/matrix.h"

namespace zorv {

double PercentileOf(const std::vector<double>& s, double q) {
    if (s.empty()) return 0;
    const double at = std::clamp(q, 0.0, 1.0) * double(s.size() - 1);
    const size_t i = static_cast<size_t>(std::floor(at));
    const double f = at - double(i);
    return i + 1 < s.size() ? s[i] + f * (s[i + 1] - s[i]) : s[i];
}

Result<std::vector<PWInterval>> PWbootstrap(const Datam& table, const std::vector<int>& columns,
                                            const PWFitLimits& limits, int resamples, uint64_t seed, double level,
                                            const PWMeasure& measure) {
    Proc p("PWcommon(PWbootstrap): ");
    if (!(level > 0 && level < 1)) return p.fail("The confidence level must lie between 0 and 1.");
    if (resamples < 2) return p.fail("At least 2 resamples are needed.");
    if (columns.empty()) return p.fail("No process variables have been selected for analysis.");
    const int fc = FindColumn(table, Value("Focus"), 0), dc = FindColumn(table, Value("Dose"), 0);
    if (fc < 1 || dc < 1) return p.fail("Could not locate variable: Focus");

    // The fits on the data: each column's fitted values and residuals.
    p.chk = 1;
    struct Column {
        int col;
        std::vector<int> rows;       // rows holding a value
        std::vector<double> fitted, resid;
    };
    std::vector<Column> cols;
    std::vector<Datam> surfaces;
    for (int col : columns) {
        auto fit = PWfit(table, col, limits);
        if (!fit) return fit.failure();
        if (fit->escaped) return std::vector<PWInterval>{};
        const Datam& c = fit->c;
        Column k{col, {}, {}, {}};
        for (int r = 1; r <= table.rowUb(); ++r) {
            if (IsBlank(table(r, col))) continue;
            const double d = static_cast<float>(table(r, dc).toDouble()), f = static_cast<float>(table(r, fc).toDouble());
            const double z = c(1, 1).toDouble() + c(2, 1).toDouble() * d + c(3, 1).toDouble() * f +
                             c(4, 1).toDouble() * f * f + c(5, 1).toDouble() * d * f + c(6, 1).toDouble() * f * f * f +
                             c(7, 1).toDouble() * d * f * f;
            k.rows.push_back(r);
            k.fitted.push_back(z);
            k.resid.push_back(table(r, col).toDouble() - z);
        }
        cols.push_back(std::move(k));
        surfaces.push_back(c);
    }
    std::vector<std::string> names;
    std::map<std::string, double> estimate;
    for (const auto& [name, v] : measure(surfaces)) {
        names.push_back(name);
        estimate[name] = v;
    }

    // Resamples: the same table with each column's values replaced.
    p.chk = 2;
    std::mt19937_64 rng(seed);
    std::map<std::string, std::vector<double>> values;
    Datam work = table;
    for (int b = 0; b < resamples; ++b) {
        if (b % 10 == 0) SetStatusText("Bootstrap resample " + std::to_string(b + 1) + " of " + std::to_string(resamples));
        // A resample of a window takes a while: the window's events run at each.
        ShowProgress(100 * b / resamples);
        if (CheckEscKey()) break;
        std::vector<Datam> again;
        bool ok = true;
        for (const Column& k : cols) {
            std::uniform_int_distribution<size_t> pick(0, k.resid.size() - 1);
            for (size_t i = 0; i < k.rows.size(); ++i) work(k.rows[i], k.col) = Value(k.fitted[i] + k.resid[pick(rng)]);
            auto fit = PWfit(work, k.col, limits);
            if (!fit || fit->escaped) {
                ok = false;
                break;
            }
            again.push_back(fit->c);
        }
        if (!ok) continue;
        for (const auto& [name, v] : measure(again))
            if (std::isfinite(v)) values[name].push_back(v);
    }
    SetStatusText("");

    std::vector<PWInterval> out;
    for (const std::string& name : names) {
        std::vector<double>& v = values[name];
        std::sort(v.begin(), v.end());
        PWInterval iv;
        iv.name = name;
        iv.estimate = estimate[name];
        iv.samples = static_cast<int>(v.size());
        iv.low = PercentileOf(v, (1 - level) / 2);
        iv.high = PercentileOf(v, (1 + level) / 2);
        out.push_back(iv);
    }
    return out;
}

}  // namespace zorv
