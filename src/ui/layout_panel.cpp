#include "ui/layout_panel.h"

#include <QComboBox>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMimeData>
#include <QMouseEvent>
#include <QPainter>
#include <QPushButton>
#include <QScrollArea>
#include <QToolTip>
#include <QUrl>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

#include "base/proc.h"
#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "layout/fp_data.h"
#include "layout/meander.h"
#include "lot/lot.h"
#include "paint/qpainter_surface.h"
#include "ui/gui_reporter.h"
#include "ui/qtext.h"

namespace zorv::ui {

namespace {


const char kSetupErrorTitle[] = "Zorv Setup Error";
const char* const kDirections[] = {"Down", "Left", "Right", "Up"};

// Passes every call on to the picture's surface; while `fitWidth` is set,
// text is written in `fitSize` points, made smaller where it would not fit
// the width, so that the values stay inside their cells on a dense grid and
// grow on a sparse one. With `measuring`, text is only measured and
// `smallest` keeps the smallest size any text needed, so that a second
// pass writes every value in one size.
class FitSurface : public Surface {
public:
    explicit FitSurface(Surface& s) : s_(s) { Font = s.Font; }
    double fitWidth = 0, fitHeight = 0, fitSize = 10, smallest = 1e9;
    bool measuring = false;

    double ScaleWidth() const override { return s_.ScaleWidth(); }
    double ScaleHeight() const override { return s_.ScaleHeight(); }
    void Cls() override { pass([&] { s_.Cls(); }); }
    void Line(double x1, double y1, double x2, double y2, Color c, LineForm form) override {
        pass([&] { s_.Line(x1, y1, x2, y2, c, form); });
    }
    void Circle(double x, double y, double r, Color c) override { pass([&] { s_.Circle(x, y, r, c); }); }
    void PSet(double x, double y, Color c) override { pass([&] { s_.PSet(x, y, c); }); }
    void Polygon(const std::vector<PointD>& points) override { pass([&] { s_.Polygon(points); }); }
    void Polyline(const std::vector<PointD>& points) override { pass([&] { s_.Polyline(points); }); }
    void DrawFocusRect(double x1, double y1, double x2, double y2) override {
        pass([&] { s_.DrawFocusRect(x1, y1, x2, y2); });
    }
    double TextWidth(std::string_view text) override {
        push();
        fit(text);
        return s_.TextWidth(text);
    }
    double TextHeight(std::string_view text) override {
        push();
        fit(text);
        return s_.TextHeight(text);
    }
    void Print(std::string_view text) override {
        pass([&] {
            fit(text);
            smallest = std::min(smallest, s_.Font.size);
            if (!measuring) s_.Print(text);
        });
    }

private:
    template <class F>
    void pass(F&& f) {
        push();
        f();
        CurrentX = s_.CurrentX;
        CurrentY = s_.CurrentY;
    }
    void push() {
        s_.CurrentX = CurrentX;
        s_.CurrentY = CurrentY;
        s_.DrawWidth = DrawWidth;
        s_.DrawStyle = DrawStyle;
        s_.FillStyle = FillStyle;
        s_.FillColor = FillColor;
        s_.ForeColor = ForeColor;
        s_.BackColor = BackColor;
        s_.Font = Font;
        s_.ScaleMode = ScaleMode;
    }
    void fit(std::string_view text) {
        if (fitWidth <= 0) return;
        FontSpec f = Font;
        f.size = fitSize;
        s_.Font = f;
        while (f.size > 5 && (s_.TextWidth(text) > fitWidth || s_.TextHeight(text) > fitHeight)) {
            f.size -= 0.5;
            s_.Font = f;
        }
    }
    Surface& s_;
};

std::string FieldNumberText(double v) { return NumberToText(std::fabs(v) < 5e-7 ? 0.0 : v, 6); }

const cField* FieldAt(const cWafer* w, int dieX, int dieY) {
    if (!w) return nullptr;
    for (const cField* f : w->Fields())
        if (std::lround(f->DieX) == dieX && std::lround(f->DieY) == dieY) return f;
    return nullptr;
}

}  // namespace

// The picture: whatever the panel draws on a Surface, cached as an image of
// the widget's size; clicks and dropped files go back to the panel.
class LayoutPicture : public QWidget {
public:
    explicit LayoutPicture(QWidget* parent) : QWidget(parent) {
        setObjectName("pctLayout");
        setAcceptDrops(true);
        setMinimumSize(240, 200);
        setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
        setCursor(Qt::CrossCursor);
        setMouseTracking(true);
    }
    std::function<void(Surface&, double, double)> draw;
    std::function<void(double, double)> clicked;
    // The tip of the cell under the pointer; empty: none.
    std::function<QString(double, double)> tip;
    std::function<void(const QStringList&)> dropped;

    // Draws the cache now at the widget's size.
    void render() {
        if (rendering_) return;
        rendering_ = true;
        const QSize sz = size().expandedTo(QSize(1, 1));
        QImage image(sz, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::white);
        {
            QPainter p(&image);
            QPainterSurface s(p);
            if (draw) draw(s, sz.width(), sz.height());
        }
        cache_ = std::move(image);
        rendering_ = false;
        update();
    }

protected:
    void paintEvent(QPaintEvent*) override {
        if (cache_.size() != size()) {
            QuietStatus quiet;
            render();
        }
        QPainter p(this);
        p.drawImage(0, 0, cache_);
    }
    void resizeEvent(QResizeEvent* e) override {
        QWidget::resizeEvent(e);
        update();
    }
    void mousePressEvent(QMouseEvent* e) override {
        if (e->button() == Qt::LeftButton && clicked) clicked(e->position().x(), e->position().y());
    }
    void mouseMoveEvent(QMouseEvent* e) override {
        const QString t = tip ? tip(e->position().x(), e->position().y()) : QString();
        if (t.isEmpty()) QToolTip::hideText();
        else QToolTip::showText(e->globalPosition().toPoint(), t, this);
    }
    void dragEnterEvent(QDragEnterEvent* e) override {
        if (!LocalFiles(e->mimeData()).isEmpty()) e->acceptProposedAction();
    }
    void dragMoveEvent(QDragMoveEvent* e) override {
        if (!LocalFiles(e->mimeData()).isEmpty()) e->acceptProposedAction();
    }
    void dropEvent(QDropEvent* e) override {
        const QStringList paths = LocalFiles(e->mimeData());
        if (paths.isEmpty()) return;
        e->acceptProposedAction();
        if (dropped) dropped(paths);
    }

private:
    static QStringList LocalFiles(const QMimeData* m) {
        QStringList paths;
        if (!m || !m->hasUrls()) return paths;
        for (const QUrl& u : m->urls())
            if (u.isLocalFile()) paths << u.toLocalFile();
        return paths;
    }
    QImage cache_;
    bool rendering_ = false;
};

LayoutPanel::LayoutPanel(QWidget* parent) : QWidget(parent) {
    setObjectName("fraLayout");
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(6, 6, 6, 6);
    row->setSpacing(8);

    picture_ = new LayoutPicture(this);
    picture_->draw = [this](Surface& s, double w, double h) { render(s, w, h); };
    picture_->clicked = [this](double x, double y) { pictureClicked(x, y); };
    picture_->tip = [this](double x, double y) { return cellTip(x, y); };
    picture_->dropped = [this](const QStringList& paths) { emit filesDropped(paths); };
    row->addWidget(picture_, 1);

    // The controls in a column of fixed width that scrolls when the tab is low.
    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto* column = new QWidget(scroll);
    buildControls(column);
    scroll->setWidget(column);
    scroll->setFixedWidth(column->sizeHint().width() + 18);
    row->addWidget(scroll);

    fillLists();
    enableControls(false);
}

void LayoutPanel::buildControls(QWidget* column) {
    auto* v = new QVBoxLayout(column);
    v->setContentsMargins(0, 0, 0, 0);
    v->setSpacing(6);

    auto numberBox = [](QWidget* parent, const char* name) {
        auto* e = new QLineEdit(parent);
        e->setObjectName(name);
        e->setMaximumWidth(90);
        return e;
    };

    auto* setup = new QGroupBox(tr("Layout"), column);
    auto* g = new QGridLayout(setup);
    g->setVerticalSpacing(4);
    auto combo = [&](const char* name, const QString& label, const QString& tip) {
        auto* c = new QComboBox(setup);
        c->setObjectName(name);
        c->setToolTip(tip);
        // Sized for the longest name ("Numeric Aperature"), not the longest
        // entry, so that the map keeps the width.
        c->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
        c->setMinimumContentsLength(15);
        const int r = g->rowCount();
        g->addWidget(new QLabel(label, setup), r, 0);
        g->addWidget(c, r, 1, 1, 3);
        return c;
    };
    cmbVariable_ = combo("cmbVariable", tr("Variable"), tr("The exposure value that varies across the wafer"));
    cmbWafer_ = combo("cmbWafer", tr("Wafer"), tr("The wafer shown and set (All: every wafer)"));
    cmbStart_ = combo("cmbStart", tr("Start"), tr("The start corner, then the first and second scan direction"));
    cmbMeander_ = combo("cmbMeander", tr("Program"), tr("How the value steps from line to line"));

    txtInitial_ = numberBox(setup, "txtInitial");
    txtStep_ = numberBox(setup, "txtStep");
    int r = g->rowCount();
    g->addWidget(new QLabel(tr("Initial value"), setup), r, 0);
    g->addWidget(txtInitial_, r, 1, 1, 3);
    g->addWidget(new QLabel(tr("Step"), setup), ++r, 0);
    g->addWidget(txtStep_, r, 1, 1, 3);
    txtDieXo_ = numberBox(setup, "txtDieXo");
    txtDieYo_ = numberBox(setup, "txtDieYo");
    txtDieXo_->setMaximumWidth(48);
    txtDieYo_->setMaximumWidth(48);
    txtDieXo_->setToolTip(tr("DieX of the start field; a click on the map sets it"));
    txtDieYo_->setToolTip(tr("DieY of the start field; a click on the map sets it"));
    g->addWidget(new QLabel(tr("Start field"), setup), ++r, 0);
    auto* xy = new QHBoxLayout;
    xy->setSpacing(4);
    xy->addWidget(new QLabel(tr("X"), setup));
    xy->addWidget(txtDieXo_);
    xy->addWidget(new QLabel(tr("Y"), setup));
    xy->addWidget(txtDieYo_);
    xy->addStretch();
    g->addLayout(xy, r, 1, 1, 3);
    cmdCalculate_ = new QPushButton(tr("Calculate"), setup);
    cmdCalculate_->setObjectName("cmdCalculate");
    cmdCalculate_->setToolTip(tr("Set the variable of every field on the path from the start field"));
    g->addWidget(cmdCalculate_, ++r, 0, 1, 4);
    g->setColumnStretch(3, 1);
    v->addWidget(setup);

    auto* values = new QGroupBox(tr("Values (DieX, DieY)"), column);
    auto* vl = new QVBoxLayout(values);
    lstValues_ = new QListWidget(values);
    lstValues_->setObjectName("lstValues");
    lstValues_->setMinimumHeight(60);
    lstValues_->setToolTip(tr("The variable's value of each field of the wafer; a click selects the field"));
    vl->addWidget(lstValues_);
    v->addWidget(values, 1);

    auto* field = new QGroupBox(tr("Selected field"), column);
    auto* fg = new QGridLayout(field);
    fg->setVerticalSpacing(4);
    lblField_ = new QLabel(field);
    lblField_->setObjectName("lblField");
    fg->addWidget(lblField_, 0, 0, 1, 4);
    struct Box {
        QLineEdit** box;
        const char* name;
        const char* caption;
    };
    const Box boxes[] = {{&txtFocus_, "txtFieldFocus", "Focus"},       {&txtDose_, "txtFieldDose", "Dose"},
                         {&txtNA_, "txtFieldNA", "NA"},                {&txtPCinner_, "txtFieldPCinner", "PCinner"},
                         {&txtPCouter_, "txtFieldPCouter", "PCouter"}};
    int i = 0;
    for (const Box& b : boxes) {
        *b.box = numberBox(field, b.name);
        (*b.box)->setMaximumWidth(64);
        fg->addWidget(new QLabel(b.caption, field), 1 + i / 2, (i % 2) * 2);
        fg->addWidget(*b.box, 1 + i / 2, (i % 2) * 2 + 1);
        ++i;
    }
    cmbDirection_ = new QComboBox(field);
    cmbDirection_->setObjectName("cmbFieldDirection");
    for (const char* d : kDirections) cmbDirection_->addItem(d);
    cmbDirection_->setToolTip(tr("Scan direction"));
    fg->addWidget(new QLabel(tr("Scan"), field), 3, 2);
    fg->addWidget(cmbDirection_, 3, 3);
    cmdUpdateField_ = new QPushButton(tr("Update Field"), field);
    cmdUpdateField_->setObjectName("cmdUpdateField");
    fg->addWidget(cmdUpdateField_, 4, 0, 1, 4);
    v->addWidget(field);

    controls_ = {cmbVariable_, cmbWafer_, cmbStart_, cmbMeander_, txtInitial_, txtStep_, txtDieXo_, txtDieYo_,
                 cmdCalculate_, lstValues_, txtFocus_, txtDose_, txtNA_, txtPCinner_, txtPCouter_, cmbDirection_,
                 cmdUpdateField_};

    connect(cmbVariable_, &QComboBox::currentIndexChanged, this, [this] {
        loadSettings();
        redraw();
    });
    connect(cmbWafer_, &QComboBox::currentIndexChanged, this, [this] {
        if (selected_) selectField(selX_, selY_);
        redraw();
    });
    // A kind picked, even the one shown, starts at its corner again.
    connect(cmbStart_, &QComboBox::activated, this, [this] {
        startAtCorner();
        redraw();
    });
    connect(cmbStart_, &QComboBox::currentIndexChanged, this, [this] {
        startAtCorner();
        redraw();
    });
    connect(txtDieXo_, &QLineEdit::editingFinished, this, [this] { redraw(); });
    connect(txtDieYo_, &QLineEdit::editingFinished, this, [this] { redraw(); });
    connect(cmdCalculate_, &QPushButton::clicked, this, [this] { calculate(); });
    connect(cmdUpdateField_, &QPushButton::clicked, this, [this] { updateField(); });
    connect(lstValues_, &QListWidget::itemClicked, this, [this](QListWidgetItem* it) { valueClicked(it); });
}

void LayoutPanel::fillLists() {
    const QSignalBlocker b1(cmbVariable_), b2(cmbStart_), b3(cmbMeander_);
    cmbVariable_->clear();
    for (const char* name : kLayoutVariables) cmbVariable_->addItem(name);
    cmbStart_->clear();
    for (const MeanderKind& k : kMeanderKinds)
        cmbStart_->addItem(QString("%1  (%2, %3)").arg(k.kind, k.scan1, k.scan2), QString(k.kind));
    cmbMeander_->clear();
    for (const char* p : kMeanderPrograms) cmbMeander_->addItem(p);
}

void LayoutPanel::enableControls(bool on) {
    for (QWidget* w : controls_) w->setEnabled(on);
    if (!on) lblField_->setText(tr("No data loaded."));
}

QWidget* LayoutPanel::picture() const { return picture_; }

void LayoutPanel::setLot(std::shared_ptr<cLot> lot, Workbook* workbook) {
    lot_ = std::move(lot);
    workbook_ = lot_ ? workbook : nullptr;
    table_ = Datam();
    drawn_ = false;
    fresh_ = true;
    selected_ = false;
    lstValues_->clear();
    {
        const QSignalBlocker b(cmbWafer_);
        cmbWafer_->clear();
    }
    if (lot_) {
        Result<Datam> fp = MakeFPdata(lot_.get());
        // A lot without fields has no layout to set: shown as no lot.
        if (fp) table_ = std::move(fp.value());
        else lot_.reset(), workbook_ = nullptr;
    }
    if (lot_) {
        const QSignalBlocker b(cmbWafer_);
        for (const std::string& w : LoadFeatures(*lot_).wafers) cmbWafer_->addItem(Q(w));
    }
    enableControls(lot_ != nullptr);
    if (lot_) {
        showSelectedField();
        loadSettings();
    } else {
        for (QLineEdit* b : {txtInitial_, txtStep_, txtDieXo_, txtDieYo_}) b->clear();
    }
    redraw();
}

void LayoutPanel::DisplayVariables() {
    if (lot_ && fresh_) {
        const QSignalBlocker b1(cmbWafer_), b2(cmbVariable_);
        cmbWafer_->setCurrentIndex(cmbWafer_->count() > 1 ? 1 : 0);
        SetStatusText("Wafer set to wafer 1");
        cmbVariable_->setCurrentIndex(0);
        loadSettings();
        SetStatusText("layout set");
        fresh_ = false;
    }
    SetStatusText("Setup up cmdArray");
    SetStatusText("call DisplayVariables...");
    // Drawn here with the status line, outside any paint.
    picture_->render();
    SetStatusText("call DisplayVariables...done ");
}

cWafer* LayoutPanel::shownWafer() const {
    if (!lot_) return nullptr;
    const std::vector<cWafer*> ws = LayoutWafers(*lot_, S(cmbWafer_->currentText()));
    return ws.empty() ? nullptr : ws.front();
}

std::string LayoutPanel::shownTableKey() const {
    const cWafer* w = shownWafer();
    if (!w || cmbWafer_->currentIndex() <= 0) return "All";
    return w->KeyName;
}

void LayoutPanel::loadSettings() {
    // The shown wafer's last layout of the variable, when it has one.
    const cWafer* w = shownWafer();
    if (!w) return;
    const std::string head = kFPdataHeads[LayoutVariableColumn(S(cmbVariable_->currentText())) - 1];
    for (const cLayout& l : w->Layouts) {
        if (!IEquals(l.VariableName, head)) continue;
        const QSignalBlocker b1(cmbStart_), b2(cmbMeander_);
        if (l.ControlIndex >= 0 && l.ControlIndex < cmbStart_->count()) cmbStart_->setCurrentIndex(l.ControlIndex);
        if (const int k = cmbMeander_->findText(Q(l.Meander), Qt::MatchFixedString); k >= 0)
            cmbMeander_->setCurrentIndex(k);
        txtInitial_->setText(Q(FieldNumberText(l.InitialValue)));
        txtStep_->setText(Q(FieldNumberText(l.Step)));
        txtDieXo_->setText(Q(FieldNumberText(l.DieXo)));
        txtDieYo_->setText(Q(FieldNumberText(l.DieYo)));
        return;
    }
    // No layout yet: the value the wafer's first field has, no step.
    const std::string variable = S(cmbVariable_->currentText());
    if (LayoutVariableColumn(variable) != 10 && w->Fields().Count() > 0)
        txtInitial_->setText(Q(FieldNumberText(LayoutFieldValue(*w->Fields().At(1), variable))));
    txtStep_->setText("0");
    startAtCorner();
}

void LayoutPanel::startAtCorner() {
    float x = 0, y = 0;
    if (!lot_ || !LayoutCorner(*lot_, S(cmbWafer_->currentText()), cmbStart_->currentIndex(), x, y)) return;
    txtDieXo_->setText(Q(FieldNumberText(x)));
    txtDieYo_->setText(Q(FieldNumberText(y)));
}

void LayoutPanel::redraw() {
    // Only the explicit display shows the drawing's status texts.
    QuietStatus quiet;
    picture_->render();
}

void LayoutPanel::render(Surface& s, double width, double height) {
    drawn_ = false;
    // White, unless the settings gave the picture a background of its own.
    Color back = RGB(255, 255, 255);
    if (picture_->autoFillBackground()) {
        const QColor c = picture_->palette().color(QPalette::Window);
        back = RGB(c.red(), c.green(), c.blue());
    }
    s.BackColor = back;
    if (!lot_) {
        // A light grid under the hint of what to do.
        s.Cls();
        const int n = 8;
        const double cell = std::max(8.0, std::min(width, height) * 0.8 / n);
        const double left = (width - cell * n) / 2, top = (height - cell * n) / 2;
        s.DrawWidth = 1;
        s.DrawStyle = DrawStyle::Solid;
        for (int i = 0; i <= n; ++i) {
            s.Line(left + i * cell, top, left + i * cell, top + n * cell, RGB(222, 226, 232));
            s.Line(left, top + i * cell, left + n * cell, top + i * cell, RGB(222, 226, 232));
        }
        s.Font = FontSpec{};
        s.Font.size = 10;
        const std::string hint = "No data loaded. Open a raw data file or a data workbook.";
        const double tw = s.TextWidth(hint), th = s.TextHeight(hint);
        s.Line(width / 2 - tw / 2 - 8, height / 2 - th / 2 - 5, width / 2 + tw / 2 + 8, height / 2 + th / 2 + 5,
               back, LineForm::FilledBox);
        s.ForeColor = RGB(90, 96, 106);
        s.CurrentX = width / 2 - tw / 2;
        s.CurrentY = height / 2 - th / 2;
        s.Print(hint);
        return;
    }
    const std::string variable = S(cmbVariable_->currentText());
    const std::string wafer = S(cmbWafer_->currentText());
    FitSurface fs(s);
    Result<LayoutView> view = MainDraw(*lot_, variable, wafer, fs);
    if (!view) {
        fs.ForeColor = RGB(160, 0, 0);
        fs.CurrentX = 12;
        fs.CurrentY = 12;
        fs.Print(view.failure().text);
        lstValues_->clear();
        return;
    }
    view_ = *view;
    drawn_ = true;
    fs.fitWidth = view_.cellWidth - 6;
    fs.fitHeight = view_.cellHeight - 2;
    fs.fitSize = std::clamp(view_.cellHeight * 0.2, 5.0, 16.0);
    fs.measuring = true;
    (void)zorv::DisplayVariables(table_, variable, shownTableKey(), view_, fs);
    fs.measuring = false;
    if (fs.smallest < fs.fitSize) fs.fitSize = fs.smallest;
    Result<std::vector<std::string>> values = zorv::DisplayVariables(table_, variable, shownTableKey(), view_, fs);
    fs.fitWidth = 0;
    // The list pairs each value with its field, when the table and the wafer
    // agree (the table is made in the lot's order).
    lstValues_->clear();
    if (values) {
        const cWafer* w = shownWafer();
        std::vector<const cField*> fields;
        if (w)
            for (const cField* f : w->Fields()) fields.push_back(f);
        const bool paired = fields.size() == values->size();
        size_t i = 0;
        for (const std::string& text : *values) {
            auto* it = new QListWidgetItem(lstValues_);
            if (paired) {
                const cField* f = fields[i];
                const int x = static_cast<int>(std::lround(f->DieX)), y = static_cast<int>(std::lround(f->DieY));
                it->setText(QString("(%1, %2)\t%3").arg(x).arg(y).arg(Q(text)));
                it->setData(Qt::UserRole, QPoint(x, y));
                if (selected_ && x == selX_ && y == selY_) it->setSelected(true);
            } else {
                it->setText(Q(text));
            }
            ++i;
        }
    }
    // The start field, where the boxes name one on the wafer; the selected
    // field, when it is another, in a dashed outline.
    (void)DrawLayoutOrigin(*lot_, wafer, S(txtDieXo_->text()), S(txtDieYo_->text()), view_, fs);
    double sx = 0, sy = 0;
    const bool atStart = ParseNumber(Trim(S(txtDieXo_->text())), sx) && ParseNumber(Trim(S(txtDieYo_->text())), sy) &&
                         std::lround(sx) == selX_ && std::lround(sy) == selY_;
    if (selected_ && !atStart && view_.cellWidth > 4) {
        const double l = view_.cellLeft(selX_), t = view_.cellTop(selY_);
        fs.DrawWidth = 2;
        fs.DrawStyle = DrawStyle::Dash;
        fs.Line(l + 2, t + 2, l + view_.cellWidth - 2, t + view_.cellHeight - 2, RGB(255, 255, 255), LineForm::Box);
        fs.DrawWidth = 1;
        fs.DrawStyle = DrawStyle::Solid;
    }
}

bool LayoutPanel::numericBox(QLineEdit* box, const QString& caption, double& out) {
    if (ParseNumber(Trim(S(box->text())), out)) return true;
    std::string m = "A numeric value must be entered into this field ";
    m.append(S(caption)).append(" for a ").append(S(cmbVariable_->currentText())).append(" variable.");
    MsgBox(m, vbExclamation, kSetupErrorTitle);
    box->setFocus();
    box->selectAll();
    return false;
}

void LayoutPanel::calculate() {
    if (!lot_) return;
    LayoutControls c;
    if (!numericBox(txtInitial_, tr("Initial value"), c.initial)) return;
    if (!numericBox(txtStep_, tr("Step"), c.step)) return;
    double start[2] = {0, 0};
    QLineEdit* const startBoxes[2] = {txtDieXo_, txtDieYo_};
    for (int i = 0; i < 2; ++i) {
        if (ParseNumber(Trim(S(startBoxes[i]->text())), start[i])) continue;
        std::string m = "Entered value of '";
        m.append(S(startBoxes[i]->text())).append("' is not valid.");
        MsgBox(m, vbExclamation, kSetupErrorTitle);
        startBoxes[i]->setFocus();
        return;
    }
    c.variable = S(cmbVariable_->currentText());
    c.wafer = S(cmbWafer_->currentText());
    c.meander = S(cmbStart_->currentData().toString());
    c.controlIndex = cmbStart_->currentIndex();
    c.program = S(cmbMeander_->currentText());
    c.dieXo = static_cast<float>(start[0]);
    c.dieYo = static_cast<float>(start[1]);

    // On a copy, so that a failure leaves the table as it was (the lot keeps
    // its values by itself); nothing is saved to disk from here.
    Datam work = table_;
    Result<LayoutOutcome> out = CalculateLayout(c, *lot_, &work);
    if (IEquals(c.program, "Constant")) txtStep_->setText("0");
    if (!out) {
        Report(out.failure());
        return;
    }
    table_ = std::move(work);
    writeSheet();
    if (!out->note.empty()) MsgBox(out->note, vbInformation);
    else emit layoutChanged();
    if (selected_) showSelectedField();
    redraw();
}

void LayoutPanel::updateField() {
    if (!lot_) return;
    const cWafer* w = shownWafer();
    const cField* f = selected_ ? FieldAt(w, selX_, selY_) : nullptr;
    if (!f) {
        MsgBox("Click a field of the map first.", vbInformation);
        return;
    }
    FieldExposureValues v;
    if (!numericBox(txtFocus_, "Focus", v.focus) || !numericBox(txtDose_, "Dose", v.dose) ||
        !numericBox(txtNA_, "NA", v.NA) || !numericBox(txtPCinner_, "PCinner", v.PCinner) ||
        !numericBox(txtPCouter_, "PCouter", v.PCouter))
        return;
    v.direction = S(cmbDirection_->currentText());
    if (Status s = UpdateLotFromDisplay(*lot_, w->KeyName, f->NumberKey, v); !s) {
        Report(s.failure());
        return;
    }
    if (Result<Datam> fp = MakeFPdata(lot_.get()); fp) table_ = std::move(fp.value());
    writeSheet();
    emit layoutChanged();
    showSelectedField();
    redraw();
}

void LayoutPanel::writeSheet() {
    if (!lot_ || !workbook_) return;
    if (Status s = SaveFPdata(*lot_, table_, workbook_, /*save=*/false); !s) Report(s.failure());
}

void LayoutPanel::selectField(int dieX, int dieY) {
    selected_ = FieldAt(shownWafer(), dieX, dieY) != nullptr;
    selX_ = dieX;
    selY_ = dieY;
    showSelectedField();
}

void LayoutPanel::showSelectedField() {
    const cField* f = selected_ ? FieldAt(shownWafer(), selX_, selY_) : nullptr;
    QLineEdit* const boxes[] = {txtFocus_, txtDose_, txtNA_, txtPCinner_, txtPCouter_};
    for (QLineEdit* b : boxes) b->setEnabled(f != nullptr);
    cmbDirection_->setEnabled(f != nullptr);
    cmdUpdateField_->setEnabled(f != nullptr);
    if (!f) {
        for (QLineEdit* b : boxes) b->clear();
        lblField_->setText(tr("Click a field on the map."));
        return;
    }
    lblField_->setText(tr("Field %1 at (%2, %3)").arg(f->Number).arg(selX_).arg(selY_));
    txtFocus_->setText(Q(FieldNumberText(f->Focus)));
    txtDose_->setText(Q(FieldNumberText(f->Dose)));
    txtNA_->setText(Q(FieldNumberText(f->NA)));
    txtPCinner_->setText(Q(FieldNumberText(f->PCinner)));
    txtPCouter_->setText(Q(FieldNumberText(f->PCouter)));
    cmbDirection_->setCurrentText(Q(DirectionWord(f->Direction)));
}

const cField* LayoutPanel::fieldAtPoint(double x, double y, int& dieX, int& dieY) const {
    if (!lot_ || !drawn_ || view_.cellWidth <= 0 || view_.cellHeight <= 0) return nullptr;
    const int col = static_cast<int>(std::floor((x - view_.left) / view_.cellWidth));
    const int row = static_cast<int>(std::floor((y - view_.top) / view_.cellHeight));
    if (col < 0 || col >= view_.columns || row < 0 || row >= view_.rows) return nullptr;
    dieX = view_.x0 + col;
    dieY = view_.y0 + view_.rows - 1 - row;
    return FieldAt(shownWafer(), dieX, dieY);
}

QString LayoutPanel::cellTip(double x, double y) const {
    int dieX = 0, dieY = 0;
    const cField* f = fieldAtPoint(x, y, dieX, dieY);
    if (!f) return {};
    const std::string variable = S(cmbVariable_->currentText());
    const std::string value = LayoutVariableColumn(variable) == 10 ? DirectionWord(f->Direction)
                                                                   : FieldNumberText(LayoutFieldValue(*f, variable));
    return tr("Field %1 at (%2, %3)\n%4: %5").arg(f->Number).arg(dieX).arg(dieY).arg(Q(variable), Q(value));
}

void LayoutPanel::pictureClicked(double x, double y) {
    int dieX = 0, dieY = 0;
    if (!fieldAtPoint(x, y, dieX, dieY)) return;
    txtDieXo_->setText(QString::number(dieX));
    txtDieYo_->setText(QString::number(dieY));
    selectField(dieX, dieY);
    redraw();
}

void LayoutPanel::valueClicked(QListWidgetItem* item) {
    const QVariant at = item ? item->data(Qt::UserRole) : QVariant();
    if (!at.isValid()) return;
    const QPoint p = at.toPoint();
    selectField(p.x(), p.y());
    redraw();
}

}  // namespace zorv::ui
