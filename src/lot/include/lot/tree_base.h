// What every level of the measurement tree shares: the forward declarations,
// the attachment a later subsystem hangs on a level, and the range fields.
#pragma once

#include <memory>

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

}  // namespace zorv
