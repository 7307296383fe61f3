// The kinds of Simulate: their defaults, models and what each adds to
// truth.json. Values are in the file's unit (nm; thermal C); positions in
// mm, focus in um, dose in mJ/cm2.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "simulate_core.h"

namespace zorv::sim {

namespace {

SimFeature CdFeature(bool kla) {
    // The CD-SEM reader keeps the header as the name and turns nm into um.
    if (kla) return {"MEAS_1", "MEAS_1", "um", "nm", 0.001, 2};
    return {"CD [nm]", "CD", "nm", "nm", 1, 2};
}

// The CD-SEM report marks a failed measurement with 0 (the reader moves the
// row to "Excluded") or with stars (no number: passed over). Delimited text
// knows no such mark, a 0 there is a value, so it gets a blank cell or stars.
std::vector<std::pair<std::string, std::string>> CdFailTexts(bool kla) {
    if (kla) return {{"0.00", "excluded"}, {"*****", "skipped"}};
    return {{"", "skipped"}, {"*****", "skipped"}};
}

// CD-SEM values below 1 would be read as micrometres.
Status CheckCdRange(Proc& p, const LotPlan& plan) {
    double v[kMaxFeatures];
    for (const SimField& f : plan.fields)
        for (const SimSite& s : plan.sites) {
            plan.model(0, f, s, v);
            if (!(v[0] >= 1.0)) {
                char buf[200];
                std::snprintf(buf, sizeof buf,
                              "The model gives a CD of %.2f nm at focus %.3f um, dose %.2f mJ/cm2, site %d; "
                              "CD-SEM values must be 1 nm or more.",
                              v[0], f.focus, f.dose, s.number);
                return p.fail(buf);
            }
        }
    return StatusOk();
}

// ---- fem: the seven-term response of a focus-exposure matrix ----

class FemKind : public SimKind {
public:
    KindDefaults defaults() const override {
        KindDefaults d;
        d.wafers = 1;
        d.fieldsX = 11;
        d.fieldsY = 9;
        d.sites = 5;
        d.noise = 0.5;
        d.outliers = 3;
        d.failed = 2;
        d.focusSpan = 0.4;
        d.doseCentre = 24;
        d.doseSpan = 12;
        d.layouts = "kla|csv";
        return d;
    }
    // About 90 nm at focus 0 and 24 mJ/cm2, 2.5 nm less per mJ/cm2, isofocal at
    // 22 mJ/cm2: lines shrink with defocus above it and grow below.
    std::vector<Coefficient> coefficients() const override {
        return {{"c1", 150, "nm", "constant"},
                {"c2", -2.5, "nm/(mJ/cm2)", "D"},
                {"c3", -4, "nm/um", "F"},
                {"c4", 880, "nm/um2", "F^2"},
                {"c5", 0.2, "nm/(mJ/cm2 um)", "D*F"},
                {"c6", 30, "nm/um3", "F^3"},
                {"c7", -40, "nm/(mJ/cm2 um2)", "D*F^2"}};
    }
    Status prepare(Proc& p, LotPlan& plan, const std::vector<Coefficient>& c, bool kla, std::uint64_t) override {
        for (int i = 0; i < 7; ++i) c_[i] = c[static_cast<size_t>(i)].value;
        plan.features = {CdFeature(kla)};
        const double* k = c_;
        plan.model = [k](int, const SimField& f, const SimSite&, double* out) {
            out[0] = Response(k, f.dose, f.focus);
        };
        plan.outlierMin = 25;
        plan.outlierMax = 40;
        plan.positiveValues = true;
        plan.failTexts = CdFailTexts(kla);
        return CheckCdRange(p, plan);
    }
    std::string formula() const override {
        return "CD = c1 + c2*D + c3*F + c4*F^2 + c5*D*F + c6*F^3 + c7*D*F^2; D the field's dose (mJ/cm2) and F "
               "its focus (um) as written in the file, CD in nm";
    }
    void writeModel(JsonWriter& j, const LotPlan& plan) const override {
        if (c_[6] != 0) j.field("isofocalDose", -c_[3] / c_[6]);
        // Best focus of each dose of the grid: the turning point of CD(F) nearest 0.
        std::vector<double> doses;
        for (const SimField& f : plan.fields)
            if (std::find(doses.begin(), doses.end(), f.dose) == doses.end()) doses.push_back(f.dose);
        j.key("bestFocus").beginArray();
        for (double d : doses) {
            double focus = 0;
            if (!TurningPoint(d, focus)) continue;
            j.beginObject(true).field("dose", d).field("focus", focus);
            j.field("cd", Response(c_, d, focus)).endObject();
        }
        j.endArray();
    }

    static double Response(const double* c, double d, double f) {
        return c[0] + c[1] * d + c[2] * f + c[3] * f * f + c[4] * d * f + c[5] * f * f * f + c[6] * d * f * f;
    }

private:
    bool TurningPoint(double d, double& focus) const {
        const double a = 3 * c_[5], b = 2 * (c_[3] + c_[6] * d), c = c_[2] + c_[4] * d;
        if (a == 0) {
            if (b == 0) return false;
            focus = -c / b;
            return true;
        }
        const double disc = b * b - 4 * a * c;
        if (disc < 0) return false;
        const double r1 = (-b + std::sqrt(disc)) / (2 * a), r2 = (-b - std::sqrt(disc)) / (2 * a);
        focus = std::fabs(r1) < std::fabs(r2) ? r1 : r2;
        return true;
    }
    double c_[7] = {};
};

// ---- reticle: wafer CD through a local MEEF from the mask CD of each site ----

class ReticleKind : public SimKind {
public:
    KindDefaults defaults() const override {
        KindDefaults d;
        d.wafers = 1;
        d.fieldsX = 5;
        d.fieldsY = 5;
        d.sites = 49;
        d.noise = 0.3;
        d.outliers = 2;
        d.failed = 2;
        d.doseCentre = 24;
        d.layouts = "kla|csv";
        return d;
    }
    std::vector<Coefficient> coefficients() const override {
        return {{"NominalCD", 90, "nm", "wafer CD of a mask at its nominal CD"},
                {"NominalMaskCD", 360, "nm", "nominal mask CD, at 4x"},
                {"MaskSigma", 6, "nm", "spread of the mask CD from site to site, at 4x"},
                {"MEEF0", 2.0, "", "MEEF at the field centre"},
                {"MEEFx", 0.02, "1/mm", "MEEF change along x"},
                {"MEEFy", -0.015, "1/mm", "MEEF change along y"},
                {"MEEFr2", 0.0008, "1/mm2", "MEEF change with x^2+y^2"}};
    }
    Status prepare(Proc& p, LotPlan& plan, const std::vector<Coefficient>& c, bool kla, std::uint64_t seed) override {
        nominal_ = CoefficientOf(c, "NominalCD");
        nominalMask_ = CoefficientOf(c, "NominalMaskCD");
        const double sigma = CoefficientOf(c, "MaskSigma"), m0 = CoefficientOf(c, "MEEF0"),
                     mx = CoefficientOf(c, "MEEFx"), my = CoefficientOf(c, "MEEFy"), mr = CoefficientOf(c, "MEEFr2");
        if (nominalMask_ < 4) return p.fail("NominalMaskCD must be 4 nm or more.");
        Rng rng(seed ^ kSiteStream);
        mask_.clear();
        meef_.clear();
        for (const SimSite& s : plan.sites) {
            // The mask CD as the reticle file writes it, so the wafer follows the file.
            mask_.push_back(std::round((nominalMask_ + sigma * rng.gauss()) * 100) / 100);
            meef_.push_back(m0 + mx * s.x() + my * s.y() + mr * (s.x() * s.x() + s.y() * s.y()));
            if (mask_.back() <= 0) return p.fail("MaskSigma gives a mask CD of 0 or less.");
        }
        plan.features = {CdFeature(kla)};
        plan.model = [this](int, const SimField&, const SimSite& s, double* out) {
            const size_t i = static_cast<size_t>(s.number - 1);
            out[0] = nominal_ + meef_[i] * (mask_[i] / kMagnification - nominalMask_ / kMagnification);
        };
        plan.outlierMin = 15;
        plan.outlierMax = 25;
        plan.positiveValues = true;
        plan.failTexts = CdFailTexts(kla);
        return CheckCdRange(p, plan);
    }
    std::string formula() const override {
        return "CD = NominalCD + MEEF(x,y) * (MaskCD/4 - NominalMaskCD/4); MEEF(x,y) = MEEF0 + MEEFx*x + MEEFy*y + "
               "MEEFr2*(x^2+y^2); x, y the site in the field (mm), MaskCD the site's value in the reticle file "
               "(nm at 4x); CD in nm";
    }
    void writeModel(JsonWriter& j, const LotPlan& plan) const override {
        j.field("magnification", kMagnification);
        j.key("maskFeature").beginObject(true).field("name", "Mask_CD").field("column", "Mask CD [nm]");
        j.field("unit", "nm").field("fileUnit", "nm").field("toWorkbook", 1.0).field("decimals", 2).endObject();
        j.key("meef").beginArray();
        for (size_t i = 0; i < plan.sites.size(); ++i) {
            const SimSite& s = plan.sites[i];
            j.beginObject(true).field("site", s.number).field("x", s.x()).field("y", s.y());
            j.field("maskCD", mask_[i]).field("meef", meef_[i]).endObject();
        }
        j.endArray();
    }
    bool hasCompanion() const override { return true; }
    // The reticle measurement: one row per site, at wafer-scale positions so
    // its sites meet the lot's.
    Status writeCompanion(Proc& p, const LotPlan& plan, OutFile& out) override {
        for (const char* line : {"# Lot: RETICLE", "# Device: ZSIMDEV", "# Layer: POLY", "# Tool: Zorv simulator",
                                 "# Data Type: CDsem"}) {
            out.put(line);
            out.eol();
        }
        out.put("# Die Size X: " + Shortest(plan.fieldSizeX));
        out.eol();
        out.put("# Die Size Y: " + Shortest(plan.fieldSizeY));
        out.eol();
        out.put("Site,X [mm],Y [mm],Mask CD [nm]");
        out.eol();
        for (size_t i = 0; i < plan.sites.size(); ++i) {
            const SimSite& s = plan.sites[i];
            out.put(std::to_string(s.number) + "," + Fixed(s.x(), 3) + "," + Fixed(s.y(), 3) + "," +
                    Fixed(mask_[i], 2));
            out.eol();
        }
        if (!out.ok()) return p.fail("Cannot write file: " + out.path());
        return StatusOk();
    }

private:
    static constexpr double kMagnification = 4;
    double nominal_ = 0, nominalMask_ = 0;
    std::vector<double> mask_, meef_;
};

// ---- overlay: wafer and field terms ----

struct OverlayTerm {
    const char* name;
    double value;
    const char* unit;
    const char* meaning;
    const char* dx;
    const char* dy;
};

// X, Y the site on the wafer, x, y in the field (mm); u = X/100, v = Y/100,
// s = x/10, t = y/10, so that the higher terms read in nm at 100 mm (10 mm).
constexpr OverlayTerm kOverlayTerms[] = {
    {"Tx", 3, "nm", "wafer offset X", "Tx", "0"},
    {"Ty", -2, "nm", "wafer offset Y", "0", "Ty"},
    {"ScaleX", 0.05, "ppm", "wafer scale X", "ScaleX*X", "0"},
    {"ScaleY", -0.04, "ppm", "wafer scale Y", "0", "ScaleY*Y"},
    {"RotX", 0.03, "urad", "wafer rotation of the Y axis", "-RotX*Y", "0"},
    {"RotY", 0.02, "urad", "wafer rotation of the X axis", "0", "RotY*X"},
    {"BowX", 1.5, "nm", "wafer bow of X along Y, at 100 mm", "BowX*v^2", "0"},
    {"BowY", -1.0, "nm", "wafer bow of Y along X, at 100 mm", "0", "BowY*u^2"},
    {"Trifoil", 0.8, "nm", "three-fold wafer distortion, at 100 mm", "Trifoil*(u^2-v^2)", "-2*Trifoil*u*v"},
    {"FieldTx", 0, "nm", "field offset X (adds to Tx)", "FieldTx", "0"},
    {"FieldTy", 0, "nm", "field offset Y (adds to Ty)", "0", "FieldTy"},
    {"FieldMagX", 0.6, "ppm", "field magnification X", "FieldMagX*x", "0"},
    {"FieldMagY", -0.4, "ppm", "field magnification Y", "0", "FieldMagY*y"},
    {"FieldRotX", 0.3, "urad", "field rotation of the y axis", "-FieldRotX*y", "0"},
    {"FieldRotY", 0.4, "urad", "field rotation of the x axis", "0", "FieldRotY*x"},
    {"FieldCurvX", 1.2, "nm", "field curvature of X along y, at 10 mm", "FieldCurvX*t^2", "0"},
    {"FieldCurvY", -0.8, "nm", "field curvature of Y along x, at 10 mm", "0", "FieldCurvY*s^2"},
};
constexpr size_t kOverlayTermCount = sizeof kOverlayTerms / sizeof kOverlayTerms[0];

class OverlayKind : public SimKind {
public:
    KindDefaults defaults() const override {
        KindDefaults d;
        d.wafers = 2;
        d.fieldsX = 5;
        d.fieldsY = 5;
        d.sites = 9;
        d.noise = 1.0;
        d.outliers = 3;
        d.failed = 0;
        d.focusDose = false;
        d.dataType = "Overlay";
        d.layouts = "csv|archer";
        return d;
    }
    std::vector<Coefficient> coefficients() const override {
        std::vector<Coefficient> c;
        for (const OverlayTerm& t : kOverlayTerms) c.push_back({t.name, t.value, t.unit, t.meaning});
        return c;
    }
    Status prepare(Proc&, LotPlan& plan, const std::vector<Coefficient>& c, bool, std::uint64_t) override {
        for (size_t i = 0; i < kOverlayTermCount; ++i) k_[i] = c[i].value;
        plan.features = {{"X_reg [nm]", "X_reg", "nm", "nm", 1, 2}, {"Y_reg [nm]", "Y_reg", "nm", "nm", 1, 2}};
        const double* k = k_;
        plan.model = [k](int, const SimField& f, const SimSite& site, double* out) {
            const double x = site.x(), y = site.y(), X = f.centreX + x, Y = f.centreY + y;
            const double u = X / 100, v = Y / 100, s = x / 10, t = y / 10;
            out[0] = k[0] + k[2] * X - k[4] * Y + k[6] * v * v + k[8] * (u * u - v * v) + k[9] + k[11] * x -
                     k[13] * y + k[15] * t * t;
            out[1] = k[1] + k[3] * Y + k[5] * X + k[7] * u * u - 2 * k[8] * u * v + k[10] + k[12] * y +
                     k[14] * x + k[16] * s * s;
        };
        plan.outlierMin = 30;
        plan.outlierMax = 60;
        plan.failTexts = {{"", "skipped"}};
        return StatusOk();
    }
    std::string formula() const override {
        return "X_reg = sum of the terms' dx, Y_reg = sum of their dy (nm); X = DieX*fieldSize.x + x and Y = "
               "DieY*fieldSize.y + y the site on the wafer (mm), x, y the site in the field (columns X [mm], "
               "Y [mm]); u = X/100, v = Y/100, s = x/10, t = y/10; ppm and urad times mm give nm";
    }
    void writeModel(JsonWriter& j, const LotPlan&) const override {
        j.key("terms").beginArray();
        for (const OverlayTerm& t : kOverlayTerms)
            j.beginObject(true).field("name", t.name).field("dx", t.dx).field("dy", t.dy).endObject();
        j.endArray();
    }

private:
    double k_[kOverlayTermCount] = {};
};

// ---- psfm: image shift as a polynomial of the focus each site sees ----

class PsfmKind : public SimKind {
public:
    KindDefaults defaults() const override {
        KindDefaults d;
        d.wafers = 1;
        d.fieldsX = 13;
        d.fieldsY = 3;
        d.sites = 9;
        d.noise = 0.5;
        d.outliers = 2;
        d.failed = 0;
        d.focusSpan = 0.6;
        d.doseCentre = 24;
        d.dataType = "Focus";
        return d;
    }
    std::vector<Coefficient> coefficients() const override {
        return {{"OffsetX", 2, "nm", "mean X shift at the site's best focus"},
                {"OffsetY", -1.5, "nm", "mean Y shift at the site's best focus"},
                {"OffsetSpread", 3, "nm", "sigma of the site offsets about the mean"},
                {"SlopeX", 150, "nm/um", "mean X shift per um of focus"},
                {"SlopeY", 140, "nm/um", "mean Y shift per um of focus"},
                {"SlopeSpread", 8, "nm/um", "sigma of the site slopes about the mean"},
                {"X2", 10, "nm/um2", "X shift, second order"},
                {"Y2", -6, "nm/um2", "Y shift, second order"},
                {"X3", -20, "nm/um3", "X shift, third order"},
                {"Y3", 15, "nm/um3", "Y shift, third order"},
                {"TiltX", 1.5, "nm/mm", "field tilt of best focus along x"},
                {"TiltY", -1.0, "nm/mm", "field tilt of best focus along y"},
                {"Curvature", 0.1, "nm/mm2", "field curvature of best focus"}};
    }
    Status prepare(Proc&, LotPlan& plan, const std::vector<Coefficient>& c, bool, std::uint64_t seed) override {
        auto k = [&](const char* n) { return CoefficientOf(c, n); };
        x2_ = k("X2");
        y2_ = k("Y2");
        x3_ = k("X3");
        y3_ = k("Y3");
        Rng rng(seed ^ kSiteStream);
        sites_.clear();
        for (const SimSite& s : plan.sites) {
            SiteTerms t;
            t.offsetX = k("OffsetX") + k("OffsetSpread") * rng.gauss();
            t.slopeX = k("SlopeX") + k("SlopeSpread") * rng.gauss();
            t.offsetY = k("OffsetY") + k("OffsetSpread") * rng.gauss();
            t.slopeY = k("SlopeY") + k("SlopeSpread") * rng.gauss();
            t.focusOffset =
                (k("TiltX") * s.x() + k("TiltY") * s.y() + k("Curvature") * (s.x() * s.x() + s.y() * s.y())) / 1000;
            sites_.push_back(t);
        }
        plan.features = {{"Shift_X [nm]", "Shift_X", "nm", "nm", 1, 2},
                         {"Shift_Y [nm]", "Shift_Y", "nm", "nm", 1, 2}};
        plan.model = [this](int, const SimField& f, const SimSite& s, double* out) {
            const SiteTerms& t = sites_[static_cast<size_t>(s.number - 1)];
            const double fs = f.focus + t.focusOffset, f2 = fs * fs, f3 = f2 * fs;
            out[0] = t.offsetX + t.slopeX * fs + x2_ * f2 + x3_ * f3;
            out[1] = t.offsetY + t.slopeY * fs + y2_ * f2 + y3_ * f3;
        };
        plan.outlierMin = 40;
        plan.outlierMax = 80;
        plan.failTexts = {{"", "skipped"}};
        return StatusOk();
    }
    std::string formula() const override {
        return "Fs = Focus + (TiltX*x + TiltY*y + Curvature*(x^2+y^2))/1000, the focus the site sees (um; x, y the "
               "site in the field, mm); Shift_X = offsetX + slopeX*Fs + X2*Fs^2 + X3*Fs^3, Shift_Y = offsetY + "
               "slopeY*Fs + Y2*Fs^2 + Y3*Fs^3 (nm), with each site's offsets and slopes in siteModel";
    }
    void writeModel(JsonWriter& j, const LotPlan& plan) const override {
        j.key("siteModel").beginArray();
        for (size_t i = 0; i < plan.sites.size(); ++i) {
            const SiteTerms& t = sites_[i];
            j.beginObject(true).field("site", plan.sites[i].number).field("x", plan.sites[i].x());
            j.field("y", plan.sites[i].y()).field("offsetX", t.offsetX).field("slopeX", t.slopeX);
            j.field("offsetY", t.offsetY).field("slopeY", t.slopeY).field("focusOffset", t.focusOffset);
            j.endObject();
        }
        j.endArray();
    }

private:
    struct SiteTerms {
        double offsetX, slopeX, offsetY, slopeY, focusOffset;
    };
    std::vector<SiteTerms> sites_;
    double x2_ = 0, y2_ = 0, x3_ = 0, y3_ = 0;
};


// ---- thermal: a sensor wafer heating towards its plate's setpoint ----

class ThermalKind : public SimKind {
public:
    KindDefaults defaults() const override {
        KindDefaults d;
        d.wafers = 6;  // time samples
        d.sites = 19;  // sensors
        d.noise = 0.05;
        d.outliers = 1;
        d.failed = 0;
        d.focusDose = false;
        d.dataType = "Thermal";
        d.layouts = "onwafer";
        d.canFail = false;
        return d;
    }
    std::vector<Coefficient> coefficients() const override {
        return {{"Start", 23, "C", "wafer temperature at time 0"},
                {"Setpoint", 110, "C", "plate temperature the wafer settles to"},
                {"Tau", 8, "s", "time constant of the approach"},
                {"TimeStep", 5, "s", "time between samples, the first at 0"},
                {"Radial", -0.6, "C", "settled profile: change at the wafer edge, times (r/R)^2"},
                {"TiltX", 0.2, "C", "settled profile: change at x = R"},
                {"TiltY", -0.1, "C", "settled profile: change at y = R"}};
    }
    Status prepare(Proc& p, LotPlan& plan, const std::vector<Coefficient>& c, bool, std::uint64_t) override {
        if (plan.fields.size() != 1) return p.fail("A thermal map has one field: --fields-x and --fields-y must be 1.");
        auto k = [&](const char* n) { return CoefficientOf(c, n); };
        start_ = k("Start");
        setpoint_ = k("Setpoint");
        tau_ = k("Tau");
        radial_ = k("Radial");
        tiltX_ = k("TiltX");
        tiltY_ = k("TiltY");
        const double step = k("TimeStep");
        // Times are written to two decimals and name the wafers: a smaller step would merge them.
        if (!(tau_ > 0) || !(step >= 0.01)) return p.fail("Tau must be more than 0 and TimeStep 0.01 s or more.");
        // The times as written (two decimals): the wafer names and what the model sees.
        times_.clear();
        for (size_t w = 0; w < plan.wafers.size(); ++w) {
            times_.push_back(std::round(static_cast<double>(w) * step * 100) / 100);
            plan.wafers[w].assign(1, 't');
            plan.wafers[w] += Fixed(times_.back(), 2);
        }
        // One field the size of the wafer, the sensors on rings about its centre.
        plan.fieldSizeX = plan.fieldSizeY = kDiameter;
        plan.fields[0] = SimField{};
        const int n = static_cast<int>(plan.sites.size());
        int rings = 0;
        while (1 + 3 * rings * (rings + 1) < n) ++rings;
        plan.sites.clear();
        plan.sites.push_back({1, 0, 0});
        for (int ring = 1; ring <= rings && static_cast<int>(plan.sites.size()) < n; ++ring) {
            const int on = std::min(6 * ring, n - static_cast<int>(plan.sites.size()));
            const double r = kSensorRadius * ring / rings;
            for (int i = 0; i < on; ++i) {
                const double a = 6.283185307179586 * i / on;
                plan.sites.push_back({static_cast<int>(plan.sites.size()) + 1, std::lround(r * 1000 * std::cos(a)),
                                      std::lround(r * 1000 * std::sin(a))});
            }
        }
        plan.features = {{"Temperature (C)", "Temperature", "C", "C", 1, 2}};
        plan.model = [this](int w, const SimField&, const SimSite& s, double* out) {
            const double e = std::exp(-times_[static_cast<size_t>(w)] / tau_);
            const double R = kDiameter / 2, x = s.x() / R, y = s.y() / R;
            const double profile = radial_ * (x * x + y * y) + tiltX_ * x + tiltY_ * y;
            out[0] = setpoint_ + (start_ - setpoint_) * e + (1 - e) * profile;
        };
        plan.outlierMin = 3;
        plan.outlierMax = 6;
        return StatusOk();
    }
    std::string formula() const override {
        return "T = Setpoint + (Start - Setpoint)*e + (1 - e)*(Radial*(X^2+Y^2)/R^2 + TiltX*X/R + TiltY*Y/R), "
               "e = exp(-t/Tau); t the wafer's time (s, as written: wafer \"t\" and the time), X, Y the sensor on "
               "the wafer (mm), R the wafer's radius; T in C";
    }
    void writeModel(JsonWriter& j, const LotPlan& plan) const override {
        j.field("diameter", kDiameter);
        j.key("times").beginArray();
        for (size_t w = 0; w < plan.wafers.size(); ++w)
            j.beginObject(true).field("wafer", plan.wafers[w]).field("time", times_[w]).endObject();
        j.endArray();
    }

private:
    static constexpr double kDiameter = 300;
    static constexpr double kSensorRadius = 140;
    double start_ = 0, setpoint_ = 0, tau_ = 1, radial_ = 0, tiltX_ = 0, tiltY_ = 0;
    std::vector<double> times_;
};

}  // namespace

std::unique_ptr<SimKind> MakeSimKind(std::string_view kind) {
    if (kind == "fem") return std::make_unique<FemKind>();
    if (kind == "overlay") return std::make_unique<OverlayKind>();
    if (kind == "psfm") return std::make_unique<PsfmKind>();
    if (kind == "reticle") return std::make_unique<ReticleKind>();
    if (kind == "thermal") return std::make_unique<ThermalKind>();
    return nullptr;
}

}  // namespace zorv::sim
