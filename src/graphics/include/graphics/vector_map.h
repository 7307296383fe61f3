// Wafer and field vector maps: one arrow per measurement site (overlay,
// registration, focus vectors) or, for a scalar feature, one filled symbol
// coloured by its value, drawn over the wafer (outline, notch, field grid) or
// over one field.
//
// The scale state lives on the lot, where the other views of the lot read it:
// Pum2pixelsV / Pum2pixelsH / Pum2pixelsZ are pixels per display unit of the
// X component (V), the Y component (H) and the vector length; the thresholds
// and PlotMaxZ / PlotMinZ are in stored units (display times 1000). The chart
// holds the user's settings: VectorScale (display units times 1000; 0 means
// "from the largest vector", recomputed at every drawing and never written
// back into the chart) and ArrowReference (pixels the scale value spans; 0
// lets the map choose).
#pragma once

#include "base/proc.h"
#include "graphics/surface.h"
#include "graphics/wafer_draw.h"

namespace zorv {

class cGraphic;
class cLot;
class cField;
class cSite;

struct VectorMapFlags {
    long family = 0;                // sites of this family only; 0: every family
    bool allWafers = false;         // every wafer not culled, overlaid, instead of one
    bool allFields = false;         // field map: every field's sites overlaid, instead of one
    // Vector feature with an automatic scale: the X and Y components each on
    // their own scale (the largest of each spans the reference length), with
    // an "X-Scale" and a "Y-Scale" key. Off: one scale, directions true.
    bool axisScales = false;
    // Scalar feature: colours from ThresholdMin..ThresholdMax rather than the
    // data's range (a fourth "Z" axis on the chart overrides both).
    bool thresholdColours = false;
    bool siteMarks = true;          // a mark at each site the arrows start from
    WaferDrawFlags wafer;           // outline, notch, field grid
};

// One pass of DrawVector over a field: where the sites go and how they are
// drawn. The arrow scale is the lot's Pum2pixels*.
struct VectorPass {
    MapPlacement at;
    bool fieldPositions = false;    // field map: sites at LocationX/Y + SiteX/Yoffset
    bool scalar = false;            // a coloured symbol per value instead of an arrow
    bool axisScales = false;        // X by Pum2pixelsV, Y by Pum2pixelsH; otherwise both by Pum2pixelsZ
    bool siteMarks = true;
    int feature = 0;                // plot feature (0: the V,H vector)
    int dataType = 0;               // raw, fitted, residual
    long family = 0;                // 0: every family
    double symbolRadius = 3;        // scalar symbol, pixels
    double zmax = 1, zmin = 0;      // scalar colour range, stored units
};

// Graphics(cWaferVector): the whole wafer with its field grid and the arrows
// (or coloured symbols) of its sites, the scale key at the bottom corner
// (or the colour key at the right). The wafer: chart.WaferKey, else the
// lot's CurrentWaferKey, else the first not culled; flags.allWafers overlays
// all. Draws on the chart's container, else the lot's.
[[nodiscard]] Status cWaferVector(cGraphic& chart, cLot& lot, const VectorMapFlags& flags = {});

// Graphics(cFieldVector): one field (chart.FieldKey, else the first not
// culled of the wafer) or all fields' sites overlaid, in field coordinates.
[[nodiscard]] Status cFieldVector(cGraphic& chart, cLot& lot, const VectorMapFlags& flags = {});

// cField(DrawVector): the arrows (or symbols) of one field's sites not culled
// of the pass's family, in the site's colour, on the surface; each arrow's
// pixel components (X right, Y up) are kept in the point's ValueV_Pixel and
// ValueH_Pixel. A zero vector draws no arrow. Adds the feature's series to
// the chart for the legend when the feature is a vector component.
[[nodiscard]] Status DrawVector(cGraphic& chart, cLot& lot, const cField& field, Surface& s, const VectorPass& pass);

// cLot(DrawFieldSite): the mark of one site at its wafer position (or its
// field position plus the lot's site offset).
[[nodiscard]] Status DrawFieldSite(const cLot& lot, Surface& s, const MapPlacement& at, const cSite& site,
                                   bool fieldPositions, Color c = -1);

// The arrow reference length a map chooses when the chart has none: pixels
// per micrometre times the smallest of the site steps and a quarter of each
// die size (the quarters alone when a site step is 0).
double AutoArrowReference(const cLot& lot, double um2pixels);

}  // namespace zorv
