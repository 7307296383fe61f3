// Where a wafer or a field lies on a chart's surface, and the wafer's picture:
// outline, notch and die grid. The maps and contours draw over it.
#pragma once

#include "base/proc.h"
#include "graphics/surface.h"

namespace zorv {

class cGraphic;
class cLot;
class cWafer;
class cField;

// Micrometres to pixels: x to the right, y up on the wafer, down on the
// surface. The centre pixel is the wafer's (or field's) centre.
struct MapPlacement {
    double um2pixels = 0;  // pixels per micrometre
    double cx = 0, cy = 0;  // the centre in pixels
    double px(double xum) const { return cx + xum * um2pixels; }
    double py(double yum) const { return cy - yum * um2pixels; }
    // Back to micrometres from a pixel.
    double ux(double px) const { return (px - cx) / um2pixels; }
    double uy(double py) const { return (cy - py) / um2pixels; }
};

// The room a map leaves around the wafer or field: the title above, the
// scale or colour key beside it.
struct MapMargins {
    double top = 0, right = 0, bottom = 0, left = 0;
};

// Places the whole wafer (WaferSize across) in the chart's plot area of the
// surface less the margins, centred; stores um2pixels and wcenx/wceny (the
// centre pixel) on the lot and sets the chart's frame so that its values
// under the mouse are wafer millimetres.
MapPlacement PlaceWafer(cGraphic& chart, cLot& lot, Surface& s, const MapMargins& m);
// The same for one field, DieSizeX by DieSizeY, its centre at the centre.
MapPlacement PlaceField(cGraphic& chart, cLot& lot, Surface& s, const MapMargins& m);

// The wafer a map shows: the chart's WaferKey, else the lot's current wafer,
// else the first not culled; nullptr when there is none.
cWafer* MapWafer(const cGraphic& chart, const cLot& lot);
// The field of a wafer a field map shows, by the chart's FieldKey, else the
// lot's current field, else the first not culled.
const cField* MapField(const cGraphic& chart, const cLot& lot, const cWafer& wafer);

struct WaferDrawFlags {
    bool outline = true, notch = true, dieGrid = true;
    Color outlineColor = RGB(0, 0, 0), gridColor = RGB(200, 200, 200);
};

// cLot(DrawWafer) :  the outline circle, the notch where the lot's Notch
// angle points, and the field grid clipped to the wafer: field edges at the
// array origin (DieXarray * DieSizeX + DieXoffset) plus whole die steps.
// Fails when the lot has no wafer size or the placement no scale.
[[nodiscard]] Status DrawWafer(const cLot& lot, Surface& s, const MapPlacement& at, const WaferDrawFlags& flags = {});

}  // namespace zorv
