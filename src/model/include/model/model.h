// One polynomial model of one measured variable on one wafer or field
// (Cmodel), its terms (cCoefficient in Coefficients) and the records of its
// fits (cFitRecord in FitRecordLib).
//
// Units of a fit: wafer models see the site's absolute wafer position in mm
// (X, Y, R; THETA in the site's angle units), field models the site's field
// position plus the lot's SiteXoffset/SiteYoffset in mm; values are the
// point's current plot feature over 1000. So a coefficient is "display unit
// per mm^k"; CalcDisplayFactor turns it into its report units.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "lot/keyed.h"
#include "lot/lot.h"
#include "numerics/equation.h"

namespace zorv {

class Cmodel;

// What a units text means: a unit code (as the lot's unit codes) and the
// power it carries ("cm2" or "cm^2": 2).
struct UnitsFound {
    long code = 0;
    double exponent = 1;
};
// cCoefficient(UnitsDetermination): "No input string." for an empty text;
// a text no rule knows fails too.
[[nodiscard]] Result<UnitsFound> UnitsDetermination(std::string_view text);

// One term of a model.
class cCoefficient {
public:
    std::string DisplayUnits;     // "urad", "nm/cm2", "ppm", ...
    std::string DisplayFormat;    // "0.0000"
    std::string DisplayNameCoef;  // the name in reports
    bool Include = false;         // took part in the last fit
    double Sigma = 0;             // standard error of the last fit
    Cmodel* parent = nullptr;
    double Value = 0;             // fitted value
    int Threshold = 1;            // least point count the term may be fitted on
    std::string NameCoef;         // "TiltX"
    std::string Key;              // its position in Coefficients, as text
    float DisplayFactor = 1;      // stored value x factor = value in DisplayUnits

    // The term in X, Y, R and THETA; empty means "1". Setting a text with "R"
    // or "THETA" (any case) marks the parent model radial.
    const std::string& ValueString() const { return valueString_; }
    void setValueString(std::string_view text);
    // The term's equation, parsed once.
    clsEquation& ValueEqn() { return eqn_; }

    // cCoefficient(CalcDisplayFactor): the factor for the plotted feature's
    // unit code; codes outside the table leave it as it was.
    [[nodiscard]] Status CalcDisplayFactor(long unitsCode);

private:
    std::string valueString_ = "1";
    clsEquation eqn_{"1"};
};

// The terms of a model, in order, keyed by position text.
class Coefficients {
public:
    int Count() const { return list_.Count(); }
    // 1-based position; nullptr out of range.
    cCoefficient* Item(int pos) const { return list_.at(pos); }
    cCoefficient* Item(std::string_view key) const { return list_.byKey(key); }
    // Appends; an empty key becomes the new position as text. False when taken.
    bool Add(std::unique_ptr<cCoefficient> c, std::string key = {});
    void IncludeAll(bool flag);
    // Value and Sigma of every term; -999 in either leaves that one alone.
    void SetAll(double value, double sigma);
    void Clear() { list_.clear(); }
    auto begin() const { return list_.begin(); }
    auto end() const { return list_.end(); }

private:
    KeyedList<std::unique_ptr<cCoefficient>> list_;
};

// One fit: its MSE and the values with their errors.
class cFitRecord {
public:
    float MSE = 0;
    std::string SerialID;
    int FamilyType = 0;
    int PlotFeature = 0;
    // "Var_" feature "_Fam_" family (wafer fits); feature "_" family "_"
    // header (field fits).
    std::string Key;

    void AddValue(double value, double error) { values_.push_back({value, error}); }
    // 1-based; 0 out of range.
    double GetFitValue(int i) const;
    double GetFitError(int i) const;
    int CountValues() const { return static_cast<int>(values_.size()); }
    // Vectors (rows 1..n, column 1) of the values and of the errors.
    Datam FitCoefValues() const;
    Datam StdErrVals() const;
    void EraseVals() { values_.clear(); }
    void EraseValue(int i);
    std::unique_ptr<cFitRecord> clone() const { return std::make_unique<cFitRecord>(*this); }

private:
    struct Pair {
        double value, error;
    };
    std::vector<Pair> values_;
};

// Fit records by key; a record of a key already present replaces it.
class FitRecordLib {
public:
    void Add(std::unique_ptr<cFitRecord> r);
    cFitRecord* Item(std::string_view key) const { return list_.byKey(key); }
    cFitRecord* Item(int pos) const { return list_.at(pos); }
    int Count() const { return list_.Count(); }
    void Clear() { list_.clear(); }
    auto begin() const { return list_.begin(); }
    auto end() const { return list_.end(); }

private:
    KeyedList<std::unique_ptr<cFitRecord>> list_;
};

// How a fit is asked for (the arguments of Fit).
struct ModelFitOptions {
    int terms = 0;                // 0: all terms
    float thresholdMultiple = 0;  // svdfit_std's threshold (sigma multiple)
    float rangeCull = 0;          // svdfit_std's range cull
    bool useCurrent = false;      // the thresholded ("current") coefficients
};

// What a fit hands back. coef and sigma: rows 1..t (term order) and, for
// field fits, a row "MSE"; by-rows and by-columns field fits have a column
// per line headed by its location and a last column "Mean". resids: the
// residual of each MITP row (column 0 the row's key).
struct ModelFitResult {
    std::string equation;  // at least 2 characters on success
    Datam coef, sigma, resids;
    float mse = 0;
};

class Cmodel {
public:
    Cmodel() = default;
    Cmodel(const Cmodel&) = delete;
    Cmodel& operator=(const Cmodel&) = delete;

    std::string Name;
    FitRecordLib FitLibrary;
    int FamilyType = 0;       // family the model is for; 0: the current one
    int FieldModelType = 3;   // 1 by rows, 2 by columns, 3 whole field
    cField* ParentField = nullptr;
    cWafer* ParentWafer = nullptr;
    float MSE = 0;
    bool IsRadial = false;
    zorv::Coefficients Coefficients;
    float ThresholdMax = 0;
    clsEquation FullModel, CurrentModel;
    int PlotFeature = -1;     // -1: the lot's current one
    std::string Key;          // Name "_" PlotFeature "_" FamilyType

    // The parent is the field when one is set, else the wafer.
    bool onField() const { return ParentField != nullptr; }
    cLot* ParentLot() const;

    // Appends a term (its Key the position, its parent this model).
    cCoefficient& AddTerm(std::string name, std::string valueString, int threshold = 1,
                          std::string units = {}, std::string format = "0.0000",
                          std::string displayName = {});

    // The MITP (independent) table and its dependent table; see model.cpp.
    const Datam& Mitp() const { return mitp_; }
    const Datam& Dependent() const { return dependent_; }
    void SetMitp(const Datam& mitp) { mitp_ = mitp; }
    void clearMITP() {
        mitp_ = Datam();
        dependent_ = Datam();
    }

    // cModel(Fit): by the parent, FitWafer or FitField.
    [[nodiscard]] Result<ModelFitResult> Fit(const ModelFitOptions& options);
    [[nodiscard]] Result<ModelFitResult> FitWafer(const ModelFitOptions& options);
    [[nodiscard]] Result<ModelFitResult> FitField(const ModelFitOptions& options);
    // cModel(LoadWaferMITP) / cModel(LoadFieldMITP): fill the tables for the
    // first `terms` terms (0: all); dependentOnly reuses the MITP. The
    // equation text " + A1 * ..." comes back in *text.
    [[nodiscard]] Status LoadWaferMITP(int terms, bool dependentOnly, std::string* text = nullptr);
    [[nodiscard]] Status LoadFieldMITP(int terms, bool dependentOnly, std::string* text = nullptr);

    // Terms, equations, IsRadial, key, feature, family, fit records, MSE and
    // field model type; no parent, no MITP.
    std::unique_ptr<Cmodel> clone() const;

private:
    Datam mitp_, dependent_;
};

}  // namespace zorv
