// The measurement and the points of a site.
#include <algorithm>
#include <cmath>

#include "lot/lot.h"
#include "slot_pool.h"
#include "tree_helpers.h"

namespace zorv {

void* cPoint::operator new(size_t size) { return PoolNew<cPoint>(size); }
void cPoint::operator delete(void* p, size_t size) noexcept { PoolDelete<cPoint>(p, size); }

// ================================================================ cPoint

void cPoint::setParentLot(cLot* lot) {
    lot_ = lot;
    if (lot) SerialNumber = lot->NextPointSerial();
}

void cPoint::setCull(bool c) {
    if (c == cull_) return;
    cull_ = c;
    cLot* lot = lot_;
    if (parent_) {
        CountStep(parent_->TotalPointsCount, c);
        if (cField* f = parent_->parent()) {
            CountStep(f->TotalPointsCount, c);
            if (!lot) lot = f->ParentLot();
        }
    }
    if (lot) lot->SetModified();
}

static cLot* pointLot(const cPoint& p) {
    if (p.ParentLot()) return p.ParentLot();
    return p.parent() ? p.parent()->ParentLot() : nullptr;
}

std::string cPoint::ValueV_Name() const { cLot* l = pointLot(*this); return l ? l->ValueV_Name : std::string(); }
std::string cPoint::ValueH_Name() const { cLot* l = pointLot(*this); return l ? l->ValueH_Name : std::string(); }
std::string cPoint::valueZ_Name() const { cLot* l = pointLot(*this); return l ? l->valueZ_Name : std::string(); }
std::string cPoint::Slope_Name() const { cLot* l = pointLot(*this); return l ? l->Slope_Name : std::string(); }
std::string cPoint::Pitch_Name() const { cLot* l = pointLot(*this); return l ? l->Pitch_Name : std::string(); }

Datam cPoint::TrueValues() const {
    Datam d = Datam::array1(3, 1);
    d.at(1) = Value(ValueV);
    d.at(2) = Value(ValueH);
    d.at(3) = Value(ValueZ);
    return d;
}

float* cPoint::FeatureSlot(int feature, int dataType) {
    const int k = ((dataType % 3) + 3) % 3;
    switch (feature * 3 + k) {
        case 0: case 3: return &ValueV;
        case 1: case 4: return &ValueV_fit;
        case 2: case 5: return &ValueV_Res;
        case 6: return &ValueH;
        case 7: return &ValueH_fit;
        case 8: return &ValueH_Res;
        case 9: return &ValueZ;
        case 10: return &ValueZ_fit;
        case 11: return &ValueZ_Res;
        case 12: return &Slope;
        case 13: return &Slope_fit;
        case 14: return &Slope_Res;
        case 15: return &Pitch;
        case 16: return &Pitch_fit;
        case 17: return &Pitch_Res;
        case 18: return &ValueA;
        case 19: return &ValueA_fit;
        case 20: return &ValueA_Res;
        case 21: return &ValueB;
        case 22: return &ValueB_fit;
        case 23: return &ValueB_Res;
        case 24: return &ValueC;
        case 25: return &ValueC_fit;
        case 26: return &ValueC_Res;
        case 27: return &ValueAstig;
        case 28: return &ValueAstig_fit;
        case 29: return &ValueAstig_Res;
        default: return nullptr;
    }
}

namespace {
// The lot's plot feature stands in for ePlotFeatureLot; the data type is the
// lot's (0 without a lot).
int resolveFeature(const cPoint& p, int& feature) {
    if (cLot* l = pointLot(p)) {
        if (feature == ePlotFeatureLot) feature = l->PlotFeature();
        return l->PLotDataType;
    }
    if (feature == ePlotFeatureLot) feature = 0;
    return 0;
}
}  // namespace

float cPoint::GetPlotFeatureValue(float& val1, float& val2, float& val3, int feature) {
    const int dt = resolveFeature(*this, feature);
    return GetPlotFeatureValue(val1, val2, val3, feature, dt);
}

float cPoint::GetPlotFeatureValue(float& val1, float& val2, float& val3, int feature, int dataType) {
    if (feature == ePlotFeatureLot) {
        cLot* l = pointLot(*this);
        feature = l ? l->PlotFeature() : 0;
    }
    const int k = ((dataType % 3) + 3) % 3;
    switch (feature) {
        case ePlotFeatureVector:
            val1 = *FeatureSlot(1, k);
            val2 = *FeatureSlot(2, k);
            val3 = *FeatureSlot(3, k);
            if (k == 0 && val3 == kMissingValue) {
                val3 = ValueV;
                if (val3 == kMissingValue) val3 = ValueH;
            }
            return val3;
        case ePlotFeatureAstig:
            if (ValueAstig == 0 && ValueAstig_fit == 0 && ValueAstig_Res == 0 && ValueV != 0) {
                ValueAstig = ValueV - ValueH;
                ValueAstig_fit = ValueV_fit - ValueH_fit;
                ValueAstig_Res = ValueAstig - ValueAstig_fit;
            }
            val1 = *FeatureSlot(9, k);
            return val1;
        default:
            if (feature >= 1 && feature <= 8) {
                val1 = *FeatureSlot(feature, k);
                return val1;
            }
            return kMissingValue;
    }
}

void cPoint::PutPlotFeatureValue(float val1, float val2, float val3, int feature) {
    const int dt = resolveFeature(*this, feature);
    PutPlotFeatureValue(val1, val2, val3, feature, dt);
}

void cPoint::PutPlotFeatureValue(float val1, float val2, float val3, int feature, int dataType) {
    if (feature == 0) {
        *FeatureSlot(1, dataType) = val1;
        *FeatureSlot(2, dataType) = val2;
        *FeatureSlot(3, dataType) = val3;
    } else if (float* s = FeatureSlot(feature, dataType); s && feature >= 1 && feature <= 9) {
        *s = val1;
    }
}

void cPoint::SetPlotFeatureValue(float val1, float val2, float val3, int feature) {
    const int dt = resolveFeature(*this, feature);
    SetPlotFeatureValue(val1, val2, val3, feature, dt);
}

void cPoint::SetPlotFeatureValue(float val1, float val2, float val3, int feature, int dataType) {
    PutPlotFeatureValue(val1, val2, val3, feature, dataType);
    if (dataType % 3 != 0) PutPlotFeatureValue(val1, val2, val3, feature, 0);
}

bool cPoint::CalcVector(float& length, float& fitLength, float& resLength, bool store) {
    if (IsMissingTol(ValueV) || IsMissingTol(ValueH)) return false;
    length = static_cast<float>(std::sqrt(double(ValueV) * ValueV + double(ValueH) * ValueH));
    auto len = [](float a, float b) {
        if (IsMissingTol(a) || IsMissingTol(b)) return kMissingValue;
        return static_cast<float>(std::sqrt(double(a) * a + double(b) * b));
    };
    fitLength = len(ValueV_fit, ValueH_fit);
    resLength = len(ValueV_Res, ValueH_Res);
    if (store) {
        ValueZ = length;
        ValueZ_fit = fitLength;
        ValueZ_Res = resLength;
    }
    return true;
}

bool cPoint::CalcVectorP(float& length, float& fitLength, float& resLength, bool store) {
    length = static_cast<float>(std::sqrt(double(ValueV_Pixel) * ValueV_Pixel + double(ValueH_Pixel) * ValueH_Pixel));
    fitLength = length;
    resLength = length;
    if (store) valueZ_Pixel = length;
    return true;
}

double cPoint::CalcAngle() const { return FoldAngle(ValueH, ValueV); }
double cPoint::CalcAngleP() const { return FoldAngle(ValueH_Pixel, ValueV_Pixel); }

void cPoint::FoldBack(int dataKind, bool toRaw) {
    const int k = dataKind % 3;
    if (k == 0) return;
    for (int f = 1; f <= 9; ++f) {
        float* raw = FeatureSlot(f, 0);
        float* fit = FeatureSlot(f, 1);
        float* res = FeatureSlot(f, 2);
        float* src = k == 2 ? res : fit;
        if (*src == kMissingValue) continue;
        if (toRaw) {
            *raw = *src;
            *fit = 0;
            *res = 0;
        } else if (k == 2) {
            *res = *raw - *fit;
        } else {
            *fit = *raw - *res;
        }
    }
    for (int f = 1; f <= 9; ++f) *FeatureSlot(f, k) = 0;
}

std::unique_ptr<cPoint> cPoint::clone() const {
    std::unique_ptr<cPoint> p(new cPoint(*this));
    p->parent_ = nullptr;
    p->lot_ = nullptr;
    return p;
}

// ================================================================ Points

cPoint* Points::Item(int pos) const {
    if (pos == 1) return first_.get();
    if (pos < 2 || !rest_ || pos - 2 >= static_cast<int>(rest_->items.size())) return nullptr;
    return rest_->items[static_cast<size_t>(pos - 2)].get();
}

const Value& Points::keyAt(size_t i) const {
    return i == 0 ? first_->NumberKeyValue() : rest_->items[i - 1]->NumberKeyValue();
}

int Points::IndexOf(const Value& key) const {
    const size_t n = static_cast<size_t>(Count());
    if (!rest_) return n == 1 && KeyEqual(first_->NumberKeyValue(), key) ? 1 : 0;
    return rest_->index.find(key, n, [this](size_t i) -> const Value& { return keyAt(i); }) + 1;
}

cPoint* Points::ItemKey(const Value& key) const { return Item(IndexOf(key)); }

cPoint* Points::Add(std::unique_ptr<cPoint> point, std::string_view key) {
    if (!point) point = std::make_unique<cPoint>();
    const int n = Count();
    Value k;
    if (!key.empty()) k = MakeKey(key);
    else if (!point->NumberKeyValue().isEmpty() && !KeyText(point->NumberKeyValue()).empty()) k = point->NumberKeyValue();
    else k = MakeKey(static_cast<long>(n + 1));
    if (IndexOf(k) > 0) {
        k = repairKey(k, n, [this](const Value& c) { return IndexOf(c) > 0; });
        if (k.isEmpty()) return nullptr;
    }
    point->setNumberKey(k);
    cPoint* raw = point.get();
    if (!first_) {
        first_ = std::move(point);
    } else {
        if (!rest_) rest_ = std::make_unique<Rest>();
        rest_->items.push_back(std::move(point));
        const size_t count = rest_->items.size() + 1;
        rest_->index.added(count - 1, count, [this](size_t i) -> const Value& { return keyAt(i); });
    }
    return raw;
}

std::unique_ptr<cPoint> Points::Remove(int pos) {
    const int n = Count();
    if (pos < 1 || pos > n) return nullptr;
    std::unique_ptr<cPoint> out;
    if (pos == 1) {
        out = std::move(first_);
        if (rest_ && !rest_->items.empty()) {
            first_ = std::move(rest_->items.front());
            rest_->items.erase(rest_->items.begin());
        }
    } else {
        out = std::move(rest_->items[static_cast<size_t>(pos - 2)]);
        rest_->items.erase(rest_->items.begin() + (pos - 2));
    }
    if (rest_ && rest_->items.empty()) rest_.reset();
    if (rest_)
        rest_->index.rebuild(rest_->items.size() + 1,
                             [this](size_t i) -> const Value& { return keyAt(i); });
    return out;
}

void Points::Clear() {
    first_.reset();
    rest_.reset();
}

}  // namespace zorv
