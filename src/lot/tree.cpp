// Structure of the measurement tree: links, keys, counters, lookups.
#include <algorithm>
#include <cmath>

#include "base/proc.h"
#include "base/report.h"
#include "lot/geom.h"
#include "lot/lot.h"

namespace zorv {

namespace {

// Next free numeric key above both `key` and `count`, trying up to three
// times count + 2 candidates; empty when none is free.
template <class Taken>
Value repairKey(const Value& key, int count, Taken taken) {
    double k = 0;
    if (key.type() == VType::Long) k = key.toLong();
    long start = static_cast<long>(std::max<double>(k, count)) + 1;
    long tries = 3L * (count + 2);
    for (long i = 0; i < tries; ++i) {
        Value cand = MakeKey(start + i);
        if (!taken(cand)) return cand;
    }
    return Value();
}

}  // namespace

// ================================================================ cPoint

void cPoint::setParentLot(cLot* lot) {
    lot_ = lot;
    if (lot) SerialNumber = lot->NextPointSerial();
}

void cPoint::setCull(bool c) {
    if (c == cull_) return;
    cull_ = c;
    cLot* lot = lot_;
    if (parent_) {
        CountStep(parent_->TotalPointsCount, c);
        if (cField* f = parent_->parent()) {
            CountStep(f->TotalPointsCount, c);
            if (!lot) lot = f->ParentLot();
        }
    }
    if (lot) lot->SetModified();
}

static cLot* pointLot(const cPoint& p) {
    if (p.ParentLot()) return p.ParentLot();
    return p.parent() ? p.parent()->ParentLot() : nullptr;
}

std::string cPoint::ValueV_Name() const { cLot* l = pointLot(*this); return l ? l->ValueV_Name : std::string(); }
std::string cPoint::ValueH_Name() const { cLot* l = pointLot(*this); return l ? l->ValueH_Name : std::string(); }
std::string cPoint::valueZ_Name() const { cLot* l = pointLot(*this); return l ? l->valueZ_Name : std::string(); }
std::string cPoint::Slope_Name() const { cLot* l = pointLot(*this); return l ? l->Slope_Name : std::string(); }
std::string cPoint::Pitch_Name() const { cLot* l = pointLot(*this); return l ? l->Pitch_Name : std::string(); }

Datam cPoint::TrueValues() const {
    Datam d = Datam::array1(3, 1);
    d.at(1) = Value(ValueV);
    d.at(2) = Value(ValueH);
    d.at(3) = Value(ValueZ);
    return d;
}

float* cPoint::FeatureSlot(int feature, int dataType) {
    const int k = ((dataType % 3) + 3) % 3;
    switch (feature * 3 + k) {
        case 0: case 3: return &ValueV;
        case 1: case 4: return &ValueV_fit;
        case 2: case 5: return &ValueV_Res;
        case 6: return &ValueH;
        case 7: return &ValueH_fit;
        case 8: return &ValueH_Res;
        case 9: return &ValueZ;
        case 10: return &ValueZ_fit;
        case 11: return &ValueZ_Res;
        case 12: return &Slope;
        case 13: return &Slope_fit;
        case 14: return &Slope_Res;
        case 15: return &Pitch;
        case 16: return &Pitch_fit;
        case 17: return &Pitch_Res;
        case 18: return &ValueA;
        case 19: return &ValueA_fit;
        case 20: return &ValueA_Res;
        case 21: return &ValueB;
        case 22: return &ValueB_fit;
        case 23: return &ValueB_Res;
        case 24: return &ValueC;
        case 25: return &ValueC_fit;
        case 26: return &ValueC_Res;
        case 27: return &ValueAstig;
        case 28: return &ValueAstig_fit;
        case 29: return &ValueAstig_Res;
        default: return nullptr;
    }
}

namespace {
// The lot's plot feature stands in for ePlotFeatureLot; the data type is the
// lot's (0 without a lot).
int resolveFeature(const cPoint& p, int& feature) {
    if (cLot* l = pointLot(p)) {
        if (feature == ePlotFeatureLot) feature = l->PlotFeature();
        return l->PLotDataType;
    }
    if (feature == ePlotFeatureLot) feature = 0;
    return 0;
}
}  // namespace

float cPoint::GetPlotFeatureValue(float& val1, float& val2, float& val3, int feature) {
    const int dt = resolveFeature(*this, feature);
    return GetPlotFeatureValue(val1, val2, val3, feature, dt);
}

float cPoint::GetPlotFeatureValue(float& val1, float& val2, float& val3, int feature, int dataType) {
    if (feature == ePlotFeatureLot) {
        cLot* l = pointLot(*this);
        feature = l ? l->PlotFeature() : 0;
    }
    const int k = ((dataType % 3) + 3) % 3;
    switch (feature) {
        case ePlotFeatureVector:
            val1 = *FeatureSlot(1, k);
            val2 = *FeatureSlot(2, k);
            val3 = *FeatureSlot(3, k);
            if (k == 0 && val3 == kMissingValue) {
                val3 = ValueV;
                if (val3 == kMissingValue) val3 = ValueH;
            }
            return val3;
        case ePlotFeatureAstig:
            if (ValueAstig == 0 && ValueAstig_fit == 0 && ValueAstig_Res == 0 && ValueV != 0) {
                ValueAstig = ValueV - ValueH;
                ValueAstig_fit = ValueV_fit - ValueH_fit;
                ValueAstig_Res = ValueAstig - ValueAstig_fit;
            }
            val1 = *FeatureSlot(9, k);
            return val1;
        default:
            if (feature >= 1 && feature <= 8) {
                val1 = *FeatureSlot(feature, k);
                return val1;
            }
            return kMissingValue;
    }
}

void cPoint::PutPlotFeatureValue(float val1, float val2, float val3, int feature) {
    const int dt = resolveFeature(*this, feature);
    PutPlotFeatureValue(val1, val2, val3, feature, dt);
}

void cPoint::PutPlotFeatureValue(float val1, float val2, float val3, int feature, int dataType) {
    if (feature == 0) {
        *FeatureSlot(1, dataType) = val1;
        *FeatureSlot(2, dataType) = val2;
        *FeatureSlot(3, dataType) = val3;
    } else if (float* s = FeatureSlot(feature, dataType); s && feature >= 1 && feature <= 9) {
        *s = val1;
    }
}

void cPoint::SetPlotFeatureValue(float val1, float val2, float val3, int feature) {
    const int dt = resolveFeature(*this, feature);
    SetPlotFeatureValue(val1, val2, val3, feature, dt);
}

void cPoint::SetPlotFeatureValue(float val1, float val2, float val3, int feature, int dataType) {
    PutPlotFeatureValue(val1, val2, val3, feature, dataType);
    if (dataType % 3 != 0) PutPlotFeatureValue(val1, val2, val3, feature, 0);
}

bool cPoint::CalcVector(float& length, float& fitLength, float& resLength, bool store) {
    if (IsMissingTol(ValueV) || IsMissingTol(ValueH)) return false;
    length = static_cast<float>(std::sqrt(double(ValueV) * ValueV + double(ValueH) * ValueH));
    auto len = [](float a, float b) {
        if (IsMissingTol(a) || IsMissingTol(b)) return kMissingValue;
        return static_cast<float>(std::sqrt(double(a) * a + double(b) * b));
    };
    fitLength = len(ValueV_fit, ValueH_fit);
    resLength = len(ValueV_Res, ValueH_Res);
    if (store) {
        ValueZ = length;
        ValueZ_fit = fitLength;
        ValueZ_Res = resLength;
    }
    return true;
}

bool cPoint::CalcVectorP(float& length, float& fitLength, float& resLength, bool store) {
    length = static_cast<float>(std::sqrt(double(ValueV_Pixel) * ValueV_Pixel + double(ValueH_Pixel) * ValueH_Pixel));
    fitLength = length;
    resLength = length;
    if (store) valueZ_Pixel = length;
    return true;
}

double cPoint::CalcAngle() const { return FoldAngle(ValueH, ValueV); }
double cPoint::CalcAngleP() const { return FoldAngle(ValueH_Pixel, ValueV_Pixel); }

void cPoint::FoldBack(int dataKind, bool toRaw) {
    const int k = dataKind % 3;
    if (k == 0) return;
    for (int f = 1; f <= 9; ++f) {
        float* raw = FeatureSlot(f, 0);
        float* fit = FeatureSlot(f, 1);
        float* res = FeatureSlot(f, 2);
        float* src = k == 2 ? res : fit;
        if (*src == kMissingValue) continue;
        if (toRaw) {
            *raw = *src;
            *fit = 0;
            *res = 0;
        } else if (k == 2) {
            *res = *raw - *fit;
        } else {
            *fit = *raw - *res;
        }
    }
    for (int f = 1; f <= 9; ++f) *FeatureSlot(f, k) = 0;
}

std::unique_ptr<cPoint> cPoint::clone() const {
    std::unique_ptr<cPoint> p(new cPoint(*this));
    p->parent_ = nullptr;
    p->lot_ = nullptr;
    return p;
}

// ================================================================ Points

cPoint* Points::Item(int pos) const {
    if (pos == 1) return first_.get();
    if (pos < 2 || !rest_ || pos - 2 >= static_cast<int>(rest_->items.size())) return nullptr;
    return rest_->items[static_cast<size_t>(pos - 2)].get();
}

const Value& Points::keyAt(size_t i) const {
    return i == 0 ? first_->NumberKeyValue() : rest_->items[i - 1]->NumberKeyValue();
}

int Points::IndexOf(const Value& key) const {
    const size_t n = static_cast<size_t>(Count());
    if (!rest_) return n == 1 && KeyEqual(first_->NumberKeyValue(), key) ? 1 : 0;
    return rest_->index.find(key, n, [this](size_t i) -> const Value& { return keyAt(i); }) + 1;
}

cPoint* Points::ItemKey(const Value& key) const { return Item(IndexOf(key)); }

cPoint* Points::Add(std::unique_ptr<cPoint> point, std::string_view key) {
    if (!point) point = std::make_unique<cPoint>();
    const int n = Count();
    Value k;
    if (!key.empty()) k = MakeKey(key);
    else if (!point->NumberKeyValue().isEmpty() && !KeyText(point->NumberKeyValue()).empty()) k = point->NumberKeyValue();
    else k = MakeKey(static_cast<long>(n + 1));
    if (IndexOf(k) > 0) {
        k = repairKey(k, n, [this](const Value& c) { return IndexOf(c) > 0; });
        if (k.isEmpty()) return nullptr;
    }
    point->setNumberKey(k);
    cPoint* raw = point.get();
    if (!first_) {
        first_ = std::move(point);
    } else {
        if (!rest_) rest_ = std::make_unique<Rest>();
        rest_->items.push_back(std::move(point));
        const size_t count = rest_->items.size() + 1;
        rest_->index.added(count - 1, count, [this](size_t i) -> const Value& { return keyAt(i); });
    }
    return raw;
}

std::unique_ptr<cPoint> Points::Remove(int pos) {
    const int n = Count();
    if (pos < 1 || pos > n) return nullptr;
    std::unique_ptr<cPoint> out;
    if (pos == 1) {
        out = std::move(first_);
        if (rest_ && !rest_->items.empty()) {
            first_ = std::move(rest_->items.front());
            rest_->items.erase(rest_->items.begin());
        }
    } else {
        out = std::move(rest_->items[static_cast<size_t>(pos - 2)]);
        rest_->items.erase(rest_->items.begin() + (pos - 2));
    }
    if (rest_ && rest_->items.empty()) rest_.reset();
    if (rest_)
        rest_->index.rebuild(rest_->items.size() + 1,
                             [this](size_t i) -> const Value& { return keyAt(i); });
    return out;
}

void Points::Clear() {
    first_.reset();
    rest_.reset();
}

// ================================================================ cSite

cSite::~cSite() = default;

void cSite::setNumberKey(int32_t key) {
    numberKey_ = key;
    SetSerial();
}

static int32_t serialPrefixOf(const cField* f) {
    if (!f) return 0;
    const cWafer* w = f->ParentWafer();
    return static_cast<int32_t>((w ? w->Number() : 0) * 1000 + f->Number);
}

void cSite::SetSerial() {
    if (parent_) serialPrefix_ = serialPrefixOf(parent_);
    serialSuffix_ = Number;
    hasSerial_ = true;
}

std::string cSite::SerialNumber() const {
    if (!hasSerial_) return {};
    return std::to_string(serialPrefix_) + "." + std::to_string(serialSuffix_);
}

void cSite::setSerialNumber(std::string_view serial) {
    size_t dot = serial.find('.');
    double a = 0, b = 0;
    ParseNumber(serial.substr(0, dot), a);
    if (dot != std::string_view::npos) ParseNumber(serial.substr(dot + 1), b);
    serialPrefix_ = static_cast<int32_t>(a);
    serialSuffix_ = static_cast<int32_t>(b);
    hasSerial_ = true;
}

std::string cSite::WaferKey() const {
    const cWafer* w = ParentWafer();
    if (!w) return {};
    return w->KeyName.empty() ? w->WaferID : w->KeyName;
}

std::string cSite::FieldKey() const { return parent_ ? parent_->NumberKey : std::string(); }

void cSite::setFamily(long family) {
    family_ = static_cast<int32_t>(family);
    if (cLot* l = ParentLot())
        if (l->FamilyTotal() < family) l->FamilyTotal(family);
}

namespace {
// Family names are few and repeat on every site: one table for the process.
std::vector<std::string>& familyNameTable() {
    static std::vector<std::string> names{std::string()};
    return names;
}
uint16_t internFamilyName(std::string_view name) {
    if (name.empty()) return 0;
    auto& t = familyNameTable();
    for (size_t i = 1; i < t.size(); ++i)
        if (t[i] == name) return static_cast<uint16_t>(i);
    if (t.size() >= 65535) return 0;
    t.emplace_back(name);
    return static_cast<uint16_t>(t.size() - 1);
}
}  // namespace

std::string cSite::FamilyName() {
    if (familyName_ != 0) return familyNameTable()[familyName_];
    switch (family_) {
        case 1: return "IsoLine";
        case 2: return "DensePack";
        case 3: return "Via";
        case -1: return "";
        default: family_ = 2; return "DensePack";
    }
}

void cSite::setFamilyName(std::string_view name) { familyName_ = internFamilyName(name); }

void cSite::setCull(bool c) {
    if (c == cull_) return;
    cull_ = c;
    if (parent_) {
        int32_t& tp = parent_->TotalPointsCount;
        tp = c ? std::max<int32_t>(0, tp - TotalPointsCount) : tp + TotalPointsCount;
        CountStep(parent_->TotalSitesCount, c);
        if (cLot* l = parent_->ParentLot()) l->SetModified();
    }
}

cSiteExtra& cSite::extra() {
    if (!extra_) extra_ = std::make_unique<cSiteExtra>();
    return *extra_;
}

const cSiteExtra& cSite::extraOrDefault() const {
    static const cSiteExtra none;
    return extra_ ? *extra_ : none;
}

void cSite::setParent(cField* field) {
    parent_ = field;
    if (field) {
        serialPrefix_ = serialPrefixOf(field);
        serialSuffix_ = numberKey_;
        hasSerial_ = true;
    }
}

cWafer* cSite::ParentWafer() const { return parent_ ? parent_->ParentWafer() : nullptr; }

cLot* cSite::ParentLot() const {
    cWafer* w = ParentWafer();
    return w ? w->parent() : nullptr;
}

cPoint* cSite::AddPoint(std::unique_ptr<cPoint> point, std::string_view key) {
    if (!point) point = std::make_unique<cPoint>();
    const int n = points_.Count();
    std::string k(key);
    if (k.empty()) k = point->NumberKey();
    {
        double d;
        if (k.empty() || (ParseNumber(k, d) && d <= n)) k = std::to_string(n + 1);
    }
    point->setParent(this);
    if (cLot* l = ParentLot()) point->setParentLot(l);
    cPoint* p = points_.Add(std::move(point), k);
    if (!p) return nullptr;
    p->setNumber(points_.Count());
    if (!p->cull()) {
        ++TotalPointsCount;
        if (parent_) ++parent_->TotalPointsCount;
    }
    return p;
}

cPoint* cSite::GetPoint(const Value& key) const {
    // A text key is a key only; "3" does not fall back to the third point.
    if (key.isString()) return points_.ItemKey(MakeKey(key.str()));
    if (cPoint* p = points_.ItemKey(MakeKey(static_cast<long>(key.toLong())))) return p;
    return points_.Item(key.toLong());
}

double cSite::CalcAngle() const {
    cLot* l = ParentLot();
    const double x = LocationX + (l ? l->SiteXoffset : 0);
    const double y = LocationY + (l ? l->SiteYoffset : 0);
    return FoldAngle(x, y);
}

double cSite::CalcVector() const { return std::sqrt(double(LocationX) * LocationX + double(LocationY) * LocationY); }

void cSite::SetPointsZero() {
    Proc p("cSite(SetPointZero): ");
    for (cPoint* pt : points_)
        for (int f = 1; f <= 9; ++f)
            for (int k = 0; k < 3; ++k) *pt->FeatureSlot(f, k) = 0;
}

Ref<cSite> cSite::clone(bool keepCulled) const {
    Ref<cSite> s = New();
    s->LocationX = LocationX; s->LocationY = LocationY; s->LocationZ = LocationZ;
    s->LocationR = LocationR; s->LocationTheta = LocationTheta;
    s->LocationXabs = LocationXabs; s->LocationYabs = LocationYabs;
    s->LocationRabs = LocationRabs; s->LocationThetaAbs = LocationThetaAbs;
    s->WaferX = WaferX; s->WaferY = WaferY;
    s->Number = Number;
    s->numberKey_ = numberKey_;
    s->serialPrefix_ = serialPrefix_;
    s->serialSuffix_ = serialSuffix_;
    s->hasSerial_ = hasSerial_;
    s->family_ = family_;
    s->familyName_ = familyName_;
    s->Color = Color;
    s->cull_ = cull_;
    if (extra_) s->extra_ = std::make_unique<cSiteExtra>(*extra_);
    int count = 0;
    for (cPoint* p : points_) {
        if (p->cull() && !keepCulled) continue;
        auto c = p->clone();
        c->setParent(s.get());
        if (!c->cull()) ++count;
        s->points_.Add(std::move(c), {});
        s->points_.Item(s->points_.Count())->setNumber(s->points_.Count());
    }
    s->TotalPointsCount = count;
    return s;
}

void cSite::Kill() {
    points_.Clear();
    TotalPointsCount = 0;
    parent_ = nullptr;
}

// ================================================================ sites

cSite* sites::Item(const Value& index) const {
    if (index.isString()) return list_.byKey(MakeKey(index.str()));
    return list_.at(index.toLong());
}

cSite* sites::Add(Ref<cSite> site, std::string_view key) {
    if (!site) site = cSite::New();
    const int n = list_.Count();
    Value k;
    if (!key.empty()) k = MakeKey(key);
    else if (site->NumberKey() != 0) k = MakeKey(static_cast<long>(site->NumberKey()));
    else k = MakeKey(static_cast<long>(n + 1));
    if (list_.indexOf(k) > 0) {
        k = repairKey(k, n, [this](const Value& c) { return list_.indexOf(c) > 0; });
        if (k.isEmpty()) return nullptr;
    }
    cSite* raw = site.get();
    if (raw->Number == 0) raw->Number = n + 1;
    list_.insert(std::move(site), std::move(k));
    if (cField* f = raw->parent(); f && &f->sites() == this && !raw->cull()) ++f->TotalSitesCount;
    return raw;
}

// ================================================================ cField

cField::~cField() {
    // Sites can outlive the field in the wafer's view; they must not point back.
    for (cSite* s : sites_)
        if (s->parent_ == this) s->parent_ = nullptr;
}

void cField::SetDirection(std::string_view word) {
    std::string u;
    for (char c : word) u += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    Direction = u == "DOWN" ? 0 : u == "LEFT" ? 1 : u == "RIGHT" ? 2 : 3;
}

void cField::setCull(bool c) {
    if (c == cull_) return;
    cull_ = c;
    if (cLot* l = ParentLot()) l->SetModified();
}

cLot* cField::ParentLot() const { return wafer_ ? wafer_->parent() : nullptr; }

int cField::FindSite(float x, float y, int& number, long family) const {
    return findSiteIn(sites_, x, y, number, family);
}

int cField::mFindSite(double x, double y, double letterWidth) const {
    const cLot* l = ParentLot();
    const double cx = l ? l->wcenx : 0, cy = l ? l->wceny : 0;
    const double tol = std::max(cx / 30.0, letterWidth);
    for (int i = 1; i <= sites_.Count(); ++i) {
        const cSite* s = sites_.Item(i);
        if (s->cull()) continue;
        if (std::fabs(s->WaferX + cx - x) <= tol && std::fabs(s->WaferY + cy - y) <= tol) return i;
    }
    return -1;
}

Datam cField::mFindPoint(double x, double y, double letterWidth, bool noFieldCoords) const {
    Datam out = Datam::array1(4, 1);
    out.at(1) = Value(NumberKey);
    out.at(2) = Value(int32_t(-1));
    out.at(3) = Value(int32_t(-1));
    out.at(4) = Value(false);
    const cLot* l = ParentLot();
    const double cx = l ? l->wcenx : 0, cy = l ? l->wceny : 0;
    const double tol = letterWidth;
    const cSite* hit = nullptr;
    for (const cSite* s : sites_) {
        if (s->cull() || (s->WaferX == 0 && s->WaferY == 0)) continue;
        if (std::fabs(s->WaferX + cx - x) <= tol && std::fabs(s->WaferY + cy - y) <= tol) { hit = s; break; }
    }
    if (!hit && !noFieldCoords) {
        for (const cSite* s : sites_) {
            if (s->cull()) continue;
            if (std::fabs(s->LocationX - x) <= tol && std::fabs(s->LocationY - y) <= tol) { hit = s; break; }
        }
    }
    if (!hit) return out;
    out.at(2) = Value(int32_t(hit->NumberKey()));
    int pn = 0;
    for (const cPoint* p : hit->Points()) {
        ++pn;
        if (p->cull()) continue;
        if (std::fabs(hit->WaferX + cx + p->ValueH_Pixel - x) <= tol &&
            std::fabs(hit->WaferY + cy + p->ValueV_Pixel - y) <= tol) {
            out.at(3) = Value(int32_t(pn));
            out.at(4) = Value(true);
            return out;
        }
    }
    if (hit->Points().Count() > 0) {
        out.at(3) = Value(int32_t(1));
        out.at(4) = Value(true);
    }
    return out;
}

cSite* cField::GetSite(long index, bool& exact) const {
    const int n = sites_.Count();
    if (!exact) {
        if (index > n) {
            exact = true;
            return nullptr;
        }
        return sites_.Item(static_cast<int>(index));
    }
    if (index == 0) return sites_.Item(1);
    if (index >= 1 && index <= n) {
        cSite* s = sites_.Item(static_cast<int>(index));
        if (s->NumberKey() == index) return s;
    }
    if (cSite* s = sites_.Item(std::to_string(index))) return s;
    for (cSite* s : sites_)
        if (s->NumberKey() == index) return s;
    return nullptr;
}

bool cField::SiteExists(long key) const {
    bool exact = true;
    if (key == 0) return false;
    return GetSite(key, exact) != nullptr;
}

long cField::TotalPoints() const {
    long n = 0;
    for (const cSite* s : sites_)
        if (!s->cull()) n += s->TotalPointsCount;
    return n;
}

long cField::GetCenterSite() const {
    long key = -1;
    double best = 1e300;
    for (const cSite* s : sites_) {
        if (s->cull()) continue;
        const double r = double(s->LocationX) * s->LocationX + double(s->LocationY) * s->LocationY;
        if (r < best) { best = r; key = s->NumberKey(); }
    }
    return key;
}

cPoint* cField::AddPoint(Ref<cSite>& site, std::unique_ptr<cPoint> point) {
    Proc p("cField(AddPoint): ");
    if (!site) {
        p.msg = "Site object was not valid.";
        return nullptr;
    }
    p.chk = 1;
    if (sites_.Count() > 0) {
        int num = 0;
        int pos = FindSite(site->LocationX, site->LocationY, num, site->Family());
        if (pos > 0) {
            cSite* found = sites_.Item(pos);
            if (found == site.get() || found->SerialNumber() == site->SerialNumber()) {
                site = Ref<cSite>(found);
                return found->AddPoint(std::move(point));
            }
        }
    }
    p.chk = 2;
    const int n = sites_.Count();
    site->setParent(this);
    site->Number = n + 1;
    if (site->NumberKey() == 0) site->setNumberKey(n + 1);
    std::string key = std::to_string(site->NumberKey());
    if (sites_.IndexOf(key) > 0) {
        // the position's number, or the next free one above it, so that the
        // site's key and the collection's key stay the same
        int32_t k = n + 1;
        while (sites_.IndexOf(std::to_string(k)) > 0) ++k;
        site->setNumberKey(k);
        key = std::to_string(k);
    }
    site->setParent(this);
    if (!sites_.Add(site, key)) {
        p.msg = "Site key " + key + " could not be added.";
        return nullptr;
    }
    if (!point) point = std::make_unique<cPoint>();
    std::string pk = point->NumberKey();
    if (pk.empty() || pk == "0") pk = std::to_string(site->Points().Count() + 1);
    return site->AddPoint(std::move(point), pk);
}

std::unique_ptr<cField> cField::clone(bool keepCulled) const {
    auto f = std::make_unique<cField>();
    static_cast<RangeFields&>(*f) = static_cast<const RangeFields&>(*this);
    f->Number = Number; f->NumberKey = NumberKey;
    f->DieX = DieX; f->DieY = DieY;
    f->LocationX = LocationX; f->LocationY = LocationY; f->LocationR = LocationR; f->LocationTheta = LocationTheta;
    f->LocUnits = LocUnits;
    f->Dose = Dose; f->Focus = Focus; f->NA = NA; f->PCinner = PCinner; f->PCouter = PCouter;
    f->Direction = Direction; f->Color = Color;
    f->ThresholdX = ThresholdX; f->ThresholdY = ThresholdY;
    f->ValueH_sum = ValueH_sum; f->ValueV_sum = ValueV_sum; f->ValueZ_sum = ValueZ_sum;
    f->PLotLeft = PLotLeft; f->PlotTop = PlotTop; f->PlotWidth = PlotWidth; f->PlotHeight = PlotHeight;
    f->PlotRmin = PlotRmin; f->PlotRmax = PlotRmax;
    f->cull_ = cull_;
    if (ModelsField) f->ModelsField = ModelsField->clone();
    f->sites_.reserve(sites_.Count());
    for (int i = 1; i <= sites_.Count(); ++i) {
        const cSite* s = sites_.Item(i);
        if (s->cull() && !keepCulled) continue;
        Ref<cSite> c = s->clone(keepCulled);
        c->parent_ = f.get();
        f->sites_.insertRaw(c, sites_.keyOf(i));
        if (!c->cull()) {
            f->TotalPointsCount += c->TotalPointsCount;
            ++f->TotalSitesCount;
        }
    }
    return f;
}

void cField::Kill() {
    for (cSite* s : sites_) s->Kill();
    sites_.Clear();
    TotalPointsCount = 0;
    TotalSitesCount = 0;
    wafer_ = nullptr;
    ModelsField.reset();
}
}  // namespace zorv
