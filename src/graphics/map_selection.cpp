#include "graphics/map_selection.h"

#include <algorithm>

namespace zorv {

namespace {

constexpr const char* kNoContainer = "A container for the plot was not specified.";

// Corners sorted first: an inverting rectangle must be drawn the same way to
// be erased, whichever way the mouse went.
void FocusRect(Surface& s, const MapSelection& sel) {
    s.DrawFocusRect(std::min(sel.startX, sel.currentX), std::min(sel.startY, sel.currentY),
                    std::max(sel.startX, sel.currentX), std::max(sel.startY, sel.currentY));
}

void Erase(Surface& s, MapSelection& sel) {
    if (!sel.standing) return;
    FocusRect(s, sel);
    sel.standing = false;
}

}  // namespace

Datam SelectedArea::Rect() const {
    Datam d = Datam::vec(4);
    d(1, 1) = Value(x1);
    d(2, 1) = Value(y1);
    d(3, 1) = Value(x2);
    d(4, 1) = Value(y2);
    return d;
}

Status MouseGraphic_MouseDown(MapSelection& sel, Surface* s, int button, double x, double y) {
    Proc p("Graphics(MouseGraphic_MouseDown): ");
    if (!s) return p.fail(kNoContainer);
    if (!(button & kMouseLeft)) return StatusOk();
    p.chk = 1;
    Erase(*s, sel);
    sel.startX = sel.currentX = x;
    sel.startY = sel.currentY = y;
    sel.dragging = true;
    return StatusOk();
}

Status MouseGraphic_MouseMove(MapSelection& sel, Surface* s, int button, double x, double y) {
    Proc p("Graphics(MouseGraphic_MouseMove): ");
    if (!s) return p.fail(kNoContainer);
    if (!sel.dragging || !(button & kMouseLeft)) return StatusOk();
    p.chk = 1;
    Erase(*s, sel);
    sel.currentX = x;
    sel.currentY = y;
    FocusRect(*s, sel);
    sel.standing = true;
    return StatusOk();
}

Status MouseGraphic_MouseUp(MapSelection& sel, Surface* s, int button, double x, double y) {
    Proc p("Graphics(MouseGraphic_MouseUp): ");
    if (!s) return p.fail(kNoContainer);
    if (!sel.dragging || !(button & kMouseLeft)) return StatusOk();
    p.chk = 1;
    Erase(*s, sel);
    sel.currentX = x;
    sel.currentY = y;
    sel.dragging = false;
    if (sel.currentX != sel.startX && sel.currentY != sel.startY) {
        FocusRect(*s, sel);
        sel.standing = true;
    }
    return StatusOk();
}

Status MouseMoveGraphic(MapSelection& sel, Surface* s, int button, double x, double y) {
    Proc p("Graphics(MouseMoveGraphic): ");
    if (!s) return p.fail(kNoContainer);
    p.chk = 1;
    if (sel.dragging && !(button & kMouseLeft)) {
        // The button came up outside the window: the drag ends where the mouse is.
        auto r = MouseGraphic_MouseUp(sel, s, kMouseLeft, x, y);
        if (!r) return p.fail(r.failure().text);
        return StatusOk();
    }
    auto r = MouseGraphic_MouseMove(sel, s, button, x, y);
    if (!r) return p.fail(r.failure().text);
    return StatusOk();
}

SelectedArea GetSelectedArea(const MapSelection& sel, const MapPlacement& at) {
    SelectedArea a;
    a.left = std::min(sel.startX, sel.currentX);
    a.right = std::max(sel.startX, sel.currentX);
    a.top = std::min(sel.startY, sel.currentY);
    a.bottom = std::max(sel.startY, sel.currentY);
    if (at.um2pixels > 0) {
        a.x1 = at.ux(a.left);
        a.x2 = at.ux(a.right);
        a.y1 = at.uy(a.bottom);  // pixels grow downward, micrometres upward
        a.y2 = at.uy(a.top);
    }
    return a;
}

}  // namespace zorv
