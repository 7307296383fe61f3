// Row and column statistics (mat_rcstat) and the nearest-value search.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <string>

#include "base/proc.h"
#include "base/text.h"
#include "numerics/matrix.h"
#include "tell.h"

namespace zorv {

namespace {

enum class Stat { SS, Sum, RMSS, Mean, SEM, Maximum, Range, Count, Minimum, StDev, Variance, MinMax, Unknown };

Stat StatOf(std::string_view name) {
    const std::string u = Upper(name);
    if (u == "SS" || u == "SUM OF SQUARES" || u == "SUMSQUARES") return Stat::SS;
    if (u == "SUM") return Stat::Sum;
    if (u == "RMSS") return Stat::RMSS;
    if (u == "MEAN" || u == "AVERAGE" || u == "AVE") return Stat::Mean;
    if (u == "SEM") return Stat::SEM;
    if (u == "MAXIMUM") return Stat::Maximum;
    if (u == "RANGE") return Stat::Range;
    if (u == "COUNT") return Stat::Count;
    if (u == "MINIMUM") return Stat::Minimum;
    if (u == "STDEV" || u == "STDERR" || u == "SIGMA") return Stat::StDev;
    if (u == "VARIANCE") return Stat::Variance;
    if (u == "MINMAX") return Stat::MinMax;
    return Stat::Unknown;
}

Value Pick(const RcStats& s, Stat which) {
    switch (which) {
        case Stat::SS: return Value(s.ss);
        case Stat::Sum: return Value(s.sum);
        case Stat::RMSS: return Value(s.rmss);
        case Stat::Mean: return Value(s.mean);
        case Stat::SEM: return Value(s.sem);
        case Stat::Maximum: return Value(s.mx);
        case Stat::Range: return Value(s.range);
        case Stat::Count: return Value(static_cast<int32_t>(s.n));
        case Stat::Minimum: return Value(s.mn);
        case Stat::StDev: return Value(s.sd);
        case Stat::Variance: return Value(s.var);
        case Stat::MinMax: return Value(s.minmax());
        case Stat::Unknown: break;
    }
    return Value();
}

constexpr const char* kSummaryLabels[] = {"Count",  "Mean",        "Median", "SEM",      "Maximum",
                                          "Minimum", "Range",      "StDev",  "Mean+3Sigma",
                                          "MinMax", "Variance",    "SS",     "Sum",      "RMSS"};

// A cell counts when its length is above 0 and it passes the plain numeric
// test (read as a 32-bit float) or is a date; the missing mark does not count.
bool StatCell(const Value& v, double& x) {
    if (v.isDate()) {
        x = v.toDouble();
        return true;
    }
    float f;
    if (v.isNumberType()) {
        f = v.toSingle();
    } else {
        if (IsBlank(v) || !v.isNumericPlain()) return false;
        f = v.toSingle();
    }
    if (f == kMissingValue) return false;
    x = f;
    return true;
}

// A warning for the status line; the statistics still come back, as empties.
void TellNoData(Notes* notes) {
    TellWarning(notes, {"No data in input matrix.", "MathUtility(mat_rcstat): ", true});
}

}  // namespace

RcStats RcFinish(const RcMoments& m) {
    RcStats s;
    const double n = static_cast<double>(m.n);
    s.n = n;
    s.sum = m.sum;
    s.ss = m.ss;
    s.mean = m.sum / n;
    if (m.n >= 2) {
        const double v = (n * m.ss - m.sum * m.sum) / (n * (n - 1));
        s.var = std::nearbyint(v * 1e10) / 1e10;
    }
    s.sd = std::sqrt(std::fabs(s.var));
    s.sem = std::sqrt(std::fabs(s.var / n));
    s.rmss = std::sqrt(m.ss / n);
    if (m.n == 1) {
        s.mx = s.mn = s.mean;
        s.range = 0;
    } else {
        s.mx = m.mx;
        s.mn = m.mn;
        s.range = m.mx - m.mn;
    }
    return s;
}

Datam mat_rcstat(const Datam& m, std::string_view name, bool byCol, int index, Datam* summary,
                 const Datam* range, bool* hasData, Notes* notes) {
    if (hasData) *hasData = false;
    if (!m.isArray() || m.dims() != 2) {
        TellNoData(notes);
        return Datam::vec(1);
    }
    const Stat which = StatOf(name);
    // Entries (columns when byCol) and the walk along each entry.
    const int eFirst = byCol ? FirstData(m, 2) : FirstData(m, 1);
    const int eLast = byCol ? m.colUb() : m.rowUb();
    int wFirst = byCol ? FirstData(m, 1) : FirstData(m, 2);
    int wLast = byCol ? m.rowUb() : m.colUb();
    if (range && range->isArray()) {
        std::vector<double> lim;
        if (range->dims() == 1) {
            for (int i = range->rowLb(); i <= range->rowUb() && lim.size() < 2; ++i) {
                double x;
                if (NumericOf(range->at(i), x)) lim.push_back(x);
            }
        } else {
            for (int r = range->rowLb(); r <= range->rowUb() && lim.size() < 2; ++r)
                for (int c = range->colLb(); c <= range->colUb() && lim.size() < 2; ++c) {
                    double x;
                    if (NumericOf((*range)(r, c), x)) lim.push_back(x);
                }
        }
        if (lim.size() == 2) {
            wFirst = std::max(wFirst, static_cast<int>(std::lround(lim[0])));
            wLast = std::min(wLast, static_cast<int>(std::lround(lim[1])));
        }
    }
    std::vector<int> entries;
    if (index < 0)
        for (int e = eFirst; e <= eLast; ++e) entries.push_back(e);
    else
        entries.push_back(index);

    std::vector<RcMoments> mom(entries.size());
    bool any = false;
    for (size_t k = 0; k < entries.size(); ++k) {
        const int e = entries[k];
        for (int w = wFirst; w <= wLast; ++w) {
            double x;
            if (StatCell(byCol ? m.get(w, e) : m.get(e, w), x)) mom[k].add(x);
        }
        any = any || mom[k].n > 0;
    }

    Datam out = index < 0 ? Datam::vec(std::max(eLast, 1)) : Datam::vec(1);
    if (!any) {
        TellNoData(notes);
        return out;
    }
    if (hasData) *hasData = true;
    for (size_t k = 0; k < entries.size(); ++k) {
        if (mom[k].n == 0) continue;
        const int at = index < 0 ? entries[k] : 1;
        if (at >= 1) out(at, 1) = Pick(RcFinish(mom[k]), which);
    }

    if (summary) {
        const int cols = std::max(eLast, 0) + 3;
        Datam& s = *summary;
        if (!s.isArray() || s.dims() != 2 || s.rowLb() != 0 || s.colLb() != 0)
            s = Datam(20, cols, 0, 0);
        else if (s.rowUb() < 14 || s.colUb() < eLast)
            s.redim(std::max(s.rowUb(), 20), std::max(s.colUb(), cols), 0, 0, true);
        for (int i = 0; i < 14; ++i) s(i + 1, 0) = Value(kSummaryLabels[i]);
        for (size_t k = 0; k < entries.size(); ++k) {
            const int e = entries[k];
            if (e < 1 || e > s.colUb()) continue;
            s(0, e) = byCol ? m.get(0, e) : m.get(e, 0);
            if (mom[k].n == 0) continue;
            const RcStats st = RcFinish(mom[k]);
            const double vals[] = {st.n,     st.mean,  (st.mx + st.mn) / 2,
                                   st.sem,   st.mx,    st.mn,
                                   st.range, st.sd,    std::fabs(st.mean) + std::fabs(3 * st.sd),
                                   st.minmax(), st.var, st.ss,
                                   st.sum,   st.rmss};
            for (int i = 0; i < 14; ++i)
                s(i + 1, e) = i == 0 ? Value(static_cast<int32_t>(st.n)) : Value(vals[i]);
        }
    }
    return out;
}

double mat_rcstat1(const Datam& m, std::string_view name, int col, Notes* notes) {
    const Datam r = mat_rcstat(m, name, true, col, nullptr, nullptr, nullptr, notes);
    return r.isArray() ? r.get(1, 1).toDouble() : 0.0;
}

int mv_FindNearest(double value, const Datam& m, int col, bool byCol, Notes* notes) {
    Proc p("Math(mv_FindNearest): ");
    if (!m.isArray() || m.dims() != 2 || mat_LastRow(m) < 1) {
        TellFailure(notes, p.fail("Less than one data point in input matrix."));
        return -1;
    }
    p.chk = 1;
    const int lastLine = byCol ? mat_LastCol(m) : mat_LastRow(m);
    if (col > lastLine) {
        TellFailure(notes, p.fail("Column number '" + std::to_string(col) +
                                  "' is greater than the number of columns in data."));
        return -1;
    }
    p.chk = 2;
    const int first = byCol ? FirstData(m, 1) : FirstData(m, 2);
    const int last = byCol ? m.rowUb() : m.colUb();
    auto cell = [&](int i) -> const Value& { return byCol ? m.get(i, col) : m.get(col, i); };
    auto read = [](const Value& v, float& f) {
        if (IsBlank(v)) return false;
        double x;
        if (v.isDate()) x = v.toDouble();
        else if (!NumericOf(v, x)) return false;
        f = static_cast<float>(x);
        return true;
    };
    // A starting bound beyond any real distance, as the system takes it.
    double bound = 0;
    for (int i = first; i <= last; ++i) {
        float f;
        if (read(cell(i), f)) {
            bound = 100.0 * std::fabs(static_cast<double>(f));
            break;
        }
    }
    const Datam mx = mat_rcstat(m, "MAXIMUM", byCol, col, nullptr, nullptr, nullptr, notes);
    bound = std::max(bound, mx.get(1, 1).toDouble() * 100.0);

    p.chk = 3;
    const float target = static_cast<float>(value);
    int found = 0;
    for (int i = first; i <= last; ++i) {
        float f;
        if (!read(cell(i), f)) continue;
        if (f == target) return i;
        const double d = std::fabs(static_cast<double>(f) - static_cast<double>(target));
        if (d < bound) {
            bound = d;
            found = i;
        }
    }
    return found;
}

}  // namespace zorv
