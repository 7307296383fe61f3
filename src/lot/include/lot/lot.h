// The measurement tree: cLot > cWafer > cField > cSite > cPoint, the keyed
// collections that hold it (Wafers, Fields, sites, Points, SitesWafer), the
// exposure layout variables (cLayout) and the range corner (cRangeSite).
//
// Units: locations and sizes in micrometres (single precision); measured
// values at point level are 1000 times the display unit; -999.9 marks a
// missing value (see features.h for the two tests).
//
// Ownership runs down the tree: the lot owns its wafers, a wafer its fields, a
// site its points (unique_ptr). Sites are shared between their field's `sites`
// and their wafer's `SitesWafer` through an intrusive count (Ref<cSite>); a
// site added to SitesWafer also stands in its field's `sites`, so walks over
// the fields see every site.
// Parent links are plain back-pointers; Kill() empties a subtree explicitly
// (with its status texts) and the destructors do the rest. Lots are held by
// std::shared_ptr (create with cLot::create()), since transforms can hand
// back the lot itself and charts keep a reference to it.
//
// How a loader builds a lot:
//
//     auto lot = cLot::create();
//     lot->DataSource(1);                      // sets LineWidthType too
//     lot->DieSizeX = 26000; lot->DieSizeY = 33000;   // micrometres
//     lot->ValueV_Name = "X"; ...              // feature names
//     bool isNew = false;
//     cWafer* w = lot->AddWafer("W1", isNew);  // numeric names: prefix "W" first
//     cField* f = w->AddField(dieX, dieY, isNew, true);
//     f->LocationX = dieX * lot->DieSizeX; f->LocationY = dieY * lot->DieSizeY;
//     bool exact = true;
//     cSite* s = f->GetSite(siteNo, exact);    // reuse when the key matches
//     Ref<cSite> site = s ? Ref<cSite>(s) : cSite::New();
//     if (!s) {
//         site->setNumberKey(siteNo);
//         site->LocationX = x_um; site->LocationY = y_um;
//         site->setParent(f);
//         site->setFamily(n);                  // raises lot FamilyTotal
//         f->sites().Add(site, std::to_string(siteNo));   // or w->SitesWafer().Add(...)
//     }
//     auto p = std::make_unique<cPoint>();     // every value starts at -999.9
//     p->ValueV = v * 1000; p->ValueH = h * 1000; ...
//     f->AddPoint(site, std::move(p));         // or w->AddPoint(site, ...)
//     ...
//     lot->UpdateUnits(unitsTable);
//     lot->CalcWaferPositions();
//
// Counters (TotalPointsCount of site and field, TotalSitesCount of field)
// are kept by AddPoint and by the cull setters; Recount() rebuilds them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "lot/features.h"
#include "lot/keyed.h"
#include "base/datam.h"
#include "base/value.h"

namespace zorv {

class cLot;
class cWafer;
class cField;
class cSite;
class cPoint;

// Something a lot, wafer or field carries for a later subsystem (the model
// sets): cloned with the tree and told its new parent lot.
class LotAttachment {
public:
    virtual ~LotAttachment() = default;
    virtual std::unique_ptr<LotAttachment> clone() const = 0;
    virtual void setParentLot(cLot* lot) { (void)lot; }
    virtual void Clear() {}
};

// Extreme values kept on sites, fields, wafers.
struct RangeFields {
    float PointMaxV = 0, PointMaxH = 0, PointMaxZ = 0;
    float PointMinV = 0, PointMinH = 0, PointMinZ = 0;
    float SlopeMin = 0, SlopeMax = 0, PitchMin = 0, PitchMax = 0;
    float FeatureAmin = 0, FeatureAmax = 0, FeatureBmin = 0, FeatureBmax = 0, FeatureCmin = 0, FeatureCmax = 0;
    float ValueAmin = 0, ValueAmax = 0, ValueBmin = 0, ValueBmax = 0, ValueCmin = 0, ValueCmax = 0;
};

// ---------------------------------------------------------------- cPoint
class cPoint {
public:
    cPoint() = default;  // every value, fitted and residual field at -999.9
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

// ---------------------------------------------------------------- Points
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

// ---------------------------------------------------------------- cSite
// Rarely used site fields, allocated on first write.
struct cSiteExtra : RangeFields {
    float ValueH_sum = 0, ValueV_sum = 0, ValueZ_sum = 0, Slope_sum = 0, Pitch_sum = 0;
    float ValueA_sum = 0, ValueB_sum = 0, ValueC_sum = 0;
    double CalSlope = 0, CalOffset = 0, CalSlopeSigma = 0, CalOffsetSigma = 0;
    float FocusH = 0, Focusv = 0, FocusZ = 0;
    std::string Focus_units;
    Value Sense, Flavor;
};

class cSite {
public:
    static Ref<cSite> New() { return Ref<cSite>(new cSite()); }
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

// ---------------------------------------------------------------- sites
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

// ---------------------------------------------------------------- cField
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
    // 1-based array: field key, site number, point number, found flag.
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

    // "Site object was not valid." for no site. Joins an existing site with
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

// ---------------------------------------------------------------- Fields
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

// ---------------------------------------------------------------- SitesWafer
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

// ---------------------------------------------------------------- cLayout
// One layout variable of a wafer's exposure program.
struct cLayout {
    std::string VariableName;
    float DieXo = 0, DieYo = 0, InitialValue = 0, Step = 0;
    std::string Meander, Scan1, Scan2;
    int ControlIndex = 0;
    cLayout clone() const { return *this; }
};

// A rectangle corner.
struct cRangeSite {
    float LocationX = 0, LocationY = 0;
};

// ---------------------------------------------------------------- cWafer
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

// ---------------------------------------------------------------- Wafers
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

// ---------------------------------------------------------------- cLot
// The plain properties of a lot, copied as a whole by clone. Container,
// PlotGraph and xlwb are shared references; FamilyNames is copied.
struct cLotProperties {
    // identity
    std::string LotName, ProcessStep, ExposureTool, MetrologyTool, UserName, ReWork, Cassette,
        DateMeasured, TimeMeasured;
    Value ReticleName;
    std::string FileName, FilePath, DataSheetName, CurrentWaferKey, CurrentFieldKey;
    double ProcessDate = 0;

    // type
    long ExposureToolType = 0;  // 0 scanner, 1 stepper
    bool LineWidthType = false, PlotWaferSites = false, isCulledData = false, ReticleData = true,
         FocusReportCorrections = false;

    // geometry, micrometres
    float WaferSize = 200000, DieSizeX = 28000, DieSizeY = 36000, FieldSizeX = 0, FieldSizeY = 0;
    float FieldcenX = 0, Fieldceny = 0, SubWidth = 0, SubHeight = 0, SubXoffset = 0, Subyoffset = 0;
    float SiteXoffset = 0, SiteYoffset = 0, DieXoffset = 0, DieYoffset = 0, DieXarray = 0, DieYarray = 0;
    float nxdie = 0, nydie = 0, SiteStepX = 0, SiteStepy = 0;
    float DieXmin = 1e10f, DieXmax = -1e10f, DieYmin = 1e10f, DieYmax = -1e10f;
    double wcenx = 0, wceny = 0;
    float CullRadiusSetting = 0;

    // notch, radians: right 0, left pi, up pi/2, down -pi/2
    float Notch = -1.5707963f;

    // feature selection (PlotFeature and PlotFeatureUnits are on cLot)
    long PlotFeaturetype = 0;
    int PLotDataType = 0;
    std::string PlotFeatureName;
    float PlotFeatureMin = 0, PlotFeatureMax = 0;
    long PlotGraphType = 0, PlotGraphDataType = 0;

    // feature names and units
    std::string ValueV_Name, ValueH_Name, valueZ_Name, Slope_Name, Pitch_Name, ValueA_Name, ValueB_Name,
        ValueC_Name;
    long ValueV_Units = 0, ValueH_units = 0, ValueZ_units = 0, Slope_Units = 0, Pitch_Units = 0,
         ValueA_Units = 0, ValueB_Units = 0, ValueC_Units = 0;

    // sums and ranges
    float ValueVsum = 0, ValueHsum = 0, ValueZsum = 0, PlotSumZ = 0, PlotMaxZ = 0, PlotMinZ = 0;
    float PointMaxV = 0, PointMaxH = 0, PointMaxZ = 0, PointMinV = 0, PointMinH = 0, PointMinZ = 0;
    float SlopeSum = 0, SlopeMin = 0, SlopeMax = 0, PitchSum = 0, PitchMin = 0, PitchMax = 0;
    float FeatureASum = 0, FeatureAmin = 0, FeatureAmax = 0, FeatureBSum = 0, FeatureBmin = 0,
          FeatureBmax = 0, FeatureCSum = 0, FeatureCmin = 0, FeatureCmax = 0;
    float ThresholdZ = 0, ThresholdMin = 0, ThresholdMax = 0;

    // wafer fit results
    double WaferTiltX = 0, WaferTilty = 0, WaferTiltXSE = 0, WaferTiltySE = 0, WaferCurvature = 0,
           WaferCurvatureSE = 0, WaferOffsetX = 0, WaferOffsety = 0;
    float ValueV_Offset = 0, ValueV_Tilt = 0, ValueV_Curvature = 0, ValueH_Offset = 0, ValueH_Tilt = 0,
          ValueH_Curvature = 0, ValueZ_Offset = 0, ValueZ_Tilt = 0, ValueZ_Curvature = 0;
    float ValueV_XTilt = 0, ValueV_yTilt = 0, ValueH_XTilt = 0, ValueH_yTilt = 0, ValueZ_XTilt = 0,
          ValueZ_yTilt = 0;
    float ValueV_WPiston = 0, ValueH_WPiston = 0, ValueZ_WPiston = 0, ValueV_WBow = 0, ValueH_WBow = 0,
          ValueZ_WBow = 0;
    float ValueV_WXTilt = 0, ValueV_WyTilt = 0, ValueH_WXTilt = 0, ValueH_WyTilt = 0, ValueZ_WXTilt = 0,
          ValueZ_WyTilt = 0;

    // reticle
    float ReticleMEEF = 1, ReticleMagnification = 1, ReticleRotation = 0, CurrentRotation = 0;

    // families: rows from 0 (headers "Enum", "Name", "Count", "Selected"), 4 columns
    Datam FamilyNames;

    // drawing
    double um2pixels = 0, Pum2pixelsV = 1e-12, Pum2pixelsH = 1e-12, Pum2pixelsZ = 1e-12;
    float PLotLeft = 0, PlotTop = 0, PlotWidth = 0, PlotHeight = 0;
    std::shared_ptr<void> Container, PlotGraph;  // shared by clones
    float ContainerWidth = 0, ContainerHeight = 0;
    std::shared_ptr<void> xlwb;  // the workbook, shared by clones

protected:
    long dataSource_ = 0;
    int plotFeature_ = 0;
    long plotFeatureUnits_ = 0;
    long familyTotal_ = 0;
};

class cLot : public cLotProperties, public std::enable_shared_from_this<cLot> {
public:
    static std::shared_ptr<cLot> create() { return std::shared_ptr<cLot>(new cLot()); }
    cLot(const cLot&) = delete;
    cLot& operator=(const cLot&) = delete;
    ~cLot();

    long DataSource() const { return dataSource_; }
    // Also sets LineWidthType (true for 2, 3, 5, 6, 7) and, for 5..7, PlotWaferSites.
    void DataSource(long source);
    std::string GetNotchString() const;  // "Right", "Left", "Up", "Down"
    int PlotFeature() const { return plotFeature_; }
    // When changed: stores, marks modified, PlotFeatureUpdate(-1e9, 1e9).
    void PlotFeature(int feature);
    long PlotFeatureUnits() const { return plotFeatureUnits_; }
    // Stores the code and copies it to the unit field of the selected feature 1..8.
    void PlotFeatureUnits(long code);
    // Below 1: recomputed as the larger of FamilyNames' last row and 1.
    long FamilyTotal();
    void FamilyTotal(long n) { familyTotal_ = n; }

    // links
    zorv::Wafers& Wafers() { return wafers_; }
    const zorv::Wafers& Wafers() const { return wafers_; }
    std::unique_ptr<LotAttachment> ModelWafer, ModelField;
    std::vector<std::unique_ptr<LotAttachment>> AuxModels;
    std::vector<std::shared_ptr<cLot>> ReferenceLots;

    // modified flag: derived values (PointMinMax, statistics) need recomputing
    bool Modified() const { return modified_; }
    void SetModified(bool m = true) { modified_ = m; }
    // running point counter (serial numbers of points)
    int32_t PointCounter() const { return pointCounter_; }
    int32_t NextPointSerial() { return ++pointCounter_; }

    // ---- structure
    // Finds (name upper case against WaferID and, with keyToo, KeyName) or
    // creates a wafer. An empty name becomes the new number as text.
    cWafer* AddWafer(std::string_view name, bool& isNew, std::string_view key = {});
    // 1-based position or -1; out: position, Number, WaferID.
    int mFindWafer(std::string_view name, bool keyToo = false, Datam* out = nullptr) const;
    // Over wafers and fields not culled: a whole number by Number, else NumberKey.
    cField* GetField(const Value& id) const;
    // Over wafers not culled; SitesWafer with bySitesWafer, else fields.
    cSite* GetSite(long key, bool bySitesWafer = false) const;
    cSite* GetSite(float x, float y, bool bySitesWafer = false) const;
    // Position on a wafer (field) by its Number: sets CurrentWaferKey
    // (CurrentFieldKey); nullptr when there is none.
    cWafer* SetToWaferNumber(long n);
    cField* SetToFieldNumber(cWafer* w, long n);
    int TotalWafers() const { return wafers_.Count(); }
    // Points in use (not culled); culled points counted into *culled. With
    // recount, walks the tree and rebuilds the running counters first. Reports
    // "Wafers collection does not exist." or "No wafers in lot: " + name.
    long TotalPoints(long* culled = nullptr, bool recount = false);
    void Recount();
    // Visits every point not culled (nor its wafer, field, site).
    void ForEAch(const std::function<void(cWafer&, cField&, cSite&, cPoint&)>& fn) const;
    // The same walk, inlined for hot loops.
    template <class F>
    void forEachLive(F&& fn) const;
    void Clear();
    void Kill();

    // ---- features, families, units
    std::string GetPlotFeatureName(int feature) const;
    // Number of the feature with this name (or "Vector", "Astigmatism",
    // "None"); -1 when unknown.
    int GetPlotFeature(std::string_view name) const;
    std::string GetPlotFeatureTypeName() const;  // "Raw Data", "Fitted", "Residuals"
    // Selects the feature of that name (PlotFeatureName set).
    void setPlotFeatureName(std::string_view name);
    void PlotFeatureUpdate(double minValue, double maxValue);
    // Unit text and code of a feature 0..8 (0: the V units); false otherwise.
    bool GetPlotFeatureUnits(int feature, std::string& text, long& code) const;
    std::string GetPlotFeatureUnits() const;  // text of the current feature
    long* FeatureUnitsField(int feature);
    std::string GetUnitsAsString(long code) const { return UnitName(code); }
    double PlotFeatureUnitsFactor() const { return UnitFactor(plotFeatureUnits_); }
    // Parses a unit text; with set, PlotFeatureUnits := code. Returns the
    // code's text (current code's text when unknown); result gets the code.
    std::string PlotFeatureUnitsString(std::string_view text, bool set, long* result = nullptr);
    // Units table of the Sites sheet ("Variable", "Units", "PlotFeature").
    void UpdateUnits(const Datam& table, bool replace = true);
    // Writes the units back to the workbook through the hook the workbook
    // layer installs; -1 when none is installed or it fails.
    int UpdateUnits2Workbook();
    static std::function<int(cLot&)>& UpdateUnits2WorkbookHook();
    // Features that hold data: rows 1..n of (number, "ePlotFeature#", name).
    Datam GetFeatureTypes() const;
    // Family of the site with this key (-1 when none).
    long GetFamily(long siteKey) const;

    // ---- access (tables in display units: stored / 1000, locations in mm;
    // culled objects skipped; the missing mark -999.9 is written unscaled)
    Datam GetData(bool byField = true, bool byWaferSites = false, bool withExposure = false);
    // absolute: columns 6, 7 are "Xabsolute (mm)", "Yabsolute"; area row 1:
    // x1, y1, x2, y2 relative to the wafer centre.
    Datam GetDataFull(const Datam* area = nullptr, bool absolute = false);
    // locationForm 0 "Xloc", 1 "Radius", 2 "Xabsolute", 3 "Radius Abs".
    // Features from column 6 (V, H, Z; all eight on a line-width lot), then
    // "Family" and the exposure ("Focus" .. "PCo": 15-19 with all features,
    // 9-13 before "Family" on a vector lot), "Serial" (site SerialNumber) last.
    Datam GetDataMatrix(int locationForm = 0, bool withExposure = false, bool withSerial = false,
                        const Datam* area = nullptr, double screenScale = 0);
    Datam GetPlotFeatureData(long& count, std::string& name);
    Datam GetUniqueExposures(long& count, Datam& focusTable) const;
    long GetCenterSite(Datam& centerColumn, Datam& centerRow, bool onCentreLines, float& maxX, float& maxY) const;
    Datam GetFEMmatrix(int feature, double& maxValue, double& minValue, double& valueStep, Datam& table);
    // A field's values (current feature and kind) as a grid of site rows and
    // columns for contours: row 0 X (mm), column 0 Y (mm).
    Datam GetFieldSurface(const cField* field);

    // ---- derived lots and transforms
    std::shared_ptr<cLot> clone(bool keepCulled = false, bool treeless = false, std::string_view name = {});
    void CalcWaferPositions();
    std::shared_ptr<cLot> RotateLot(bool doFields, bool doSites, double fieldAngle, double siteAngle);
    void RotateSites(double angleDegrees);
    std::shared_ptr<cLot> MirrorFlip(bool fieldX, bool fieldY, bool siteX, bool siteY);
    std::shared_ptr<cLot> Magnify(bool doFields, bool doSites, double fieldFactor, double dieFactor,
                                  double valueTerm, double siteFactor);
    void ReticleScale();
    std::shared_ptr<cLot> GetSubFieldLot(long centerSite = -1, bool collapse = false, std::string_view name = {});
    // Field statistics per feature over a collapsed clone; the collapsed lot
    // comes back in *collapsed when asked for.
    Datam CollapseSites(std::shared_ptr<cLot>* collapsed = nullptr);
    // One field per site position averaged over wafers and fields.
    std::shared_ptr<cLot> CollapseField(std::string_view name = {});
    // Subtracts the average field (or the given one) from every field, raw and fitted.
    std::shared_ptr<cLot> RemoveFieldValue(const cField* field = nullptr, bool subField = false);
    // Adds a field's values back to every field.
    std::shared_ptr<cLot> PutFieldValue(const cField* field);
    // This lot less the reticle lot's values at matching sites (vector features / all features).
    std::shared_ptr<cLot> RemoveReticle(const cLot* reticle);
    std::shared_ptr<cLot> RemoveReticleCD(const cLot* reticle);
    // The residuals as raw data.
    std::shared_ptr<cLot> GetResidsLot();
    // Features A, B, C as V, H, Z.
    std::shared_ptr<cLot> GetValueABClot();
    // Adds `value` (display units) to the feature of every point; feature -99 the current one.
    std::shared_ptr<cLot> AddValue2Lot(double value, int feature = ePlotFeatureLot, bool inPlace = false);

private:
    cLot();
    std::shared_ptr<cLot> self();

    zorv::Wafers wafers_;
    int32_t pointCounter_ = 0;
    bool modified_ = false;
};

// Walks points not culled, nor their wafer, field or site.
template <class F>
void cLot::forEachLive(F&& fn) const {
    for (cWafer* w : wafers_) {
        if (w->cull()) continue;
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            for (cSite* s : f->sites()) {
                if (s->cull()) continue;
                for (cPoint* p : s->Points())
                    if (!p->cull()) fn(*w, *f, *s, *p);
            }
        }
    }
}

}  // namespace zorv
