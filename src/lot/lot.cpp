// cLot: properties with behaviour, structure, counters, features and units.
#include <algorithm>
#include <cmath>
#include <optional>

#include "base/proc.h"
#include "base/report.h"
#include "base/text.h"
#include "lot/lot.h"
#include "tree_helpers.h"

namespace zorv {

namespace {
bool allDigits(std::string_view s) {
    if (s.empty()) return false;
    for (char c : s)
        if (c < '0' || c > '9') return false;
    return true;
}
}  // namespace

cLot::cLot() : wafers_(this) {
    FamilyNames = Datam(0, 3, 0, 0);
    FamilyNames(0, 0) = Value("Enum");
    FamilyNames(0, 1) = Value("Name");
    FamilyNames(0, 2) = Value("Count");
    FamilyNames(0, 3) = Value("Selected");
}

cLot::~cLot() {
    // Sites drop their points before the wafers go, so no walk runs on a half-freed tree.
    for (cWafer* w : wafers_) w->Kill();
    wafers_.Clear();
}

std::shared_ptr<cLot> cLot::self() {
    if (auto s = weak_from_this().lock()) return s;
    return std::shared_ptr<cLot>(this, [](cLot*) {});
}

void cLot::DataSource(eDataSource source) {
    dataSource_ = source;
    LineWidthType = IsScalarSource(source);
    if (IsWaferSiteSource(source)) PlotWaferSites = true;
}

std::string cLot::GetNotchString() const {
    const double n = Round(Notch, 1);
    if (n == 0) return "Right";
    if (n == Round(kPi, 1)) return "Left";
    if (n == Round(kPi / 2, 1)) return "Up";
    return "Down";
}

void cLot::PlotFeature(int feature) {
    if (feature == plotFeature_) return;
    plotFeature_ = feature;
    SetModified();
    PlotFeatureUpdate(-1e9, 1e9);
}

void cLot::PlotFeatureUnits(long code) {
    plotFeatureUnits_ = code;
    if (plotFeature_ >= 1 && plotFeature_ <= 8)
        if (long* u = FeatureUnitsField(plotFeature_)) *u = code;
}

long cLot::FamilyTotal() {
    if (familyTotal_ < 1) {
        long last = FamilyNames.isArray() ? FamilyNames.rowUb() : 0;
        familyTotal_ = std::max<long>(last, 1);
    }
    return familyTotal_;
}

// ---------------------------------------------------------------- structure

int cLot::mFindWafer(std::string_view name, bool keyToo, Datam* out) const {
    const std::string u = Upper(name);
    int pos = 0;
    for (cWafer* w : wafers_) {
        ++pos;
        if (Upper(w->WaferID) == u || (keyToo && Upper(w->KeyName) == u)) {
            if (out) {
                *out = Datam::array1(3, 1);
                out->at(1) = Value(int32_t(pos));
                out->at(2) = Value(int32_t(w->Number()));
                out->at(3) = Value(w->WaferID);
            }
            return pos;
        }
    }
    if (out) {
        *out = Datam::array1(3, 1);
        out->at(1) = Value(int32_t(-1));
    }
    return -1;
}

cWafer* cLot::AddWafer(std::string_view name, bool& isNew, std::string_view key) {
    isNew = false;
    std::string nm(name);
    std::string k(key);
    if (!nm.empty()) {
        int pos = mFindWafer(nm, true);
        if (pos < 0 && allDigits(nm)) pos = mFindWafer("W" + nm, true);
        if (pos > 0) return wafers_.At(pos);
    }
    auto w = std::make_unique<cWafer>();
    w->setParent(this);
    w->setNumber(wafers_.Count() + 1);
    if (nm.empty()) nm = std::to_string(w->Number());
    if (k.empty()) k = allDigits(nm) ? "W" + nm : nm;
    w->WaferID = nm;
    cWafer* raw = wafers_.Add(std::move(w), k);
    if (!raw) {
        Proc p("cLot(AddWafer): ");
        p.trapStyle();
        p.msg = "Wafer key " + k + " is already in use.";
        p.report();
        return nullptr;
    }
    isNew = true;
    return raw;
}

cField* cLot::GetField(const Value& id) const {
    // By hand, not forEachLive: a field-level search that stops at the first hit.
    for (cWafer* w : wafers_) {
        if (w->cull()) continue;
        if (cField* f = w->GetField(id)) return f;
    }
    return nullptr;
}

cSite* cLot::GetSite(long key, bool bySitesWafer) const {
    // By hand, not forEachLive: a site-level search that stops at the first hit.
    for (cWafer* w : wafers_) {
        if (w->cull()) continue;
        if (bySitesWafer) {
            for (cSite* s : w->SitesWafer())
                if (!s->cull() && s->NumberKey() == key) return s;
            continue;
        }
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            if (cSite* s = f->sites().Item(std::string_view(std::to_string(key))); s && !s->cull() && s->NumberKey() == key)
                return s;
            for (cSite* s : f->sites())
                if (!s->cull() && s->NumberKey() == key) return s;
        }
    }
    return nullptr;
}

cSite* cLot::GetSite(float x, float y, bool bySitesWafer) const {
    auto near = [&](const cSite* s) {
        return !s->cull() && Round(std::fabs(double(s->LocationX) - x), 3) <= 0.09 &&
               Round(std::fabs(double(s->LocationY) - y), 3) <= 0.09;
    };
    // By hand, not forEachLive: a site-level search that stops at the first hit.
    for (cWafer* w : wafers_) {
        if (w->cull()) continue;
        if (bySitesWafer) {
            for (cSite* s : w->SitesWafer())
                if (near(s)) return s;
            continue;
        }
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            for (cSite* s : f->sites())
                if (near(s)) return s;
        }
    }
    return nullptr;
}

cWafer* cLot::SetToWaferNumber(long n) {
    for (cWafer* w : wafers_)
        if (w->Number() == n) {
            CurrentWaferKey = w->KeyName;
            return w;
        }
    return nullptr;
}

cField* cLot::SetToFieldNumber(cWafer* w, long n) {
    if (!w) return nullptr;
    for (cField* f : w->Fields())
        if (f->Number == n) {
            CurrentWaferKey = w->KeyName;
            CurrentFieldKey = f->NumberKey;
            return f;
        }
    return nullptr;
}

void cLot::Recount() {
    for (cWafer* w : wafers_) {
        for (cField* f : w->Fields()) {
            int32_t fp = 0, fs = 0;
            for (cSite* s : f->sites()) {
                int32_t sp = 0;
                for (cPoint* p : s->Points())
                    if (!p->cull()) ++sp;
                s->TotalPointsCount = sp;
                if (!s->cull()) {
                    fp += sp;
                    ++fs;
                }
            }
            f->TotalPointsCount = fp;
            f->TotalSitesCount = fs;
        }
    }
}

long cLot::TotalPoints(long* culled, bool recount) {
    if (wafers_.Count() == 0) {
        Proc p("cLot(TotalPoints): ");
        p.msg = "No wafers in lot: " + LotName;
        p.report();
        if (culled) *culled = 0;
        return 0;
    }
    if (recount) Recount();
    // Field level: the running counters stand for the sites and points below.
    long n = 0;
    for (cWafer* w : wafers_) {
        if (w->cull()) continue;
        for (cField* f : w->Fields())
            if (!f->cull()) n += f->TotalPointsCount;
    }
    if (culled) {
        long all = 0;
        for (cWafer* w : wafers_)
            for (cField* f : w->Fields())
                for (cSite* s : f->sites()) all += s->Points().Count();
        *culled = std::max<long>(0, all - n);
    }
    return n;
}

void cLot::ForEAch(const std::function<void(cWafer&, cField&, cSite&, cPoint&)>& fn) const {
    forEachLive(fn);
}

void cLot::Clear() {
    for (cWafer* w : wafers_) w->Kill();
    wafers_.Clear();
    pointCounter_ = 0;
    DieXmin = 1e10f; DieXmax = -1e10f; DieYmin = 1e10f; DieYmax = -1e10f;
    SetModified();
}

void cLot::Kill() {
    const int total = wafers_.Count();
    const std::string head = "Remove Lot '" + LotName + "'";
    if (total <= 1) SetStatusText(head);
    int i = 0;
    for (cWafer* w : wafers_) {
        ++i;
        if (total > 1) SetStatusText(head + " Wafer: " + std::to_string(i) + " of " + std::to_string(total));
        w->Kill();
    }
    wafers_.Clear();
    SetStatusText("... Model cleanup", true);
    if (ModelWafer) ModelWafer->Clear();
    if (ModelField) ModelField->Clear();
    ModelWafer.reset();
    ModelField.reset();
    AuxModels.clear();
    ReferenceLots.clear();
    SetStatusText("... Graphic links", true);
    PlotGraph.reset();
    Container.reset();
}

// ---------------------------------------------------------------- features

std::string cLot::GetPlotFeatureName(int feature) const {
    switch (feature) {
        case -1: return "None";
        case 0: return "Vector";
        case 1: return ValueV_Name;
        case 2: return ValueH_Name;
        case 3: return valueZ_Name;
        case 4: return Slope_Name;
        case 5: return Pitch_Name;
        case 6: return ValueA_Name;
        case 7: return ValueB_Name;
        case 8: return ValueC_Name;
        case 9: return "Astigmatism";
        default: return "";
    }
}

int cLot::GetPlotFeature(std::string_view name) const {
    const std::string u = Upper(name);
    for (int f = -1; f <= 9; ++f) {
        const std::string n = GetPlotFeatureName(f);
        if (!n.empty() && Upper(n) == u) return f;
    }
    return -1;
}

std::string cLot::GetPlotFeatureTypeName() const {
    switch (PLotDataType % 3) {
        case 1: return "Fitted";
        case 2: return "Residuals";
        default: return "Raw Data";
    }
}

void cLot::setPlotFeatureName(std::string_view name) {
    // -1 is both "None" and "no such feature": only the name "None" selects it.
    const int f = GetPlotFeature(name);
    if (f >= 0 || (f == -1 && Upper(name) == "NONE")) {
        PlotFeature(f);
        PlotFeatureName = GetPlotFeatureName(f);
    } else {
        PlotFeatureName = std::string(name);
    }
}

void cLot::PlotFeatureUpdate(double minValue, double maxValue) {
    PlotFeatureName = GetPlotFeatureName(plotFeature_);
    PlotFeatureMin = static_cast<float>(minValue);
    PlotFeatureMax = static_cast<float>(maxValue);
    const int f = plotFeature_ == 0 ? 1 : plotFeature_;
    if (long* u = FeatureUnitsField(f)) plotFeatureUnits_ = *u;
}

long* cLot::FeatureUnitsField(int feature) {
    switch (feature) {
        case 1: return &ValueV_Units;
        case 2: return &ValueH_units;
        case 3: return &ValueZ_units;
        case 4: return &Slope_Units;
        case 5: return &Pitch_Units;
        case 6: return &ValueA_Units;
        case 7: return &ValueB_Units;
        case 8: return &ValueC_Units;
        default: return nullptr;
    }
}

bool cLot::GetPlotFeatureUnits(int feature, std::string& text, long& code) const {
    if (feature < 0 || feature > 8) return false;
    const long* u = const_cast<cLot*>(this)->FeatureUnitsField(feature == 0 ? 1 : feature);
    code = *u;
    text = UnitName(code);
    return true;
}

std::string cLot::GetPlotFeatureUnits() const {
    std::string t;
    long c = 0;
    if (GetPlotFeatureUnits(plotFeature_, t, c)) return t;
    return UnitName(plotFeatureUnits_);
}

std::string cLot::PlotFeatureUnitsString(std::string_view text, bool set, long* result) {
    const std::optional<long> code = UnitCodeOf(text);
    if (!code) {
        if (result) *result = plotFeatureUnits_;
        return UnitName(plotFeatureUnits_);
    }
    if (set) PlotFeatureUnits(*code);
    if (result) *result = *code;
    return UnitName(*code);
}

void cLot::UpdateUnits(const Datam& table, bool replace) {
    if (!table.isArray() || table.dims() != 2) return;
    int cVar = -1, cUnits = -1;
    for (int c = table.colLb(); c <= table.colUb(); ++c) {
        const std::string h = Upper(table(table.rowLb(), c).toString());
        if (h == "VARIABLE") cVar = c;
        else if (h == "UNITS") cUnits = c;
    }
    if (cVar < 0) cVar = table.colLb();
    if (cUnits < 0) cUnits = cVar + 1;
    if (cUnits > table.colUb()) return;
    const int saved = plotFeature_;
    const long savedUnits = plotFeatureUnits_;
    for (int r = table.rowLb() + 1; r <= table.rowUb(); ++r) {
        const std::string var = Upper(table(r, cVar).toString());
        if (var.empty()) continue;
        for (int f = 1; f <= 8; ++f) {
            if (Upper(GetPlotFeatureName(f)) != var) continue;
            long* u = FeatureUnitsField(f);
            if (!replace && *u != 0) break;
            plotFeature_ = f;
            PlotFeatureName = GetPlotFeatureName(f);
            PlotFeatureUnitsString(table(r, cUnits).toString(), true);
            break;
        }
    }
    plotFeature_ = saved;
    PlotFeatureName = GetPlotFeatureName(saved);
    plotFeatureUnits_ = savedUnits;
    if (saved >= 0 && saved <= 8)
        if (long* u = FeatureUnitsField(saved == 0 ? 1 : saved)) plotFeatureUnits_ = *u;
}

std::function<int(cLot&)>& cLot::UpdateUnits2WorkbookHook() {
    static std::function<int(cLot&)> hook;
    return hook;
}

int cLot::UpdateUnits2Workbook() {
    auto& hook = UpdateUnits2WorkbookHook();
    if (!hook) return -1;  // no workbook layer in this program
    Proc p("cLot(UpdateUnits2Workbook): ");
    int r = -1;
    if (!Guarded(p, [&] { r = hook(*this); })) {
        p.report();
        return -1;
    }
    return r;
}

Datam cLot::GetFeatureTypes() const {
    bool has[10] = {};
    int found = 0;
    forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) {
        for (int k = 1; k <= 8; ++k)
            if (!has[k] && *p.FeatureSlot(k, 0) != kMissingValue) {
                has[k] = true;
                ++found;
            }
        return found < 8;  // all eight seen: the rest cannot add one
    });
    has[0] = has[1] && has[2] && !LineWidthType;
    has[9] = has[0];
    int n = 0;
    for (bool b : has) n += b;
    Datam d(n, 2, 0, 0);
    d(0, 0) = Value("Feature");
    d(0, 1) = Value("Type");
    d(0, 2) = Value("Name");
    int r = 0;
    for (int k = 0; k <= 9; ++k) {
        if (!has[k]) continue;
        ++r;
        d(r, 0) = Value(int32_t(k));
        d(r, 1) = Value("ePlotFeature" + std::to_string(k));
        d(r, 2) = Value(GetPlotFeatureName(k));
    }
    return d;
}

Result<long> cLot::GetFamily(long siteKey) const {
    // Culled sites answer as well.
    const std::string key = std::to_string(siteKey);
    for (cWafer* w : wafers_)
        for (cField* f : w->Fields())
            if (cSite* s = f->sites().Item(std::string_view(key))) return s->Family();
    Proc p("cLot(GetFamily): ");
    return p.fail(" Input Site # " + key + " was not found.");
}

}  // namespace zorv
