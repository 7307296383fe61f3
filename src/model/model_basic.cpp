// Terms, term lists, fit records and the model object itself: everything of a
// model but its tables and its fit (model_fit.cpp).
#include <algorithm>
#include <string>

#include "base/text.h"
#include "model/model.h"

namespace zorv {

// ---------------------------------------------------------------- cCoefficient

void cCoefficient::setValueString(std::string_view text) {
    valueString_ = Trim(text).empty() ? std::string("1") : std::string(text);
    eqn_.setEquation(valueString_);
    const std::string up = Upper(valueString_);
    if (parent && (up.find('R') != std::string::npos || up.find("THETA") != std::string::npos))
        parent->IsRadial = true;
}

// ---------------------------------------------------------------- Coefficients

bool Coefficients::Add(std::unique_ptr<cCoefficient> c, std::string key) {
    if (key.empty()) key = std::to_string(list_.Count() + 1);
    c->Key = key;
    return list_.insert(std::move(c), MakeKey(key));
}

void Coefficients::IncludeAll(bool flag) {
    for (cCoefficient* c : list_) c->Include = flag;
}

void Coefficients::SetAll(double value, double sigma) {
    for (cCoefficient* c : list_) {
        if (value != -999) c->Value = value;
        if (sigma != -999) c->Sigma = sigma;
    }
}

// ---------------------------------------------------------------- cFitRecord

double cFitRecord::GetFitValue(int i) const {
    return i >= 1 && i <= CountValues() ? values_[static_cast<size_t>(i - 1)].value : 0.0;
}

double cFitRecord::GetFitError(int i) const {
    return i >= 1 && i <= CountValues() ? values_[static_cast<size_t>(i - 1)].error : 0.0;
}

Datam cFitRecord::FitCoefValues() const {
    Datam d = Datam::vec(CountValues());
    for (int i = 1; i <= CountValues(); ++i) d(i, 1) = zorv::Value(values_[static_cast<size_t>(i - 1)].value);
    return d;
}

Datam cFitRecord::StdErrVals() const {
    Datam d = Datam::vec(CountValues());
    for (int i = 1; i <= CountValues(); ++i) d(i, 1) = zorv::Value(values_[static_cast<size_t>(i - 1)].error);
    return d;
}

void cFitRecord::EraseValue(int i) {
    if (i >= 1 && i <= CountValues()) values_.erase(values_.begin() + (i - 1));
}

void FitRecordLib::Add(std::unique_ptr<cFitRecord> r) {
    if (const int at = list_.indexOf(r->Key); at > 0) list_.take(at);
    const std::string key = r->Key;
    list_.insert(std::move(r), MakeKey(key));
}

// ---------------------------------------------------------------- Cmodel

cLot* Cmodel::ParentLot() const {
    if (ParentField && ParentField->ParentLot()) return ParentField->ParentLot();
    return ParentWafer ? ParentWafer->parent() : nullptr;
}

cCoefficient& Cmodel::AddTerm(std::string name, std::string valueString, int threshold, std::string units,
                              std::string format, std::string displayName) {
    auto c = std::make_unique<cCoefficient>();
    c->parent = this;
    c->NameCoef = std::move(name);
    c->DisplayNameCoef = displayName.empty() ? c->NameCoef : std::move(displayName);
    c->DisplayUnits = std::move(units);
    c->DisplayFormat = std::move(format);
    c->Threshold = threshold;
    c->setValueString(valueString);
    cCoefficient& ref = *c;
    Coefficients.Add(std::move(c));
    return ref;
}

std::unique_ptr<Cmodel> Cmodel::clone() const {
    auto m = std::make_unique<Cmodel>();
    m->Name = Name;
    for (const cFitRecord* r : FitLibrary) m->FitLibrary.Add(r->clone());
    m->FamilyType = FamilyType;
    m->FieldModelType = FieldModelType;
    m->MSE = MSE;
    m->IsRadial = IsRadial;
    m->ThresholdMax = ThresholdMax;
    m->FullModel.setEquation(FullModel.Equation());
    m->CurrentModel.setEquation(CurrentModel.Equation());
    m->PlotFeature = PlotFeature;
    m->Key = Key;
    for (const cCoefficient* c : Coefficients) {
        auto t = std::make_unique<cCoefficient>();
        t->DisplayUnits = c->DisplayUnits;
        t->DisplayFormat = c->DisplayFormat;
        t->DisplayNameCoef = c->DisplayNameCoef;
        t->Include = c->Include;
        t->Sigma = c->Sigma;
        t->parent = m.get();
        t->Value = c->Value;
        t->Threshold = c->Threshold;
        t->NameCoef = c->NameCoef;
        t->DisplayFactor = c->DisplayFactor;
        t->setValueString(c->ValueString());
        m->Coefficients.Add(std::move(t), c->Key);
    }
    m->IsRadial = IsRadial;
    return m;
}

}  // namespace zorv
