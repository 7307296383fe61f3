#include "ui/chart_view.h"

#include <QAction>
#include <QApplication>
#include <QBuffer>
#include <QClipboard>
#include <QContextMenuEvent>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QHelpEvent>
#include <QKeyEvent>
#include <QMenu>
#include <QMimeData>
#include <QMouseEvent>
#include <QPainter>
#include <QPen>
#include <QSvgGenerator>
#include <QToolTip>
#include <algorithm>
#include <cmath>
#include <optional>
#include <stdexcept>

#include "base/format.h"
#include "base/report.h"
#include "paint/chart_file.h"
#include "paint/qpainter_surface.h"
#include "ui/frm_plot.h"
#include "ui/gui_reporter.h"

namespace zorv::ui {

namespace {

// A box smaller than this either way is a slip of the hand, not a zoom.
constexpr int kMinZoomPixels = 4;

QColor ToQColor(Color c) { return QColor(RedOf(c), GreenOf(c), BlueOf(c)); }

// The chart draws on a surface that lives only for the drawing: the
// container must not outlast it, even when the drawing throws.
class ContainerScope {
public:
    ContainerScope(cGraphic& g, Surface& s) : g_(g) { g_.Container(&s); }
    ~ContainerScope() { g_.Container(nullptr); }
    ContainerScope(const ContainerScope&) = delete;
    ContainerScope& operator=(const ContainerScope&) = delete;

private:
    cGraphic& g_;
};

Status DrawOn(cGraphic& g, Surface& s) {
    ContainerScope scope(g, s);
    return g.DrawFigure();
}

// A drawing that may throw (a surface out of memory) fails instead.
Status DrawGuarded(cGraphic& g, Surface& surface) {
    Proc p("ChartView(Draw): ");
    Status st = StatusOk();
    if (!Guarded(p, [&] { st = DrawOn(g, surface); })) return p.failure();
    return st;
}

Status DrawOn(cGraphic& g, QPainter& painter, int width, int height) {
    QPainterSurface surface(painter, width, height);
    return DrawGuarded(g, surface);
}

QString Number(double v, int significant) { return QString::fromStdString(CStrNumber(v, significant)); }

}  // namespace

ChartView::ChartView(QWidget* parent) : QWidget(parent) {
    setMouseTracking(true);
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_OpaquePaintEvent);
    copyAction_ = new QAction(tr("Copy"), this);
    copyAction_->setShortcut(QKeySequence::Copy);
    copyAction_->setShortcutContext(Qt::WidgetShortcut);
    connect(copyAction_, &QAction::triggered, this, [this] { copyToClipboard(); });
    addAction(copyAction_);
}

ChartView::~ChartView() = default;

void ChartView::setGraphic(cGraphic* graphic) {
    cancelDrag();
    graphic_ = graphic;
    setHover({});
    invalidate();
}

void ChartView::invalidate() {
    dirty_ = true;
    update();
}

void ChartView::resetScale() {
    if (!graphic_) return;
    graphic_->ResetAutosize();
    invalidate();
}

QImage ChartView::chartImage(qreal ratio, Status& status) {
    const int w = width(), h = height();
    QImage image(QSize(static_cast<int>(std::ceil(w * ratio)), static_cast<int>(std::ceil(h * ratio))),
                 QImage::Format_ARGB32_Premultiplied);
    if (image.isNull()) {
        status = Proc("ChartView(Draw): ")
                     .fail("Not enough memory for a chart of " + std::to_string(w) + " x " + std::to_string(h) +
                           " pixels");
        return image;
    }
    image.setDevicePixelRatio(ratio);
    // Fonts at the screen's dots an inch, as the rest of the window's text.
    const int dpm = static_cast<int>(std::lround(logicalDpiY() / 0.0254));
    image.setDotsPerMeterX(dpm);
    image.setDotsPerMeterY(dpm);
    image.fill(ToQColor(graphic_->BackColor));
    QPainter painter(&image);
    status = DrawOn(*graphic_, painter, w, h);
    return image;
}

bool ChartView::render() {
    const bool drawn = ensureRendered();
    ShowProgress(-1);
    update();
    return drawn;
}

bool ChartView::ensureRendered() {
    if (!graphic_ || width() <= 0 || height() <= 0 || rendering_) return false;
    const qreal ratio = devicePixelRatioF();
    if (dirty_ || cache_.isNull() || cache_.devicePixelRatio() != ratio ||
        cache_.deviceIndependentSize().toSize() != size()) {
        Status st = StatusOk();
        rendering_ = true;
        QImage image = chartImage(ratio, st);
        rendering_ = false;
        cache_ = std::move(image);
        failure_ = st ? QString() : QString::fromStdString(st.failure().text);
        dirty_ = false;
        if (!st && !cache_.isNull()) {
            // Whatever was drawn before the failure is no chart: the text alone.
            cache_.fill(ToQColor(graphic_->BackColor));
            QPainter painter(&cache_);
            painter.setPen(ToQColor(graphic_->ForeColor));
            painter.setFont(font());
            painter.drawText(QRectF(rect()).adjusted(8, 8, -8, -8), Qt::AlignCenter | Qt::TextWordWrap, failure_);
        }
    }
    return failure_.isEmpty() && !cache_.isNull();
}

void ChartView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    {
        QuietStatus quiet;
        ensureRendered();
    }
    if (!graphic_ || cache_.isNull()) {
        painter.fillRect(rect(), palette().window());
        return;
    }
    painter.drawImage(QPointF(0, 0), cache_);
    if (!selection_.isNull() && !dragging_) {
        // The chosen area stays visible while its menu is open and after.
        painter.setPen(QPen(QColor(0, 90, 200), 1, Qt::DashLine));
        painter.setBrush(QColor(0, 90, 200, 40));
        painter.drawRect(selection_.adjusted(0, 0, -1, -1));
    }
    if (dragging_) {
        QPainterSurface surface(painter, width(), height());
        surface.DrawFocusRect(pressPos_.x(), pressPos_.y(), dragPos_.x(), dragPos_.y());
    }
}

void ChartView::resizeEvent(QResizeEvent* e) {
    dirty_ = true;
    QWidget::resizeEvent(e);
}

QString ChartView::describeAt(const QPoint& pos) {
    if (!ensureRendered()) return {};
    using E = cGraphic::ChartElement;
    const E e = graphic_->GetChartElement(pos.x(), pos.y());
    auto seriesName = [&](int i) {
        const cSeries* c = graphic_->Series.Item(i);
        return c && !c->Label.empty() ? QString::fromStdString(c->Label) : tr("Series %1").arg(i);
    };
    auto axisName = [&](const char* key, const QString& fallback) {
        const cAxis* a = graphic_->Axes.Item(key);
        return a && !a->Label.empty() ? QString::fromStdString(a->Label) : fallback;
    };
    switch (e.kind) {
    case E::Point:
        // The point's own values, as the table holds them.
        return tr("%1: X = %2, Y = %3").arg(seriesName(e.series), Number(e.x, 15), Number(e.y, 15));
    case E::Legend: return seriesName(e.series);
    case E::Plot:
        // Values of a pixel: more digits than a pixel resolves are noise.
        return tr("X = %1, Y = %2").arg(Number(e.x, 6), Number(e.y, 6));
    case E::XAxis: return axisName("X", tr("X axis"));
    case E::YAxis: return axisName("Y", tr("Y axis"));
    case E::None: break;
    }
    return {};
}

void ChartView::setHover(const QString& text) {
    if (text == hover_) return;
    hover_ = text;
    emit hovered(text);
}

bool ChartView::event(QEvent* e) {
    if (e->type() == QEvent::ToolTip) {
        auto* he = static_cast<QHelpEvent*>(e);
        const QString text = dragging_ ? QString() : describeAt(he->pos());
        if (text.isEmpty()) {
            QToolTip::hideText();
            e->ignore();
        } else {
            // Valid for this pixel only, so moving on asks again.
            QToolTip::showText(he->globalPos(), text, this, QRect(he->pos(), QSize(1, 1)));
        }
        return true;
    }
    return QWidget::event(e);
}

void ChartView::mousePressEvent(QMouseEvent* e) {
    if (e->button() != Qt::LeftButton || !graphic_) {
        QWidget::mousePressEvent(e);
        return;
    }
    pressed_ = true;
    dragging_ = false;
    pressPos_ = dragPos_ = e->position().toPoint();
}

void ChartView::mouseMoveEvent(QMouseEvent* e) {
    const QPoint pos = e->position().toPoint();
    if (pressed_ && (e->buttons() & Qt::LeftButton)) {
        dragPos_ = QPoint(std::clamp(pos.x(), 0, width() - 1), std::clamp(pos.y(), 0, height() - 1));
        if (!dragging_ && (dragPos_ - pressPos_).manhattanLength() >= QApplication::startDragDistance()) {
            dragging_ = true;
            QToolTip::hideText();
        }
        if (dragging_) update();
        return;
    }
    setHover(describeAt(pos));
}

void ChartView::mouseReleaseEvent(QMouseEvent* e) {
    if (e->button() != Qt::LeftButton || !pressed_) {
        QWidget::mouseReleaseEvent(e);
        return;
    }
    const bool dragged = dragging_;
    cancelDrag();
    if (!graphic_) return;
    if (!dragged) {
        const QPoint pos = e->position().toPoint();
        if (ensureRendered()) emit elementClicked(graphic_->GetChartElement(pos.x(), pos.y()));
        return;
    }
    const QRect box = QRect(pressPos_, dragPos_).normalized();
    if (selectMode_) {
        if (box.width() < kMinZoomPixels || box.height() < kMinZoomPixels) return;
        selection_ = box;
        update();
        emit boxSelected(box);
        return;
    }
    // The box is in the pixels of the drawing on screen: it must be current.
    if (box.width() < kMinZoomPixels || box.height() < kMinZoomPixels || !ensureRendered()) return;
    Datam rows = Datam::vec(4);
    rows(1, 1) = Value(double(pressPos_.x()));
    rows(2, 1) = Value(double(pressPos_.y()));
    rows(3, 1) = Value(double(dragPos_.x()));
    rows(4, 1) = Value(double(dragPos_.y()));
    if (Status st = graphic_->ReScale(rows); !st) {
        Report(st.failure());
        return;
    }
    invalidate();
}

void ChartView::mouseDoubleClickEvent(QMouseEvent* e) {
    if (e->button() != Qt::LeftButton || !graphic_) {
        QWidget::mouseDoubleClickEvent(e);
        return;
    }
    cancelDrag();
    resetScale();
}

void ChartView::keyPressEvent(QKeyEvent* e) {
    if (e->key() == Qt::Key_Escape && pressed_) {
        cancelDrag();
        e->accept();
        return;
    }
    QWidget::keyPressEvent(e);
}

void ChartView::cancelDrag() {
    if (dragging_) update();
    pressed_ = dragging_ = false;
}

void ChartView::leaveEvent(QEvent* e) {
    setHover({});
    QWidget::leaveEvent(e);
}

void ChartView::setSelectMode(bool on) {
    selectMode_ = on;
    if (!on) clearSelection();
}

void ChartView::clearSelection() {
    if (selection_.isNull()) return;
    selection_ = QRect();
    update();
}

QRectF ChartView::selectedValues() {
    if (selection_.isNull() || !ensureRendered()) return {};
    const PointD a = graphic_->GetXYvalues(selection_.left(), selection_.top());
    const PointD b = graphic_->GetXYvalues(selection_.right() + 1, selection_.bottom() + 1);
    return QRectF(QPointF(std::min(a.x, b.x), std::min(a.y, b.y)), QPointF(std::max(a.x, b.x), std::max(a.y, b.y)));
}

void ChartView::addMenuActions(const QList<QAction*>& actions) {
    for (QAction* a : actions)
        if (a && !menuActions_.contains(a)) menuActions_.append(a);
}

void ChartView::contextMenuEvent(QContextMenuEvent* e) {
    cancelDrag();
    QMenu menu(this);
    QList<QAction*> own;
    own.append(copyAction_);
    own.append(new QAction(tr("Save As..."), &menu));
    connect(own.back(), &QAction::triggered, this, &ChartView::saveAs);
    own.append(new QAction(tr("Reset scale"), &menu));
    connect(own.back(), &QAction::triggered, this, &ChartView::resetScale);
    own.append(new QAction(tr("Open in a Window"), &menu));
    own.back()->setObjectName("mnuOpenInWindow");
    connect(own.back(), &QAction::triggered, this, &ChartView::openInWindow);
    if (!menuActions_.isEmpty()) {
        menu.addActions(menuActions_);
        menu.addSeparator();
    }
    menu.addAction(own[0]);
    menu.addAction(own[1]);
    menu.addAction(own[3]);
    menu.addSeparator();
    menu.addAction(own[2]);
    for (QAction* a : own) a->setEnabled(graphic_ != nullptr);
    menu.exec(e->globalPos());
    copyAction_->setEnabled(true);
}

frmPlot* ChartView::openInWindow() {
    if (!graphic_) return nullptr;
    auto* plot = new frmPlot;
    plot->setGraphic(*graphic_);
    plot->Load();
    plot->show();
    return plot;
}

bool ChartView::copyToClipboard() {
    if (!graphic_ || width() <= 0 || height() <= 0) return false;
    Status st = StatusOk();
    // The cache is the image when it is at one pixel a pixel and current.
    const QImage image = ensureRendered() && cache_.devicePixelRatio() == 1.0 ? cache_ : chartImage(1.0, st);
    if (!st) {
        invalidate();
        Report(st.failure());
        return false;
    }
    const bool ok = CopyDrawingToClipboard(width(), height(), [this](Surface& s) { return DrawGuarded(*graphic_, s); },
                                           &image);
    // Other drawings laid the chart out anew: the screen's goes again.
    invalidate();
    return ok;
}

bool ChartView::saveTo(const QString& path) {
    if (!graphic_) return false;
    const bool ok = SaveDrawingTo(path, width(), height(), [this](Surface& s) { return DrawGuarded(*graphic_, s); });
    invalidate();
    return ok;
}

void ChartView::saveAs() {
    if (!graphic_) return;
    const QString path = AskPicturePath(this);
    if (!path.isEmpty()) saveTo(path);
}

// ------------------------------------------------------------ drawings

bool CopyDrawingToClipboard(int w, int h, const std::function<Status(Surface&)>& draw, const QImage* image) {
    if (w <= 0 || h <= 0) return false;
    QImage shown;
    Status st = StatusOk();
    if (image) {
        shown = *image;
    } else {
        shown = QImage(w, h, QImage::Format_ARGB32_Premultiplied);
        shown.fill(Qt::white);
        QPainter painter(&shown);
        painter.setRenderHint(QPainter::Antialiasing);
        QPainterSurface surface(painter, w, h);
        st = draw(surface);
    }
    QByteArray svg;
    if (st) {
        QBuffer buffer(&svg);
        buffer.open(QIODevice::WriteOnly);
        QSvgGenerator generator;
        generator.setOutputDevice(&buffer);
        generator.setSize(QSize(w, h));
        generator.setViewBox(QRect(0, 0, w, h));
        generator.setResolution(96);
        generator.setDescription(QStringLiteral("Zorv chart"));
        QPainter painter;
        if (painter.begin(&generator)) {
            painter.setWindow(0, 0, w, h);
            QPainterSurface surface(painter, w, h);
            st = draw(surface);
            painter.end();
        } else {
            st = Proc("ChartView(Copy): ").fail("Cannot draw the chart for the clipboard");
        }
    }
    if (!st) {
        Report(st.failure());
        return false;
    }
    shown.setDevicePixelRatio(1.0);
    auto* mime = new QMimeData;
    mime->setImageData(shown);
    mime->setData(QStringLiteral("image/svg+xml"), svg);
    QGuiApplication::clipboard()->setMimeData(mime);
    return true;
}

bool SaveDrawingTo(const QString& path, int w, int h, const std::function<Status(Surface&)>& draw) {
    // RenderToFile keeps no partial file when the drawing throws; the
    // drawing's own failure is the one to show.
    std::optional<Failure> drawFailure;
    const Status st = RenderToFile(QFile::encodeName(path).toStdString(), w, h, [&](Surface& s) {
        if (Status d = draw(s); !d) {
            drawFailure = d.failure();
            throw std::runtime_error(d.failure().text);
        }
    });
    if (!st) {
        Report(drawFailure ? *drawFailure : st.failure());
        return false;
    }
    return true;
}

QString AskPicturePath(QWidget* parent, const std::function<QString(const QString&, const QString&)>& ask) {
    const QString png = QObject::tr("PNG image (*.png)"), svg = QObject::tr("SVG drawing (*.svg)"),
                  pdf = QObject::tr("PDF document (*.pdf)");
    const QString filters = png + ";;" + svg + ";;" + pdf;
    QString filter = png;
    QString path = ask ? ask(QObject::tr("Save As"), filters)
                       : QFileDialog::getSaveFileName(parent, QObject::tr("Save As"), QString(), filters, &filter);
    if (path.isEmpty()) return path;
    if (QFileInfo(path).suffix().isEmpty()) path += filter == svg ? ".svg" : filter == pdf ? ".pdf" : ".png";
    return path;
}

}  // namespace zorv::ui
