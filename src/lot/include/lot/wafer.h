// A wafer (cWafer), its wafer-wide view of the sites (SitesWafer) and the
// wafers of a lot (Wafers).
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/datam.h"
#include "base/value.h"
#include "lot/field.h"
#include "lot/keyed.h"
#include "lot/layout.h"
#include "lot/site.h"
#include "lot/tree_base.h"

namespace zorv {

// The wafer-wide view of the same cSite objects that the fields hold.
class SitesWafer {
public:
    explicit SitesWafer(cWafer* owner = nullptr) : owner_(owner) {}
    ~SitesWafer();
    int Count() const { return list_.Count(); }
    cSite* Item(int pos) const { return list_.at(pos); }
    cSite* Item(std::string_view key) const { return list_.byKey(key); }
    cSite* Item(const std::string& key) const { return list_.byKey(key); }
    cSite* Item(const char* key) const { return list_.byKey(key); }
    // numeric index: position; anything else: key
    cSite* Item(const Value& index) const;
    // No object: creates one. Key: given, NumberKey as text, or count + 1 when
    // that is 0. Creates a field when the wafer has none; the site's parent is
    // the first field. Tracks MaxSite.
    cSite* Add(Ref<cSite> site = {}, std::string_view key = {});
    Ref<cSite> Remove(int pos) { return list_.take(pos); }
    void Clear() { list_.clear(); }
    void reserve(size_t n) { list_.reserve(n); }
    const Value& keyOf(int pos) const { return list_.keyAt(pos); }
    bool insertRaw(Ref<cSite> site, Value key) { return list_.insert(std::move(site), std::move(key)); }
    auto begin() const { return list_.begin(); }
    auto end() const { return list_.end(); }
    cWafer* parent() const { return owner_; }

    long MaxSite = 0;
    float valueA_Min = 0, valueA_Max = 0, valueB_Min = 0, valueB_Max = 0, valueC_Min = 0, valueC_Max = 0;
    float Slope_Min = 0, Slope_Max = 0, Pitch_Min = 0, Pitch_Max = 0;

private:
    friend class cWafer;
    cWafer* owner_;
    KeyedList<Ref<cSite>> list_;
};

// One wafer: its fields, its site view and its exposure layout.
class cWafer : public RangeFields {
public:
    cWafer() : fields_(this), sitesWafer_(this) {}
    cWafer(const cWafer&) = delete;
    cWafer& operator=(const cWafer&) = delete;
    ~cWafer();

    long Number() const { return number_; }
    void setNumber(long n) { number_ = n; }
    std::string WaferID, KeyName, Cassette;
    int WaferSlot = 0;
    int32_t Color = 0;
    float ValueHsum = 0, ValueVsum = 0, ValueZsum = 0;
    float FieldPitchX = 0, FieldPitchY = 0;
    std::vector<cLayout> Layouts;
    std::unique_ptr<LotAttachment> Models, ModelField;

    bool cull() const { return cull_; }
    void setCull(bool c);  // marks the lot modified

    zorv::Fields& Fields() { return fields_; }
    const zorv::Fields& Fields() const { return fields_; }
    zorv::SitesWafer& SitesWafer() { return sitesWafer_; }
    const zorv::SitesWafer& SitesWafer() const { return sitesWafer_; }

    cLot* parent() const { return lot_; }
    void setParent(cLot* lot);  // also tells ModelField

    // Existing field (checkExisting and mFindField) or a new one numbered
    // count + 1 with key "W", key, "F", number; widens the lot's die range.
    // A key already in use is shown (" Chk: ") and answers nullptr.
    cField* AddField(float dieX, float dieY, bool& isNew, bool checkExisting = true);
    // Field by die index (two decimals, 0.01) or location; `out` (when
    // given) becomes a 1-based array of field number and key.
    cField* mFindField(float dieX, float dieY, int* index = nullptr, Datam* out = nullptr) const;
    // "Field object is empty" for none; stores a clone under the key (an empty
    // or used key becomes "W", key, "F", count + 1) and reserialises its sites.
    cField* AddFieldObj(const cField* field, std::string_view key = {});
    // As cField::AddPoint over SitesWafer; a site is created when none is given.
    cPoint* AddPoint(Ref<cSite>& site, std::unique_ptr<cPoint> point);
    cPoint* AddPoint_New(Ref<cSite>& site, std::unique_ptr<cPoint> point) { return AddPoint(site, std::move(point)); }
    int FindSite(float x, float y, int& number, long family = -1) const;
    cSite* GetSite(long index, bool& exact) const;
    cField* GetField(const Value& id) const;

    std::unique_ptr<cWafer> clone(bool keepCulled = true, std::string_view name = {}) const;
    void Kill();

private:
    zorv::Fields fields_;
    zorv::SitesWafer sitesWafer_;
    cLot* lot_ = nullptr;
    long number_ = 0;
    bool cull_ = false;
};

// The wafers of a lot, keyed by KeyName.
class Wafers {
public:
    explicit Wafers(cLot* owner = nullptr) : owner_(owner) {}
    int Count() const { return list_.Count(); }
    // By key or position first; then a scan comparing WaferID, KeyName and
    // Number with the index; a number beyond the count gives the last.
    cWafer* Item(const Value& index) const;
    cWafer* Item(int pos) const { return Item(Value(static_cast<int32_t>(pos))); }
    cWafer* Item(std::string_view key) const { return Item(Value(key)); }
    cWafer* Item(const std::string& key) const { return Item(Value(key)); }
    cWafer* Item(const char* key) const { return Item(Value(key)); }
    cWafer* At(int pos) const { return list_.at(pos); }
    // No object: creates one. Key: given, WaferID, or count + 1. Sets KeyName,
    // WaferID, parent; sets ParentLot on every point and renames the fields.
    cWafer* Add(std::unique_ptr<cWafer> wafer = nullptr, std::string_view key = {});
    std::unique_ptr<cWafer> Remove(int pos) { return list_.take(pos); }
    void Clear() { list_.clear(); }
    auto begin() const { return list_.begin(); }
    auto end() const { return list_.end(); }

private:
    cLot* owner_;
    KeyedList<std::unique_ptr<cWafer>> list_;
};

}  // namespace zorv
