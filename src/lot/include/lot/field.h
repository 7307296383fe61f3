// One exposure field of a wafer (cField) and the fields of a wafer (Fields).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/datam.h"
#include "base/value.h"
#include "lot/keyed.h"
#include "lot/site.h"
#include "lot/tree_base.h"

namespace zorv {

// One exposure field: its die index, location and exposure, and its sites.
class cField : public RangeFields {
public:
    cField() = default;
    cField(const cField&) = delete;
    cField& operator=(const cField&) = delete;
    ~cField();

    int32_t Number = 0;
    std::string NumberKey;
    float DieX = 0, DieY = 0;  // column and row on the wafer
    float LocationX = 0, LocationY = 0, LocationR = 0, LocationTheta = 0;
    std::string LocUnits = "um";
    float Dose = 0, Focus = 0, NA = 0, PCinner = 0, PCouter = 0;
    long Direction = 0;  // 0 DOWN, 1 LEFT, 2 RIGHT, 3 other
    void SetDirection(std::string_view word);
    int32_t Color = 0;
    Value ThresholdX, ThresholdY;
    int32_t TotalPointsCount = 0, TotalSitesCount = 0;
    float ValueH_sum = 0, ValueV_sum = 0, ValueZ_sum = 0;
    float PLotLeft = 0, PlotTop = 0, PlotWidth = 0, PlotHeight = 0, PlotRmin = 0, PlotRmax = 0;
    std::unique_ptr<LotAttachment> ModelsField;

    bool cull() const { return cull_; }
    void setCull(bool c);  // marks the lot modified

    zorv::sites& sites() { return sites_; }
    const zorv::sites& sites() const { return sites_; }
    cWafer* ParentWafer() const { return wafer_; }
    void setParentWafer(cWafer* w) { wafer_ = w; }
    cLot* ParentLot() const;

    // Last to first; same family (or -1) and both coordinates within 0.09
    // after rounding the difference to three decimals. 1-based position and
    // the site's key in `number`; -1 when none.
    int FindSite(float x, float y, int& number, long family = -1) const;
    // Picking by wafer coordinates over sites not culled; the tolerance is the
    // larger of wcenx/30 and the letter width. 1-based position or -1.
    int mFindSite(double x, double y, double letterWidth) const;
    // Picking a point: a site by wafer coordinates (one at exactly 0, 0 does
    // not count), then, unless noFieldCoords, by field coordinates; then its
    // points by wafer coordinates plus the pixel offset. The tolerance is the
    // letter width. 1-based array: field key, site number (-1 with no site),
    // point position and found flag (-1 and false with no point in reach).
    Datam mFindPoint(double x, double y, double letterWidth, bool noFieldCoords = false) const;
    // exact false: by position (exact becomes true beyond the count). exact
    // true: by position when that site's key is the index, else by key scan;
    // index 0 takes the first.
    cSite* GetSite(long index, bool& exact) const;
    bool SiteExists(long key) const;
    int SiteCount() const { return sites_.Count(); }
    long TotalPoints() const;
    // Key of the site nearest the field centre (-1 with no site).
    long GetCenterSite() const;

    // "Site object was not valid." (shown, " Chk: ") for no site. Joins an existing site with
    // the same location, family and serial number, or links a new one.
    cPoint* AddPoint(Ref<cSite>& site, std::unique_ptr<cPoint> point);
    cPoint* AddPoint_New(Ref<cSite>& site, std::unique_ptr<cPoint> point) { return AddPoint(site, std::move(point)); }

    std::unique_ptr<cField> clone(bool keepCulled = true) const;
    void Kill();

private:
    zorv::sites sites_;
    cWafer* wafer_ = nullptr;
    bool cull_ = false;
};

// The fields of a wafer, in order of creation, keyed by NumberKey.
class Fields {
public:
    explicit Fields(cWafer* owner = nullptr) : owner_(owner) {}
    int Count() const { return list_.Count(); }
    // One field: always that one. Else numeric index by Number, text by
    // NumberKey; an empty index gives the first.
    cField* Item(const Value& index) const;
    cField* Item(int number) const { return Item(Value(static_cast<int32_t>(number))); }
    cField* Item(std::string_view key) const { return Item(Value(key)); }
    cField* Item(const std::string& key) const { return Item(Value(key)); }
    cField* Item(const char* key) const { return Item(Value(key)); }
    cField* At(int pos) const { return list_.at(pos); }  // plain position
    cField* ByKey(std::string_view key) const { return list_.byKey(key); }
    // No key: "W", wafer number, "F", field number (0 becomes the count); a
    // numeric key not above the count becomes count + 1. NumberKey := key.
    cField* Add(std::unique_ptr<cField> field = nullptr, std::string_view key = {});
    const Value& keyOf(int pos) const { return list_.keyAt(pos); }
    std::unique_ptr<cField> Remove(int pos) { return list_.take(pos); }
    void Clear() { list_.clear(); }
    auto begin() const { return list_.begin(); }
    auto end() const { return list_.end(); }

private:
    friend class cWafer;
    cWafer* owner_;
    KeyedList<std::unique_ptr<cField>> list_;
};

}  // namespace zorv
