// Culling: resets, the geometric and list culls, the value culls and the culls
// of a process window setup or a workbench selection. CullRangeSigma lives in
// cull_range_sigma.cpp.
//
// Counters: every flag goes through setCull, which keeps TotalPointsCount and
// TotalSitesCount of the levels above. A culled level hides what is below it,
// so the culls here only touch what is still visible; the resets, which may
// restore points under a site that stays culled, rebuild the counters once at
// the end instead.
#include "stats/cull.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/marks.h"
#include "base/report.h"
#include "base/text.h"
#include "base/value.h"

namespace zorv {

namespace {

// A number as the status line writes it (CStr form).
std::string num(double v) { return NumberToText(v); }

// Milli-units rounded to the nearest whole (ties to even): two values that
// agree to 3 decimals get the same key.
double milli(double v) { return std::nearbyint(v * 1000.0); }

bool wholeNumber(double v, long& out) {
    if (!std::isfinite(v) || v != std::floor(v) || std::fabs(v) > 2147483647.0) return false;
    out = static_cast<long>(v);
    return true;
}

bool isAllWord(std::string_view s) { return IEquals(Trim(s), "ALL"); }

// A wafer as a user names it: KeyName or WaferID, case-blind; a plain number
// also as the "W" key that numeric wafer names are stored under.
bool waferMatches(const cWafer& w, std::string_view name) {
    if (IEquals(w.KeyName, name) || IEquals(w.WaferID, name)) return true;
    return !name.empty() && w.KeyName.size() == name.size() + 1 && UpChar(w.KeyName[0]) == 'W' &&
           IEquals(std::string_view(w.KeyName).substr(1), name);
}

// A field as a user names it: NumberKey, or its Number.
bool fieldMatches(const cField& f, std::string_view name) {
    if (IEquals(f.NumberKey, name)) return true;
    double n = 0;
    return ParseNumber(name, n) && n == f.Number;
}

// The cell a list routine reads in row r: column `col` of a table, element r
// of a one-dimensional array; empty when out of range.
const Value& cellOf(const Datam& t, int r, int col) {
    static const Value empty;
    if (t.dims() == 1) return col == 0 && t.inRange(r) ? t.at(r) : empty;
    return t.get(r, col);
}

// First list column: 1, or the lower bound when column 1 is not there.
int firstColumn(const Datam& t) {
    if (t.dims() != 2) return 0;
    return t.colLb() <= 1 && t.colUb() >= 1 ? 1 : t.colLb();
}

// One row of a site list: the site key, and the wafer and field parts when
// the row gave them (empty: any).
struct SiteRequest {
    std::string wafer, field;
    long site = 0;
};

bool parseSiteKeyText(std::string_view text, long& key) {
    double n = 0;
    return ParseNumber(text, n) && wholeNumber(n, key);
}

// "w.f.s" or "w,f,s" (also "w.s"), a number, numeric text, or a name whose
// text from its fourth character is the site key ("Sit12").
bool parseSiteCell(const Value& v, SiteRequest& out) {
    if (v.isString()) {
        const std::string t = Trim(v.str());
        if (t.find_first_of(".,") != std::string::npos) {
            std::vector<std::string> parts(1);
            for (char c : t) {
                if (c == '.' || c == ',') parts.emplace_back();
                else parts.back() += c;
            }
            for (auto& p : parts) p = Trim(p);
            if (parts.size() == 3) {
                out.wafer = parts[0];
                out.field = parts[1];
            } else if (parts.size() == 2) {
                out.wafer = parts[0];
            } else {
                return false;
            }
            return parseSiteKeyText(parts.back(), out.site);
        }
        if (parseSiteKeyText(t, out.site)) return true;
        return t.size() > 3 && parseSiteKeyText(std::string_view(t).substr(3), out.site);
    }
    if (v.isBool() || !v.isNumberType()) return false;
    return wholeNumber(v.toDouble(), out.site);
}

// Site key -> rows of the list that name it, so that one walk over the lot
// serves the whole list.
using RequestIndex = std::unordered_map<long, std::vector<size_t>>;

}  // namespace

// ---------------------------------------------------------------- resets

long ResetCulls(cLot& lot, CullLevels levels) {
    long changed = 0;
    auto restore = [&changed](auto& obj) {
        if (obj.cull()) {
            obj.setCull(false);
            ++changed;
        }
    };
    auto restoreSite = [&](cSite& s) {
        if (levels.sites) restore(s);
        if (levels.points)
            for (cPoint* p : s.Points()) restore(*p);
    };
    for (cWafer* w : lot.Wafers()) {
        if (levels.wafers) restore(*w);
        for (cField* f : w->Fields()) {
            if (levels.fields) restore(*f);
            for (cSite* s : f->sites()) restoreSite(*s);
        }
        // Normally the same sites again; a site only the wafer view holds is reset too.
        for (cSite* s : w->SitesWafer()) restoreSite(*s);
    }
    // A point restored under a site that stays culled would have moved the
    // field's counter: rebuild once rather than trust the steps.
    if (changed > 0 && (levels.sites || levels.points)) lot.Recount();
    return changed;
}

void CullFieldRestore(cField& field) {
    field.setCull(false);
    // Site before its points, so that each step of the counters is right.
    for (cSite* s : field.sites()) {
        s->setCull(false);
        for (cPoint* p : s->Points()) p->setCull(false);
    }
}

// ---------------------------------------------------------------- geometric and list culls

Status CullData(cLot& lot, const Datam& rect, bool restore, std::vector<CullChange>* changed) {
    Proc p("cLot(CullData): ");
    p.chk = 1;
    if (!rect.isArray() || rect.dims() != 2 || rect.rowUb() != 4 || rect.colUb() != 1 || rect.rowLb() > 1 ||
        rect.colLb() > 1)
        return p.fail("Input 'dRect' must be a (4,1) array rectangle.");
    p.chk = 2;
    const double x1 = rect.get(1, 1).toDouble(), y1 = rect.get(2, 1).toDouble();
    const double x2 = rect.get(3, 1).toDouble(), y2 = rect.get(4, 1).toDouble();
    std::string text = restore ? " Restore culled data: (" : " Cull data: (";
    text += num(x1);
    text += ',';
    text += num(y1);
    text += ") to (";
    text += num(x2);
    text += ',';
    text += num(y2);
    text += ')';
    SetStatusText(text);
    // Absolute site locations are micrometres from the wafer centre; the rectangle is in mm.
    const double xl = std::min(x1, x2) * 1000.0, xh = std::max(x1, x2) * 1000.0;
    const double yl = std::min(y1, y2) * 1000.0, yh = std::max(y1, y2) * 1000.0;
    p.chk = 3;
    for (cWafer* w : lot.Wafers()) {
        if (w->cull()) continue;
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            for (cSite* s : f->sites()) {
                if (s->cull() == !restore) continue;
                const double x = s->LocationXabs, y = s->LocationYabs;
                if (x < xl || x > xh || y < yl || y > yh) continue;
                s->setCull(!restore);
                if (changed) changed->push_back(CullChange{w->KeyName, f->NumberKey, s->NumberKey()});
            }
        }
    }
    return StatusOk();
}

Result<long> CullSites(cLot& lot, const Datam& sites) {
    if (!sites.isArray()) return 0L;
    const int col = firstColumn(sites);
    std::vector<SiteRequest> rows;
    RequestIndex index;
    for (int r = std::max(1, sites.lb(1)); r <= sites.ub(1); ++r) {
        SiteRequest q;
        if (!parseSiteCell(cellOf(sites, r, col), q)) continue;
        index[q.site].push_back(rows.size());
        rows.push_back(std::move(q));
    }
    if (rows.empty()) return 0L;
    long n = 0;
    lot.forEachLiveSite([&](cWafer& w, cField& f, cSite& s) {
        const auto it = index.find(s.NumberKey());
        if (it == index.end()) return;
        for (size_t i : it->second) {
            const SiteRequest& q = rows[i];
            if (!q.wafer.empty() && !waferMatches(w, q.wafer)) continue;
            if (!q.field.empty() && !fieldMatches(f, q.field)) continue;
            s.setCull(true);
            ++n;
            break;
        }
    });
    return n;
}

Result<long> CullPoints(cLot& lot, const Datam& points, bool restore) {
    if (!points.isArray() || points.dims() != 2) return 0L;
    const int c = firstColumn(points);
    struct PointRequest {
        std::string wafer;
        Value point;  // empty: every point of the site
    };
    std::vector<PointRequest> rows;
    RequestIndex index;
    for (int r = std::max(1, points.rowLb()); r <= points.rowUb(); ++r) {
        long site = 0;
        const Value& sv = points.get(r, c + 1);
        if (sv.isString() ? !parseSiteKeyText(Trim(sv.str()), site)
                          : (!sv.isNumberType() || sv.isBool() || !wholeNumber(sv.toDouble(), site)))
            continue;
        const Value& wv = points.get(r, c);
        index[site].push_back(rows.size());
        rows.push_back(PointRequest{wv.isString() ? Trim(wv.str()) : wv.toString(), points.get(r, c + 2)});
    }
    if (rows.empty()) return 0L;
    long n = 0;
    auto apply = [&](cPoint* p) {
        if (!p || p->cull() != restore) return;
        p->setCull(!restore);
        ++n;
    };
    lot.forEachLiveSite([&](cWafer& w, cField&, cSite& s) {
        const auto it = index.find(s.NumberKey());
        if (it == index.end()) return;
        for (size_t i : it->second) {
            const PointRequest& q = rows[i];
            if (!q.wafer.empty() && !waferMatches(w, q.wafer)) continue;
            if (q.point.isEmpty()) {
                for (cPoint* p : s.Points()) apply(p);
            } else {
                apply(s.GetPoint(q.point));
            }
        }
    });
    return n;
}

long CullRadius(cWafer& wafer, double radiusUm, double centreXum, double centreYum) {
    if (!(radiusUm > 0)) return 0;
    const double r2 = radiusUm * radiusUm;
    long n = 0;
    for (cField* f : wafer.Fields()) {
        if (f->cull()) continue;
        for (cSite* s : f->sites()) {
            if (s->cull()) continue;
            const double dx = s->LocationXabs - centreXum, dy = s->LocationYabs - centreYum;
            if (dx * dx + dy * dy > r2) {
                s->setCull(true);
                ++n;
            }
        }
    }
    return n;
}

Result<long> CullRadius(cLot& lot, double radiusMm, double centreXmm, double centreYmm, std::string* message) {
    long total = 0;
    lot.forEachLiveSite([&total](cWafer&, cField&, cSite&) { ++total; });
    long n = 0;
    for (cWafer* w : lot.Wafers())
        if (!w->cull()) n += CullRadius(*w, radiusMm * 1000.0, centreXmm * 1000.0, centreYmm * 1000.0);
    if (message) *message = std::to_string(n) + " / " + std::to_string(total) + ".";
    return n;
}

long SiteCullsToPoints(cLot& lot) {
    long n = 0;
    for (cWafer* w : lot.Wafers()) {
        if (w->cull()) continue;
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            for (cSite* s : f->sites()) {
                if (!s->cull()) continue;
                for (cPoint* p : s->Points())
                    if (!p->cull()) {
                        p->setCull(true);
                        ++n;
                    }
                s->setCull(false);
            }
        }
    }
    return n;
}

long CullPointsInWaferRect(cLot& lot, double x1, double y1, double x2, double y2, bool restore,
                           const std::string& waferKey) {
    const double xl = std::min(x1, x2) * 1000.0, xh = std::max(x1, x2) * 1000.0;
    const double yl = std::min(y1, y2) * 1000.0, yh = std::max(y1, y2) * 1000.0;
    long n = 0;
    for (cWafer* w : lot.Wafers()) {
        if (w->cull() || (!waferKey.empty() && w->KeyName != waferKey)) continue;
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            for (cSite* s : f->sites()) {
                if (s->cull()) continue;
                const double x = s->LocationXabs, y = s->LocationYabs;
                if (x < xl || x > xh || y < yl || y > yh) continue;
                for (cPoint* p : s->Points())
                    if (p->cull() == restore) {
                        p->setCull(!restore);
                        ++n;
                    }
            }
        }
    }
    return n;
}

// ---------------------------------------------------------------- value culls

Result<long> CullVariable(cLot& lot, std::string_view name, double max, double min) {
    const std::string nm = Trim(name);
    if (nm.empty() || IEquals(nm, "NONE")) return 0L;
    const int feature = lot.GetPlotFeature(nm);
    if (feature < ePlotFeatureV || feature > ePlotFeatureC) return 0L;
    const double hi = max * 1000.0, lo = min * 1000.0;
    const int dataType = lot.PLotDataType;
    long n = 0;
    auto judge = [&](cPoint& p) {
        const float v = *p.FeatureSlot(feature, dataType);
        if (v > hi || v < lo) {
            p.setCull(true);
            ++n;
        }
    };
    if (lot.PlotWaferSites) {
        // Wafer-site data: the wafer view is the site list that counts.
        for (cWafer* w : lot.Wafers()) {
            if (w->cull()) continue;
            for (cSite* s : w->SitesWafer()) {
                if (s->cull() || (s->parent() && s->parent()->cull())) continue;
                for (cPoint* p : s->Points())
                    if (!p->cull()) judge(*p);
            }
        }
    } else {
        lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) { judge(p); });
    }
    return n;
}

Result<long> CullFeature(cLot& lot, long family, Datam* table) {
    struct Culled {
        long wafer, field, site;
    };
    std::vector<Culled> culled;
    lot.forEachLiveSite([&](cWafer& w, cField& f, cSite& s) {
        if (s.Family() == family) return;
        s.setCull(true);
        culled.push_back(Culled{w.Number(), f.Number, s.NumberKey()});
    });
    if (table) {
        *table = Datam(static_cast<int>(culled.size()), 3, 0, 0);
        (*table)(0, 1) = Value("WaferNumber");
        (*table)(0, 2) = Value("FieldNumber");
        (*table)(0, 3) = Value("SiteNumberKey");
        int r = 0;
        for (const Culled& c : culled) {
            ++r;
            (*table)(r, 1) = Value(static_cast<int32_t>(c.wafer));
            (*table)(r, 2) = Value(static_cast<int32_t>(c.field));
            (*table)(r, 3) = Value(static_cast<int32_t>(c.site));
        }
    }
    return static_cast<long>(culled.size());
}

long RestoreSites(cLot& lot, const Datam& table) {
    if (!table.isArray() || table.dims() != 2 || table.colUb() < 3) return 0;
    // Wafer and field numbers to their objects once, then each row.
    std::unordered_map<long long, cField*> fields;
    for (cWafer* w : lot.Wafers())
        for (cField* f : w->Fields()) fields[(static_cast<long long>(w->Number()) << 32) | uint32_t(f->Number)] = f;
    long restored = 0;
    for (int r = 1; r <= table.rowUb(); ++r) {
        const long long key = (static_cast<long long>(table(r, 1).toLong()) << 32) | uint32_t(table(r, 2).toLong());
        auto it = fields.find(key);
        if (it == fields.end()) continue;
        const long site = table(r, 3).toLong();
        for (cSite* s : it->second->sites())
            if (s->NumberKey() == site && s->cull()) {
                s->setCull(false);
                ++restored;
            }
    }
    return restored;
}

Result<long> CullAstigmatism(cLot& lot, double range, std::vector<int32_t>* serials) {
    const double limit = range * 1000.0;
    if (!(limit > 0)) return 0L;
    SetStatusText("Astigmatic culling range: " + num(range));
    // Astigmatism is H - V; points lacking either value take no part.
    auto astig = [](const cPoint& p, double& a) {
        if (IsMissingTol(p.ValueH) || IsMissingTol(p.ValueV)) return false;
        a = double(p.ValueH) - double(p.ValueV);
        return true;
    };
    double sum = 0;
    long count = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) {
        double a = 0;
        if (astig(p, a)) {
            sum += a;
            ++count;
        }
    });
    long n = 0;
    if (count > 0) {
        const double mean = sum / count;
        lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) {
            double a = 0;
            if (astig(p, a) && std::fabs(a - mean) > limit) {
                p.setCull(true);
                if (serials) serials->push_back(p.SerialNumber);
                ++n;
            }
        });
    }
    SetStatusText("Astimatic points culled = " + std::to_string(n));
    return n;
}

// ---------------------------------------------------------------- culls of a setup

Result<int> UpdatePWLotCulls(cLot& lot, const CullSetup& setup, long* dataCulled) {
    CullLevels levels;
    levels.points = false;
    ResetCulls(lot, levels);

    auto keys = [](const std::vector<double>& list) {
        std::vector<double> k;
        k.reserve(list.size());
        for (double v : list) k.push_back(milli(v));
        std::sort(k.begin(), k.end());
        return k;
    };
    const std::vector<double> focusKeys = keys(setup.focusList), doseKeys = keys(setup.doseList);
    const bool focusList = !setup.allFocus && !focusKeys.empty();
    const bool doseList = !setup.allDose && !doseKeys.empty();
    const double fMin = milli(setup.focusMin), fMax = milli(setup.focusMax);
    const double dMin = milli(setup.doseMin), dMax = milli(setup.doseMax);
    for (cWafer* w : lot.Wafers()) {
        for (cField* f : w->Fields()) {
            const double focus = milli(f->Focus), dose = milli(f->Dose);
            const bool out = focus < fMin || focus > fMax || dose < dMin || dose > dMax ||
                             (focusList && !std::binary_search(focusKeys.begin(), focusKeys.end(), focus)) ||
                             (doseList && !std::binary_search(doseKeys.begin(), doseKeys.end(), dose));
            if (out) f->setCull(true);
        }
    }

    if (setup.sites.isArray()) {
        auto r = CullSites(lot, setup.sites);
        if (!r) return r.failure();
    }
    const std::string variable = Trim(setup.dataCullVariable);
    if (!variable.empty() && !IEquals(variable, "NONE")) {
        auto r = CullVariable(lot, variable, setup.dataMax, setup.dataMin);
        if (!r) return r.failure();
        SetStatusText("Cull: " + variable + " Points removed: " + std::to_string(*r));
        if (dataCulled) *dataCulled = *r;
    }
    return 1;
}

Result<LotCullStatus> UpdateLotCulls(cLot& lot, const LotCullSetup& setup) {
    auto pw = UpdatePWLotCulls(lot, setup.pw);
    if (!pw) return pw.failure();

    const bool allWafers =
        setup.wafers.empty() || std::any_of(setup.wafers.begin(), setup.wafers.end(), isAllWord);
    const bool allExposures = setup.exposures.empty();
    const bool allScans = setup.scans.empty();
    auto listed = [](const std::vector<long>& list, long v) {
        return std::find(list.begin(), list.end(), v) != list.end();
    };
    for (cWafer* w : lot.Wafers()) {
        if (!allWafers && std::none_of(setup.wafers.begin(), setup.wafers.end(),
                                       [w](const std::string& k) { return waferMatches(*w, Trim(k)); })) {
            w->setCull(true);
            continue;
        }
        if (allExposures && allScans) continue;
        for (cField* f : w->Fields()) {
            if ((!allExposures && !listed(setup.exposures, f->Number)) ||
                (!allScans && !listed(setup.scans, f->Direction)))
                f->setCull(true);
        }
    }

    LotCullStatus st;
    st.wafer = "Waf:";
    if (allWafers) {
        st.wafer += "All";
    } else {
        for (size_t i = 0; i < setup.wafers.size(); ++i) {
            if (i) st.wafer += ',';
            st.wafer += Trim(setup.wafers[i]);
        }
    }
    st.dose = "Exp:";
    if (allExposures) {
        st.dose += "All";
    } else {
        for (size_t i = 0; i < setup.exposures.size(); ++i) {
            if (i) st.dose += ',';
            st.dose += std::to_string(setup.exposures[i]);
        }
    }
    st.scan = "NA:";
    st.scan += num(setup.na);
    st.scan += " PCi:";
    st.scan += num(setup.pcInner);
    st.scan += " PCo:";
    st.scan += num(setup.pcOuter);
    // TotalPoints shows a box for a lot without wafers; such a lot has none left.
    st.pointsLeft = lot.TotalWafers() > 0 ? lot.TotalPoints() : 0;
    return st;
}

}  // namespace zorv
