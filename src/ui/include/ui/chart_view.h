// A chart on a window: a cGraphic drawn through the QPainterSurface the chart
// files use, zoomed with the mouse (drag a box; double-click to go back),
// telling what lies under the mouse, and copied out as image and SVG.
//
// The chart is drawn once into an image that the widget then paints, so a
// chart of a million points costs a redraw only when its size or its content
// changes (invalidate()), not on every paint or mouse move.
#pragma once

#include <QImage>
#include <QList>
#include <QRect>
#include <QRectF>
#include <QMetaType>
#include <QPoint>
#include <QString>
#include <QWidget>
#include <functional>

#include "graphics/chart.h"

class QAction;

namespace zorv {
class Surface;
}

namespace zorv::ui {

class frmPlot;

// What the views that draw through a Surface share. A drawing at w x h
// pixels onto the clipboard as an image (`image` when one is at hand) and as
// "image/svg+xml"; its failure reported.
bool CopyDrawingToClipboard(int w, int h, const std::function<Status(Surface&)>& draw, const QImage* image = nullptr);
// The drawing into a .png, .svg or .pdf file; no partial file is left and the
// failure is reported.
bool SaveDrawingTo(const QString& path, int w, int h, const std::function<Status(Surface&)>& draw);
// Asks for a picture file (PNG, SVG, PDF) and adds the suffix of the filter
// chosen; "" when cancelled. `ask`, when given, answers instead of a dialog.
QString AskPicturePath(QWidget* parent,
                       const std::function<QString(const QString& title, const QString& filter)>& ask = {});

class ChartView : public QWidget {
    Q_OBJECT
public:
    explicit ChartView(QWidget* parent = nullptr);
    ~ChartView() override;

    // Not owned: the window that owns the chart keeps it alive while shown
    // here (setGraphic(nullptr) before it goes).
    void setGraphic(zorv::cGraphic* graphic);
    zorv::cGraphic* graphic() const { return graphic_; }
    // The chart's data or options changed: drawn again at the next paint.
    void invalidate();
    // Draws the chart now, outside a paint, so that a long drawing shows its
    // progress and Esc reaches it; the widget then paints the result. True
    // when it drew.
    bool render();

    // The text of the last drawing's failure; empty when it drew (or has not
    // drawn yet).
    QString failureText() const { return failure_; }

    // What lies under a widget position, as the tooltip and hovered() say
    // it: "" over nothing.
    QString describeAt(const QPoint& pos);

    // The chart at the widget's size on the clipboard, as an image and as
    // "image/svg+xml". False (the failure reported) when it does not draw.
    bool copyToClipboard();
    // The chart at the widget's size into a .png, .svg or .pdf file;
    // failures go through the reporting path.
    bool saveTo(const QString& path);
    // Asks for a file name, then saveTo.
    void saveAs();
    // Back to automatic scale (as a double-click).
    void resetScale();
    // The chart, copied, in a plot window of its own (the menu's "Open in a
    // Window"); none without a chart.
    frmPlot* openInWindow();

    // Select mode: a left drag leaves a rectangle on the chart and emits
    // boxSelected instead of zooming; the rectangle stays until
    // clearSelection (or select mode goes off).
    void setSelectMode(bool on);
    bool selectMode() const { return selectMode_; }
    QRect selectedBox() const { return selection_; }
    // The selection in the chart's values (its drawn frame); empty when there
    // is no selection or the chart does not draw.
    QRectF selectedValues();
    void clearSelection();
    // Actions of the chart's owner, shown at the top of the context menu (not
    // owned; their enabled state is the owner's).
    void addMenuActions(const QList<QAction*>& actions);

    // Ctrl+C on the widget (and the context menu's "Copy").
    QAction* copyAction() const { return copyAction_; }

    QSize sizeHint() const override { return {600, 400}; }
    QSize minimumSizeHint() const override { return {120, 80}; }

signals:
    // The description of what is under the mouse, when it changes.
    void hovered(const QString& text);
    // A click without a drag on the chart.
    void elementClicked(const zorv::cGraphic::ChartElement& element);
    // Select mode: a rectangle was dragged (widget pixels, normalized).
    void boxSelected(const QRect& box);

protected:
    bool event(QEvent* e) override;
    void paintEvent(QPaintEvent* e) override;
    void resizeEvent(QResizeEvent* e) override;
    void mousePressEvent(QMouseEvent* e) override;
    void mouseMoveEvent(QMouseEvent* e) override;
    void mouseReleaseEvent(QMouseEvent* e) override;
    void mouseDoubleClickEvent(QMouseEvent* e) override;
    void keyPressEvent(QKeyEvent* e) override;
    void leaveEvent(QEvent* e) override;
    void contextMenuEvent(QContextMenuEvent* e) override;

private:
    // Draws the cache again when the size, the pixel ratio or the content
    // changed; true when the chart's last drawing is the one on screen.
    bool ensureRendered();
    // The chart drawn on an image of the widget's size at a pixel ratio.
    QImage chartImage(qreal ratio, zorv::Status& status);
    void cancelDrag();
    void setHover(const QString& text);

    zorv::cGraphic* graphic_ = nullptr;
    QImage cache_;
    bool dirty_ = true;
    bool rendering_ = false;  // a drawing under way: paints show the last one
    QString failure_;

    bool pressed_ = false, dragging_ = false;
    QPoint pressPos_, dragPos_;
    QString hover_;
    QAction* copyAction_ = nullptr;
    bool selectMode_ = false;
    QRect selection_;
    QList<QAction*> menuActions_;
};

}  // namespace zorv::ui

Q_DECLARE_METATYPE(zorv::cGraphic::ChartElement)
