// Fields: counters, site look-ups and picking, adding points, and the fields
// of a wafer.
#include <algorithm>
#include <cassert>
#include <cctype>
#include <cmath>

#include "base/proc.h"
#include "lot/lot.h"
#include "tree_helpers.h"

namespace zorv {

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
    // The site is told even when none of its points is under the mouse; the
    // point and the flag only for a point that is.
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
    if (!site) {
        Proc p("cField(AddPoint): ");
        p.trapStyle();
        p.msg = "Site object was not valid.";
        p.report();
        return nullptr;
    }
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
    [[maybe_unused]] cSite* added = sites_.Add(site, key);
    assert(added && "the key was made free above");
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

// ================================================================ Fields

cField* Fields::Item(const Value& index) const {
    const int n = list_.Count();
    if (n == 0) return nullptr;
    if (n == 1) return list_.at(1);
    if (index.isEmpty() || (index.isString() && index.str().empty())) return list_.at(1);
    if (index.isNumberType()) {
        const double d = index.toDouble();
        for (cField* f : list_)
            if (f->Number == d) return f;
        return nullptr;
    }
    const std::string t = index.isString() ? std::string(index.str()) : index.toString();
    if (cField* f = list_.byKey(t); f && KeyEqual(MakeKey(f->NumberKey), MakeKey(t))) return f;
    const Value k = MakeKey(t);
    for (cField* f : list_)
        if (KeyEqual(MakeKey(f->NumberKey), k)) return f;
    return nullptr;
}

cField* Fields::Add(std::unique_ptr<cField> field, std::string_view key) {
    if (!field) field = std::make_unique<cField>();
    const int n = list_.Count();
    std::string k(key);
    if (k.empty()) {
        const int num = field->Number == 0 ? n : field->Number;
        k = FieldKeyText(owner_ ? owner_->Number() : 0, num);
        if (list_.indexOf(k) > 0) k = FieldKeyText(owner_ ? owner_->Number() : 0, n + 1);
    } else {
        double d;
        if (ParseNumber(k, d) && d <= n) k = std::to_string(n + 1);
    }
    field->NumberKey = k;
    if (field->Number == 0) field->Number = n + 1;
    field->setParentWafer(owner_);
    cField* raw = field.get();
    if (!list_.insert(std::move(field), MakeKey(k))) return nullptr;
    return raw;
}

}  // namespace zorv
