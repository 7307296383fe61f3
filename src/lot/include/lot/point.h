// The measurement (cPoint) and the points of one site (Points).
//
// Measured values are 1000 times the display unit; every value, fitted and
// residual field of a new point holds the missing mark -999.9.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/datam.h"
#include "base/value.h"
#include "lot/features.h"
#include "lot/keyed.h"
#include "lot/tree_base.h"

namespace zorv {

// One measurement: raw, fitted and residual values of nine features.
class cPoint {
public:
    cPoint() = default;  // every value, fitted and residual field at -999.9
    // Points come from a pool of equal slots (lot/slot_pool.h).
    static void* operator new(size_t size);
    static void operator delete(void* p, size_t size) noexcept;
    cPoint& operator=(const cPoint&) = delete;

    // identity
    std::string NumberKey() const { return KeyText(key_); }
    const Value& NumberKeyValue() const { return key_; }
    void setNumberKey(std::string_view key) { key_ = MakeKey(key); }
    void setNumberKey(const std::string& key) { key_ = MakeKey(key); }
    void setNumberKey(const char* key) { key_ = MakeKey(key); }
    void setNumberKey(const Value& key) { key_ = key; }
    int32_t Number() const { return number_; }  // position in the site
    void setNumber(int32_t n) { number_ = n; }

    // links
    cSite* parent() const { return parent_; }
    void setParent(cSite* s) { parent_ = s; }
    cLot* ParentLot() const { return lot_; }
    // Sets the lot and takes the next serial number from its counter.
    void setParentLot(cLot* lot);

    // raw, fitted, residual
    float ValueV = kMissingValue, ValueH = kMissingValue, ValueZ = kMissingValue;
    float ValueV_fit = kMissingValue, ValueH_fit = kMissingValue, ValueZ_fit = kMissingValue;
    float ValueV_Res = kMissingValue, ValueH_Res = kMissingValue, ValueZ_Res = kMissingValue;
    float Slope = kMissingValue, Slope_fit = kMissingValue, Slope_Res = kMissingValue;
    float Pitch = kMissingValue, Pitch_fit = kMissingValue, Pitch_Res = kMissingValue;
    float ValueA = kMissingValue, ValueA_fit = kMissingValue, ValueA_Res = kMissingValue;
    float ValueB = kMissingValue, ValueB_fit = kMissingValue, ValueB_Res = kMissingValue;
    float ValueC = kMissingValue, ValueC_fit = kMissingValue, ValueC_Res = kMissingValue;
    float ValueAstig = kMissingValue, ValueAstig_fit = kMissingValue, ValueAstig_Res = kMissingValue;
    // display positions of the vector tip and the feature marks
    float ValueH_Pixel = 0, ValueV_Pixel = 0, valueZ_Pixel = 0, Slope_Pixel = 0, Pitch_Pixel = 0;
    float ValueA_Pixel = 0, ValueB_Pixel = 0, ValueC_Pixel = 0, ValueAstig_Pixel = 0;
    // limits of the last culling
    float ThresholdZ = 0, ThresholdMin = 0;
    Value ThresholdMax;
    Value Pform;

    bool cull() const { return cull_; }
    // Culling/restoring moves the site's and field's TotalPointsCount by one
    // (never below 0) and marks the lot modified; no change, no effect.
    void setCull(bool c);

    // Column names, the lot's.
    std::string ValueV_Name() const;
    std::string ValueH_Name() const;
    std::string valueZ_Name() const;
    std::string Slope_Name() const;
    std::string Pitch_Name() const;

    // 1-based array of V, H, Z (raw).
    Datam TrueValues() const;

    // The field of a feature (0..9; 0 gives V) and data kind (0..5; 3..5 as
    // 0..2). nullptr for an unknown feature.
    float* FeatureSlot(int feature, int dataType);
    const float* FeatureSlot(int feature, int dataType) const {
        return const_cast<cPoint*>(this)->FeatureSlot(feature, dataType);
    }

    // feature -99: the lot's PlotFeature; the data kind is the lot's
    // PLotDataType. Feature 0 fills all three (raw Z falls back to V, then H);
    // others fill val1. Returns val3 for feature 0, else val1.
    float GetPlotFeatureValue(float& val1, float& val2, float& val3, int feature = ePlotFeatureLot);
    // The same with an explicit data kind.
    float GetPlotFeatureValue(float& val1, float& val2, float& val3, int feature, int dataType);
    // Writes one feature (feature 0: V, H, Z) of the lot's data kind.
    void PutPlotFeatureValue(float val1, float val2, float val3, int feature = ePlotFeatureLot);
    void PutPlotFeatureValue(float val1, float val2, float val3, int feature, int dataType);
    // As PutPlotFeatureValue, and the value goes into the raw field as well.
    void SetPlotFeatureValue(float val1, float val2, float val3, int feature = ePlotFeatureLot);
    void SetPlotFeatureValue(float val1, float val2, float val3, int feature, int dataType);

    // Vector lengths of raw, fitted, residual V/H; false when V or H is missing.
    bool CalcVector(float& length, float& fitLength, float& resLength, bool store);
    bool CalcVectorP(float& length, float& fitLength, float& resLength, bool store);
    double CalcAngle() const;
    double CalcAngleP() const;

    // "Use residuals (or fitted values) as data": dataKind 2/5 or 1/4. With
    // toRaw the residual (fitted) becomes raw; otherwise residual := raw - fit.
    void FoldBack(int dataKind, bool toRaw);

    std::unique_ptr<cPoint> clone() const;

private:
    friend class cSite;
    // Only clone copies a point (and then drops the links).
    cPoint(const cPoint&) = default;
    // (members ordered for a compact object: 232 bytes)
    Value key_;
    cSite* parent_ = nullptr;
    cLot* lot_ = nullptr;

public:
    int32_t pColor = 0;
    int32_t SerialNumber = 0;  // from the lot's running counter
    bool Cull_byMouse = false;

private:
    bool cull_ = false;
    int32_t number_ = 0;
};

// The points of a site, in order; keyed by each point's NumberKey. Most sites
// hold one point, which lives inline without a separate array.
class Points {
public:
    Points() = default;
    Points(const Points&) = delete;
    Points& operator=(const Points&) = delete;
    Points(Points&&) noexcept = default;
    Points& operator=(Points&&) noexcept = default;

    int Count() const { return first_ ? 1 + (rest_ ? static_cast<int>(rest_->items.size()) : 0) : 0; }
    // 1-based position; nullptr out of range.
    cPoint* Item(int pos) const;
    // by key; nullptr when missing
    cPoint* Item(std::string_view key) const { return ItemKey(MakeKey(key)); }
    cPoint* Item(const std::string& key) const { return ItemKey(MakeKey(key)); }
    cPoint* Item(const char* key) const { return ItemKey(MakeKey(key)); }
    cPoint* ItemKey(const Value& key) const;
    int IndexOf(const Value& key) const;
    // No object: creates one. Key: given, the point's NumberKey, or count + 1.
    // A taken key is repaired with the next free number above the key and the
    // count. The point's NumberKey becomes the key it was stored under.
    cPoint* Add(std::unique_ptr<cPoint> point = nullptr, std::string_view key = {});
    std::unique_ptr<cPoint> Remove(int pos);
    void Clear();

    class iterator {
    public:
        iterator(const Points* c, int i) : c_(c), i_(i) {}
        cPoint* operator*() const { return c_->Item(i_); }
        iterator& operator++() { ++i_; return *this; }
        bool operator!=(const iterator& o) const { return i_ != o.i_; }
        bool operator==(const iterator& o) const { return i_ == o.i_; }

    private:
        const Points* c_;
        int i_;
    };
    iterator begin() const { return iterator(this, 1); }
    iterator end() const { return iterator(this, Count() + 1); }

private:
    friend class cSite;
    // Points after the first, and a key index once there are many of them
    // (repeated measurements of one site), so adding stays linear overall.
    // Keys change only through Add.
    struct Rest {
        std::vector<std::unique_ptr<cPoint>> items;
        KeyIndex index;
    };
    const Value& keyAt(size_t i) const;
    std::unique_ptr<cPoint> first_;
    std::unique_ptr<Rest> rest_;
};

}  // namespace zorv
