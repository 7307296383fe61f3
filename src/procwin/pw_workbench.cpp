#include "procwin/pw_workbench.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "base/format.h"
#include "base/marks.h"
#include "numerics/matrix.h"
#include "procwin/pw_fit.h"
#include "procwin/pw_geometry.h"

namespace zorv {

namespace {

bool Cell(const Datam& t, int r, int c, double& v) {
    return t.inRange(r, c) && !IsBlank(t(r, c)) && NumericOf(t(r, c), v) && std::isfinite(v);
}

}  // namespace

// ------------------------------------------------------------------ PWobjects

bool PWobjects::Add(const clsPWobject& figure, const std::string& key) {
    clsPWobject f = figure;
    if (!key.empty()) f.Key = key;
    if (!index_.emplace(f.Key, items_.size()).second) return false;
    items_.push_back(std::move(f));
    return true;
}

const clsPWobject* PWobjects::Item(int i) const {
    return i >= 1 && i <= Count() ? &items_[static_cast<size_t>(i - 1)] : nullptr;
}

const clsPWobject* PWobjects::Item(const std::string& key) const {
    const auto it = index_.find(key);
    return it == index_.end() ? nullptr : &items_[it->second];
}

void PWobjects::Remove(const std::string& key) {
    const auto it = index_.find(key);
    if (it == index_.end()) return;
    items_.erase(items_.begin() + static_cast<std::ptrdiff_t>(it->second));
    index_.clear();
    for (size_t i = 0; i < items_.size(); ++i) index_.emplace(items_[i].Key, i);
}

PWobjects PWobjectsFromSpace(const Datam& pws, int shape) {
    PWobjects out;
    out.PWshape = shape;
    for (int r = 1; pws.isArray() && pws.dims() == 2 && r <= pws.rowUb(); ++r) {
        clsPWobject f;
        if (shape == 0) {
            double fl, fr, dl, du;
            if (!Cell(pws, r, 1, f.Xfocus) || !Cell(pws, r, 2, f.Ydose) || !Cell(pws, r, 3, fl) ||
                !Cell(pws, r, 4, fr) || !Cell(pws, r, 5, dl) || !Cell(pws, r, 8, du))
                continue;
            f.Xo = std::min(fl, fr), f.X1 = std::max(fl, fr);
            f.Yo = std::min(dl, du), f.Y1 = std::max(dl, du);
            if (!Cell(pws, r, 10, f.DoF)) f.DoF = f.X1 - f.Xo;
            if (!Cell(pws, r, 12, f.EL)) f.EL = f.Ydose != 0 ? 100 * (f.Y1 - f.Yo) / f.Ydose : 0;
            f.Key = "PWrect Dose_" + Format(f.Ydose, "#0.00") + " DoF_" + Format(f.DoF, "#0.000");
        } else {
            double rx, ry;
            if (!Cell(pws, r, 14, f.Xfocus) || !Cell(pws, r, 15, f.Ydose) || !Cell(pws, r, 16, rx) ||
                !Cell(pws, r, 17, ry))
                continue;
            f.Xo = f.Xfocus, f.Yo = f.Ydose, f.X1 = std::fabs(rx), f.Y1 = std::fabs(ry);
            f.DoF = 2 * f.X1;
            if (!Cell(pws, r, 21, f.EL)) f.EL = f.Ydose != 0 ? 200 * f.Y1 / f.Ydose : 0;
            f.Key = "PWelsp Dose_" + Format(f.Ydose, "#0.00") + " DoF_" + Format(f.DoF, "#0.000");
        }
        // Two figures of one key are one figure to a user: the first stands.
        out.Add(f);
    }
    return out;
}

double PWsliderValue(const clsPWobject& f, PWSlider slider) {
    switch (slider) {
    case PWSlider::Dose: return f.Ydose;
    case PWSlider::DoF: return f.DoF;
    case PWSlider::ExpoLat: return f.EL;
    }
    return 0;
}

int PWnearestFigure(const PWobjects& figures, PWSlider slider, double value) {
    int best = 0;
    double gap = std::numeric_limits<double>::infinity();
    for (int i = 1; i <= figures.Count(); ++i) {
        const double d = std::fabs(PWsliderValue(*figures.Item(i), slider) - value);
        if (d < gap) gap = d, best = i;
    }
    return best;
}

Datam PWfigureOutline(const clsPWobject& f, int shape) {
    if (shape == 0) {
        Datam q(5, 2, 0, 0);
        q(0, 1) = Value("PWrectX"), q(0, 2) = Value("PWrectY");
        const double xs[] = {f.Xo, f.X1, f.X1, f.Xo, f.Xo}, ys[] = {f.Yo, f.Yo, f.Y1, f.Y1, f.Yo};
        for (int i = 0; i < 5; ++i) q(i + 1, 1) = Value(xs[i]), q(i + 1, 2) = Value(ys[i]);
        return q;
    }
    Datam e(37, 2, 0, 0);
    e(0, 1) = Value("PWelspX"), e(0, 2) = Value("PWelspY");
    for (int i = 0; i <= 36; ++i) {
        const double t = 2 * kPi * i / 36;
        e(i + 1, 1) = Value(f.Xo + f.X1 * std::cos(t)), e(i + 1, 2) = Value(f.Yo + f.Y1 * std::sin(t));
    }
    return e;
}

std::vector<std::string> PWfigureTitle(const clsPWobject& f, int shape) {
    std::string head = shape == 0 ? "Rectangle" : "Ellipse";
    head.append("  Focus:").append(Format(f.Xfocus, "#0.000")).append(" Dose:").append(Format(f.Ydose, "#0.0"));
    std::string second = "        DoF:";
    second.append(Format(f.DoF, "#0.000")).append(" / ").append("  DoseLat:").append(Format(f.EL, "#0.00"));
    return {head, second};
}

Datam PWscanTable(const Datam& ws, int shape, double doseLow, double doseHigh) {
    const char* tag = shape == 0 ? "PWrect" : "PWelsp";
    const int seriesCol = shape == 0 ? 1 : 2;
    std::vector<std::pair<std::string, int>> rows;
    for (int r = 1; ws.isArray() && ws.dims() == 2 && r <= ws.rowUb(); ++r) {
        const std::string key = ws.get(r, 3).toString();
        double dose, series;
        if (key.find(tag) == std::string::npos || !Cell(ws, r, 5, dose) || !Cell(ws, r, seriesCol, series)) continue;
        if (dose < std::min(doseLow, doseHigh) || dose > std::max(doseLow, doseHigh)) continue;
        rows.emplace_back(key, static_cast<int>(series));
    }
    Datam t(static_cast<int>(rows.size()), 3, 0, 0);
    t(0, 1) = Value("Figure"), t(0, 2) = Value("Keys"), t(0, 3) = Value("SeriesNumber");
    for (size_t i = 0; i < rows.size(); ++i) {
        const int r = static_cast<int>(i) + 1;
        t(r, 1) = Value(static_cast<int32_t>(r));
        t(r, 2) = Value(rows[i].first);
        t(r, 3) = Value(static_cast<int32_t>(rows[i].second));
    }
    return t;
}

// --------------------------------------------------------------- intervals

Result<std::vector<PWInterval>> PWconfidence(const PWSetup& setup, const PWReport& report, int resamples,
                                             uint64_t seed, double level) {
    Proc p("PWcommon(PWconfidence): ");
    const Datam& work = report.working;
    std::vector<int> cols;
    std::vector<std::string> names;
    std::vector<std::pair<double, double>> limits;  // min, max of each column's variable
    for (int r = 1; setup.variables.isArray() && r <= setup.variables.rowUb(); ++r) {
        const std::string name = setup.variables.get(r, 1).toString();
        const int c = name.empty() ? -1 : FindColumn(work, Value(name), 0);
        if (c <= 0) continue;
        cols.push_back(c);
        names.push_back(name);
        limits.emplace_back(setup.variables.get(r, 4).toDouble(), setup.variables.get(r, 3).toDouble());
    }
    if (cols.empty()) return p.fail("No variable of the run is in its working table.");
    p.chk = 1;
    Datam grid;
    if (report.key == kPW) {
        auto g = PWgridSetup(report.doseLow, report.doseHigh, report.doseStep, report.focusLow, report.focusHigh,
                             report.focusStep, setup.precision);
        if (!g) return g.failure();
        grid = std::move(g.value());
    }
    PWSetup quiet = setup;
    quiet.workbook = nullptr;
    const bool window = report.key == kPW;
    const PWMeasure measure = [&](const std::vector<Datam>& cs) {
        std::vector<std::pair<std::string, double>> out;
        for (size_t k = 0; k < cs.size(); ++k) {
            double d;
            if (IsoFocalDose(cs[k], true, d)) out.emplace_back("IsoFocal_" + names[k], d);
        }
        if (!window) return out;
        std::vector<std::pair<std::string, Datam>> painted;
        for (size_t k = 0; k < cs.size(); ++k) {
            Datam g = grid;
            long n = 0;
            if (!PWsurfFill(g, limits[k].first, limits[k].second, cs[k], n)) return out;
            painted.emplace_back(names[k] + "_0", std::move(g));
        }
        PWState s;
        auto ins = GetInscribe(quiet, painted, s);
        if (!ins) return out;
        out.emplace_back("RectangleFocus", ins->rectFocus);
        out.emplace_back("RectangleDose", ins->rectDose);
        out.emplace_back("RectangleDoF", ins->rectDoF);
        out.emplace_back("RectangleEL%", ins->rectExpoLatPct);
        out.emplace_back("EllipseFocus", ins->ellipseFocus);
        out.emplace_back("EllipseDose", ins->ellipseDose);
        out.emplace_back("EllipseDoF", 2 * ins->ellipseFocusRadius);
        out.emplace_back("EllipseEL%", ins->ellipseDose != 0 ? 200 * ins->ellipseDoseRadius / ins->ellipseDose : 0);
        return out;
    };
    p.chk = 2;
    return PWbootstrap(work, cols, {setup.range, setup.sigma}, resamples, seed, level, measure);
}

}  // namespace zorv
