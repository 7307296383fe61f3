// The fit of a model: its input tables from the lot tree (MITP and the
// dependent table), the least-squares call, the terms, records and equations
// it leaves behind, and the model values and residuals written back into the
// points. Also the display factors of the terms.
//
// Speed: a lot reaches a million points. The walks read each site's term
// values once (equation slots, no name look-ups), a site's key text is made
// once and shared by its points, and the fit runs on plain arrays.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "model/model.h"
#include "model/model_sets.h"
#include "numerics/lsq.h"

namespace zorv {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
// How close a stored value must come to the missing mark to count as missing:
// the loads round the difference to two decimals, the write-back does not.
constexpr double kWaferMissingTol = 0.01;
constexpr double kFieldMissingTol = 0.05;
constexpr double kWriteBackMissingTol = 0.1;
// Lines of a by-rows (by-columns) field fit gather points this close, in mm.
constexpr double kLineReach = 0.7;
// The failure text of a load the user stopped with Escape.
constexpr const char* kStopped = "Fit data assembly stopped by the user.";

// The load's test on a stored value (1000 x display units): the difference
// from the mark rounded to two decimals.
inline bool LoadMissing(float raw, double tol) {
    return std::fabs(std::nearbyint((-999.9 - double(raw)) * 100.0) / 100.0) <= tol;
}
inline bool WriteBackMissing(float raw) { return std::fabs(double(raw) + 999.9) < kWriteBackMissingTol; }

std::string Num(long long n) { return std::to_string(n); }

// The lot's plot feature switched to the model's for the life of the object.
// The switch resets the lot's feature range; that comes back too.
class FeatureGuard {
public:
    FeatureGuard(cLot& lot, int wanted)
        : lot_(lot), old_(lot.PlotFeature()), min_(lot.PlotFeatureMin), max_(lot.PlotFeatureMax) {
        if (wanted != -1 && wanted != old_ && wanted >= ePlotFeatureVector && wanted <= ePlotFeatureAstig) {
            lot_.PlotFeature(wanted);
            switched_ = true;
        }
    }
    ~FeatureGuard() {
        if (!switched_) return;
        lot_.PlotFeature(old_);
        lot_.PlotFeatureMin = min_;
        lot_.PlotFeatureMax = max_;
    }
    FeatureGuard(const FeatureGuard&) = delete;
    FeatureGuard& operator=(const FeatureGuard&) = delete;

private:
    cLot& lot_;
    int old_;
    float min_, max_;
    bool switched_ = false;
};

// The value a fit sees at a point: the feature and data kind, read once per
// walk rather than through the lot at every point.
struct Reader {
    int feature = 1;
    int kind = 0;
    float operator()(cPoint& p) const {
        float a = 0, b = 0, c = 0;
        return p.GetPlotFeatureValue(a, b, c, feature, kind);
    }
};

// The live sites of a collection, in order: a field's (f) or a wafer's own
// set (f null: each site's field, which must be live too).
template <class List, class OnSite>
void WalkSites(const List& list, cField* f, OnSite& onSite) {
    for (cSite* s : list) {
        if (s->cull()) continue;
        cField* sf = f ? f : s->parent();
        if (!f && sf && sf->cull()) continue;
        onSite(sf, *s);
    }
}

// Sites of a wafer in the loads' order: its fields' sites, or its own site
// set on a wafer-site lot. onField(field, i, n) answers false to stop.
template <class OnField, class OnSite>
bool WalkWafer(cWafer& w, bool waferSites, OnField&& onField, OnSite&& onSite) {
    const int nf = w.Fields().Count();
    if (waferSites) {
        if (!onField(w.Fields().At(1), 1, std::max(nf, 1))) return false;
        WalkSites(w.SitesWafer(), nullptr, onSite);
        return true;
    }
    int i = 0;
    for (cField* f : w.Fields()) {
        ++i;
        if (f->cull()) continue;
        if (!onField(f, i, nf)) return false;
        WalkSites(f->sites(), f, onSite);
    }
    return true;
}

template <class OnSite>
void WalkField(cField& f, OnSite&& onSite) {
    WalkSites(f.sites(), &f, onSite);
}

long CountWafer(cWafer& w, bool waferSites, const Reader& rd, double tol) {
    long n = 0;
    WalkWafer(
        w, waferSites, [](cField*, int, int) { return true; },
        [&](cField*, cSite& s) {
            for (cPoint* p : s.Points())
                if (!p->cull() && !LoadMissing(rd(*p), tol)) ++n;
        });
    return n;
}

long CountField(cField& f, const Reader& rd, double tol) {
    long n = 0;
    WalkField(f, [&](cField*, cSite& s) {
        for (cPoint* p : s.Points())
            if (!p->cull() && !LoadMissing(rd(*p), tol)) ++n;
    });
    return n;
}

long LivePoints(const cWafer& w) {
    long n = 0;
    for (const cField* f : w.Fields())
        if (!f->cull()) n += f->TotalPoints();
    return n;
}

// The key of a site's rows: field key "_" site key, into a reused buffer.
void SiteKey(std::string& buf, const cField* f, const cSite& s) {
    buf.clear();
    if (f) buf += f->NumberKey;
    buf += '_';
    char digits[16];
    const auto r = std::to_chars(digits, digits + sizeof digits, s.NumberKey());
    buf.append(digits, r.ptr);
}

// The terms a load evaluates: their equations with the slots of the
// variables each uses, and the current site's values.
class TermSet {
public:
    // `index`: 1-based positions in Coefficients, the constant first (it has
    // no column and no equation here).
    TermSet(const Coefficients& coefs, std::vector<int> index) : index_(std::move(index)) {
        for (size_t k = 1; k < index_.size(); ++k) {
            const cCoefficient* c = coefs.Item(index_[k]);
            const std::string up = Upper(c->ValueString());
            eqs_.emplace_back(c->ValueString());
            clsEquation& e = eqs_.back();
            Slots sl;
            if (up.find('X') != std::string::npos) sl.x = e.VarSlot("x");
            if (up.find('Y') != std::string::npos) sl.y = e.VarSlot("y");
            if (up.find('R') != std::string::npos) sl.r = e.VarSlot("r");
            if (up.find("THETA") != std::string::npos) sl.th = e.VarSlot("theta");
            slots_.push_back(sl);
        }
        vals_.assign(eqs_.size(), 0.0);
    }
    const std::vector<int>& index() const { return index_; }
    int columns() const { return static_cast<int>(eqs_.size()); }
    void eval(double x, double y, double r, double th) {
        for (size_t k = 0; k < eqs_.size(); ++k) {
            const Slots& sl = slots_[k];
            clsEquation& e = eqs_[k];
            if (sl.x >= 0) e.SetSlot(sl.x, x);
            if (sl.y >= 0) e.SetSlot(sl.y, y);
            if (sl.r >= 0) e.SetSlot(sl.r, r);
            if (sl.th >= 0) e.SetSlot(sl.th, th);
            vals_[k] = e.Solution();
        }
    }
    double value(int k) const { return vals_[static_cast<size_t>(k)]; }

private:
    struct Slots {
        int x = -1, y = -1, r = -1, th = -1;
    };
    std::vector<int> index_;
    std::vector<clsEquation> eqs_;
    std::vector<Slots> slots_;
    std::vector<double> vals_;
};

// Term columns of a MITP table: up to the column before "Xloc" (field
// tables), else all.
int TermColumns(const Datam& mitp) {
    if (!mitp.isArray() || mitp.dims() != 2) return -1;
    for (int c = mitp.colLb(); c <= mitp.colUb(); ++c) {
        const Value& h = mitp.get(mitp.rowLb(), c);
        if (h.isString() && IEquals(h.str(), "Xloc")) return c - 1;
    }
    return mitp.colUb();
}

int ColumnOf(const Datam& mitp, std::string_view header) {
    if (!mitp.isArray() || mitp.dims() != 2) return -1;
    for (int c = mitp.colLb(); c <= mitp.colUb(); ++c) {
        const Value& h = mitp.get(mitp.rowLb(), c);
        if (h.isString() && IEquals(h.str(), header)) return c;
    }
    return -1;
}

int Rows(const Datam& t) { return t.isArray() && t.dims() == 2 ? t.rowUb() : -1; }

// The working arrays of the fits, kept from one call to the next: the
// wafers of a lot are of a size, and fresh memory costs more than the
// arithmetic done on it. A very large wafer's arrays are not kept.
struct Scratch {
    std::vector<double> x, y, model;
};
Scratch& FitScratch() {
    thread_local Scratch s;
    return s;
}
class ScratchLease {
public:
    ScratchLease() : s_(FitScratch()) {}
    ~ScratchLease() {
        constexpr size_t kKeep = size_t(4) << 20;  // doubles
        if (s_.x.capacity() > kKeep) s_ = Scratch();
    }
    ScratchLease(const ScratchLease&) = delete;
    ScratchLease& operator=(const ScratchLease&) = delete;
    Scratch& operator*() { return s_; }

private:
    Scratch& s_;
};

// What a load walks and how it reads.
struct LoadJob {
    cLot* lot = nullptr;
    cWafer* wafer = nullptr;
    cField* field = nullptr;  // a field load
    Reader rd;
    double tol = kWaferMissingTol;
    long n = 0;  // the rows the walk will find
    bool waferSites = false;
    std::string status;  // "Wafer: '..' fit data assembly [..]...Field "
    // The fit's working copy, filled by the walk when asked for: the term
    // columns in use, row-major, and the values.
    std::vector<double>* x = nullptr;
    std::vector<double>* y = nullptr;
};

// A fresh table of this shape, or the old one with its cells kept for
// overwriting: a million-row table is not allocated twice.
void Shape(Datam& t, int rows, int cols) {
    if (t.isArray() && t.dims() == 2 && t.rowLb() == 0 && t.colLb() == 0 && t.colUb() == cols &&
        t.rowUb() >= rows) {
        if (t.rowUb() > rows) t.redimPreserve(rows, cols);
        return;
    }
    t = Datam(rows, cols, 0, 0);
}

// Fills the dependent table and, unless reuse is asked and the MITP rows
// stand for the same sites, the MITP table. False when Escape stopped it.
bool LoadTables(LoadJob& job, TermSet& terms, const Coefficients& coefs, Datam& mitp, Datam& dep,
                bool dependentOnly) {
    const int m = terms.columns();
    const bool field = job.field != nullptr;
    const int nrows = static_cast<int>(job.n);
    bool reuse = dependentOnly && Rows(mitp) == nrows && TermColumns(mitp) >= m && mitp.colLb() == 0 &&
                 mitp.rowLb() <= 1;
    if (job.x) job.x->assign(static_cast<size_t>(nrows) * static_cast<size_t>(m), kNaN);
    if (job.y) job.y->assign(static_cast<size_t>(nrows), kNaN);

    for (int attempt = 0; attempt < 2; ++attempt) {
        Shape(dep, nrows, 1);
        dep(0, 0) = Value("Key");
        dep(0, 1) = Value(job.lot->GetPlotFeatureName(job.rd.feature));
        if (!reuse) {
            Shape(mitp, nrows, m + (field ? 4 : 0));
            mitp(0, 0) = Value("Key");
            for (int k = 1; k <= m; ++k) {
                const cCoefficient* c = coefs.Item(terms.index()[static_cast<size_t>(k)]);
                mitp(0, k) = Value(c->NameCoef.empty() ? c->ValueString() : c->NameCoef);
            }
            if (field) {
                mitp(0, m + 1) = Value("Xloc");
                mitp(0, m + 2) = Value("Yloc");
                mitp(0, m + 3) = Value("Rloc");
                mitp(0, m + 4) = Value("Tloc");
            }
        }
        Value* mbase = mitp.data();
        const size_t mstride = mitp.stride();
        const int mlb = mitp.rowLb();
        Value* dbase = dep.data();
        double* xs = job.x ? job.x->data() : nullptr;
        double* ys = job.y ? job.y->data() : nullptr;
        std::string key;
        key.reserve(32);
        int row = 0;
        bool mismatch = false;
        const long tick = std::max<long>(job.n / 100, 1);
        long untilTick = tick;
        const double xoff = job.lot->SiteXoffset, yoff = job.lot->SiteYoffset;

        auto onSite = [&](cField* f, cSite& s) {
            if (mismatch) return;
            Value keyValue;
            bool haveKey = false, evaluated = false;
            double x = 0, y = 0, r = 0, th = 0;
            for (cPoint* p : s.Points()) {
                if (p->cull()) continue;
                const float raw = job.rd(*p);
                if (LoadMissing(raw, job.tol)) continue;  // the row is reused
                if (row >= nrows) return;
                ++row;
                if (!haveKey) {
                    SiteKey(key, f, s);
                    haveKey = true;
                    if (!reuse) keyValue = Value(std::string_view(key));
                }
                Value* mrow = mbase + static_cast<size_t>(row - mlb) * mstride;
                double* xr = xs ? xs + static_cast<size_t>(row - 1) * static_cast<size_t>(m) : nullptr;
                if (reuse) {
                    // The MITP rows must belong to the same sites.
                    if (mrow[0].str() != key) {
                        mismatch = true;
                        return;
                    }
                    if (xr)
                        for (int k = 0; k < m; ++k) {
                            const Value& c = mrow[k + 1];
                            xr[k] = c.isEmpty() ? kNaN : c.toDouble();
                        }
                } else {
                    if (!evaluated) {
                        if (field) {
                            x = (double(s.LocationX) + xoff) / 1000.0;
                            y = (double(s.LocationY) + yoff) / 1000.0;
                            r = std::sqrt(x * x + y * y);
                            th = s.CalcAngle();
                        } else {
                            x = s.LocationXabs / 1000.0;
                            y = s.LocationYabs / 1000.0;
                            r = s.LocationRabs / 1000.0;
                            th = s.LocationThetaAbs;
                        }
                        terms.eval(x, y, r, th);
                        evaluated = true;
                    }
                    mrow[0] = keyValue;
                    for (int k = 0; k < m; ++k) mrow[k + 1] = Value(terms.value(k));
                    if (xr)
                        for (int k = 0; k < m; ++k) xr[k] = terms.value(k);
                    if (field) {
                        mrow[m + 1] = Value(x);
                        mrow[m + 2] = Value(y);
                        mrow[m + 3] = Value(r);
                        mrow[m + 4] = Value(th);
                    }
                }
                Value* drow = dbase + static_cast<size_t>(row) * 2;
                const double v = double(raw) / 1000.0;
                drow[0] = mrow[0];
                drow[1] = Value(v);
                if (ys) ys[row - 1] = v;
                if (--untilTick == 0) {
                    untilTick = tick;
                    ProgressBar(static_cast<int>(100 * row / job.n));
                }
            }
        };

        bool stopped = false;
        if (field) {
            if (CheckEscKey()) {
                stopped = true;
            } else {
                SetStatusText(job.status + Num(job.field->Number) + " of " +
                              Num(job.wafer ? job.wafer->Fields().Count() : 1));
                WalkField(*job.field, onSite);
            }
        } else {
            const bool ran = WalkWafer(
                *job.wafer, job.waferSites,
                [&](cField*, int i, int n) {
                    if (CheckEscKey()) return false;
                    SetStatusText(job.status + Num(i) + " of " + Num(n));
                    return !mismatch;
                },
                onSite);
            stopped = !ran && !mismatch;
        }
        if (stopped) {
            mitp = Datam();
            dep = Datam();
            return false;
        }
        if (mismatch) {
            reuse = false;  // other sites: load the MITP after all
            continue;
        }
        if (row < nrows) {
            dep.redimPreserve(row, 1);
            if (!reuse) mitp.redimPreserve(row, mitp.colUb());
            if (job.x) job.x->resize(static_cast<size_t>(row) * static_cast<size_t>(m));
            if (job.y) job.y->resize(static_cast<size_t>(row));
        }
        return true;
    }
    return true;
}

// The terms a wafer load takes: the first t, t the smallest of n + 1, the
// count of terms and the count asked.
std::vector<int> WaferTermIndex(const Coefficients& coefs, long n, int asked) {
    const long t = std::min<long>({n + 1, coefs.Count(), asked});
    std::vector<int> index;
    for (int k = 1; k <= t; ++k) index.push_back(k);
    return index;
}

// A field load lets in of those the first always, others only where the
// field has at least their Threshold of points.
std::vector<int> FieldTermIndex(const Coefficients& coefs, long n, int asked) {
    std::vector<int> index;
    for (int k : WaferTermIndex(coefs, n, asked))
        if (k == 1 || coefs.Item(k)->Threshold <= n) index.push_back(k);
    return index;
}

// " + A1 * 1 + A2 * X ..."; "A*1" when no term was let in.
std::string LoadText(const Coefficients& coefs, const std::vector<int>& index) {
    if (index.empty()) return "A*1";
    std::string eq;
    for (size_t k = 0; k < index.size(); ++k)
        eq += " + A" + Num(static_cast<long long>(k + 1)) + " * " + coefs.Item(index[k])->ValueString();
    return eq;
}

std::string LoadStatus(const cWafer* w, int feature, int family) {
    return "Wafer: '" + (w ? w->WaferID : std::string()) + "' fit data assembly [" + Num(feature) + " -" +
           Num(family) + "]...Field ";
}

// One set of coefficients with errors (a whole-field or wafer fit, or one
// line of a by-rows/by-columns field fit).
struct Solution {
    std::vector<double> coef, sigma;  // constant first
    double mse = 0;
    bool fitted = false;  // a fit was made (not a mean): its MSE goes in the tables
};

// The mean of some values as a model: error the values' standard deviation.
Solution MeanSolution(const std::vector<double>& y, const std::vector<int>& rows, int terms) {
    Solution s;
    s.coef.assign(static_cast<size_t>(std::max(terms, 1)), 0.0);
    s.sigma.assign(s.coef.size(), 0.0);
    const double n = static_cast<double>(rows.size());
    if (rows.empty()) return s;
    double sum = 0;
    for (int r : rows) sum += y[static_cast<size_t>(r)];
    const double mean = sum / n;
    double ss = 0;
    for (int r : rows) ss += (y[static_cast<size_t>(r)] - mean) * (y[static_cast<size_t>(r)] - mean);
    s.coef[0] = mean;
    s.mse = rows.size() > 1 ? ss / (n - 1) : 0.0;
    s.sigma[0] = std::sqrt(s.mse);
    return s;
}

// svdfit_std on the rows given (all when null) and the first m columns.
// False (and the failure in notes) when the fit left early.
bool LeastSquares(const std::vector<double>& x, const std::vector<double>& y, int stride, int m,
                  const std::vector<int>* rows, const ModelFitOptions& o, Solution& out, Notes& notes) {
    const double* px = x.data();
    const double* py = y.data();
    int n = static_cast<int>(y.size());
    std::vector<double> xs, ys;
    if (rows || m != stride) {
        n = rows ? static_cast<int>(rows->size()) : n;
        xs.resize(static_cast<size_t>(n) * static_cast<size_t>(m));
        ys.resize(static_cast<size_t>(n));
        for (int i = 0; i < n; ++i) {
            const size_t r = static_cast<size_t>(rows ? (*rows)[static_cast<size_t>(i)] : i);
            std::copy(x.data() + r * static_cast<size_t>(stride), x.data() + r * static_cast<size_t>(stride) + m,
                      xs.data() + static_cast<size_t>(i) * static_cast<size_t>(m));
            ys[static_cast<size_t>(i)] = y[r];
        }
        px = xs.data();
        py = ys.data();
    }
    SvdFitArrays f = svdfit_std(px, py, n, m, 0.0f, true, true, o.thresholdMultiple, o.rangeCull, false, &notes);
    if (f.result < 0) return false;
    const bool cur = o.useCurrent && !f.curCoef.empty();
    out.coef = cur ? f.curCoef : f.coef;
    out.sigma = cur ? f.curErrors : f.errors;
    out.mse = cur ? f.curMse : f.mse;
    out.fitted = true;
    return true;
}

double ModelAt(const Solution& s, const double* xr, int m) {
    double v = s.coef.empty() ? 0.0 : s.coef[0];
    const int k = std::min(m, static_cast<int>(s.coef.size()) - 1);
    for (int j = 0; j < k; ++j) v += s.coef[static_cast<size_t>(j + 1)] * xr[j];
    return v;
}

// A term in an equation text: wrapped when a sign inside would bind it wrong.
std::string TermText(const std::string& term) {
    if (term.find_first_of("+-", 1) != std::string::npos) return "(" + term + ")";
    return term;
}

std::string CleanSigns(std::string s) {
    ReplaceAll(s, "+-", "-");
    ReplaceAll(s, "+ -", "-");
    ReplaceAll(s, "+  -", "-");
    while (s.find("  ") != std::string::npos) ReplaceAll(s, "  ", " ");
    return s;
}

// c1 + c2 * term2 + ..., zero terms (as singles) left out.
std::string EquationText(const Coefficients& coefs, const std::vector<int>& index, const std::vector<double>& c) {
    std::string eq = NumberToText(c.empty() ? 0.0 : c[0]);
    for (size_t k = 1; k < c.size() && k < index.size(); ++k) {
        if (static_cast<float>(c[k]) == 0.0f) continue;
        eq += " + " + NumberToText(c[k]) + " * " + TermText(coefs.Item(index[k])->ValueString());
    }
    return CleanSigns(eq);
}

// Writes model value and residual of every live point with a value, in the
// loads' walk order: `model` holds one value per dependent row.
struct WriteBack {
    Reader rd;
    double tol;
    const std::vector<double>* model;
    long row = 0;
    void site(cSite& s) {
        const std::vector<double>& mv = *model;
        for (cPoint* p : s.Points()) {
            if (p->cull()) continue;
            const float raw = rd(*p);
            if (LoadMissing(raw, tol)) continue;
            if (row >= static_cast<long>(mv.size())) return;
            const double fit = mv[static_cast<size_t>(row++)];
            if (WriteBackMissing(raw)) continue;
            const float fitted = static_cast<float>(fit * 1000.0);
            const float resid = static_cast<float>(double(raw) - fit * 1000.0);
            if (rd.feature == ePlotFeatureVector) {
                // The vector reads Z: V and H keep what they hold.
                p->PutPlotFeatureValue(p->ValueV_fit, p->ValueH_fit, fitted, rd.feature, eFitted);
                p->PutPlotFeatureValue(p->ValueV_Res, p->ValueH_Res, resid, rd.feature, eResidual);
            } else {
                p->PutPlotFeatureValue(fitted, fitted, fitted, rd.feature, eFitted);
                p->PutPlotFeatureValue(resid, resid, resid, rd.feature, eResidual);
            }
        }
    }
};

// Value and error tables of a fit: rows 1..t by term, column 0 the names.
Datam ResultTable(const Coefficients& coefs, const std::vector<int>& index, int rows, const std::string& header,
                  int columns) {
    Datam t(rows, columns, 0, 0);
    t(0, 0) = Value(header);
    for (int k = 1; k <= rows && k <= static_cast<int>(index.size()); ++k)
        t(k, 0) = Value(coefs.Item(index[static_cast<size_t>(k - 1)])->NameCoef);
    return t;
}

Datam ResidTable(const Datam& dep, const std::vector<double>& y, const std::vector<double>& model) {
    const int n = static_cast<int>(model.size());
    Datam r(n, 1, 0, 0);
    r(0, 0) = Value("Key");
    r(0, 1) = Value("Residual");
    for (int i = 1; i <= n; ++i) {
        r(i, 0) = dep(i, 0);
        r(i, 1) = Value(y[static_cast<size_t>(i - 1)] - model[static_cast<size_t>(i - 1)]);
    }
    return r;
}

std::string ModelListKey(const Cmodel& m, int feature) {
    if (!m.Key.empty()) return m.Key;
    return m.Name + "_" + Num(feature) + "_" + Num(m.FamilyType);
}

}  // namespace

// ---------------------------------------------------------------- units

Result<UnitsFound> UnitsDetermination(std::string_view text) {
    Proc p("cCoefficient(UnitsDetermination): ");
    if (text.empty()) return p.fail("No input string.");
    const std::string up = Upper(text);
    struct Rule {
        const char* key;
        long code;
    };
    // First hit wins; "o" is tested against the upper-cased text as it
    // always was, and so never matches.
    static constexpr Rule rules[] = {
        {"RAD", 7}, {"NANO", 2}, {"ANG", 1}, {"DEG", 6}, {"NM", 2}, {"MM", 3}, {"UM", 0}, {"MC", 0},
        {"MI", 0},  {"CM", 4},   {"R", 7},   {"M", 5},   {"A", 1},  {"D", 6}, {"o", 6},  {"C", 6},
        {"F", 6},
    };
    for (const Rule& r : rules) {
        const size_t at = up.find(r.key);
        if (at == std::string::npos) continue;
        UnitsFound u;
        u.code = r.code;
        // The power stands behind the unit: after "^", or as digits ("cm2").
        const size_t from = at + std::char_traits<char>::length(r.key);
        size_t i = up.find('^', from);
        i = i == std::string::npos ? up.find_first_of("0123456789", from) : i + 1;
        if (i != std::string::npos) {
            size_t j = i;
            if (j < up.size() && (up[j] == '-' || up[j] == '+')) ++j;
            while (j < up.size() && ((up[j] >= '0' && up[j] <= '9') || up[j] == '.')) ++j;
            double e = 0;
            if (j > i && ParseNumber(std::string_view(up).substr(i, j - i), e)) u.exponent = e;
        }
        return u;
    }
    return p.fail("Units not recognised: '" + std::string(text) + "'");
}

Status cCoefficient::CalcDisplayFactor(long unitsCode) {
    Proc p("cCoefficient(CalcDisplayFactor): ");
    double base = 0;
    switch (unitsCode) {
        case 0: case 6: case 7: case 11: case 16: case 17: base = 1; break;
        case 1: base = 10000; break;
        case 2: base = 1000; break;
        case 3: base = 0.001; break;
        case 4: base = 100; break;
        case 5: base = 1e6; break;
        default: return StatusOk();  // not a unit the terms are scaled for
    }
    const std::string up = Upper(Trim(DisplayUnits));
    if (up == "PPM" || up == "URAD") {
        DisplayFactor = static_cast<float>(1000.0 / base);
        return StatusOk();
    }
    const size_t slash = DisplayUnits.find('/');
    if (slash == std::string::npos) {
        DisplayFactor = 1;
        return StatusOk();
    }
    auto numerator = [](long code, double& f) {
        switch (code) {
            case 0: case 6: case 7: case 11: case 16: case 17: f = 1; return true;
            case 1: f = 1e4; return true;
            case 2: f = 1000; return true;
            case 3: f = 0.001; return true;
            case 4: f = 1e-4; return true;
            case 5: f = 1e-6; return true;
            default: return false;
        }
    };
    auto denominator = [](long code, double& f) {
        switch (code) {
            case 0: f = 1000; return true;
            case 1: f = 10000; return true;
            case 2: f = 1e6; return true;
            case 3: case 6: case 7: case 11: case 16: case 17: f = 1; return true;
            case 4: f = 0.1; return true;
            case 5: f = 0.001; return true;
            default: return false;
        }
    };
    const Result<UnitsFound> top = UnitsDetermination(Trim(std::string_view(DisplayUnits).substr(0, slash)));
    const Result<UnitsFound> bottom = UnitsDetermination(Trim(std::string_view(DisplayUnits).substr(slash + 1)));
    double fn = 0, fd = 0;
    p.chk = 3;
    if (!top || !bottom || !numerator(top->code, fn) || !denominator(bottom->code, fd))
        return p.fail("Improper Units-of-Measure set for variable calculation.");
    DisplayFactor = static_cast<float>(std::pow(fn, top->exponent) / std::pow(fd, bottom->exponent) / base);
    return StatusOk();
}

// ---------------------------------------------------------------- loads

Status Cmodel::LoadWaferMITP(int terms, bool dependentOnly, std::string* text) {
    Proc p("cModel(LoadWaferMITP): ");
    cLot* lot = ParentLot();
    if (!ParentWafer || !lot) return p.fail("The model has no wafer.");
    FeatureGuard guard(*lot, PlotFeature);
    p.chk = 1;
    LoadJob job;
    job.lot = lot;
    job.wafer = ParentWafer;
    job.rd = Reader{lot->PlotFeature(), lot->PLotDataType};
    job.tol = kWaferMissingTol;
    job.waferSites = lot->PlotWaferSites;
    job.n = CountWafer(*ParentWafer, job.waferSites, job.rd, job.tol);
    const std::vector<int> index =
        WaferTermIndex(Coefficients, job.n, terms <= 0 ? Coefficients.Count() : terms);
    if (text) *text = LoadText(Coefficients, index);
    TermSet ts(Coefficients, index);
    job.status = LoadStatus(ParentWafer, job.rd.feature, FamilyType);
    p.chk = 2;
    if (!LoadTables(job, ts, Coefficients, mitp_, dependent_, dependentOnly)) return p.fail(kStopped);
    return StatusOk();
}

Status Cmodel::LoadFieldMITP(int terms, bool dependentOnly, std::string* text) {
    Proc p("cModel(LoadFieldMITP): ");
    cLot* lot = ParentLot();
    if (!ParentField || !lot) return p.fail("The model has no field.");
    FeatureGuard guard(*lot, PlotFeature);
    p.chk = 1;
    LoadJob job;
    job.lot = lot;
    job.field = ParentField;
    job.wafer = ParentField->ParentWafer() ? ParentField->ParentWafer() : ParentWafer;
    job.rd = Reader{lot->PlotFeature(), lot->PLotDataType};
    job.tol = kFieldMissingTol;
    job.n = CountField(*ParentField, job.rd, job.tol);
    const std::vector<int> index =
        FieldTermIndex(Coefficients, job.n, terms <= 0 ? Coefficients.Count() : terms);
    if (text) *text = LoadText(Coefficients, index);
    TermSet ts(Coefficients, index);
    job.status = LoadStatus(job.wafer, job.rd.feature, FamilyType);
    p.chk = 2;
    if (!LoadTables(job, ts, Coefficients, mitp_, dependent_, dependentOnly)) return p.fail(kStopped);
    return StatusOk();
}

// ---------------------------------------------------------------- fits

Result<ModelFitResult> Cmodel::Fit(const ModelFitOptions& options) {
    Proc p("cModel(Fit): ");
    cLot* lot = ParentLot();
    if (!lot || (!ParentField && !ParentWafer)) return p.fail("The model has no wafer or field.");
    // A parent without data has nothing to fit.
    const long live = onField() ? ParentField->TotalPoints() : LivePoints(*ParentWafer);
    if (live < 1) return ModelFitResult{};
    ModelFitOptions o = options;
    if (o.terms == 0) o.terms = Coefficients.Count();
    if (o.terms < 1) return ModelFitResult{};
    if (onField()) return FitField(o);
    Result<ModelFitResult> r = FitWafer(o);
    // The lot's loop over wafers stops on the same key.
    if (CheckEscKey()) SetEscPressed(true);
    return r;
}

Result<ModelFitResult> Cmodel::FitWafer(const ModelFitOptions& options) {
    Proc p("cModel(FitWafer): ");
    cLot* lot = ParentLot();
    cWafer* w = ParentWafer;
    if (!w || !lot) return p.fail("The model has no wafer.");
    FeatureGuard guard(*lot, PlotFeature);
    const Reader rd{lot->PlotFeature(), lot->PLotDataType};
    const bool waferSites = lot->PlotWaferSites;
    p.chk = 2;
    const long n = CountWafer(*w, waferSites, rd, kWaferMissingTol);
    if (n < 4)
        return p.fail("There are not enough data points in the set.\r\nModel fit requires at least 3 data points. "
                      "\r\nSet contains only: " +
                      Num(n) + " data points.");
    SetStatusText("Model Wafer: " + w->WaferID + " Family: " + Num(FamilyType));

    p.chk = 4;
    const int count = Coefficients.Count();
    const int asked = options.terms <= 0 ? count : std::min(options.terms, count);
    const int t = static_cast<int>(std::min<long>({n + 1, count, asked}));
    if (t < 1) return ModelFitResult{};
    p.chk = 5;
    // The MITP is loaded again when it stands for other rows or fewer terms;
    // otherwise only the values are read. The walk also fills the working
    // copy, which keeps just the columns of the terms in use.
    const bool reload = Rows(mitp_) != n || TermColumns(mitp_) < asked - 1;
    const std::vector<int> index = WaferTermIndex(Coefficients, n, asked);
    TermSet ts(Coefficients, index);
    ScratchLease lease;
    std::vector<double>& x = (*lease).x;
    std::vector<double>& y = (*lease).y;
    LoadJob job;
    job.lot = lot;
    job.wafer = w;
    job.rd = rd;
    job.tol = kWaferMissingTol;
    job.waferSites = waferSites;
    job.n = n;
    job.status = LoadStatus(w, rd.feature, FamilyType);
    job.x = &x;
    job.y = &y;
    if (!LoadTables(job, ts, Coefficients, mitp_, dependent_, !reload)) {
        SetEscPressed(true);  // the callers' loops stop too
        return ModelFitResult{};
    }
    p.chk = 6;
    if (Rows(mitp_) < 2) return p.fail("Error in loading independent matrix.");
    const int m = ts.columns();

    p.chk = 8;
    Solution sol;
    if (m == 0) {
        std::vector<int> all(y.size());
        for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<int>(i);
        sol = MeanSolution(y, all, 1);
    } else {
        Notes notes;
        if (!LeastSquares(x, y, m, m, nullptr, options, sol, notes)) {
            if (notes.failure) return *notes.failure;
            SetEscPressed(true);  // stopped inside the fit
            return ModelFitResult{};
        }
        for (const Warning& wn : notes.warnings) SetStatusText(wn.text);
    }

    p.chk = 9;
    Coefficients.SetAll(-999, 0);
    Coefficients.IncludeAll(false);
    for (size_t k = 0; k < sol.coef.size() && k < index.size(); ++k) {
        cCoefficient* c = Coefficients.Item(index[k]);
        c->Value = sol.coef[k];
        c->Sigma = sol.sigma[k];
        c->Include = true;
    }
    MSE = static_cast<float>(sol.mse);

    p.chk = 11;
    auto rec = std::make_unique<cFitRecord>();
    rec->MSE = MSE;
    rec->SerialID = w->WaferID;
    rec->FamilyType = FamilyType;
    rec->PlotFeature = rd.feature;
    rec->Key = "Var_" + Num(rd.feature) + "_Fam_" + Num(FamilyType);
    for (size_t k = 0; k < sol.coef.size(); ++k) rec->AddValue(sol.coef[k], sol.sigma[k]);
    FitLibrary.Add(std::move(rec));

    p.chk = 12;
    ModelFitResult res;
    res.equation = EquationText(Coefficients, index, sol.coef);
    FullModel.setEquation(res.equation);
    CurrentModel.setEquation(res.equation);
    res.mse = MSE;
    const int rows = static_cast<int>(sol.coef.size());
    res.coef = ResultTable(Coefficients, index, rows, "Coef", 1);
    res.sigma = ResultTable(Coefficients, index, rows, "Sigma", 1);
    res.coef(0, 1) = Value(w->WaferID);
    res.sigma(0, 1) = Value(w->WaferID);
    for (int k = 1; k <= rows; ++k) {
        res.coef(k, 1) = Value(sol.coef[static_cast<size_t>(k - 1)]);
        res.sigma(k, 1) = Value(sol.sigma[static_cast<size_t>(k - 1)]);
    }

    p.chk = 13;
    const std::string listKey = ModelListKey(*this, rd.feature);
    ModelWafer& lotModels = LotModelWafer(*lot);
    if (!lotModels.models.Item(listKey)) lotModels.models.Add(clone(), listKey);

    // Model values and residuals back into the points.
    p.chk = 14;
    std::vector<double>& model = (*lease).model;
    model.assign(y.size(), 0.0);
    for (size_t r = 0; r < y.size(); ++r) model[r] = ModelAt(sol, x.data() + r * static_cast<size_t>(m), m);
    res.resids = ResidTable(dependent_, y, model);
    WriteBack wb{rd, kWaferMissingTol, &model};
    WalkWafer(
        *w, waferSites,
        [&](cField* f, int i, int nf) {
            SetStatusText("Update Field Results: " + (f ? f->NumberKey : std::string()) + ",[ " + Num(i) + " of " +
                          Num(nf) + " ]");
            return true;
        },
        [&](cField*, cSite& s) { wb.site(s); });
    return res;
}

Result<ModelFitResult> Cmodel::FitField(const ModelFitOptions& options) {
    Proc p("cModel(FitField): ");
    cLot* lot = ParentLot();
    cField* fld = ParentField;
    if (!fld || !lot) return p.fail("The model has no field.");
    FeatureGuard guard(*lot, PlotFeature);
    if (fld->TotalPoints() <= 0) return ModelFitResult{};
    const Reader rd{lot->PlotFeature(), lot->PLotDataType};
    p.chk = 2;
    const long n = CountField(*fld, rd, kFieldMissingTol);
    if (n < 1) return ModelFitResult{};
    const int count = Coefficients.Count();
    const int asked = options.terms <= 0 ? count : std::min(options.terms, count);
    if (std::min<long>({n + 1, count, asked}) < 1) return ModelFitResult{};

    p.chk = 5;
    const bool reload = Rows(mitp_) != n || TermColumns(mitp_) < asked - 1;
    const std::vector<int> index = FieldTermIndex(Coefficients, n, asked);
    TermSet ts(Coefficients, index);
    ScratchLease lease;
    std::vector<double>& x = (*lease).x;
    std::vector<double>& y = (*lease).y;
    LoadJob job;
    job.lot = lot;
    job.field = fld;
    job.wafer = fld->ParentWafer() ? fld->ParentWafer() : ParentWafer;
    job.rd = rd;
    job.tol = kFieldMissingTol;
    job.n = n;
    job.status = LoadStatus(job.wafer, rd.feature, FamilyType);
    job.x = &x;
    job.y = &y;
    if (!LoadTables(job, ts, Coefficients, mitp_, dependent_, !reload)) {
        SetEscPressed(true);
        return ModelFitResult{};
    }
    const int rowsN = Rows(dependent_);
    const int m = ts.columns();
    std::vector<double>& model = (*lease).model;
    model.assign(y.size(), 0.0);
    const int tj = m + 1;

    // The result columns: one for the whole field, or one per line and "Mean".
    struct Column {
        Value header;
        Solution sol;
    };
    std::vector<Column> cols;
    const int type = FieldModelType == 1 || FieldModelType == 2 ? FieldModelType : 3;
    p.chk = 6;
    if (type == 3) {
        Column c{Value(fld->NumberKey), {}};
        if (rowsN < 2 || m < 1) {
            std::vector<int> all(y.size());
            for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<int>(i);
            c.sol = MeanSolution(y, all, tj);
        } else {
            Notes notes;
            if (!LeastSquares(x, y, m, m, nullptr, options, c.sol, notes)) {
                if (notes.failure) return *notes.failure;
                SetEscPressed(true);
                return ModelFitResult{};
            }
            for (const Warning& wn : notes.warnings) SetStatusText(wn.text);
        }
        c.sol.coef.resize(static_cast<size_t>(tj), 0.0);
        c.sol.sigma.resize(static_cast<size_t>(tj), 0.0);
        for (size_t r = 0; r < y.size(); ++r) model[r] = ModelAt(c.sol, x.data() + r * static_cast<size_t>(m), m);
        cols.push_back(std::move(c));
    } else {
        // Lines: rows at one Y (type 1) or one X (type 2) within reach.
        const int posCol = ColumnOf(mitp_, type == 1 ? "Yloc" : "Xloc");
        std::vector<double> pos(y.size(), 0.0);
        for (int r = 1; r <= rowsN; ++r)
            pos[static_cast<size_t>(r - 1)] = posCol > 0 && r <= mitp_.rowUb() ? mitp_(r, posCol).toDouble() : 0.0;
        std::vector<float> lines;
        for (double& v : pos) {
            lines.push_back(static_cast<float>(v));
            v = std::nearbyint(v * 1000.0) / 1000.0;  // compared at three decimals
        }
        std::sort(lines.begin(), lines.end());
        lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
        std::vector<int> members;
        for (float line : lines) {
            members.clear();
            for (size_t r = 0; r < pos.size(); ++r)
                if (std::fabs(pos[r] - double(line)) < kLineReach) members.push_back(static_cast<int>(r));
            Column c{Value(line), {}};
            const int np = static_cast<int>(members.size());
            int ml = 0;
            if (np < 3) {
                c.sol = MeanSolution(y, members, tj);
            } else {
                ml = std::min(m, np - 1);
                Notes notes;
                if (ml < 1) {
                    c.sol = MeanSolution(y, members, tj);
                } else if (!LeastSquares(x, y, m, ml, &members, options, c.sol, notes)) {
                    if (notes.failure) return *notes.failure;
                    SetEscPressed(true);
                    return ModelFitResult{};
                }
                for (const Warning& wn : notes.warnings) SetStatusText(wn.text);
            }
            c.sol.coef.resize(static_cast<size_t>(tj), 0.0);
            c.sol.sigma.resize(static_cast<size_t>(tj), 0.0);
            for (int r : members)
                model[static_cast<size_t>(r)] = ModelAt(c.sol, x.data() + static_cast<size_t>(r) * m, ml);
            cols.push_back(std::move(c));
        }
        // "Mean": the mean of the lines, its error the root mean square of
        // theirs; its MSE the root sum of squares of the lines' MSE.
        Column mean{Value("Mean"), {}};
        mean.sol.coef.assign(static_cast<size_t>(tj), 0.0);
        mean.sol.sigma.assign(static_cast<size_t>(tj), 0.0);
        mean.sol.fitted = true;
        double ssMse = 0;
        const double nl = static_cast<double>(cols.size());
        for (const Column& c : cols) {
            for (int k = 0; k < tj; ++k) {
                mean.sol.coef[static_cast<size_t>(k)] += c.sol.coef[static_cast<size_t>(k)] / nl;
                mean.sol.sigma[static_cast<size_t>(k)] +=
                    c.sol.sigma[static_cast<size_t>(k)] * c.sol.sigma[static_cast<size_t>(k)] / nl;
            }
            ssMse += c.sol.mse * c.sol.mse;
        }
        for (double& s : mean.sol.sigma) s = std::sqrt(s);
        mean.sol.mse = std::sqrt(ssMse);
        cols.push_back(std::move(mean));
    }

    // Results: a column per result, the row "MSE" under a fit made.
    p.chk = 8;
    const Column& use = cols.back();
    const bool mseRow = use.sol.fitted;
    const int ncols = static_cast<int>(cols.size());
    ModelFitResult res;
    res.coef = ResultTable(Coefficients, index, tj + (mseRow ? 1 : 0), "Coef", ncols);
    res.sigma = ResultTable(Coefficients, index, tj + (mseRow ? 1 : 0), "Sigma", ncols);
    for (int j = 1; j <= ncols; ++j) {
        const Column& c = cols[static_cast<size_t>(j - 1)];
        res.coef(0, j) = c.header;
        res.sigma(0, j) = c.header;
        for (int k = 1; k <= tj; ++k) {
            res.coef(k, j) = Value(c.sol.coef[static_cast<size_t>(k - 1)]);
            res.sigma(k, j) = Value(c.sol.sigma[static_cast<size_t>(k - 1)]);
        }
        if (mseRow) {
            res.coef(tj + 1, j) = Value(c.sol.mse);
            res.sigma(tj + 1, j) = Value(c.sol.mse);
        }
    }
    if (mseRow) {
        res.coef(tj + 1, 0) = Value("MSE");
        res.sigma(tj + 1, 0) = Value("MSE");
    }

    Coefficients.SetAll(-999, 0);
    Coefficients.IncludeAll(false);
    for (int k = 0; k < tj; ++k) {
        cCoefficient* c = Coefficients.Item(index[static_cast<size_t>(k)]);
        c->Value = use.sol.coef[static_cast<size_t>(k)];
        c->Sigma = use.sol.sigma[static_cast<size_t>(k)];
        c->Include = true;
    }
    MSE = static_cast<float>(use.sol.mse);
    res.mse = MSE;
    res.equation = FormatEquation(EquationText(Coefficients, index, use.sol.coef), "#0.0000#", 4);
    FullModel.setEquation(res.equation);
    CurrentModel.setEquation(res.equation);

    p.chk = 10;
    for (const Column& c : cols) {
        auto rec = std::make_unique<cFitRecord>();
        rec->MSE = static_cast<float>(c.sol.mse);
        rec->SerialID = fld->NumberKey;
        rec->FamilyType = FamilyType;
        rec->PlotFeature = rd.feature;
        rec->Key = Num(rd.feature) + "_" + Num(FamilyType) + "_" + c.header.toString();
        for (int k = 0; k < tj; ++k)
            rec->AddValue(c.sol.coef[static_cast<size_t>(k)], c.sol.sigma[static_cast<size_t>(k)]);
        FitLibrary.Add(std::move(rec));
    }
    const std::string listKey = ModelListKey(*this, rd.feature);
    ModelField& lotModels = LotModelField(*lot);
    if (!lotModels.models.Item(listKey)) lotModels.models.Add(clone(), listKey);

    p.chk = 12;
    SetStatusText("..Update Fit Results");
    res.resids = ResidTable(dependent_, y, model);
    WriteBack wb{rd, kFieldMissingTol, &model};
    WalkField(*fld, [&](cField*, cSite& s) { wb.site(s); });
    return res;
}

}  // namespace zorv
