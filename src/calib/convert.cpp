// cLot.ConvertLot and the analysis workbench's conversion: image shift to
// focus by the template's polynomials; the astigmatism tools and the export
// table of a converted lot.
#include "calib/convert.h"
#include "calib_numbers.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include "base/format.h"
#include "base/identity.h"
#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "lot/lot.h"
#include "numerics/matrix.h"
#include "stats/cull.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace {

std::string Single(float v) { return NumberToText(v, 7); }

// The four exposure values as singles, the defeated ones left out of the key.
struct ExpoKey {
    float v[4];
    bool operator==(const ExpoKey& o) const {
        return v[0] == o.v[0] && v[1] == o.v[1] && v[2] == o.v[2] && v[3] == o.v[3];
    }
};
struct ExpoKeyHash {
    size_t operator()(const ExpoKey& k) const {
        size_t h = 0;
        for (float f : k.v) h = h * 1000003u ^ std::hash<float>()(f);
        return h;
    }
};

// The template sites that can serve fields of one exposure: in template
// order, with the first of each number.
struct Candidates {
    std::vector<const cSiteCal*> sites;
    std::unordered_map<long, const cSiteCal*> byNumber;
};

std::string ExpoText(float d, float a, float i, float o, const char* sep) {
    std::string s = "[";
    s.append(Single(d));
    return s.append(sep).append(Single(a)).append(sep).append(Single(i)).append(sep).append(Single(o)).append("]");
}

}  // namespace

Result<std::shared_ptr<cLot>> ConvertLot(const cLot& source, cTemplateLibrary& library, const ConvertOptions& o) {
    Proc p("cLot(ConvertLot): ");
    const float sign = source.FocusReportCorrections ? -1.0f : 1.0f;
    p.chk = 1;
    auto lotPtr = const_cast<cLot&>(source).clone(true, false, o.lotName.empty() ? "Focus of " + source.LotName : o.lotName);
    if (!lotPtr) return p.fail("The lot could not be copied.");
    cLot& lot = *lotPtr;
    if (lot.ExposureToolType == 0)
        lot.ValueV_Name = "Slit", lot.ValueH_Name = "Scan";
    else
        lot.ValueV_Name = "Row(X)", lot.ValueH_Name = "Col(Y)";

    p.chk = 2;
    std::shared_ptr<cTemplate> tpl = library.GetTemplate(o.templateName);
    if (!tpl) {
        std::string m = "PSFM Focus Calibration Template '" + o.templateName + "' could not be located in the library.";
        return p.fail(m.append("\r\nPlease insure that you specified the correct PSFM template."));
    }

    SetStatusText("Check calibration parameters and template ...");
    const bool defeat[4] = {o.noDose, o.noNA, o.noPCi, o.noPCo};
    auto keyOf = [&](float d, float a, float i, float out) {
        ExpoKey k{{d, a, i, out}};
        for (int c = 0; c < 4; ++c)
            if (defeat[c]) k.v[c] = 0;
        return k;
    };
    auto siteKey = [&](const cSiteCal& s) { return keyOf(s.Dose, s.NA, s.PCinner, s.PCouter); };
    long nExpo = 0;
    Datam focusValues;
    const Datam ex = lot.GetUniqueExposures(nExpo, focusValues);
    bool anyMatch = false;
    for (int r = 1; r <= nExpo && !anyMatch; ++r) {
        const ExpoKey k = keyOf(ex(r, 1).toSingle(), ex(r, 2).toSingle(), ex(r, 3).toSingle(), ex(r, 4).toSingle());
        for (const cSiteCal* s : tpl->sites)
            if (siteKey(*s) == k) {
                anyMatch = true;
                break;
            }
    }
    if (!anyMatch) {
        std::string m = "Dose, NA, PCinner and PCouter settings do not match between template and lot.\r\n[Dose,NA,PCi,PCo]\r\n";
        for (int r = 1; r <= nExpo; ++r)
            m.append("Lot: ").append(ExpoText(ex(r, 1).toSingle(), ex(r, 2).toSingle(), ex(r, 3).toSingle(), ex(r, 4).toSingle(), ",")).append("\r\n");
        if (const cSiteCal* s = tpl->sites.Item(1))
            m.append("Template: ").append(ExpoText(s->Dose, s->NA, s->PCinner, s->PCouter, ","));
        return p.fail(m);
    }

    p.chk = 3;
    long liveSites = 0;
    lot.forEachLiveSite([&](cWafer&, cField&, cSite&) { ++liveSites; });
    if (liveSites < 1) return p.fail("Culling values are too large.\r\nThere are no available sites in the lot.");
    SetStatusText("Setup of site calibrations ...");

    // The centre column ("Yloc") and row ("Xloc") of the lot's centre field.
    std::vector<std::pair<long, float>> centreCol, centreRow;  // number, location
    if (o.mode != SiteMatch::AllSites) {
        Datam col, row;
        float mx = 0, my = 0;
        lot.GetCenterSite(col, row, true, mx, my);
        for (int r = 1; col.isArray() && r <= col.rowUb(); ++r)
            centreCol.push_back({col(r, 1).toLong(), col(r, 3).toSingle()});
        for (int r = 1; row.isArray() && r <= row.rowUb(); ++r)
            centreRow.push_back({row(r, 1).toLong(), row(r, 2).toSingle()});
    }

    std::unordered_map<ExpoKey, Candidates, ExpoKeyHash> byExpo;
    auto candidatesFor = [&](const cField& f) -> const Candidates& {
        const ExpoKey k = keyOf(f.Dose, f.NA, f.PCinner, f.PCouter);
        auto it = byExpo.find(k);
        if (it != byExpo.end()) return it->second;
        Candidates c;
        for (const cSiteCal* s : tpl->sites)
            if (siteKey(*s) == k) {
                c.sites.push_back(s);
                c.byNumber.emplace(s->Number, s);
            }
        return byExpo.emplace(k, std::move(c)).first->second;
    };
    // The nearest-Delta rule: among the centre line's template sites, the one
    // whose position along the line lies nearest the lot site's (the first on
    // a tie).
    auto nearest = [](const Candidates& c, const std::vector<std::pair<long, float>>& line, float at, bool y) {
        const cSiteCal* best = nullptr;
        double bestDelta = 0;
        for (const auto& [number, loc] : line) {
            (void)loc;
            auto it = c.byNumber.find(number);
            if (it == c.byNumber.end()) continue;
            const double delta = std::fabs(double(at) - (y ? it->second->LocationY : it->second->LocationX));
            if (!best || delta < bestDelta) best = it->second, bestDelta = delta;
        }
        return best;
    };

    p.chk = 4;
    std::vector<long> missing;
    std::unordered_set<long> missingSet;
    long fieldNo = 0, fields = 0;
    for (cWafer* w : lot.Wafers())
        if (!w->cull()) fields += w->Fields().Count();
    for (cWafer* w : lot.Wafers()) {
        if (w->cull()) continue;
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            ++fieldNo;
            SetStatusText("Convert Field " + std::to_string(fieldNo) + " of " + std::to_string(fields));
            if (CheckEscKey()) return p.fail("Conversion stopped.");
            f->Color = 0;
            const Candidates& cand = candidatesFor(*f);
            for (cSite* s : f->sites()) {
                if (s->cull()) continue;
                const cSiteCal* c = nullptr;
                switch (o.mode) {
                    case SiteMatch::AllSites:
                    case SiteMatch::CenterColumn:
                    case SiteMatch::CenterRow: {
                        auto it = cand.byNumber.find(s->NumberKey());
                        if (it != cand.byNumber.end()) c = it->second;
                        if (!c && o.mode == SiteMatch::CenterColumn) c = nearest(cand, centreCol, s->LocationY, true);
                        if (!c && o.mode == SiteMatch::CenterRow) c = nearest(cand, centreRow, s->LocationX, false);
                        break;
                    }
                    case SiteMatch::Center:
                    case SiteMatch::UserSelected:
                        if (!cand.sites.empty()) c = cand.sites.front();
                        break;
                }
                if (!c) {
                    // Told once per site number, however many fields lack it.
                    if (missingSet.insert(s->NumberKey()).second) {
                        missing.push_back(s->NumberKey());
                        MsgBox("Field:Site= " + f->NumberKey + "." + std::to_string(s->NumberKey()) + "not located!",
                               vbOKOnly, "Zorving Fixed-Focus Conversion");
                    }
                    continue;
                }
                const bool firstOrder = std::fabs(c->X2nd + c->X3rd + c->X4th) == 0;
                for (cPoint* pt : s->Points()) {
                    if (pt->cull()) continue;
                    pt->pColor = 0;
                    const float h = pt->ValueH, v = pt->ValueV;
                    if (firstOrder) {
                        pt->ValueH = c->SlopeY * h * sign;
                        pt->ValueV = c->SlopeX * v * sign;
                    } else {
                        const double vp = v / 1000.0, hp = h / 1000.0;
                        pt->ValueV = static_cast<float>(
                            1000 * sign * (c->SlopeX * vp + c->X2nd * vp * vp + c->X3rd * vp * vp * vp + c->X4th * vp * vp * vp * vp));
                        pt->ValueH = static_cast<float>(
                            1000 * sign * (c->SlopeY * hp + c->Y2nd * hp * hp + c->Y3rd * hp * hp * hp + c->Y4th * hp * hp * hp * hp));
                    }
                    pt->ValueZ = (pt->ValueV + pt->ValueH) / 2;
                }
            }
        }
    }

    p.chk = 5;
    if (!missing.empty()) {
        long total = 0;
        std::unordered_set<long> numbers;
        lot.forEachLiveSite([&](cWafer&, cField&, cSite& s) { numbers.insert(s.NumberKey()); });
        total = static_cast<long>(numbers.size());
        if (static_cast<long>(missing.size()) >= total) {
            const cField* f = nullptr;
            lot.forEachLiveSite([&](cWafer&, cField& ff, cSite&) {
                if (!f) f = &ff;
            });
            const cSiteCal* t = tpl->sites.Item(1);
            std::string m = "NA & PC calibration values don't match.\r\nField[Dose,NA,PCi,PCo]= ";
            m.append(f ? f->NumberKey : "").append("..").append(f ? ExpoText(f->Dose, f->NA, f->PCinner, f->PCouter, " , ") : "[]");
            m.append("\r\nTemplate[Dose,NA,PCi,PCo]=  ..").append(t ? ExpoText(t->Dose, t->NA, t->PCinner, t->PCouter, " , ") : "[]");
            return p.fail(m.append("\r\n\r\nPlease insure you have selected the proper calibration."));
        }
        std::string list;
        for (long n : missing) list.append(list.empty() ? "" : ",").append(std::to_string(n));
        std::string q = "A total of " + std::to_string(missing.size()) + " Field Sites out of " + std::to_string(total);
        q.append(" could not \r\nbe found in the Template.\r\nSite #'s: ").append(list);
        q.append("\r\n Continue calibration with ").append(std::to_string(total - static_cast<long>(missing.size()))).append(" sites? ..");
        SetStatusText("Analysis Warning!");
        if (!o.continueMissing || !o.continueMissing(q)) return std::shared_ptr<cLot>();
        for (cWafer* w : lot.Wafers())
            for (cField* f : w->Fields())
                for (cSite* s : f->sites())
                    if (missingSet.count(s->NumberKey())) s->setCull(true);
    }
    if (lot.valueZ_Name.empty()) lot.valueZ_Name = "Mean";
    return lotPtr;
}

// ---------------------------------------------------------------- astigmatism

AstigmatismSums CalcAstigmatism(cLot& lot) {
    AstigmatismSums s;
    double sum = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) {
        p.ValueAstig = p.ValueH - p.ValueV;
        p.ValueAstig_fit = p.ValueH_fit - p.ValueV_fit;
        p.ValueAstig_Res = p.ValueAstig - p.ValueAstig_fit;
        sum += p.ValueAstig;
        ++s.count;
        s.max = std::max(s.max, double(p.ValueAstig));
        s.notMin = std::max(s.notMin, double(p.ValueAstig));  // kept: callers must not read it as a minimum
    });
    s.mean = s.count ? sum / s.count : 0;
    return s;
}

FocusCullCounts FocusRangeCull(cLot& lot, double range, double sigma, bool useMean) {
    FocusCullCounts n;
    const double r = std::fabs(range) * 1000, k = std::fabs(sigma);
    if (r == 0 && k == 0) return n;
    RcMoments m;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) { m.add((double(p.ValueH) - p.ValueV) / 1000); });
    if (m.n == 0) return n;
    const RcStats st = RcFinish(m);
    const double centre = useMean ? 1000 * st.mean : 0;
    const double limit = k * std::fabs(st.sd) * 1000;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) {
        const double d = std::fabs((double(p.ValueH) - p.ValueV) - centre);
        if (r > 0 && d >= r) {
            p.setCull(true);
            ++n.range;
        } else if (limit > 0 && d >= limit) {
            p.setCull(true);
            ++n.sigma;
        }
    });
    return n;
}

Result<AstigmaticReport> AstigmaticAnalysis(cLot& lot, double range, double sigma, const FocusCullCounts& culls) {
    Proc p("PSFManalysis(AstigmaticAnalysis): ");
    std::vector<double> a;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint& pt) { a.push_back((double(pt.ValueH) - pt.ValueV) / 1000); });
    if (a.empty()) return p.fail("No data points found in dLot.");
    SetStatusText("Calcuation ....");
    RcMoments m;
    for (double v : a) m.add(v);
    const RcStats st = RcFinish(m);
    AstigmaticReport r;
    r.points = Datam(static_cast<int>(a.size()), 2, 0, 1);
    r.points(0, 1) = Value("Astigmatism"), r.points(0, 2) = Value("Astig_Delta");
    double dMax = -1e300, dMin = 1e300;
    for (size_t i = 0; i < a.size(); ++i) {
        const double d = a[i] - st.mean;
        r.points(static_cast<int>(i) + 1, 1) = Value(a[i]);
        r.points(static_cast<int>(i) + 1, 2) = Value(d);
        dMax = std::max(dMax, d), dMin = std::min(dMin, d);
    }
    SetStatusText("Graphics setup ...");
    const std::string rows[] = {"Count", "Maximum", "Minimum", "Average", "Sigma", "_______", "Delta Max", "Delta Min",
                                "_Culls_", "Range (" + NumberToText(range) + "):", "Sigma (" + NumberToText(sigma) + "):"};
    r.stats = Datam(11, 1, 0, 0);
    r.stats(0, 1) = Value("Astigmatism");
    for (int i = 0; i < 11; ++i) r.stats(i + 1, 0) = Value(rows[i]);
    r.stats(1, 1) = Value(static_cast<int32_t>(a.size()));
    r.stats(2, 1) = Value(st.mx), r.stats(3, 1) = Value(st.mn), r.stats(4, 1) = Value(st.mean), r.stats(5, 1) = Value(st.sd);
    r.stats(7, 1) = Value(dMax), r.stats(8, 1) = Value(dMin);
    r.stats(10, 1) = Value(static_cast<int32_t>(culls.range)), r.stats(11, 1) = Value(static_cast<int32_t>(culls.sigma));
    r.histogramText = "\r\nPre-Conversion Astigmatism Average: " + Format(st.mean, "####0.000#") + " (Max/Min)=(" +
                      NumberToText(st.mx, 7) + "/ " + NumberToText(st.mn, 7) + ")";
    r.title = lot.LotName + " Astigmatism (pre-calibration)";
    return r;
}

Datam MakeFocusData(const cLot& lot) {
    long n = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { ++n; });
    const char* head[] = {"Site",       "GridLocX",   "GridLocY",   "FieldLocX",      "FieldLocY",      "ValueV",    "ValueH",
                          "ValueZ",     "ValueV_fit", "ValueH_fit", "ValueZ_fit",     "ValueV_Res",     "ValueH_Res", "ValueZ_Res",
                          "ValueAstig", "ValueAstig_Fit", "ValueAstig_Res", "PosX", "PosY", "WaferID", "FieldNumber"};
    Datam t(static_cast<int>(n), 21, 0, 1);
    for (int c = 0; c < 21; ++c) t(0, c + 1) = Value(head[c]);
    int r = 0;
    lot.forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& p) {
        ++r;
        t(r, 1) = Value(static_cast<int32_t>(s.NumberKey()));
        t(r, 2) = Value(double(f.DieX)), t(r, 3) = Value(double(f.DieY));
        t(r, 4) = Value(s.LocationX / 1000.0), t(r, 5) = Value(s.LocationY / 1000.0);
        const float v[] = {p.ValueV, p.ValueH, p.ValueZ, p.ValueV_fit, p.ValueH_fit, p.ValueZ_fit, p.ValueV_Res,
                           p.ValueH_Res, p.ValueZ_Res, p.ValueAstig, p.ValueAstig_fit, p.ValueAstig_Res};
        for (int c = 0; c < 12; ++c) t(r, 6 + c) = Value(double(v[c]));
        t(r, 18) = Value(s.LocationXabs / 1000.0), t(r, 19) = Value(s.LocationYabs / 1000.0);
        t(r, 20) = Value(w.WaferID), t(r, 21) = Value(static_cast<int32_t>(f.Number));
    });
    return t;
}

// ---------------------------------------------------------------- the workbench

Result<FocusAnalysisResult> PSFMmetro2Focus(cLot& lot, cTemplateLibrary& library, const FocusAnalysisControls& c,
                                            Workbook* saveTo) {
    Proc p("frmAnaly(PSFMmetro2Focus): ");
    ResetCulls(lot);
    FocusAnalysisResult out;
    std::string& d = out.description;
    auto words = [](const std::vector<std::string>& v) {
        std::string s;
        for (const std::string& x : v) s.append(s.empty() ? "" : ",").append(x);
        return v.empty() ? std::string("All") : s;
    };
    std::vector<std::string> doseText;
    for (double x : c.doses) doseText.push_back(NumberToText(x));
    d.append("Dose:").append(words(doseText)).append(" Wafers:").append(words(c.wafers));
    d.append(" Scan:").append(words(c.scans)).append(" NA/PCi/PCo:[").append(c.na).append(",").append(c.pci).append(",");
    d.append(c.pco).append(" Cull[Range,Sigma]=[").append(NumberToText(std::fabs(c.range))).append(",");
    d.append(NumberToText(std::fabs(c.sigma))).append("]");

    p.chk = 1;
    auto limit = [](const std::string& t, double& v) { return !t.empty() && !IEquals(t, "All") && ParseNumber(t, v); };
    double na = 0, pci = 0, pco = 0;
    const bool hasNA = limit(c.na, na) && !c.convertOptions.noNA, hasPCi = limit(c.pci, pci) && !c.convertOptions.noPCi,
               hasPCo = limit(c.pco, pco) && !c.convertOptions.noPCo;
    static const char* kDir[] = {"Down", "Left", "Right", "Up"};
    auto pick = [](const std::vector<std::string>& list, const std::string& v) {
        return list.empty() || std::any_of(list.begin(), list.end(), [&](const std::string& x) { return IEquals(x, v); });
    };
    for (cWafer* w : lot.Wafers()) {
        if (!pick(c.wafers, w->KeyName) && !pick(c.wafers, w->WaferID)) {
            w->setCull(true);
            continue;
        }
        for (cField* f : w->Fields()) {
            bool cull = !c.doses.empty() && !c.convertOptions.noDose &&
                        std::none_of(c.doses.begin(), c.doses.end(), [&](double x) { return Round3(x) == Round3(f->Dose); });
            cull = cull || !pick(c.scans, kDir[std::clamp<long>(f->Direction, 0, 3)]);
            cull = cull || (hasNA && Round3(f->NA) != Round3(na)) || (hasPCi && Round3(f->PCinner) != Round3(pci)) ||
                   (hasPCo && Round3(f->PCouter) != Round3(pco));
            if (cull) f->setCull(true);
        }
    }
    long live = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { ++live; });
    if (live == 0) return p.fail("No data points left in lot after Wafer, NA,PC etc. culling.");

    p.chk = 2;
    if (std::fabs(c.range) > 0 || std::fabs(c.sigma) > 0) out.culls = FocusRangeCull(lot, c.range, c.sigma, true);
    if (CheckEscKey()) return p.fail("Conversion stopped.");

    p.chk = 3;
    if (c.convert) {
        ConvertOptions o = c.convertOptions;
        o.lotName = lot.LotName + ": Focus";
        auto conv = ConvertLot(lot, library, o);
        if (!conv) return conv.failure();
        out.lot = *conv;
        if (!out.lot) {
            out.answeredNo = true;
            return out;
        }
    } else {
        out.lot = lot.clone(true, false, lot.LotName + ": Focus");
    }
    ResetCulls(*out.lot);
    d.append(" Template: ").append(c.convertOptions.templateName);

    p.chk = 4;
    // The matrix comes in display units already: focus in micrometres.
    out.focus = out.lot->GetDataMatrix(0);
    if (saveTo) {
        SaveArrayOptions so;
        so.save = false;
        if (Status s = SaveArray(out.focus, "RawFocus", saveTo, so); !s) return s.failure();
        const std::string when = FormatDate(TemplateNow(), "yyyy-mm-dd hh:mm:ss");
        if (Status s = AddIndexItem(saveTo, "RawFocus", "Template conversion of data to Focus Values: " + when, Value(), false); !s)
            return s.failure();
        if (Status s = SaveWorkbookChecked(*saveTo, "RawFocus", false); !s) return s.failure();
    }
    return out;
}

}  // namespace zorv
