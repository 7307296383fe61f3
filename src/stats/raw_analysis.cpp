#include "stats/raw_analysis.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

#include "base/marks.h"
#include "base/report.h"
#include "stats/cull.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace {

constexpr int kFeatures = 8;  // V, H, Z, Slope, Pitch, A, B, C

bool InSelection(const cWafer& w, const std::string& key) { return key.empty() || w.KeyName == key; }

// Site positions are floats in micrometres: a tenth of a micrometre tells
// two positions apart and keeps rounding noise of one position together.
using PosKey = std::pair<long long, long long>;
PosKey KeyOf(double xUm, double yUm) { return {std::llround(xUm * 10), std::llround(yUm * 10)}; }

void ClearSite(cSite& s) {
    s.Color = 0;
    s.setCull(false);
    for (cPoint* p : s.Points()) {
        p->pColor = 0;
        p->setCull(false);
    }
}

double Mm(double um) { return um / 1000.0; }

// Feature value of a point as a table cell: display units, blank when missing.
Value Cell(const cPoint& p, int feature, int dataType) {
    double v;
    return RawPointValue(p, feature, dataType, v) ? Value(v / 1000.0) : Value();
}

}  // namespace

void MakeRawLot(cLot& lot) {
    for (cWafer* w : lot.Wafers()) {
        for (cField* f : w->Fields()) {
            f->Color = 0;
            f->setCull(false);
            for (cSite* s : f->sites()) ClearSite(*s);
        }
        if (lot.PlotWaferSites)
            for (cSite* s : w->SitesWafer()) ClearSite(*s);
    }
    CopyRawToFit(lot);
    lot.SetModified();
}

long CopyRawToFit(cLot& lot) {
    long n = 0;
    auto copy = [&](cPoint& p) {
        ++n;
        p.ValueV_fit = p.ValueV;
        p.ValueH_fit = p.ValueH;
        for (int k = 4; k <= kFeatures; ++k) *p.FeatureSlot(k, eFitted) = *p.FeatureSlot(k, eRaw);
        if (lot.LineWidthType) {
            p.ValueZ_fit = p.ValueZ;
            return;
        }
        const bool both = !IsMissing(p.ValueV) && !IsMissing(p.ValueH);
        p.ValueZ_fit = both ? p.ValueH_fit - p.ValueV_fit : kMissingValue;
        if (p.ValueZ == 0 && both) p.ValueZ = (p.ValueV + p.ValueH) / 2;
    };
    for (cWafer* w : lot.Wafers()) {
        for (cField* f : w->Fields())
            for (cSite* s : f->sites())
                for (cPoint* p : s->Points()) copy(*p);
        // Wafer sites that stand in no field.
        if (lot.PlotWaferSites)
            for (cSite* s : w->SitesWafer())
                if (!s->parent())
                    for (cPoint* p : s->Points()) copy(*p);
    }
    return n;
}

bool RawPointValue(const cPoint& p, int feature, int dataType, double& value) {
    if (feature == ePlotFeatureVector) {
        const float* v = p.FeatureSlot(ePlotFeatureV, dataType);
        const float* h = p.FeatureSlot(ePlotFeatureH, dataType);
        if (!v || !h || IsMissing(*v) || IsMissing(*h)) return false;
        value = std::hypot(double(*v), double(*h));
        return true;
    }
    const float* s = p.FeatureSlot(feature, dataType);
    if (!s || IsMissing(*s)) return false;
    value = *s;
    return true;
}

std::vector<MeanSite> MeanFieldSites(const cLot& lot, const std::string& waferKey, int dataType) {
    struct Acc {
        double x = 0, y = 0;
        long count = 0;
        double sum[10] = {};
        long n[10] = {};
    };
    std::map<PosKey, Acc> acc;
    lot.forEachLive([&](cWafer& w, cField&, cSite& s, cPoint& p) {
        if (!InSelection(w, waferKey)) return;
        Acc& a = acc[KeyOf(s.LocationX, s.LocationY)];
        a.x = s.LocationX;
        a.y = s.LocationY;
        ++a.count;
        for (int k = 1; k <= kFeatures; ++k) {
            const float v = *p.FeatureSlot(k, dataType);
            if (IsMissing(v)) continue;
            a.sum[k] += v;
            ++a.n[k];
        }
    });
    std::vector<MeanSite> out;
    out.reserve(acc.size());
    for (const auto& [key, a] : acc) {
        MeanSite m;
        m.xUm = a.x;
        m.yUm = a.y;
        m.count = a.count;
        for (int k = 0; k < 10; ++k) m.mean[k] = a.n[k] > 0 ? a.sum[k] / double(a.n[k]) : double(kMissingValue);
        out.push_back(m);
    }
    return out;
}

namespace {
// Each live point of the selection with the mean field at its site's
// position; answers how many points had one.
template <class F>
long WithMeanField(cLot& lot, const std::string& waferKey, F&& f) {
    std::map<PosKey, MeanSite> byPos;
    for (const MeanSite& m : MeanFieldSites(lot, waferKey, eFitted)) byPos[KeyOf(m.xUm, m.yUm)] = m;
    long n = 0;
    lot.forEachLive([&](cWafer& w, cField&, cSite& s, cPoint& p) {
        if (!InSelection(w, waferKey)) return;
        const auto it = byPos.find(KeyOf(s.LocationX, s.LocationY));
        if (it == byPos.end()) return;
        ++n;
        f(p, it->second);
    });
    return n;
}
}  // namespace

long RemoveMeanField(cLot& lot, const std::string& waferKey) {
    return WithMeanField(lot, waferKey, [](cPoint& p, const MeanSite& m) {
        for (int k = 1; k <= kFeatures; ++k) {
            float* v = p.FeatureSlot(k, eFitted);
            if (IsMissing(*v) || m.mean[k] == double(kMissingValue)) continue;
            *v = static_cast<float>(*v - m.mean[k]);
        }
    });
}

long MeanFieldResiduals(cLot& lot, const std::string& waferKey) {
    return WithMeanField(lot, waferKey, [](cPoint& p, const MeanSite& m) {
        for (int k = 1; k <= kFeatures; ++k) {
            const float v = *p.FeatureSlot(k, eFitted);
            const double mean = m.mean[k];
            *p.FeatureSlot(k, eResidual) =
                IsMissing(v) || mean == double(kMissingValue) ? kMissingValue : static_cast<float>(v - mean);
        }
    });
}

long RemoveValue(cLot& lot, double value, int feature) {
    const float d = static_cast<float>(value * 1000.0);
    long n = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) {
        bool changed = false;
        for (int k : {ePlotFeatureV, ePlotFeatureH}) {
            if (feature != ePlotFeatureVector && feature != k) continue;
            float* v = p.FeatureSlot(k, eFitted);
            if (!IsMissing(*v)) *v -= d, changed = true;
        }
        if (feature > ePlotFeatureH) {
            float* v = p.FeatureSlot(feature, eFitted);
            if (v && !IsMissing(*v)) *v -= d, changed = true;
        }
        n += changed;
    });
    return n;
}

void ApplyRawComponents(cLot& lot, const RawComponents& c, int feature, const std::string& waferKey) {
    CopyRawToFit(lot);
    if (c.removeMeanField) RemoveMeanField(lot, waferKey);
    if (c.removeValue && c.value != 0) RemoveValue(lot, c.value, feature);
    lot.SetModified();
}

RawStats RawFeatureStats(const cLot& lot, const std::string& waferKey, int feature, int dataType) {
    RawStats r;
    double mean = 0, m2 = 0;
    lot.forEachLive([&](cWafer& w, cField&, cSite&, cPoint& p) {
        double v;
        if (!InSelection(w, waferKey) || !RawPointValue(p, feature, dataType, v)) return;
        v /= 1000.0;
        ++r.points;
        const double d = v - mean;
        mean += d / double(r.points);
        m2 += d * (v - mean);
        if (r.points == 1 || v < r.min) r.min = v;
        if (r.points == 1 || v > r.max) r.max = v;
    });
    r.mean = mean;
    r.sigma = r.points > 1 ? std::sqrt(m2 / double(r.points - 1)) : 0;
    return r;
}

std::vector<std::pair<int, std::string>> RawFeatureList(const cLot& lot) {
    std::vector<std::pair<int, std::string>> out;
    const Datam t = lot.GetFeatureTypes();
    if (!t.isArray()) return out;
    for (int r = 1; r <= t.rowUb(); ++r) {
        const int k = static_cast<int>(t(r, 0).toDouble());
        if (k < 0 || k > kFeatures) continue;
        out.emplace_back(k, k == 0 ? std::string("Vector") : t(r, 2).toString());
    }
    return out;
}

namespace {

// Features 1..8 that hold a name on this lot (a vector lot: V, H, Z).
std::vector<int> NamedFeatures(const cLot& lot) {
    std::vector<int> out;
    for (int k = 1; k <= kFeatures; ++k) {
        if (!lot.LineWidthType && k > 3) break;
        if (k > 3 && lot.GetPlotFeatureName(k).empty()) continue;
        out.push_back(k);
    }
    return out;
}

std::string FeatureHeader(const cLot& lot, int k) {
    std::string n = lot.GetPlotFeatureName(k);
    if (n.empty()) n = "Feature" + std::to_string(k);
    return n;
}

}  // namespace

Datam WaferRawTable(const cLot& lot, const std::string& waferKey, int dataType) {
    const std::vector<int> feats = NamedFeatures(lot);
    long n = 0;
    lot.forEachLive([&](cWafer& w, cField&, cSite&, cPoint&) { n += InSelection(w, waferKey); });
    const int cols = 5 + static_cast<int>(feats.size());
    Datam t(static_cast<int>(n), cols, 0, 1);
    const char* head[5] = {"Wafer", "Field", "Site", "X (mm)", "Y (mm)"};
    for (int c = 0; c < 5; ++c) t(0, c + 1) = Value(head[c]);
    for (size_t i = 0; i < feats.size(); ++i) t(0, 6 + static_cast<int>(i)) = Value(FeatureHeader(lot, feats[i]));
    int r = 0;
    lot.forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& p) {
        if (!InSelection(w, waferKey)) return;
        ++r;
        t(r, 1) = Value(w.KeyName);
        t(r, 2) = Value(f.NumberKey);
        t(r, 3) = Value(int32_t(s.NumberKey()));
        t(r, 4) = Value(Mm(s.LocationXabs));
        t(r, 5) = Value(Mm(s.LocationYabs));
        for (size_t i = 0; i < feats.size(); ++i) t(r, 6 + static_cast<int>(i)) = Cell(p, feats[i], dataType);
    });
    return t;
}

Datam FieldRawTable(const cLot& lot, const std::string& waferKey, int dataType) {
    const std::vector<int> feats = NamedFeatures(lot);
    const std::vector<MeanSite> sites = MeanFieldSites(lot, waferKey, dataType);
    Datam t(static_cast<int>(sites.size()), 3 + static_cast<int>(feats.size()), 0, 1);
    t(0, 1) = Value("Xfield (mm)");
    t(0, 2) = Value("Yfield (mm)");
    t(0, 3) = Value("Count");
    for (size_t i = 0; i < feats.size(); ++i) t(0, 4 + static_cast<int>(i)) = Value(FeatureHeader(lot, feats[i]));
    int r = 0;
    for (const MeanSite& m : sites) {
        ++r;
        t(r, 1) = Value(Mm(m.xUm));
        t(r, 2) = Value(Mm(m.yUm));
        t(r, 3) = Value(int32_t(m.count));
        for (size_t i = 0; i < feats.size(); ++i) {
            const double v = m.mean[feats[i]];
            t(r, 4 + static_cast<int>(i)) = v == double(kMissingValue) ? Value() : Value(v / 1000.0);
        }
    }
    return t;
}

Datam MeanSurfaceTable(const cLot& lot, const std::string& waferKey, int feature, int dataType) {
    const std::vector<MeanSite> sites = MeanFieldSites(lot, waferKey, dataType);
    std::map<long long, double> xs, ys;
    for (const MeanSite& m : sites) {
        xs[std::llround(m.xUm * 10)] = m.xUm;
        ys[std::llround(m.yUm * 10)] = m.yUm;
    }
    Datam t(static_cast<int>(ys.size()), static_cast<int>(xs.size()), 0, 0);
    std::map<long long, int> col, row;
    int c = 0;
    for (const auto& [k, x] : xs) {
        col[k] = ++c;
        t(0, c) = Value(Mm(x));
    }
    // Y from the top down, as the field is seen.
    int r = static_cast<int>(ys.size()) + 1;
    for (const auto& [k, y] : ys) {
        row[k] = --r;
        t(r, 0) = Value(Mm(y));
    }
    for (const MeanSite& m : sites) {
        double v = kMissingValue;
        if (feature == ePlotFeatureVector) {
            if (m.mean[1] != double(kMissingValue) && m.mean[2] != double(kMissingValue))
                v = std::hypot(m.mean[1], m.mean[2]);
        } else if (feature >= 1 && feature <= kFeatures) {
            v = m.mean[feature];
        }
        if (v != double(kMissingValue))
            t(row[std::llround(m.yUm * 10)], col[std::llround(m.xUm * 10)]) = Value(v / 1000.0);
    }
    return t;
}

Datam XYSeriesTable(const cLot& lot, const std::string& waferKey, int feature, int dataType,
                    const std::string& label) {
    struct Row {
        double x, y, v;
    };
    std::vector<Row> rows;
    std::map<long long, std::pair<double, long>> byX;
    lot.forEachLive([&](cWafer& w, cField&, cSite& s, cPoint& p) {
        double v;
        if (!InSelection(w, waferKey) || !RawPointValue(p, feature, dataType, v)) return;
        const Row r{Mm(s.LocationXabs), Mm(s.LocationYabs), v / 1000.0};
        rows.push_back(r);
        auto& m = byX[std::llround(r.x * 10)];
        m.first += r.v;
        ++m.second;
    });
    const int n = static_cast<int>(std::max(rows.size(), byX.size()));
    Datam t(n, 6, 0, 1);
    std::string h;
    h.append("Horizontal postion(mm) on ").append(label);
    t(0, 1) = Value(h);
    t(0, 2) = Value("HorizSeries");
    h.clear();
    h.append("Vertical position(mm) on ").append(label);
    t(0, 3) = Value(h);
    t(0, 4) = Value("VertSeries");
    t(0, 5) = Value("Position (mm)");
    t(0, 6) = Value("MeanSeries");
    for (size_t i = 0; i < rows.size(); ++i) {
        const int r = static_cast<int>(i) + 1;
        t(r, 1) = Value(rows[i].x);
        t(r, 2) = Value(rows[i].v);
        t(r, 3) = Value(rows[i].y);
        t(r, 4) = Value(rows[i].v);
    }
    int r = 0;
    for (const auto& [k, m] : byX) {
        ++r;
        t(r, 5) = Value(double(k) / 10.0);
        t(r, 6) = Value(m.first / double(m.second));
    }
    return t;
}

std::shared_ptr<cLot> MeanFieldLot(const cLot& lot, const std::string& waferKey, int dataType) {
    const std::vector<MeanSite> sites = MeanFieldSites(lot, waferKey, dataType);
    if (sites.empty()) return nullptr;
    auto m = cLot::create();
    static_cast<cLotProperties&>(*m) = static_cast<const cLotProperties&>(lot);
    m->Container.reset();
    m->PlotGraph.reset();
    m->xlwb.reset();
    m->CurrentWaferKey.clear();
    m->CurrentFieldKey.clear();
    m->LotName = lot.LotName + " mean field";
    bool isNew = false;
    cWafer* w = m->AddWafer("1", isNew);
    if (!w) return nullptr;
    cField* f = w->AddField(0, 0, isNew, true);
    if (!f) return nullptr;
    int key = 0;
    for (const MeanSite& ms : sites) {
        Ref<cSite> s = cSite::New();
        s->setNumberKey(++key);
        s->LocationX = static_cast<float>(ms.xUm);
        s->LocationY = static_cast<float>(ms.yUm);
        s->setParent(f);
        s->setFamily(1);
        f->sites().Add(s, std::to_string(key));
        auto p = std::make_unique<cPoint>();
        for (int k = 1; k <= kFeatures; ++k) {
            const float v = static_cast<float>(ms.mean[k]);
            *p->FeatureSlot(k, eRaw) = v;
            *p->FeatureSlot(k, eFitted) = v;
        }
        f->AddPoint(s, std::move(p));
    }
    m->CalcWaferPositions();
    return m;
}

Status SaveRawAnalysisSheets(const cLot& lot, Workbook* workbook, const std::string& waferKey, int feature,
                             int dataType, int which) {
    if (!workbook) return StatusOk();
    const std::string label = waferKey.empty() ? std::string("All") : waferKey;
    std::string fname = feature == ePlotFeatureVector ? std::string("Vector") : lot.GetPlotFeatureName(feature);
    if (fname.empty()) fname = "Feature" + std::to_string(feature);
    auto save = [&](const Datam& t, const std::string& sheet, const std::string& title) -> Status {
        SaveArrayOptions o;
        o.title = title;
        o.save = false;
        if (Status s = SaveArray(t, sheet, workbook, o); !s) return s;
        return AddIndexItem(workbook, sheet, title, Value(), false);
    };
    std::string title;
    title.append("Raw wafer data for: ").append(lot.LotName);
    if (which & kRawWaferSheet)
        if (Status s = save(WaferRawTable(lot, waferKey, dataType), "WaferRawData", title); !s) return s;
    title.clear();
    title.append("Raw field data for: ").append(lot.LotName);
    if (which & kRawFieldSheet)
        if (Status s = save(FieldRawTable(lot, waferKey, dataType), "FieldRawData", title); !s) return s;
    title.clear();
    title.append("Field Mean Surface data ").append(fname);
    std::string sheet = "MeanSurface_";
    sheet.append(fname);
    if (sheet.size() > 31) sheet.resize(31);
    if (which & kRawMeanSurface)
        if (Status s = save(MeanSurfaceTable(lot, waferKey, feature, dataType), sheet, title); !s) return s;
    if (!(which & kRawXYSeries)) return StatusOk();
    const Datam xy = XYSeriesTable(lot, waferKey, feature, dataType, label);
    const struct {
        const char* name;
        int x, y;
    } series[] = {{"VertSeries", 3, 4}, {"HorizSeries", 1, 2}, {"MeanSeries", 5, 6}};
    for (const auto& sr : series) {
        int n = 0;
        for (int r = 1; r <= xy.rowUb(); ++r) n += !xy(r, sr.x).isEmpty();
        Datam t(n, 2, 0, 1);
        t(0, 1) = xy(0, sr.x);
        t(0, 2) = Value(fname);
        for (int r = 1; r <= n; ++r) {
            t(r, 1) = xy(r, sr.x);
            t(r, 2) = xy(r, sr.y);
        }
        title.clear();
        title.append(sr.name).append(" of ").append(fname).append(" on ").append(label);
        if (Status s = save(t, sr.name, title); !s) return s;
    }
    return StatusOk();
}

Result<long> CullWaferRect(cLot& lot, double x1, double y1, double x2, double y2, bool restore,
                           const std::string& waferKey) {
    Datam rect = Datam::vec(4);
    rect(1, 1) = Value(x1);
    rect(2, 1) = Value(y1);
    rect(3, 1) = Value(x2);
    rect(4, 1) = Value(y2);
    // CullData walks the live wafers: the others sit out while it runs.
    std::vector<cWafer*> parked;
    if (!waferKey.empty())
        for (cWafer* w : lot.Wafers())
            if (!w->cull() && w->KeyName != waferKey) {
                w->setCull(true);
                parked.push_back(w);
            }
    std::vector<CullChange> changed;
    const Status st = CullData(lot, rect, restore, &changed);
    for (cWafer* w : parked) w->setCull(false);
    if (!st) return st.failure();
    return static_cast<long>(changed.size());
}

Result<long> CullFieldRect(cLot& lot, double x1, double y1, double x2, double y2, bool restore,
                           const std::string& waferKey) {
    const double xl = std::min(x1, x2) * 1000.0, xh = std::max(x1, x2) * 1000.0;
    const double yl = std::min(y1, y2) * 1000.0, yh = std::max(y1, y2) * 1000.0;
    long n = 0;
    for (cWafer* w : lot.Wafers()) {
        if (w->cull() || !InSelection(*w, waferKey)) continue;
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            for (cSite* s : f->sites()) {
                if (s->cull() == !restore) continue;
                const double x = double(s->LocationX) + lot.SiteXoffset;
                const double y = double(s->LocationY) + lot.SiteYoffset;
                if (x < xl || x > xh || y < yl || y > yh) continue;
                s->setCull(!restore);
                ++n;
            }
        }
    }
    return n;
}

long CullWaferSites(cLot& lot, const std::string& waferKey) {
    long n = 0;
    for (cWafer* w : lot.Wafers()) {
        if (w->cull() || w->KeyName != waferKey) continue;
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            for (cSite* s : f->sites())
                if (!s->cull()) {
                    s->setCull(true);
                    ++n;
                }
        }
    }
    return n;
}

}  // namespace zorv
