// The lot (cLot) at the top of the measurement tree, and the whole tree:
// cLot > cWafer > cField > cSite > cPoint (wafer.h, field.h, site.h, point.h),
// the keyed collections that hold it (Wafers, Fields, sites, Points,
// SitesWafer), the exposure layout variables and the range corner (layout.h).
// Including this header gives all of them.
//
// Units: locations and sizes in micrometres (single precision); measured
// values at point level are 1000 times the display unit; -999.9 marks a
// missing value (base/marks.h has its two tests).
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
//     lot->DataSource(eDataSourceOverlay);     // sets LineWidthType too
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
//
// Failures: the structural operations (AddWafer, AddField, AddFieldObj,
// AddPoint) trap their own errors and show them with " Chk: "; the tables and
// derived lots show their message once and answer an empty table or no lot.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "base/value.h"
#include "lot/data_source.h"
#include "lot/features.h"
#include "lot/field.h"
#include "lot/keyed.h"
#include "lot/layout.h"
#include "lot/point.h"
#include "lot/site.h"
#include "lot/tree_base.h"
#include "lot/wafer.h"

namespace zorv {

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
    eDataSource dataSource_ = eDataSourceRegistration;
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

    eDataSource DataSource() const { return dataSource_; }
    // Also sets LineWidthType (IsScalarSource) and, for thermal, wafer site
    // and resistivity data, PlotWaferSites.
    void DataSource(eDataSource source);
    // A number as the workbook holds it.
    void DataSource(long source) { DataSource(static_cast<eDataSource>(source)); }
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
    // Finds (name upper case against WaferID and KeyName; digits also as "W"
    // and the digits) or creates a wafer. An empty name becomes the new number
    // as text. A key already in use is shown and answers nullptr.
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
    // recount, walks the tree and rebuilds the running counters first. Shows
    // "No wafers in lot: " + name when there is no wafer, and answers 0.
    long TotalPoints(long* culled = nullptr, bool recount = false);
    void Recount();
    // Visits every point not culled (nor its wafer, field, site).
    void ForEAch(const std::function<void(cWafer&, cField&, cSite&, cPoint&)>& fn) const;
    // The same walk, inlined for hot loops: fn(wafer, field, site, point). A
    // fn that answers bool stops the walk with false; the walk answers
    // whether it ran to the end.
    template <class F>
    bool forEachLive(F&& fn) const;
    // The walk one level up: fn(wafer, field, site) for every site not culled.
    template <class F>
    bool forEachLiveSite(F&& fn) const;
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
    // An upcall: the lot's control flows up to the workbook that holds it, a
    // layer above lot that lot cannot include. The workbook installs the hook
    // at start-up; the hook shows its own messages and answers 1 on success,
    // -1 otherwise. A hook that throws is shown here as a run-time error.
    static std::function<int(cLot&)>& UpdateUnits2WorkbookHook();
    // Features that hold data: rows 1..n of (number, "ePlotFeature#", name).
    Datam GetFeatureTypes() const;
    // Family of the first site with this key, culled or not; the failure
    // " Input Site # <key> was not found." when no site has it.
    [[nodiscard]] Result<long> GetFamily(long siteKey) const;

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

template <class F>
bool cLot::forEachLiveSite(F&& fn) const {
    constexpr bool canStop = std::is_same_v<std::invoke_result_t<F&, cWafer&, cField&, cSite&>, bool>;
    for (cWafer* w : wafers_) {
        if (w->cull()) continue;
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            for (cSite* s : f->sites()) {
                if (s->cull()) continue;
                if constexpr (canStop) {
                    if (!fn(*w, *f, *s)) return false;
                } else {
                    fn(*w, *f, *s);
                }
            }
        }
    }
    return true;
}

template <class F>
bool cLot::forEachLive(F&& fn) const {
    return forEachLiveSite([&](cWafer& w, cField& f, cSite& s) {
        for (cPoint* p : s.Points()) {
            if (p->cull()) continue;
            if constexpr (std::is_same_v<std::invoke_result_t<F&, cWafer&, cField&, cSite&, cPoint&>, bool>) {
                if (!fn(w, f, s, *p)) return false;
            } else {
                fn(w, f, s, *p);
            }
        }
        return true;
    });
}

}  // namespace zorv
