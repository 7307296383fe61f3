// A measurement location inside a field (cSite) and the sites of a field
// (sites). A site is shared between its field's `sites` and its wafer's
// `SitesWafer` through an intrusive count (Ref<cSite>).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/value.h"
#include "lot/keyed.h"
#include "lot/point.h"
#include "lot/tree_base.h"

namespace zorv {

// Rarely used site fields, allocated on first write.
struct cSiteExtra : RangeFields {
    float ValueH_sum = 0, ValueV_sum = 0, ValueZ_sum = 0, Slope_sum = 0, Pitch_sum = 0;
    float ValueA_sum = 0, ValueB_sum = 0, ValueC_sum = 0;
    double CalSlope = 0, CalOffset = 0, CalSlopeSigma = 0, CalOffsetSigma = 0;
    float FocusH = 0, Focusv = 0, FocusZ = 0;
    std::string Focus_units;
    Value Sense, Flavor;
};

// One measurement location: its place in the field and on the wafer, its
// family, and its points.
class cSite {
public:
    static Ref<cSite> New() { return Ref<cSite>(new cSite()); }
    // Sites come from a pool of equal slots (lot/slot_pool.h).
    static void* operator new(size_t size);
    static void operator delete(void* p, size_t size) noexcept;
    cSite(const cSite&) = delete;
    cSite& operator=(const cSite&) = delete;
    ~cSite();

    // in the field, micrometres from its centre
    float LocationX = 0, LocationY = 0, LocationZ = 0, LocationR = 0, LocationTheta = 0;
    // on the wafer
    float LocationXabs = 0, LocationYabs = 0, LocationRabs = 0, LocationThetaAbs = 0;
    float WaferX = 0, WaferY = 0;  // wafer coordinates before the wafer centre

    int32_t Number = 0;  // position in the site collection
    int32_t NumberKey() const { return numberKey_; }
    // Sets the key and the serial number (SetSerial).
    void setNumberKey(int32_t key);
    // wafer number * 1000 + field number, ".", the key (or Number after SetSerial)
    std::string SerialNumber() const;
    void setSerialNumber(std::string_view serial);
    void SetSerial();  // from Number
    // Keys of the parents, refreshed from them.
    std::string WaferKey() const;
    std::string FieldKey() const;

    long Family() const { return family_; }
    // Also raises the lot's FamilyTotal to at least the new value.
    void setFamily(long family);
    // The stored name, else 1 "IsoLine", 2 "DensePack", 3 "Via", -1 "";
    // any other family answers "DensePack" and becomes 2.
    std::string FamilyName();
    void setFamilyName(std::string_view name);

    int32_t Color = 0;
    int32_t TotalPointsCount = 0;  // points not culled
    bool cull() const { return cull_; }
    // Moves the field's TotalPointsCount by this site's count and its
    // TotalSitesCount by one (never below 0); marks the lot modified.
    void setCull(bool c);

    // Calibration, sums and ranges (allocated on first use).
    cSiteExtra& extra();
    const cSiteExtra& extraOrDefault() const;
    bool hasExtra() const { return static_cast<bool>(extra_); }

    zorv::Points& Points() { return points_; }
    const zorv::Points& Points() const { return points_; }

    cField* parent() const { return parent_; }
    // Sets the field, copies the wafer's WaferID into WaferKey and builds the
    // serial number from NumberKey.
    void setParent(cField* field);
    cWafer* ParentWafer() const;
    cLot* ParentLot() const;

    // Adds a point: an absent key becomes the point's NumberKey; a key not
    // above the point count becomes count + 1. Sets NumberKey, parent and (with
    // a complete chain) ParentLot; counts it when not culled.
    cPoint* AddPoint(std::unique_ptr<cPoint> point, std::string_view key = {});
    // Text key by key; a numeric key that misses goes by position.
    cPoint* GetPoint(const Value& key) const;
    cPoint* GetPoint(int pos) const { return points_.Item(pos); }

    // Angle of (LocationX + SiteXoffset, LocationY + SiteYoffset) in -pi..pi.
    double CalcAngle() const;
    double CalcVector() const;  // length of LocationX, LocationY
    // Sets every raw, fitted and residual value of the points to 0.
    void SetPointsZero();
    // A copy with its points (culled ones only with keepCulled); no parent.
    Ref<cSite> clone(bool keepCulled = true) const;
    void Kill();

private:
    friend class Ref<cSite>;
    friend class cPoint;
    friend class cField;
    cSite() = default;

    uint32_t refs_ = 0;
    int32_t numberKey_ = 0;
    int32_t serialPrefix_ = 0;  // wafer number * 1000 + field number
    int32_t serialSuffix_ = 0;
    int32_t family_ = 0;
    bool cull_ = false;
    bool hasSerial_ = false;
    uint16_t familyName_ = 0;  // index into the process-wide family name table, 0 none
    cField* parent_ = nullptr;
    zorv::Points points_;
    std::unique_ptr<cSiteExtra> extra_;
};

// The sites of a field: by position or key. Add as Points.Add.
class sites {
public:
    int Count() const { return list_.Count(); }
    cSite* Item(int pos) const { return list_.at(pos); }
    cSite* Item(std::string_view key) const { return list_.byKey(key); }
    cSite* Item(const std::string& key) const { return list_.byKey(key); }
    cSite* Item(const char* key) const { return list_.byKey(key); }
    cSite* Item(const Value& index) const;
    int IndexOf(std::string_view key) const { return list_.indexOf(key); }
    // No object: creates one. Key: given, the site's NumberKey, or count + 1;
    // a taken key is repaired with the next free number.
    cSite* Add(Ref<cSite> site = {}, std::string_view key = {});
    Ref<cSite> Remove(int pos) { return list_.take(pos); }
    void Clear() { list_.clear(); }
    void reserve(size_t n) { list_.reserve(n); }
    Ref<cSite> ref(int pos) const { return Ref<cSite>(list_.at(pos)); }
    const Value& keyOf(int pos) const { return list_.keyAt(pos); }
    // Stores under a key as it is (no repair, no counting); false when taken.
    bool insertRaw(Ref<cSite> site, Value key) { return list_.insert(std::move(site), std::move(key)); }
    auto begin() const { return list_.begin(); }
    auto end() const { return list_.end(); }
    size_t memoryBytes() const { return list_.memoryBytes(); }

private:
    KeyedList<Ref<cSite>> list_;
};

}  // namespace zorv
