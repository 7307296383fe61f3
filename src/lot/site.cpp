// Sites: keys, serial numbers, families, counters, and the sites of a field.
#include <algorithm>
#include <cmath>

#include "lot/lot.h"
#include "slot_pool.h"
#include "tree_helpers.h"

namespace zorv {

void* cSite::operator new(size_t size) { return PoolNew<cSite>(size); }
void cSite::operator delete(void* p, size_t size) noexcept { PoolDelete<cSite>(p, size); }

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
        // A loader's key is a site number: a canonical int needs no general parse.
        double d = 0;
        const Value asKey = MakeKey(k);
        const bool number = asKey.type() == VType::Long ? (d = asKey.toLong(), true) : ParseNumber(k, d);
        if (k.empty() || (number && d <= n)) k = std::to_string(n + 1);
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

}  // namespace zorv
