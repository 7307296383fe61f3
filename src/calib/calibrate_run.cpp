// The calibration workbench's routines on a plain record of its controls:
// the culls before a calibration, the run itself, the calibrated and best
// focus lots, and the dose views of the calibrated lot.
#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <set>

#include "base/format.h"
#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "calib/calibrate.h"
#include "calib_numbers.h"
#include "graphics/chart.h"
#include "lot/lot.h"
#include "numerics/equation.h"
#include "numerics/matrix.h"
#include "numerics/quartiles.h"
#include "stats/cull.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace {


// A limit box: "All" (or empty) is no limit.
bool Limit(const std::string& text, double& v) {
    if (text.empty() || IEquals(text, "All")) return false;
    return ParseNumber(text, v);
}

const char* DirectionWord(long d) {
    switch (d) {
        case 0: return "Down";
        case 1: return "Left";
        case 2: return "Right";
        default: return "Up";
    }
}

}  // namespace

Result<CalCullResult> UpdateCalCulls(cLot& lot, const CalControls& c, CalFormState& state, std::string& description) {
    Proc p("frmCal(UpdateCulls): ");
    double fMax = 0, fMin = 0, dMax = 0, dMin = 0;
    const bool hasFMax = Limit(c.focusMax, fMax), hasFMin = Limit(c.focusMin, fMin);
    if (hasFMax && hasFMin && fMax <= fMin) return p.fail("Focus maximum value must be greater than the minimum setting.");
    description.append("Focus:[").append(c.focusMax).append(",").append(c.focusMin).append("]");
    p.chk = 1;
    const bool hasDMax = Limit(c.doseMax, dMax), hasDMin = Limit(c.doseMin, dMin);
    if (hasDMax && hasDMin && dMax < dMin)
        return p.fail("Dose maximum value must be greater than or equal to the minimum setting.");
    if (c.doseMax != c.doseMin) description.append("Dose:[").append(c.doseMax).append(",").append(c.doseMin).append("]");
    p.chk = 2;
    if (!c.wafers.empty()) {
        description.append("Wafers: ");
        for (const std::string& w : c.wafers) description.append(w).append(" ");
    }
    if (!c.scans.empty()) {
        description.append("Scan:");
        for (const std::string& s : c.scans) description.append(s).append(" ");
    }
    double na = 0, pci = 0, pco = 0;
    const bool hasNA = Limit(c.na, na), hasPCi = Limit(c.pci, pci), hasPCo = Limit(c.pco, pco);
    description.append("Cull:[Range,Sigma]=[").append(NumberToText(c.range)).append(",0]");

    p.chk = 3;
    ResetCulls(lot, CullLevels{true, true, false, false});
    if (!state.astigSerials.empty()) {
        std::set<int32_t> want(state.astigSerials.begin(), state.astigSerials.end());
        for (cWafer* w : lot.Wafers())
            for (cField* f : w->Fields())
                for (cSite* s : f->sites())
                    for (cPoint* pt : s->Points()) {
                        if (want.empty()) break;
                        if (want.erase(pt->SerialNumber)) pt->setCull(false);
                    }
        state.astigSerials.clear();
    }
    auto selected = [](const std::vector<std::string>& list, const std::string& v) {
        return list.empty() || std::any_of(list.begin(), list.end(), [&](const std::string& x) { return IEquals(x, v); });
    };
    for (cWafer* w : lot.Wafers()) {
        if (!selected(c.wafers, w->KeyName) && !selected(c.wafers, w->WaferID)) {
            w->setCull(true);
            continue;
        }
        for (cField* f : w->Fields()) {
            const double fo = Round3(f->Focus), d = Round3(f->Dose);
            bool cull = (hasFMax && fo > fMax) || (hasFMin && fo < fMin) || (hasDMax && d > dMax) || (hasDMin && d < dMin);
            cull = cull || !selected(c.scans, DirectionWord(f->Direction));
            cull = cull || (hasNA && Round3(f->NA) != Round3(na)) || (hasPCi && Round3(f->PCinner) != Round3(pci)) ||
                   (hasPCo && Round3(f->PCouter) != Round3(pco));
            if (cull) f->setCull(true);
        }
    }

    p.chk = 4;
    CalCullResult r;
    const double astig = std::fabs(c.astigCull);
    if (astig > 0) {
        description.append("Astigmatic Cull[Range: ").append(NumberToText(astig)).append("]");
        Result<long> n = CullAstigmatism(lot, astig, &state.astigSerials);
        if (!n) return n.failure();
        r.astigCulled = *n;
        description.append(" Points culled: ").append(std::to_string(*n));
    }
    return r;
}

Result<CalLots> UpdateReticleCal2Lot(cLot& lot, const Datam& results) {
    Proc p("frmCal(UpdateReticleCal2Lot): ");
    SetStatusText("Lot Update: Clone new calibrations ....");
    if (!results.isArray() || results.rowUb() < 1) return p.fail("No calibration results.");
    CalLots out;
    out.calibrated = lot.clone(true, false);
    cLot& cal = *out.calibrated;
    SetStatusText("Update lot with calculated focus & Residuals ...");
    cal.LotName = "Calibration: offset,slope & resids: " + lot.LotName;

    p.chk = 1;
    const int xOff = FindColumn(results, Value("Xoffset"), 0), xOffSig = FindColumn(results, Value("Xoffset_sigma"), 0);
    const int xFocus = FindColumn(results, Value("Xfocus"), 0);
    if (xOff <= 0 || xOffSig <= 0 || xFocus <= 0) return p.fail("The calibration table has no focus columns.");
    const int order = (xOffSig - xOff - 4) / 2 + 1;
    const int siteCount = static_cast<int>(results(0, xFocus + 4).toDouble());
    long count = 0;
    Datam focusTable;
    const Datam ex = lot.GetUniqueExposures(count, focusTable);

    // The forward polynomial of one row in F, built as text from the table.
    auto forward = [&](int row, bool x) {
        std::string t = NumberToText(results(row, x ? 9 : 10).toDouble());
        t.append(" + ").append(NumberToText(results(row, x ? 11 : 12).toDouble())).append(" * F");
        for (int k = 2; k <= order; ++k) {
            const int col = 13 + 2 * (k - 2) + (x ? 0 : 1);
            t.append(" + ").append(NumberToText(results(row, col).toDouble())).append(" * F^").append(std::to_string(k));
        }
        return TidyEquation(t);
    };
    std::map<int, std::pair<clsEquation, clsEquation>> fits;  // by row

    p.chk = 2;
    long points = 0, total = 0, fieldNo = 0;
    for (cWafer* w : cal.Wafers()) total += w->Fields().Count();
    for (cWafer* w : cal.Wafers()) {
        for (cField* f : w->Fields()) {
            ++fieldNo;
            if (w->cull() || f->cull()) continue;
            int e = 0;
            for (int r = 1; r <= count && e == 0; ++r)
                if (Round3(f->Dose) == Round3(ex(r, 1).toDouble()) && Round3(f->NA) == Round3(ex(r, 2).toDouble()) &&
                    Round3(f->PCinner) == Round3(ex(r, 3).toDouble()) && Round3(f->PCouter) == Round3(ex(r, 4).toDouble()))
                    e = r;
            SetStatusText("Lot object update...Wafer:" + w->KeyName + ", Field:" + std::to_string(fieldNo) + " of " +
                          std::to_string(total));
            const double F = f->Focus;
            for (cSite* s : f->sites()) {
                if (s->cull()) continue;
                const int row = (e - 1) * siteCount + s->NumberKey();
                const bool has = e > 0 && row >= 1 && row <= results.rowUb() && !IsBlank(results(row, 9));
                std::pair<clsEquation, clsEquation>* eq = nullptr;
                if (has) {
                    auto it = fits.find(row);
                    if (it == fits.end())
                        it = fits.emplace(row, std::make_pair(clsEquation(forward(row, true)), clsEquation(forward(row, false)))).first;
                    eq = &it->second;
                }
                for (cPoint* pt : s->Points()) {
                    if (pt->cull()) continue;
                    ++points;
                    if (!eq) {
                        pt->ValueH = pt->ValueV = pt->ValueZ = kMissingValue;
                        continue;
                    }
                    auto R = [&](int c) { return results(row, c).toDouble(); };
                    pt->ValueA = static_cast<float>(1000 * R(xFocus));
                    pt->ValueB = static_cast<float>(1000 * R(xFocus + 1));
                    pt->ValueC = (pt->ValueA + pt->ValueB) / 2;
                    pt->ValueA_Res = static_cast<float>(1000 * R(xFocus + 2));
                    pt->ValueB_Res = static_cast<float>(1000 * R(xFocus + 3));
                    pt->ValueC_Res = static_cast<float>(std::sqrt((double(pt->ValueA) * pt->ValueA + double(pt->ValueB) * pt->ValueB) / 2));
                    eq->first.Var("F", F);
                    eq->second.Var("F", F);
                    const double fitX = eq->first.Solution(), fitY = eq->second.Solution();
                    pt->ValueH_Res = static_cast<float>(pt->ValueH - 1000 * fitY);
                    pt->ValueV_Res = static_cast<float>(pt->ValueV - 1000 * fitX);
                    pt->ValueZ_Res = (pt->ValueH_Res + pt->ValueV_Res) / 2;
                    pt->ValueH = static_cast<float>(R(10));
                    pt->ValueV = static_cast<float>(R(9));
                    pt->ValueZ = (pt->ValueH + pt->ValueV) / 2;
                    pt->ValueH_fit = static_cast<float>(R(12));
                    pt->ValueV_fit = static_cast<float>(R(11));
                    pt->ValueZ_fit = (pt->ValueH_fit + pt->ValueV_fit) / 2;
                }
            }
        }
    }
    if (points < 1) return p.fail("No data points in Best Focus Lot.");

    p.chk = 3;
    auto best = cal.clone(false, true);
    // Culled wafers and fields stay out: the lot is read through its live data.
    std::unique_ptr<cWafer> wafer;
    for (cWafer* w : cal.Wafers())
        if (!w->cull() && (wafer = w->clone(false))) break;
    if (!wafer) return p.fail("No wafers in Calibration lot.");
    wafer->Fields().Clear();
    const std::string waferKey = wafer->KeyName;
    cWafer* bw = best->Wafers().Add(std::move(wafer), waferKey);
    auto liveField = [](const cWafer* w, const cField* f) { return !w->cull() && !f->cull() && f->TotalPoints() > 0; };
    cField* firstField = nullptr;
    for (cWafer* w : cal.Wafers())
        for (cField* f : w->Fields())
            if (!firstField && liveField(w, f)) firstField = f;
    for (int e = 1; e <= count; ++e) {
        const cField* pick = nullptr;
        for (cWafer* w : cal.Wafers()) {
            for (cField* f : w->Fields()) {
                if (liveField(w, f) && std::fabs(f->Dose - ex(e, 1).toDouble()) < 0.01 &&
                    std::fabs(f->NA - ex(e, 2).toDouble()) < 0.01 && std::fabs(f->PCinner - ex(e, 3).toDouble()) < 0.01 &&
                    std::fabs(f->PCouter - ex(e, 4).toDouble()) < 0.01 && f->TotalPoints() >= siteCount - 2) {
                    pick = f;
                    break;
                }
            }
            if (pick) break;
        }
        if (!pick) pick = firstField;
        if (!pick) break;
        cField* nf = bw->AddFieldObj(pick, "W" + bw->KeyName + "F" + std::to_string(e));
        if (!nf) continue;
        nf->DieX = nf->DieY = static_cast<float>(e);
        nf->Dose = ex(e, 1).toSingle(), nf->NA = ex(e, 2).toSingle();
        nf->PCinner = ex(e, 3).toSingle(), nf->PCouter = ex(e, 4).toSingle();
        nf->NumberKey.clear();
    }
    out.bestFocus = best->GetValueABClot();
    if (out.bestFocus) out.bestFocus->LotName = "Best Focus " + lot.LotName;
    SetStatusText("PSFM calibrations updated ... ");
    return out;
}

Result<CalibrationRun> CalibratePSFM(cLot& lot, const CalControls& c, CalFormState& state,
                                     const CalibrateOptions& options) {
    Proc p("frmCalibrate(CalibratePSFM): ");
    SetStatusText("Calibrating focus data. . .");
    CalibrationRun run;
    Result<CalCullResult> culls = UpdateCalCulls(lot, c, state, run.description);
    if (!culls) return culls.failure();
    run.astigCulled = culls->astigCulled;

    p.chk = 1;
    long live = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { ++live; });
    if (live < 3)
        return p.fail("Too many points removed. Lot contains only " + std::to_string(live) + " data points.");

    p.chk = 2;
    run.tpl = std::make_shared<cTemplate>();
    run.tpl->NameTemplate = lot.LotName;
    run.tpl->DataSetName = lot.LotName;
    run.tpl->DieSizeX = lot.DieSizeX, run.tpl->DieSizeY = lot.DieSizeY;
    run.tpl->DateCreated = run.tpl->DateModified = TemplateNow();
    if (options.charts) run.graphs = std::make_unique<CalGraphs>();

    CalibrateArgs args;
    args.siteChoice = c.siteNumber > 0 ? std::to_string(c.siteNumber) : "All";
    args.rangeCull = c.range;
    args.fitOrder = std::clamp(c.fitOrder, 1, 6);
    args.graphs = run.graphs.get();
    args.events = options.events;
    CalibrateOut out;
    p.chk = 3;
    if (Status s = CalibrateReticle(*run.tpl, lot, args, out); !s) return s.failure();
    run.escaped = out.escaped;
    run.results = std::move(out.results);
    run.culled = out.cullsX + out.cullsY;
    if (run.culled > 0) run.description.append("Points Culled: ").append(std::to_string(run.culled));
    if (run.escaped) return run;

    p.chk = 4;
    if (options.saveSheet) {
        Workbook* wb = options.workbook;
        if (!wb) return p.fail("The lot has no workbook to save the calibration in.");
        SaveArrayOptions o;
        o.title = "PSFM Calibration Statistics " + FormatDate(TemplateNow(), "yyyy-mm-dd hh:mm:ss");
        o.save = false;
        if (Status s = SaveArray(run.results, "Calibration", wb, o); !s) return s.failure();
        if (Status s = AddIndexItem(wb, "Calibration", "PSFM Calibration: " + lot.LotName, Value(), false); !s)
            return s.failure();
        if (Status s = SaveWorkbookChecked(*wb, "Calibration", false); !s) return s.failure();
    }

    long count = 0;
    Datam focus;
    const Datam ex = lot.GetUniqueExposures(count, focus);
    for (int r = 1; r <= count; ++r)
        run.exposureGroups.push_back(ExposureGroupText(ex(r, 1).toDouble(), ex(r, 2).toDouble(), ex(r, 3).toDouble(),
                                                       ex(r, 4).toDouble()));
    p.chk = 5;
    Result<CalLots> lots = UpdateReticleCal2Lot(lot, run.results);
    if (!lots) return lots.failure();
    run.lots = std::move(*lots);
    for (cWafer* w : run.lots.calibrated->Wafers())
        for (cField* f : w->Fields()) f->Color = 0;
    SetStatusText("Calibration completed...");
    return run;
}

// ---------------------------------------------------------------- dose views

Status DoseSlopeGraph(cLot& cal, cGraphic& chart) {
    Proc p("frmCal(DoseSlope): ");
    std::vector<std::array<double, 3>> rows;
    cal.forEachLive([&](cWafer&, cField& f, cSite&, cPoint& pt) {
        if (pt.ValueV_fit == kMissingValue) return;
        rows.push_back({f.Dose, pt.ValueV_fit, pt.ValueH_fit});
    });
    if (rows.empty()) return p.fail("No calibrated points in the lot.");
    Datam t(static_cast<int>(rows.size()), 3, 0, 1);
    t(0, 1) = Value("Dose"), t(0, 2) = Value("Xslopes"), t(0, 3) = Value("Yslopes");
    for (size_t i = 0; i < rows.size(); ++i)
        for (int c = 0; c < 3; ++c) t(static_cast<int>(i) + 1, c + 1) = Value(rows[i][static_cast<size_t>(c)]);
    if (Status s = chart.RegisterData(t); !s) return s;
    chart.KeyName = "kDoseSlope";
    chart.TitleObj.TitleString = "Calibration SLOPE Stability as a function of Dose";
    chart.Axes.Add("X").Label = "Dose";
    cAxis& ay = chart.Axes.Add("Y");
    ay.Label = "Slope";
    ay.TickFormat = "####0.000";
    const char* labels[] = {"X slopes", "Y slopes"};
    for (int k = 0; k < 2; ++k) {
        cSeries& s = chart.Series.Add(labels[k]);
        s.Xcol = 1, s.Ycol = 2 + k;
        s.Connect = false;
        s.ColorFore = k == 0 ? RGB(0, 0, 255) : RGB(255, 0, 0);
    }
    return StatusOk();
}

Result<Datam> NonLinearityGraph(cLot& cal, cGraphic& chart) {
    Proc p("frmCal(NonLinearity): ");
    SetStatusText("Calculating nonlinearity...");
    auto resid = cal.GetResidsLot();
    if (!resid) return p.fail("No residuals in the lot.");
    const Datam m = resid->GetDataMatrix(0, true);
    if (!m.isArray() || m.rowUb() < 1) return p.fail("No residuals in the lot.");
    int xc = FindColumn(m, Value("X_reg"), 0);
    if (xc <= 0) xc = 6;
    const int yc = xc + 1, dc = FindColumn(m, Value("Dose"), 0);
    if (dc <= 0) return p.fail("No dose data.");
    std::map<double, std::pair<std::vector<double>, std::vector<double>>> byDose;
    for (int r = 1; r <= m.rowUb(); ++r) {
        const double d = std::nearbyint(m(r, dc).toDouble() * 100) / 100;
        auto& v = byDose[d];
        double x = 0;
        if (!IsBlank(m(r, xc)) && NumericOf(m(r, xc), x) && x != kMissingValue) v.first.push_back(x);
        if (yc <= m.colUb() && !IsBlank(m(r, yc)) && NumericOf(m(r, yc), x) && x != kMissingValue) v.second.push_back(x);
    }
    Datam table(static_cast<int>(byDose.size()), 3, 0, 1);
    table(0, 1) = Value("Dose"), table(0, 2) = Value("X_Nonlinearity"), table(0, 3) = Value("Y_Nonlinearity");
    chart.Series.Clear();
    chart.KeyName = "kNonLinearity";
    chart.TitleObj.TitleString = "Calibration NonLinearity by Dose";
    chart.Axes.Add("X").Label = "Dose";
    cAxis& ay = chart.Axes.Add("Y");
    ay.Label = "Non-Linearity";
    ay.TickFormat = "####0.0000";
    Datam all(static_cast<int>(byDose.size()) * 10, 2, 0, 1);
    all(0, 1) = Value("Dose"), all(0, 2) = Value("Quartile");
    int i = 0, row = 0;
    for (auto& [dose, v] : byDose) {
        ++i;
        SetStatusText("Dose Non-Linearity curve " + std::to_string(i) + " of " + std::to_string(byDose.size()));
        table(i, 1) = Value(dose);
        for (int k = 0; k < 2; ++k) {
            const std::vector<double>& vals = k == 0 ? v.first : v.second;
            Datam col(static_cast<int>(vals.size()), 1, 0, 1);
            for (size_t j = 0; j < vals.size(); ++j) col(static_cast<int>(j) + 1, 1) = Value(vals[j]);
            const Quartiles q = GetQuartiles(col, 1);
            if (!q.ok()) continue;
            table(i, 2 + k) = Value(q.q4() - q.q0());
            const int first = row + 1;
            for (double y : {q.q0(), q.q1(), q.median(), q.q3(), q.q4()}) {
                ++row;
                all(row, 1) = Value(dose), all(row, 2) = Value(y);
            }
            cSeries& s = chart.Series.Add("Dose_" + NumberToText(dose) + (k == 0 ? "X" : "Y"));
            Datam pd(5, 2, 0, 1);
            pd(0, 1) = Value("Dose"), pd(0, 2) = Value("Quartile");
            for (int r = 0; r < 5; ++r) pd(r + 1, 1) = all(first + r, 1), pd(r + 1, 2) = all(first + r, 2);
            s.PlotData = pd;
            s.Xcol = 1, s.Ycol = 2;
            s.Connect = true;
            s.ColorFore = k == 0 ? RGB(0, 0, 255) : RGB(255, 0, 0);
        }
    }
    if (row == 0) return p.fail("No residuals in the lot.");
    all.redimPreserve(row, 2);
    if (Status s = chart.RegisterData(all); !s) return s.failure();
    SetStatusText("Done");
    return table;
}

}  // namespace zorv
