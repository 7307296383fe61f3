// Wafers, their fields and the wafer-wide site view.
#include <algorithm>
#include <cassert>
#include <cmath>
#include <unordered_map>

#include "base/proc.h"
#include "base/text.h"
#include "lot/lot.h"
#include "tree_helpers.h"

namespace zorv {

// ================================================================ SitesWafer

SitesWafer::~SitesWafer() { list_.clear(); }

cSite* SitesWafer::Item(const Value& index) const {
    if (index.isNumberType()) return list_.at(index.toLong());
    return list_.byKey(MakeKey(index.isString() ? std::string(index.str()) : index.toString()));
}

cSite* SitesWafer::Add(Ref<cSite> site, std::string_view key) {
    if (!site) site = cSite::New();
    const int n = list_.Count();
    std::string k(key);
    if (k.empty()) k = site->NumberKey() == 0 ? std::to_string(n + 1) : std::to_string(site->NumberKey());
    Value kv = MakeKey(k);
    if (list_.indexOf(kv) > 0) return nullptr;  // taken: the caller repairs it, as cWafer::AddPoint does
    if (owner_ && !site->parent()) {
        if (owner_->Fields().Count() == 0) {
            bool isNew = false;
            owner_->AddField(0, 0, isNew, false);
        }
        site->setParent(owner_->Fields().At(1));
    }
    if (kv.type() == VType::Long) MaxSite = std::max<long>(MaxSite, kv.toLong());
    cSite* raw = site.get();
    if (raw->Number == 0) raw->Number = n + 1;
    // The field's view holds the same site, so that walks over fields see it.
    if (cField* f = raw->parent(); f && f->ParentWafer() == owner_) {
        cSite* there = f->sites().Item(std::string_view(k));
        if (there != raw && !there) {
            f->sites().insertRaw(site, kv);
            if (!raw->cull()) ++f->TotalSitesCount;
        }
    }
    list_.insert(std::move(site), std::move(kv));
    return raw;
}

// ================================================================ cWafer

cWafer::~cWafer() = default;

void cWafer::setParent(cLot* lot) {
    lot_ = lot;
    if (ModelField) ModelField->setParentLot(lot);
}

void cWafer::setCull(bool c) {
    if (c == cull_) return;
    cull_ = c;
    if (lot_) lot_->SetModified();
}

cField* cWafer::mFindField(float dieX, float dieY, int* index, Datam* out) const {
    const double dx = Round(dieX, 2), dy = Round(dieY, 2);
    int pos = 0;
    for (cField* f : fields_) {
        ++pos;
        const bool byDie = std::fabs(Round(f->DieX, 2) - dx) <= 0.01 && std::fabs(Round(f->DieY, 2) - dy) <= 0.01;
        const bool byLoc = std::fabs(Round(f->LocationX, 2) - dx) <= 0.01 && std::fabs(Round(f->LocationY, 2) - dy) <= 0.01;
        if (byDie || byLoc) {
            if (index) *index = pos;
            if (out) {
                *out = Datam::array1(2, 1);
                out->at(1) = Value(int32_t(f->Number));
                out->at(2) = Value(f->NumberKey);
            }
            return f;
        }
    }
    if (index) *index = -1;
    return nullptr;
}

cField* cWafer::AddField(float dieX, float dieY, bool& isNew, bool checkExisting) {
    isNew = false;
    if (checkExisting)
        if (cField* f = mFindField(dieX, dieY)) return f;
    auto f = std::make_unique<cField>();
    f->setParentWafer(this);
    f->DieX = dieX;
    f->DieY = dieY;
    const int n = fields_.Count() + 1;
    f->Number = n;
    const std::string key = "W" + KeyName + "F" + std::to_string(n);
    cField* raw = fields_.Add(std::move(f), key);
    if (!raw) {
        // count + 1 can be taken after a Remove or an AddFieldObj
        Proc p("cWafer(AddField): ");
        p.trapStyle();
        p.msg = "Field key " + key + " could not be added.";
        p.report();
        return nullptr;
    }
    if (lot_) {
        lot_->DieXmin = std::min(lot_->DieXmin, dieX);
        lot_->DieXmax = std::max(lot_->DieXmax, dieX);
        lot_->DieYmin = std::min(lot_->DieYmin, dieY);
        lot_->DieYmax = std::max(lot_->DieYmax, dieY);
    }
    isNew = true;
    return raw;
}

cField* cWafer::AddFieldObj(const cField* field, std::string_view key) {
    Proc p("cWafer(AddFieldObj): ");
    p.trapStyle();
    if (!field) {
        p.msg = "Field object is empty";
        p.report();
        return nullptr;
    }
    p.chk = 1;
    const int n = fields_.Count();
    std::string k(key);
    if (k.empty() || fields_.list_.indexOf(k) > 0) k = "W" + KeyName + "F" + std::to_string(n + 1);
    auto c = field->clone(true);
    c->Number = n + 1;
    c->setParentWafer(this);
    cField* raw = fields_.Add(std::move(c), k);
    if (!raw) {
        p.msg = "Field key " + k + " could not be added.";
        p.report();
        return nullptr;
    }
    for (cSite* s : raw->sites()) {
        s->setParent(raw);
        s->SetSerial();
        if (lot_)
            for (cPoint* pt : s->Points()) pt->setParentLot(lot_);
    }
    return raw;
}

cPoint* cWafer::AddPoint(Ref<cSite>& site, std::unique_ptr<cPoint> point) {
    if (!site) site = cSite::New();
    if (sitesWafer_.Count() > 0) {
        int num = 0;
        int pos = findSiteIn(sitesWafer_, site->LocationX, site->LocationY, num, site->Family());
        if (pos > 0) {
            cSite* found = sitesWafer_.Item(pos);
            if (found == site.get() || found->SerialNumber() == site->SerialNumber()) {
                site = Ref<cSite>(found);
                return found->AddPoint(std::move(point));
            }
        }
    }
    const int n = sitesWafer_.Count();
    site->Number = n + 1;
    if (site->NumberKey() == 0) site->setNumberKey(n + 1);
    std::string key = std::to_string(site->NumberKey());
    if (sitesWafer_.list_.indexOf(key) > 0) {
        // the position's number, or the next free one above it, so that the
        // site's key and the collection's key stay the same
        int32_t k = n + 1;
        while (sitesWafer_.list_.indexOf(std::to_string(k)) > 0) ++k;
        site->setNumberKey(k);
        key = std::to_string(k);
    }
    [[maybe_unused]] cSite* added = sitesWafer_.Add(site, key);
    assert(added && "the key was made free above");
    if (site->parent()) site->setParent(site->parent());
    if (!point) point = std::make_unique<cPoint>();
    std::string pk = point->NumberKey();
    if (pk.empty() || pk == "0") pk = std::to_string(site->Points().Count() + 1);
    return site->AddPoint(std::move(point), pk);
}

int cWafer::FindSite(float x, float y, int& number, long family) const {
    return findSiteIn(sitesWafer_, x, y, number, family);
}

cSite* cWafer::GetSite(long index, bool& exact) const {
    if (sitesWafer_.Count() > 0) {
        const int n = sitesWafer_.Count();
        if (!exact) {
            if (index > n) { exact = true; return nullptr; }
            return sitesWafer_.Item(static_cast<int>(index));
        }
        if (index == 0) return sitesWafer_.Item(1);
        if (index >= 1 && index <= n && sitesWafer_.Item(static_cast<int>(index))->NumberKey() == index)
            return sitesWafer_.Item(static_cast<int>(index));
        return sitesWafer_.Item(std::string_view(std::to_string(index)));
    }
    for (cField* f : fields_) {
        bool e = exact;
        if (cSite* s = f->GetSite(index, e)) return s;
    }
    return nullptr;
}

cField* cWafer::GetField(const Value& id) const {
    bool whole = false;
    double d = 0;
    if (id.isNumberType() || (id.isString() && id.isNumericPlain())) {
        d = id.toDouble();
        whole = d == std::floor(d);
    }
    const std::string text = id.isString() ? std::string(id.str()) : id.toString();
    for (cField* f : fields_) {
        if (f->cull()) continue;
        if (whole ? f->Number == d : KeyEqual(MakeKey(f->NumberKey), MakeKey(text))) return f;
    }
    return nullptr;
}

std::unique_ptr<cWafer> cWafer::clone(bool keepCulled, std::string_view name) const {
    (void)name;
    auto w = std::make_unique<cWafer>();
    static_cast<RangeFields&>(*w) = static_cast<const RangeFields&>(*this);
    w->number_ = number_;
    w->WaferID = WaferID; w->KeyName = KeyName; w->Cassette = Cassette; w->WaferSlot = WaferSlot;
    w->Color = Color; w->ValueHsum = ValueHsum; w->ValueVsum = ValueVsum; w->ValueZsum = ValueZsum;
    w->FieldPitchX = FieldPitchX; w->FieldPitchY = FieldPitchY;
    w->Layouts = Layouts;
    w->cull_ = cull_;
    if (Models) w->Models = Models->clone();
    if (ModelField) w->ModelField = ModelField->clone();
    std::unordered_map<const cSite*, cSite*> map;
    const bool needMap = sitesWafer_.Count() > 0;
    if (needMap) map.reserve(sitesWafer_.Count() * 2);
    for (int i = 1; i <= fields_.Count(); ++i) {
        const cField* f = fields_.At(i);
        if (f->cull() && !keepCulled) continue;
        auto c = f->clone(keepCulled);
        c->setParentWafer(w.get());
        if (needMap) {
            // clones stand in the same order as the sites they copy
            int j = 1;
            for (const cSite* s : f->sites()) {
                if (s->cull() && !keepCulled) continue;
                map.emplace(s, c->sites().Item(j++));
            }
        }
        w->fields_.list_.insert(std::move(c), fields_.keyOf(i));
    }
    if (needMap) {
        w->sitesWafer_.MaxSite = sitesWafer_.MaxSite;
        w->sitesWafer_.reserve(sitesWafer_.Count());
        for (int i = 1; i <= sitesWafer_.Count(); ++i) {
            const cSite* s = sitesWafer_.Item(i);
            auto it = map.find(s);
            if (it == map.end()) continue;
            w->sitesWafer_.insertRaw(Ref<cSite>(it->second), sitesWafer_.keyOf(i));
        }
    }
    return w;
}

void cWafer::Kill() {
    sitesWafer_.Clear();
    for (cField* f : fields_) f->Kill();
    fields_.Clear();
    Models.reset();
    ModelField.reset();
    Layouts.clear();
    lot_ = nullptr;
}

// ================================================================ Wafers

cWafer* Wafers::Item(const Value& index) const {
    const int n = list_.Count();
    if (n == 0) return nullptr;
    if (index.isNumberType()) {
        if (cWafer* w = list_.at(index.toLong())) return w;
    } else if (index.isString()) {
        if (cWafer* w = list_.byKey(MakeKey(index.str()))) return w;
    }
    const std::string t = Upper(index.isString() ? std::string(index.str()) : index.toString());
    double d = 0;
    const bool numeric = index.isNumberType() || (index.isString() && ParseNumber(index.str(), d));
    if (index.isNumberType()) d = index.toDouble();
    for (cWafer* w : list_) {
        if (Upper(w->WaferID) == t || Upper(w->KeyName) == t) return w;
        if (numeric && w->Number() == d) return w;
    }
    if (numeric && d > n) return list_.at(n);
    return nullptr;
}

cWafer* Wafers::Add(std::unique_ptr<cWafer> wafer, std::string_view key) {
    if (!wafer) wafer = std::make_unique<cWafer>();
    std::string k(key);
    if (k.empty()) k = wafer->WaferID;
    if (k.empty()) k = std::to_string(list_.Count() + 1);
    wafer->KeyName = k;
    if (wafer->WaferID.empty()) wafer->WaferID = k;
    wafer->setParent(owner_);
    cWafer* w = wafer.get();
    if (!list_.insert(std::move(wafer), MakeKey(k))) return nullptr;
    for (cField* f : w->Fields()) {
        f->NumberKey = "W" + k + "F" + std::to_string(f->Number);
        for (cSite* s : f->sites())
            for (cPoint* p : s->Points()) p->setParentLot(owner_);
    }
    for (cSite* s : w->SitesWafer())
        if (!s->parent() || s->parent()->ParentWafer() != w)
            for (cPoint* p : s->Points()) p->setParentLot(owner_);
    return w;
}

}  // namespace zorv
