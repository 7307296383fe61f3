// The rectangle dragged with the mouse over a map: the logic a window calls
// from its mouse events. The rectangle is drawn with DrawFocusRect, which
// inverts, so drawing the same rectangle again erases it.
#pragma once

#include "base/datam.h"
#include "base/proc.h"
#include "graphics/surface.h"
#include "graphics/wafer_draw.h"

namespace zorv {

// Mouse buttons as the events report them (a mask).
enum MouseButtons : int { kMouseLeft = 1, kMouseRight = 2, kMouseMiddle = 4 };

// The selection of one map: where the drag started and where its corner is,
// in surface units (pixels).
struct MapSelection {
    double startX = 0, startY = 0;
    double currentX = 0, currentY = 0;
    bool dragging = false;   // the left button went down here and is not up yet
    bool standing = false;   // a rectangle is drawn on the surface
};

// The rectangle of a selection: sorted pixel corners, and the same corners in
// wafer (or field) micrometres, x1 <= x2 and y1 <= y2 (y up).
struct SelectedArea {
    double left = 0, top = 0, right = 0, bottom = 0;
    double x1 = 0, y1 = 0, x2 = 0, y2 = 0;
    // Rows 1..4 (x1, y1, x2, y2) of a 4 by 1 array, as FindLotPoints takes it.
    Datam Rect() const;
};

// Graphics(MouseGraphic_MouseDown): with the left button, erases a standing
// rectangle and starts a new one at (x, y).
[[nodiscard]] Status MouseGraphic_MouseDown(MapSelection& sel, Surface* s, int button, double x, double y);
// Graphics(MouseGraphic_MouseMove): with the left button down since
// MouseDown, erases the rectangle and draws it to the new corner.
[[nodiscard]] Status MouseGraphic_MouseMove(MapSelection& sel, Surface* s, int button, double x, double y);
// Graphics(MouseGraphic_MouseUp): the rectangle to the last corner, left
// standing (none for a click without a drag).
[[nodiscard]] Status MouseGraphic_MouseUp(MapSelection& sel, Surface* s, int button, double x, double y);
// Graphics(MouseMoveGraphic): the entry for every mouse move of a map's
// window: follows a drag, and ends one whose button came up unseen (outside
// the window).
[[nodiscard]] Status MouseMoveGraphic(MapSelection& sel, Surface* s, int button, double x, double y);

// The selection's rectangle, in pixels and through the placement in micrometres.
SelectedArea GetSelectedArea(const MapSelection& sel, const MapPlacement& at);

}  // namespace zorv
