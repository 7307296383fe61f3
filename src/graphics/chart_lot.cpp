// The chart's rebuild and the lot behind it.
#include <algorithm>
#include <memory>

#include "graphics/chart.h"
#include "graphics/contour.h"
#include "graphics/vector_map.h"
#include "graphics/wafer_draw.h"
#include "lot/lot.h"
#include "numerics/matrix.h"

namespace zorv {

Status cGraphic::LotData(std::shared_ptr<cLot> lot) {
    lot_ = std::move(lot);
    return StatusOk();
}

Status cGraphic::DrawFigure() {
    Proc p("cGraphic(DrawFigure): ");
    if (!surface_ && !(lot_ && lot_->Container)) return p.fail("Graph Container was not specified.");
    return Refresh(false);
}

Status cGraphic::Refresh(bool noClear) {
    Proc p("cGraphic(DrawFigure): ");
    // A lot shown in a window carries that window's surface as its container.
    if (!surface_ && lot_ && lot_->Container) surface_ = static_cast<Surface*>(lot_->Container.get());
    if (!surface_) return p.fail("Graph Container was not specified.");
    if (!noClear) Clear();

    // The lot points at this chart and shows this chart's data view while it
    // is drawn; other charts of the same lot keep their own view.
    struct LotView {
        cLot* lot;
        int keep;
        ~LotView() {
            if (lot) lot->PLotDataType = keep;
        }
    } view{lot_.get(), lot_ ? lot_->PLotDataType : 0};
    if (lot_) {
        lot_->PlotGraph = std::shared_ptr<void>(std::shared_ptr<void>(), this);  // not owned
        lot_->PLotDataType = PLotDataType;
    }
    if (Kind == GraphKind::Histogram) return PlotHistogram();
    if (Kind == GraphKind::Chart) return PlotChart();
    if (Kind == GraphKind::Surface3D && DataGrid.isArray()) return Draw3d();

    // The maps draw the lot.
    p.chk = 1;
    if (!lot_) return p.fail("The chart has no lot to draw.");
    VectorMapFlags flags;
    flags.family = MapFamily;
    flags.allWafers = MapAllWafers;
    flags.allFields = MapAllFields;
    flags.siteMarks = MapSiteMarks;
    switch (Kind) {
    case GraphKind::WaferVector: return cWaferVector(*this, *lot_, flags);
    case GraphKind::FieldVector: return cFieldVector(*this, *lot_, flags);
    default: break;
    }
    const cWafer* wafer = MapWafer(*this, *lot_);
    if (!wafer) return p.fail("No wafers in lot: " + lot_->LotName);
    switch (Kind) {
    case GraphKind::WaferContour: return DrawWaferContour(*this, *lot_, *wafer, ContourCell);
    case GraphKind::FieldContour: {
        const cField* field = MapField(*this, *lot_, *wafer);
        if (!field) return p.fail("No fields to plot.");
        return DrawFieldContour(*this, *lot_, *field, ContourCell);
    }
    case GraphKind::Surface3D: {
        // The wafer's interpolated surface; a chart given its own grid draws that.
        auto grid = GetWaferGrid(*lot_, *wafer, ContourCell);
        if (!grid) return grid.failure();
        DataGrid = std::move(grid.value());
        Status drawn = Draw3d();
        DataGrid = Datam();
        return drawn;
    }
    default: break;
    }
    return StatusOk();
}

Result<std::vector<cPoint*>> cGraphic::FindLotPoints(const Datam& dRect, bool fieldPositions) const {
    Proc p("cGraphic(FindLotPoints): ");
    double v[4];
    int n = 0;
    if (dRect.isArray() && (dRect.dims() == 1 || dRect.colUb() == dRect.colLb()) && dRect.rowUb() - std::max(dRect.rowLb(), 1) == 3)
        for (int r = std::max(dRect.rowLb(), 1); r <= dRect.rowUb(); ++r)
            if (NumericOf(dRect.dims() == 1 ? dRect.at(r) : dRect.get(r, dRect.colLb()), v[n])) ++n;
    if (n != 4) return p.fail("Input 'dRect' must be a (4,1) array rectangle.");
    p.chk = 1;
    std::vector<cPoint*> found;
    if (!lot_) return found;
    const double x0 = std::min(v[0], v[2]), x1 = std::max(v[0], v[2]);
    const double y0 = std::min(v[1], v[3]), y1 = std::max(v[1], v[3]);
    lot_->forEachLive([&](cWafer&, cField&, cSite& site, cPoint& pt) {
        const double x = fieldPositions ? site.LocationX : site.LocationXabs;
        const double y = fieldPositions ? site.LocationY : site.LocationYabs;
        if (x >= x0 && x <= x1 && y >= y0 && y <= y1) found.push_back(&pt);
    });
    return found;
}

}  // namespace zorv
