// Derived lots and geometry: clone, wafer positions, rotations, mirror,
// magnification, reticle scale, sub-field and collapsed field, and the
// value operations that work site by site.
#include <algorithm>
#include <cassert>
#include <cmath>
#include <map>

#include "base/marks.h"
#include "base/proc.h"
#include "base/report.h"
#include "lot/lot.h"
#include "tree_helpers.h"

namespace zorv {

namespace {

inline void rotate(float& x, float& y, double c, double s) {
    const double nx = x * c - y * s;
    const double ny = x * s + y * c;
    x = static_cast<float>(nx);
    y = static_cast<float>(ny);
}

// The nine raw/fitted/residual triples of a point, feature by feature.
constexpr int kFeatures[] = {1, 2, 3, 4, 5, 6, 7, 8, 9};

}  // namespace

// ---------------------------------------------------------------- clone

std::shared_ptr<cLot> cLot::clone(bool keepCulled, bool treeless, std::string_view name) {
    Proc p("cLot(clone): ");
    if (wafers_.Count() == 0) {
        p.msg = "No wafers in lot.";
        p.report();
        return nullptr;
    }
    p.chk = 1;
    long n = TotalPoints();
    if (n == 0) {
        n = TotalPoints(nullptr, true);
        if (n < 1) {
            p.msg = "Total points in lot to be clones are < 1.";
            p.report();
            return nullptr;
        }
    }
    p.chk = 2;
    auto lot = create();
    static_cast<cLotProperties&>(*lot) = static_cast<const cLotProperties&>(*this);
    if (!name.empty()) lot->LotName = std::string(name);
    lot->modified_ = modified_;
    if (!treeless) {
        p.chk = 3;
        for (cWafer* w : wafers_) {
            long pts = 0;
            for (cField* f : w->Fields())
                if (!f->cull()) pts += f->TotalPointsCount;
            if (!keepCulled && (w->cull() || pts == 0)) continue;
            auto c = w->clone(keepCulled, name);
            const std::string key = w->KeyName.empty() ? w->WaferID : w->KeyName;
            cWafer* added = lot->wafers_.Add(std::move(c), key);
            if (!added) {
                // KeyName is open to callers: two wafers may have been given one
                p.msg = "Wafer " + key + " could not be added to the clone.";
                p.report();
                return nullptr;
            }
            added->WaferID = w->WaferID;
            added->setParent(lot.get());
            // Adding renames the fields after the key; a clone keeps the
            // source's field keys so that tables of the two agree.
            auto src = w->Fields().begin();
            for (cField* f : added->Fields()) {
                while (src != w->Fields().end() && (*src)->cull() && !keepCulled) ++src;
                if (src == w->Fields().end()) break;
                f->NumberKey = (*src)->NumberKey;
                ++src;
            }
        }
    }
    p.chk = 5;
    lot->WaferSize = WaferSize;
    lot->wcenx = wcenx;
    lot->wceny = wceny;
    if (ModelWafer) {
        lot->ModelWafer = ModelWafer->clone();
        lot->ModelWafer->setParentLot(lot.get());
    }
    if (ModelField) {
        lot->ModelField = ModelField->clone();
        lot->ModelField->setParentLot(lot.get());
    }
    return lot;
}

// ---------------------------------------------------------------- CalcWaferPositions

void cLot::CalcWaferPositions() {
    const double hx = DieSizeX / 2.0, hy = DieSizeY / 2.0;
    const double gx = double(DieXarray) * DieSizeX + DieXoffset;
    const double gy = double(DieYarray) * DieSizeY + DieYoffset;
    for (cWafer* w : wafers_) {
        for (cField* f : w->Fields()) {
            const double fx = f->LocationX + gx, fy = f->LocationY + gy;
            f->LocationR = static_cast<float>(std::hypot(fx + hx, fy + hy));
            f->LocationTheta = static_cast<float>(FoldAngle(fx + hx, fy + hy));
            for (cSite* s : f->sites()) {
                const double x = double(s->LocationX) + SiteXoffset, y = double(s->LocationY) + SiteYoffset;
                s->LocationR = static_cast<float>(std::sqrt(x * x + y * y));
                s->LocationTheta = static_cast<float>(FoldAngle(x, y));
                const double ax = x + fx + hx, ay = y + fy + hy;
                s->LocationXabs = static_cast<float>(ax);
                s->LocationYabs = static_cast<float>(ay);
                s->WaferX = s->LocationXabs;
                s->WaferY = s->LocationYabs;
                s->LocationRabs = static_cast<float>(std::sqrt(ax * ax + ay * ay));
                s->LocationThetaAbs = static_cast<float>(FoldAngle(ax, ay));
            }
        }
    }
}

// ---------------------------------------------------------------- rotations

std::shared_ptr<cLot> cLot::RotateLot(bool doFields, bool doSites, double fieldAngle, double siteAngle) {
    if (fieldAngle == 0) doFields = false;
    if (siteAngle == 0) doSites = false;
    if (!doFields && !doSites) return self();
    auto lot = clone(true);
    if (!lot) return nullptr;  // clone told the user
    const double fc = std::cos(fieldAngle), fs = std::sin(fieldAngle);
    const double sc = std::cos(siteAngle), ss = std::sin(siteAngle);
    for (cWafer* w : lot->wafers_) {
        for (cField* f : w->Fields()) {
            if (doFields) {
                float dx = f->DieX, dy = f->DieY;
                rotate(dx, dy, fc, fs);
                f->DieX = static_cast<float>(Round(dx, 0));
                f->DieY = static_cast<float>(Round(dy, 0));
                rotate(f->LocationX, f->LocationY, fc, fs);
            }
            if (doSites)
                for (cSite* s : f->sites()) rotate(s->LocationX, s->LocationY, sc, ss);
        }
    }
    lot->CalcWaferPositions();
    return lot;
}

void cLot::RotateSites(double angleDegrees) {
    const double delta = angleDegrees - CurrentRotation;
    CurrentRotation = static_cast<float>(angleDegrees);
    const float oldX = DieSizeX, oldY = DieSizeY;
    bool swapped = false;
    const double ad = std::fabs(delta);
    if (ad > 45 && ad < 135) {
        DieSizeX = oldY;
        DieSizeY = oldX;
        swapped = true;
    }
    if (ad > 125 && ad < 315) {
        DieSizeX = oldY;
        DieSizeY = oldX;
        swapped = true;
    }
    if (delta == 0) return;
    const double a = delta * kPi / 180.0;
    const double c = std::cos(a), s = std::sin(a);
    auto turnSite = [&](cSite* st) {
        rotate(st->LocationX, st->LocationY, c, s);
        const double x = double(st->LocationX) + SiteXoffset, y = double(st->LocationY) + SiteYoffset;
        st->LocationR = static_cast<float>(std::sqrt(x * x + y * y));
        st->LocationTheta = static_cast<float>(FoldAngle(x, y));
    };
    for (cWafer* w : wafers_) {
        for (cField* f : w->Fields()) {
            if (swapped) rotate(f->DieX, f->DieY, c, s);
            rotate(f->LocationX, f->LocationY, c, s);
            const double fx = f->LocationX + DieSizeX / 2.0, fy = f->LocationY + DieSizeY / 2.0;
            f->LocationR = static_cast<float>(std::hypot(fx, fy));
            f->LocationTheta = static_cast<float>(FoldAngle(fx, fy));
        }
        if (w->SitesWafer().Count() > 0) {
            for (cSite* st : w->SitesWafer()) turnSite(st);
        } else {
            for (cField* f : w->Fields())
                for (cSite* st : f->sites()) turnSite(st);
        }
    }
    SetModified();
}

// ---------------------------------------------------------------- mirror, magnify

std::shared_ptr<cLot> cLot::MirrorFlip(bool fieldX, bool fieldY, bool siteX, bool siteY) {
    auto lot = clone(true);
    if (!lot) return nullptr;  // clone told the user
    for (cWafer* w : lot->wafers_) {
        for (cField* f : w->Fields()) {
            if (fieldX) { f->LocationX = -f->LocationX; f->DieX = -f->DieX; }
            if (fieldY) { f->LocationY = -f->LocationY; f->DieY = -f->DieY; }
            for (cSite* s : f->sites()) {
                if (siteX) { s->LocationX = -s->LocationX; s->LocationXabs = -s->LocationXabs; }
                if (siteY) { s->LocationY = -s->LocationY; s->LocationYabs = -s->LocationYabs; }
            }
        }
    }
    lot->CalcWaferPositions();
    return lot;
}

std::shared_ptr<cLot> cLot::Magnify(bool doFields, bool doSites, double fieldFactor, double dieFactor,
                                    double valueTerm, double siteFactor) {
    if (fieldFactor == 0) doFields = false;
    if (dieFactor + valueTerm == 0) doSites = false;
    if (!doFields && !doSites) return self();
    auto lot = clone(true);
    if (!lot) return nullptr;  // clone told the user
    if (doSites) {
        // The caller compares the two lots afterwards: the die geometry is
        // scaled on this lot, not on the clone.
        DieSizeX = static_cast<float>(DieSizeX * dieFactor);
        DieSizeY = static_cast<float>(DieSizeY * dieFactor);
        DieXoffset = static_cast<float>(DieXoffset * dieFactor);
        DieYoffset = static_cast<float>(DieYoffset * dieFactor);
    }
    const double vf = dieFactor + valueTerm;
    for (cWafer* w : lot->wafers_) {
        for (cField* f : w->Fields()) {
            if (doFields) {
                f->LocationX = static_cast<float>(f->LocationX * fieldFactor);
                f->LocationY = static_cast<float>(f->LocationY * fieldFactor);
            }
            if (!doSites) continue;
            for (cSite* s : f->sites()) {
                s->LocationX = static_cast<float>(s->LocationX * siteFactor);
                s->LocationY = static_cast<float>(s->LocationY * siteFactor);
                for (cPoint* pt : s->Points()) {
                    for (float* v : {&pt->ValueA, &pt->ValueB, &pt->ValueC, &pt->ValueAstig, &pt->ValueH,
                                     &pt->ValueV, &pt->ValueZ, &pt->Slope, &pt->Pitch})
                        if (*v != kMissingValue) *v = static_cast<float>(*v * vf);
                }
            }
        }
    }
    lot->CalcWaferPositions();
    return lot;
}

void cLot::ReticleScale() {
    RotateSites(ReticleRotation);
    const double factor = double(ReticleRotation) + ReticleMagnification;
    const int dt = PLotDataType;
    const int feature = plotFeature_;
    forEachLive([&](cWafer&, cField&, cSite&, cPoint& pt) {
        float v1 = kMissingValue, v2 = kMissingValue, v3 = kMissingValue;
        pt.GetPlotFeatureValue(v1, v2, v3, feature, dt);
        auto sc = [&](float v) { return v == kMissingValue ? v : static_cast<float>(v * factor); };
        pt.PutPlotFeatureValue(sc(v1), sc(v2), sc(v3), feature, 1);
    });
    PLotDataType = 1;
    SetModified();
}

// ---------------------------------------------------------------- collapsed and sub-fields

std::shared_ptr<cLot> cLot::CollapseField(std::string_view name) {
    Proc p("cLot(CollapseField): ");
    // Recount only a lot that has wafers, so that "No wafers in lot" is told once.
    if (TotalPoints() < 1 && (wafers_.Count() == 0 || TotalPoints(nullptr, true) < 1)) {
        p.msg = "No data points in lot.";
        p.report();
        return nullptr;
    }
    auto lot = clone(false, true);
    assert(lot && "a lot with points clones");
    lot->LotName = name.empty() ? LotName + "_CollapsedField" : std::string(name);
    // Sum and count per site key, for each feature and data kind.
    struct Acc {
        const cSite* first = nullptr;
        double sum[10][3] = {};
        int n[10][3] = {};
    };
    std::map<long, Acc> acc;
    std::vector<long> order;
    forEachLive([&](cWafer&, cField&, cSite& s, cPoint& pt) {
        auto [it, isNew] = acc.try_emplace(s.NumberKey());
        if (isNew) {
            it->second.first = &s;
            order.push_back(s.NumberKey());
        }
        for (int f : kFeatures)
            for (int k = 0; k < 3; ++k) {
                const float v = *pt.FeatureSlot(f, k);
                if (v == kMissingValue) continue;
                it->second.sum[f][k] += v;
                ++it->second.n[f][k];
            }
    });
    bool isNew = false;
    cWafer* w = lot->AddWafer("Collapsed", isNew);
    cField* fld = w->AddField(0, 0, isNew, false);
    for (long key : order) {
        const Acc& a = acc[key];
        Ref<cSite> s = cSite::New();
        s->setNumberKey(static_cast<int32_t>(key));
        s->LocationX = a.first->LocationX;
        s->LocationY = a.first->LocationY;
        s->LocationZ = a.first->LocationZ;
        s->setFamily(a.first->Family());
        auto pt = std::make_unique<cPoint>();
        for (int f : kFeatures)
            for (int k = 0; k < 3; ++k)
                if (a.n[f][k] > 0) *pt->FeatureSlot(f, k) = static_cast<float>(a.sum[f][k] / a.n[f][k]);
        pt->setNumberKey(std::to_string(key));
        fld->AddPoint(s, std::move(pt));
    }
    lot->CalcWaferPositions();
    SetStatusText("Collapsed field completed...");
    return lot;
}

Datam cLot::CollapseSites(std::shared_ptr<cLot>* collapsed) {
    auto work = clone(false);
    if (!work) return Datam();  // clone told the user
    auto lot = work->CollapseField(LotName + "_CollapsedField");
    if (!lot) return Datam();  // CollapseField told the user
    const char* heads[] = {"Feature", "Mean", "Max", "Min", "Fit_Mean", "Fit_Max", "Fit_Min", "Res_Mean", "Res_Max", "Res_Min"};
    const int nFeat = LineWidthType ? 8 : 3;
    Datam d(nFeat, 10, 0, 0);
    for (int c = 0; c < 10; ++c) d(0, c + 1) = Value(heads[c]);
    double sum[9][3] = {}, mx[9][3], mn[9][3];
    int cnt[9][3] = {};
    for (auto& r : mx) std::fill(std::begin(r), std::end(r), -99999.0);
    for (auto& r : mn) std::fill(std::begin(r), std::end(r), 99999.0);
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields()) {
            SetStatusText("CollapseSites Field: " + f->NumberKey);
            for (cSite* s : f->sites())
                for (cPoint* pt : s->Points())
                    for (int k = 1; k <= nFeat; ++k)
                        for (int t = 0; t < 3; ++t) {
                            const float v = *pt->FeatureSlot(k, t);
                            if (v == kMissingValue) continue;
                            const double x = v / 1000.0;
                            sum[k][t] += x;
                            ++cnt[k][t];
                            mx[k][t] = std::max(mx[k][t], x);
                            mn[k][t] = std::min(mn[k][t], x);
                        }
        }
    for (int k = 1; k <= nFeat; ++k) {
        d(k, 1) = Value(GetPlotFeatureName(k));
        for (int t = 0; t < 3; ++t) {
            if (cnt[k][t] == 0) continue;
            d(k, 2 + 3 * t) = Value(sum[k][t] / cnt[k][t]);
            d(k, 3 + 3 * t) = Value(mx[k][t]);
            d(k, 4 + 3 * t) = Value(mn[k][t]);
        }
    }
    SetStatusText("CollapseSites ...done ");
    if (collapsed) *collapsed = lot;
    return d;
}

std::shared_ptr<cLot> cLot::GetSubFieldLot(long centerSite, bool collapse, std::string_view name) {
    const std::string nm = name.empty() ? "SubField of " + LotName : std::string(name);
    auto lot = collapse ? CollapseField(nm) : clone(false, false, nm);
    if (!lot) return nullptr;  // clone or CollapseField told the user
    if (SubWidth <= 0 && SubHeight <= 0) return lot;
    long key = centerSite;
    if (key < 0) {
        Datam c, r;
        float mx = 0, my = 0;
        key = lot->GetCenterSite(c, r, false, mx, my);
    }
    const cSite* centre = key >= 0 ? lot->GetSite(key) : nullptr;
    const double cx = (centre ? centre->LocationX : 0) + SubXoffset;
    const double cy = (centre ? centre->LocationY : 0) + Subyoffset;
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields())
            for (cSite* s : f->sites()) {
                const bool outX = SubWidth > 0 && std::fabs(s->LocationX - cx) > SubWidth / 2.0 + 0.09;
                const bool outY = SubHeight > 0 && std::fabs(s->LocationY - cy) > SubHeight / 2.0 + 0.09;
                if (outX || outY) s->setCull(true);
            }
    if (lot->TotalPoints() < 1) {
        // told here, rather than by clone's "Total points ..." on the empty rest
        Proc p("Lot(GetSubFieldLot): ");
        p.msg = "No sites inside the sub-field.";
        p.report();
        return nullptr;
    }
    return lot->clone(false, false, nm);
}

// ---------------------------------------------------------------- site-by-site value operations

namespace {

// this := this + sign * ref at the same site key, raw and fitted; a missing
// value on either side leaves the point's value as it was.
void applyField(cLot& lot, const cField& ref, double sign, int firstFeature, int lastFeature, bool withFit) {
    for (cWafer* w : lot.Wafers())
        for (cField* f : w->Fields())
            for (cSite* s : f->sites()) {
                if (!ref.SiteExists(s->NumberKey())) continue;
                bool exact = true;
                const cSite* rs = ref.GetSite(s->NumberKey(), exact);
                const cPoint* rp = rs ? rs->Points().Item(1) : nullptr;
                if (!rp) continue;
                for (cPoint* pt : s->Points())
                    for (int k = firstFeature; k <= lastFeature; ++k)
                        for (int t = 0; t <= (withFit ? 1 : 0); ++t) {
                            float* v = pt->FeatureSlot(k, t);
                            const float r = *rp->FeatureSlot(k, t);
                            if (*v == kMissingValue || r == kMissingValue) continue;
                            *v = static_cast<float>(*v + sign * r);
                        }
            }
}

const cField* firstField(const cLot& lot) {
    for (cWafer* w : lot.Wafers())
        for (cField* f : w->Fields()) return f;
    return nullptr;
}

}  // namespace

std::shared_ptr<cLot> cLot::RemoveFieldValue(const cField* field, bool subField) {
    Proc p("lot(RemoveFieldValue): ");
    std::shared_ptr<cLot> avg;
    const cField* ref = field;
    if (!ref) {
        avg = subField ? GetSubFieldLot(-1, true) : CollapseField();
        ref = avg ? firstField(*avg) : nullptr;
    }
    if (!ref || ref->TotalPoints() < 1) {
        p.msg = "No data points after average field calculation.";
        p.report();
        return nullptr;
    }
    auto lot = clone(false);
    if (!lot) return nullptr;  // clone told the user
    applyField(*lot, *ref, -1.0, 1, 9, true);
    lot->SetModified();
    return lot;
}

std::shared_ptr<cLot> cLot::PutFieldValue(const cField* field) {
    if (!field) {
        Proc p("cLot(PutFieldValue): ");
        p.msg = "Field object is empty";
        p.report();
        return nullptr;
    }
    auto lot = clone(false);
    if (!lot) return nullptr;  // clone told the user
    applyField(*lot, *field, 1.0, 1, 9, true);
    lot->SetModified();
    return lot;
}

namespace {

std::shared_ptr<cLot> removeReticle(cLot& self, const cLot* reticle, int lastFeature, const char* tag) {
    Proc p(tag);
    if (!reticle) {
        p.msg = "Reticle Lot was not passed.";
        p.report();
        return nullptr;
    }
    const cField* ref = firstField(*reticle);
    if (!ref) {
        p.msg = "Reticle Lot holds no field.";
        p.report();
        return nullptr;
    }
    auto lot = self.clone(false);
    if (!lot) return nullptr;  // clone told the user
    applyField(*lot, *ref, -1.0, 1, lastFeature, false);
    if (lastFeature == 3)  // vector data: Z follows V and H
        lot->forEachLive([](cWafer&, cField&, cSite&, cPoint& pt) {
            float a, b, c;
            pt.CalcVector(a, b, c, true);
        });
    lot->SetModified();
    return lot;
}

}  // namespace

std::shared_ptr<cLot> cLot::RemoveReticle(const cLot* reticle) {
    return removeReticle(*this, reticle, 3, "lot(RemoveReticle): ");
}

std::shared_ptr<cLot> cLot::RemoveReticleCD(const cLot* reticle) {
    return removeReticle(*this, reticle, 8, "lot(RemoveReticle): ");
}

std::shared_ptr<cLot> cLot::GetResidsLot() {
    auto lot = clone(false, false, LotName + "_Residuals");
    if (!lot) return nullptr;  // clone told the user
    // A clone without culled objects: the live walk meets every point.
    lot->forEachLive([](cWafer&, cField&, cSite&, cPoint& pt) { pt.FoldBack(2, true); });
    lot->PLotDataType = 0;
    lot->SetModified();
    return lot;
}

std::shared_ptr<cLot> cLot::GetValueABClot() {
    auto lot = clone(false, false, LotName + "_ABC");
    if (!lot) return nullptr;  // clone told the user
    lot->forEachLive([](cWafer&, cField&, cSite&, cPoint& pt) {
        for (int t = 0; t < 3; ++t) {
            *pt.FeatureSlot(1, t) = *pt.FeatureSlot(6, t);
            *pt.FeatureSlot(2, t) = *pt.FeatureSlot(7, t);
            *pt.FeatureSlot(3, t) = *pt.FeatureSlot(8, t);
        }
    });
    lot->ValueV_Name = ValueA_Name;
    lot->ValueH_Name = ValueB_Name;
    lot->valueZ_Name = ValueC_Name;
    lot->ValueV_Units = ValueA_Units;
    lot->ValueH_units = ValueB_Units;
    lot->ValueZ_units = ValueC_Units;
    lot->SetModified();
    return lot;
}

std::shared_ptr<cLot> cLot::AddValue2Lot(double value, int feature, bool inPlace) {
    if (feature == ePlotFeatureLot) feature = plotFeature_;
    const int first = feature == 0 ? 1 : feature, last = feature == 0 ? 3 : feature;
    if (first < 1 || last > 9) {
        // before the clone, so that the user is told this alone
        Proc p("cLot(AddValue2Lot): ");
        p.msg = "Feature " + std::to_string(feature) + " cannot take a value.";
        p.report();
        return nullptr;
    }
    std::shared_ptr<cLot> lot = inPlace ? self() : clone(false);
    if (!lot) return nullptr;  // clone told the user
    const double add = value * 1000.0;
    lot->forEachLive([&](cWafer&, cField&, cSite&, cPoint& pt) {
        for (int k = first; k <= last; ++k) {
            float* v = pt.FeatureSlot(k, 0);
            if (*v != kMissingValue) *v = static_cast<float>(*v + add);
        }
    });
    lot->SetModified();
    return lot;
}

}  // namespace zorv
