// The precision table. The lot is read once into one work table (key in
// column 0, one column per feature); each level only writes a new key column
// and asks CalcSS for the pooled sums of squares within its groups.
#include "stats/precision.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/format.h"
#include "base/marks.h"
#include "base/report.h"
#include "numerics/lsq.h"
#include "numerics/matrix.h"

namespace zorv {

namespace {

constexpr const char* kFmt = "###0.00#";

// Where each row of the work table came from, compactly.
struct RowKeys {
    std::vector<int32_t> wafer, field, site, family, colRank, rowRank;
    std::vector<float> gridR2;  // X^2 + Y^2 of the absolute location, mm^2
};

// Ranks of distinct location values (micrometres, to 0.001), for the
// column and row keys: a whole number a float key holds exactly.
std::vector<int32_t> Ranks(const std::vector<float>& v, int32_t& distinct) {
    std::vector<float> u(v);
    std::sort(u.begin(), u.end());
    u.erase(std::unique(u.begin(), u.end(), [](float a, float b) { return std::fabs(a - b) < 1e-3f; }),
            u.end());
    distinct = static_cast<int32_t>(u.size());
    std::vector<int32_t> r(v.size());
    for (size_t i = 0; i < v.size(); ++i) {
        auto it = std::lower_bound(u.begin(), u.end(), v[i] - 1e-3f);
        r[i] = static_cast<int32_t>(it - u.begin());
    }
    return r;
}

struct Level {
    std::vector<double> ss;  // per feature column 1..k (index 0 unused)
    int dof = 0, groups = 0;
    bool ok = false;
};

}  // namespace

Result<Datam> CalcPrecision(cLot& lot) {
    Proc p("cLot(CalcPrecision): ");
    p.chk = 1;
    const long total = lot.TotalPoints();
    if (total < 1) return p.fail("No data.");

    // Features that hold data, in their order.
    std::vector<int> features;
    {
        const Datam ft = lot.GetFeatureTypes();
        for (int r = 1; r <= ft.rowUb(); ++r) {
            const int k = ft(r, 0).toLong();
            if (k >= ePlotFeatureV && k <= ePlotFeatureC) features.push_back(k);
        }
    }
    if (features.empty()) return p.fail("No data.");
    const int nf = static_cast<int>(features.size());

    // ---- the lot, taken once
    p.chk = 2;
    SetStatusText("Lot..");
    const int n = static_cast<int>(total);
    Datam work(n, nf, 0, 0);
    work(0, 0) = Value("Key");
    for (int j = 0; j < nf; ++j) work(0, j + 1) = Value(lot.GetPlotFeatureName(features[j]));
    RowKeys keys;
    for (auto* v : {&keys.wafer, &keys.field, &keys.site, &keys.family}) v->reserve(n);
    std::vector<float> xs, ys;
    xs.reserve(n);
    ys.reserve(n);
    keys.gridR2.reserve(n);
    const int dt = lot.PLotDataType % 3;
    int wafers = 0, fields = 0;
    long sites = 0;
    const cWafer* lastW = nullptr;
    const cField* lastF = nullptr;
    const cSite* lastS = nullptr;
    const size_t stride = work.stride();
    Value* cells = work.data();
    int r = 0;
    lot.forEachLive([&](const cWafer& w, const cField& f, const cSite& s, const cPoint& pt) {
        if (&w != lastW) lastW = &w, ++wafers;
        if (&f != lastF) lastF = &f, ++fields;
        if (&s != lastS) lastS = &s, ++sites;
        if (r >= n) return false;
        ++r;
        Value* row = cells + static_cast<size_t>(r) * stride;
        for (int j = 0; j < nf; ++j) {
            const float v = *pt.FeatureSlot(features[j], dt);
            // A missing value is a blank cell, which every statistic skips.
            if (!IsMissing(v)) row[j + 1] = Value(double(v) / 1000.0);
        }
        keys.wafer.push_back(wafers);
        keys.field.push_back(fields);
        keys.site.push_back(s.NumberKey());
        keys.family.push_back(static_cast<int32_t>(s.Family()));
        xs.push_back(s.LocationX);
        ys.push_back(s.LocationY);
        const double xa = s.LocationXabs / 1000.0, ya = s.LocationYabs / 1000.0;
        keys.gridR2.push_back(static_cast<float>(xa * xa + ya * ya));
        return true;
    });
    if (r < n) work.redimPreserve(r, nf);
    const int N = r;
    const int W = wafers, F = fields;
    const long T = sites;
    // S: the site positions of a field, the distinct site keys (with sparse
    // fields T can equal F while S is above 1).
    long S = 0;
    {
        std::vector<int32_t> u(keys.site);
        std::sort(u.begin(), u.end());
        S = static_cast<long>(std::unique(u.begin(), u.end()) - u.begin());
    }
    const long P = lot.FamilyTotal();
    int32_t nx = 0, ny = 0;
    keys.colRank = Ranks(xs, nx);
    keys.rowRank = Ranks(ys, ny);
    xs = {};
    ys = {};

    // ---- the table
    p.chk = 3;
    const char* labels[] = {"#Points:", "Average", "Range", "_Precision_", "Lot", "Wafer", "InterWafer",
                            "Field", "Field Grid", "Site", "IntraField", "InterField", "Column",
                            "InterColumn", "Row", "InterRow", "Family", "IntraFamily"};
    Datam out(static_cast<int>(std::size(labels)), nf, 0, 0);
    out(0, 0) = Value("Precision");
    for (int j = 1; j <= nf; ++j) out(0, j) = work(0, j);
    int row = 0;
    auto put = [&](const char* label, auto&& valueOf) {
        ++row;
        out(row, 0) = Value(label);
        for (int j = 1; j <= nf; ++j) out(row, j) = valueOf(j);
    };
    auto num = [](double v) { return Value(Format(v, kFmt)); };
    // A level's root; dof <= 0 gives 0.
    auto root = [](double ss, double dof) { return dof > 0 ? std::sqrt(std::fabs(ss) / dof) : 0.0; };
    auto finish = [&]() {
        if (row < out.rowUb()) out.redimPreserve(row, nf);
        return Result<Datam>(std::move(out));
    };

    Datam count = mat_rcstat(work, "COUNT");
    Datam mean = mat_rcstat(work, "MEAN");
    Datam range = mat_rcstat(work, "RANGE");
    auto at = [](const Datam& v, int j) { return v.get(j, VecCol(v)).toDouble(); };
    put("#Points:", [&](int j) { return Value(int32_t(at(count, j))); });
    put("Average", [&](int j) { return num(at(mean, j)); });
    put("Range", [&](int j) { return num(at(range, j)); });
    put("_Precision_", [](int) { return Value("_____"); });


    // One level: the key column from `key`, then CalcSS.
    auto level = [&](auto&& key) {
        Level lv;
        for (int i = 1; i <= N; ++i) cells[static_cast<size_t>(i) * stride] = key(i - 1);
        Datam ss;
        const Datam sigma = CalcSS(work, ss, lv.dof, lv.groups);
        if (!ss.isArray()) return lv;
        lv.ss.assign(nf + 1, 0.0);
        for (int j = 1; j <= nf; ++j) lv.ss[j] = at(ss, j);
        lv.ok = true;
        return lv;
    };
    cells = work.data();

    // Lot: the sums of squares of the mean-removed columns, one group of all.
    const Level lt = level([](int) { return Value(int32_t(1)); });
    if (!lt.ok) return finish();
    std::vector<double> ssLot = lt.ss, nLot(nf + 1, 0.0);
    for (int j = 1; j <= nf; ++j) nLot[j] = at(count, j);
    put("Lot", [&](int j) { return num(root(ssLot[j], nLot[j] - 1)); });
    if (CheckEscKey()) return finish();

    // Wafer and InterWafer; one wafer repeats the rows above.
    Level wf;
    if (W > 1) {
        SetStatusText("InterWafer ....");
        wf = level([&](int i) { return Value(keys.wafer[i]); });
        if (!wf.ok) return finish();
        put("Wafer", [&](int j) { return num(root(wf.ss[j], wf.dof)); });
        put("InterWafer", [&](int j) {
            return num(root(ssLot[j] - wf.ss[j], nLot[j] - nLot[j] / W));
        });
    } else {
        wf.ss = ssLot;
        wf.dof = N - 1;
        wf.ok = true;
        const int lotRow = row;
        put("Wafer", [&](int j) { return out(lotRow, j); });
        put("InterWafer", [&](int j) { return out(lotRow + 1, j); });
    }
    if (CheckEscKey()) return finish();

    // Field.
    Level fl;
    if (F > 1) {
        SetStatusText("Field ...");
        fl = level([&](int i) { return Value(keys.field[i]); });
        if (!fl.ok) return finish();
        put("Field", [&](int j) { return num(root(fl.ss[j], fl.dof)); });
        if (CheckEscKey()) return finish();
        if (W > 1) {
            SetStatusText("Wafer Grid ....");
            const Level g = level([&](int i) { return Value(double(keys.gridR2[i])); });
            if (!g.ok) return finish();
            put("Field Grid", [&](int j) { return num(root(g.ss[j], g.dof)); });
            if (CheckEscKey()) return finish();
        }
        SetStatusText("Site...");
        const Level st = level([&](int i) { return Value(keys.site[i]); });
        if (!st.ok) return finish();
        put("Site", [&](int j) { return num(root(st.ss[j], st.dof)); });
        if (CheckEscKey()) return finish();
        if (T > 1 && S > 1) {
            SetStatusText("IntraField...");
            const double tf = (T - F) == 0 ? 1.0 : double(T - F);
            put("IntraField", [&](int j) { return num(std::sqrt(std::fabs((fl.ss[j] - st.ss[j]) / tf))); });
            if (CheckEscKey()) return finish();
        }
    } else if (T > 1 && S > 1) {
        // One field: the spread inside it is the standard error row of the whole table.
        SetStatusText("IntraField...");
        const Datam sd = mat_rcstat(work, "STDERR");
        put("IntraField", [&](int j) { return num(at(sd, j)); });
        if (CheckEscKey()) return finish();
    }
    if (F > 1 && S > 1) {
        SetStatusText("InterField...");
        put("InterField", [&](int j) {
            if (F - W > 1) return num(std::sqrt(std::fabs(wf.ss[j] - fl.ss[j]) / (F - W)));
            return num(root(ssLot[j] - fl.ss[j], double(N) - nf - 2));
        });
        if (CheckEscKey()) return finish();
    }

    // Column and row of the field: keys unique per field and location.
    const bool smallKeys = int64_t(F + 1) * std::max(nx, ny) < (int64_t(1) << 24);
    auto lineKey = [&](const std::vector<int32_t>& rank, int32_t distinct, int i) {
        if (smallKeys) return Value(int32_t(keys.field[i] * distinct + rank[i]));
        return Value(std::to_string(keys.field[i]) + "_" + std::to_string(rank[i]));
    };
    if (S > 1) {
        SetStatusText("Column ...");
        const Level c = level([&](int i) { return lineKey(keys.colRank, nx, i); });
        if (!c.ok) return finish();
        put("Column", [&](int j) { return num(root(c.ss[j], c.dof)); });
        if (CheckEscKey()) return finish();
        if (F > 1) {
            SetStatusText("InterColumn ...");
            put("InterColumn", [&](int j) {
                return num(std::sqrt(std::fabs((fl.ss[j] - c.ss[j]) / (fl.dof - double(c.groups) / F))));
            });
            if (CheckEscKey()) return finish();
        }
        SetStatusText("Row ...");
        const Level rw = level([&](int i) { return lineKey(keys.rowRank, ny, i); });
        if (!rw.ok) return finish();
        put("Row", [&](int j) { return num(root(rw.ss[j], rw.dof)); });
        if (CheckEscKey()) return finish();
        if (F > 1) {
            SetStatusText("InterRow ...");
            put("InterRow", [&](int j) {
                return num(std::sqrt(std::fabs((fl.ss[j] - rw.ss[j]) / (fl.dof - double(rw.groups) / F))));
            });
            if (CheckEscKey()) return finish();
        }
    }

    if (P > 1) {
        SetStatusText("Family ...");
        const Level fam = level([&](int i) { return Value(keys.family[i]); });
        if (!fam.ok) return finish();
        put("Family", [&](int j) { return num(root(fam.ss[j], fam.dof)); });
        if (CheckEscKey()) return finish();
        // IntraFamily: the typical spread inside one family, the mean of the
        // families' standard deviations.
        SetStatusText("Sort for IntraFamily ...");
        std::vector<int> order(N);
        for (int i = 0; i < N; ++i) order[i] = i;
        std::stable_sort(order.begin(), order.end(),
                         [&](int a, int b) { return keys.family[a] < keys.family[b]; });
        SetStatusText("IntraFamily ...");
        std::vector<double> sum(nf + 1, 0.0);
        std::vector<int> used(nf + 1, 0);
        for (int j = 1; j <= nf; ++j) {
            size_t i = 0;
            while (i < order.size()) {
                const int32_t fam = keys.family[order[i]];
                double s1 = 0, s2 = 0;
                long m = 0;
                for (; i < order.size() && keys.family[order[i]] == fam; ++i) {
                    const Value& v = cells[static_cast<size_t>(order[i] + 1) * stride + j];
                    if (v.isEmpty()) continue;
                    const double x = v.toSingle();
                    s1 += x;
                    s2 += x * x;
                    ++m;
                }
                if (m > 1) {
                    const double var = (m * s2 - s1 * s1) / (double(m) * (m - 1));
                    sum[j] += std::sqrt(std::fabs(var));
                    ++used[j];
                }
            }
        }
        put("IntraFamily", [&](int j) { return Value(Format(used[j] ? sum[j] / used[j] : 0.0, "####0.0000")); });
    }
    SetStatusText("Done");
    return finish();
}

}  // namespace zorv
