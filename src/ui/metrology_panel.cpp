#include "ui/metrology_panel.h"

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QTabWidget>
#include <QTableWidget>
#include <QVBoxLayout>
#include <cmath>

#include "base/format.h"
#include "base/marks.h"
#include "base/report.h"
#include "stats/cull.h"
#include "stats/raw_analysis.h"
#include "ui/chart_view.h"
#include "workbook/store.h"
#include "ui/qtext.h"

namespace zorv::ui {

namespace {

constexpr const char* kPlotKeys[] = {"kWafer", "kField", "kFieldResiduals", "kHistogram", "kContour", "kXYplot"};
constexpr const char* kPlotTitles[] = {"Wafer", "Field", "Field Residuals", "Histogram", "Contour", "XY Plot"};
constexpr const char* kViewNames[] = {"chtWafer", "chtField", "chtFieldResiduals", "chtHistogram", "chtContour",
                                      "chtXYplot"};
// Points between two looks at the Esc key and the progress display.
constexpr long kPointsPerCheck = 65536;


std::string Num(double v) { return CStrNumber(v, 6); }

}  // namespace

MetrologyPanel::MetrologyPanel(QWidget* parent) : QWidget(parent) {
    setObjectName("kMetrology");
    auto* top = new QHBoxLayout(this);
    top->setContentsMargins(4, 4, 4, 4);

    auto* left = new QVBoxLayout;
    lblNoData_ = new QLabel(this);
    lblNoData_->setObjectName("lblNoData");
    lblNoData_->setStyleSheet("QLabel { color: #a00000; font-weight: bold; }");
    lblNoData_->hide();
    left->addWidget(lblNoData_);
    tabMetrology_ = new QTabWidget(this);
    tabMetrology_->setObjectName("tabMetrology");
    for (int i = 0; i < kPlots; ++i) {
        charts_[static_cast<size_t>(i)] = std::make_unique<cGraphic>();
        auto* v = new ChartView(tabMetrology_);
        v->setObjectName(kViewNames[i]);
        v->setProperty("key", kPlotKeys[i]);
        views_[static_cast<size_t>(i)] = v;
        tabMetrology_->addTab(v, tr(kPlotTitles[i]));
    }
    left->addWidget(tabMetrology_, 1);
    top->addLayout(left, 1);

    auto* side = new QWidget(this);
    side->setFixedWidth(250);
    auto* col = new QVBoxLayout(side);
    col->setContentsMargins(0, 0, 0, 0);

    auto* display = new QGroupBox(tr("Display Selections"), side);
    display->setObjectName("kDisplaySelections");
    auto* dl = new QVBoxLayout(display);
    lstMetWafers_ = new QListWidget(display);
    lstMetWafers_->setObjectName("lstMetWafers");
    lstMetWafers_->setMaximumHeight(110);
    dl->addWidget(lstMetWafers_);
    auto* df = new QFormLayout;
    cmbMetFeature_ = new QComboBox(display);
    cmbMetFeature_->setObjectName("cmbMetFeature");
    df->addRow(tr("Feature"), cmbMetFeature_);
    cmbMetDataType_ = new QComboBox(display);
    cmbMetDataType_->setObjectName("cmbMetDataType");
    cmbMetDataType_->addItems({tr("Raw Data"), tr("Fitted"), tr("Residuals")});
    cmbMetDataType_->setCurrentIndex(1);
    cmbMetDataType_->setToolTip(tr("Fitted: the raw data after the component removal; "
                                   "Residuals: that less the mean field"));
    df->addRow(tr("Data"), cmbMetDataType_);
    dl->addLayout(df);
    col->addWidget(display);

    auto* comps = new QGroupBox(tr("Component Removal"), side);
    comps->setObjectName("kComponentRemoval");
    auto* cl = new QVBoxLayout(comps);
    chkRemoveMeanField_ = new QCheckBox("Remove Mean Field", comps);
    chkRemoveMeanField_->setObjectName("chkRemoveMeanField");
    cl->addWidget(chkRemoveMeanField_);
    auto* rv = new QHBoxLayout;
    chkRemoveValue_ = new QCheckBox("Remove Value: ", comps);
    chkRemoveValue_->setObjectName("chkRemoveValue");
    txtValueRemove_ = new QLineEdit("0", comps);
    txtValueRemove_->setObjectName("txtValueRemove");
    rv->addWidget(chkRemoveValue_);
    rv->addWidget(txtValueRemove_);
    cl->addLayout(rv);
    col->addWidget(comps);

    auto* culls = new QGroupBox(tr("Culling"), side);
    culls->setObjectName("kCulling");
    auto* ul = new QVBoxLayout(culls);
    auto* cr = new QHBoxLayout;
    txtCullRadius_ = new QLineEdit(culls);
    txtCullRadius_->setObjectName("txtCullRadius");
    txtCullRadius_->setPlaceholderText(tr("mm"));
    cmdCullRadius_ = new QPushButton("Cull Radius", culls);
    cmdCullRadius_->setObjectName("cmdCullRadius");
    cr->addWidget(txtCullRadius_);
    cr->addWidget(cmdCullRadius_);
    ul->addLayout(cr);
    cmdResetCulls_ = new QPushButton(tr("Reset culls"), culls);
    cmdResetCulls_->setObjectName("cmdResetCulls");
    ul->addWidget(cmdResetCulls_);
    auto* hint = new QLabel(tr("Drag on a map, then right-click to cull or restore the sites in the box."), culls);
    hint->setWordWrap(true);
    hint->setStyleSheet("QLabel { color: palette(mid); }");
    ul->addWidget(hint);
    col->addWidget(culls);

    auto* format = new QGroupBox(tr("Plot Format"), side);
    format->setObjectName("kPlotFormat");
    auto* ff = new QFormLayout(format);
    txtVectorScale_ = new QLineEdit(format);
    txtVectorScale_->setObjectName("txtVectorScale");
    txtVectorScale_->setPlaceholderText(tr("auto"));
    ff->addRow(tr("Vector scale"), txtVectorScale_);
    // The data behind a plot goes to the workbook when asked: a million-point
    // lot's map would otherwise copy the lot into a sheet at every drawing.
    auto* cmdPlotData = new QPushButton(tr("Data to Workbook"), format);
    cmdPlotData->setObjectName("cmdPlotData");
    cmdPlotData->setToolTip(tr("Write the data of the plot shown as sheets of the data workbook"));
    ff->addRow(cmdPlotData);
    connect(cmdPlotData, &QPushButton::clicked, this, [this] { writePlotData(); });
    col->addWidget(format);

    tblMetStats_ = new QTableWidget(5, 1, side);
    tblMetStats_->setObjectName("tblMetStats");
    tblMetStats_->setVerticalHeaderLabels({tr("Count"), tr("Mean"), tr("Sigma"), tr("Min"), tr("Max")});
    tblMetStats_->setHorizontalHeaderLabels({tr("Value")});
    tblMetStats_->horizontalHeader()->setStretchLastSection(true);
    tblMetStats_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    tblMetStats_->setSelectionMode(QAbstractItemView::NoSelection);
    tblMetStats_->verticalHeader()->setDefaultSectionSize(22);
    tblMetStats_->setFixedHeight(tblMetStats_->horizontalHeader()->sizeHint().height() + 5 * 22 + 4);
    col->addWidget(tblMetStats_);
    col->addStretch(1);
    top->addWidget(side);

    // The maps' pop-up.
    auto action = [&](const char* name, const char* text) {
        auto* a = new QAction(tr(text), this);
        a->setObjectName(name);
        return a;
    };
    mnuPopUpCullRemove_ = action("mnuPopUpCullRemove", "Cull Selected Sites");
    mnuPopUpCullClear_ = action("mnuPopUpCullClear", "Restore Selected Sites");
    mnuPopUpCullWafer_ = action("mnuPopUpCullWafer", "Cull Wafer");
    mnuPopUpCullAll_ = action("mnuPopUpCullAll", "Restore All Culls");
    const QList<QAction*> popup{mnuPopUpCullRemove_, mnuPopUpCullClear_, mnuPopUpCullWafer_, mnuPopUpCullAll_};
    for (int p : {kWafer, kField, kFieldResiduals}) {
        view(p)->setSelectMode(true);
        view(p)->addMenuActions(popup);
    }
    connect(mnuPopUpCullRemove_, &QAction::triggered, this, [this] { cullSelection(false); });
    connect(mnuPopUpCullClear_, &QAction::triggered, this, [this] { cullSelection(true); });
    connect(mnuPopUpCullWafer_, &QAction::triggered, this, &MetrologyPanel::cullWafer);
    connect(mnuPopUpCullAll_, &QAction::triggered, this, &MetrologyPanel::restoreAll);
    connect(cmdCullRadius_, &QPushButton::clicked, this, &MetrologyPanel::cullRadius);
    connect(txtCullRadius_, &QLineEdit::returnPressed, this, &MetrologyPanel::cullRadius);
    connect(cmdResetCulls_, &QPushButton::clicked, this, &MetrologyPanel::resetCulls);

    auto redraw = [this] {
        if (!filling_ && lot_) tabMetrology();
    };
    connect(tabMetrology_, &QTabWidget::currentChanged, this, redraw);
    connect(lstMetWafers_, &QListWidget::currentRowChanged, this, redraw);
    connect(cmbMetFeature_, &QComboBox::currentIndexChanged, this, redraw);
    connect(cmbMetDataType_, &QComboBox::currentIndexChanged, this, redraw);
    connect(chkRemoveMeanField_, &QCheckBox::toggled, this, redraw);
    connect(chkRemoveValue_, &QCheckBox::toggled, this, redraw);
    connect(txtValueRemove_, &QLineEdit::editingFinished, this, [this, redraw] {
        if (chkRemoveValue_->isChecked()) redraw();
    });
    connect(txtVectorScale_, &QLineEdit::editingFinished, this, redraw);
}

MetrologyPanel::~MetrologyPanel() {
    for (ChartView* v : views_) v->setGraphic(nullptr);
}

void MetrologyPanel::clear() {
    filling_ = true;
    for (size_t i = 0; i < views_.size(); ++i) {
        views_[i]->setGraphic(nullptr);
        views_[i]->clearSelection();
        charts_[i] = std::make_unique<cGraphic>();
    }
    meanLot_.reset();
    lstMetWafers_->clear();
    cmbMetFeature_->clear();
    for (int r = 0; r < tblMetStats_->rowCount(); ++r) tblMetStats_->setItem(r, 0, nullptr);
    lblNoData_->hide();
    shown_ = {};
    plotSheets_ = 0;
    filling_ = false;
}

void MetrologyPanel::setLot(std::shared_ptr<cLot> lot, Workbook* workbook) {
    clear();
    lot_ = std::move(lot);
    workbook_ = lot_ ? workbook : nullptr;
}

std::string MetrologyPanel::waferKey() const {
    const QListWidgetItem* it = lstMetWafers_->currentItem();
    if (!it || lstMetWafers_->currentRow() <= 0) return {};
    return it->text().toStdString();
}

int MetrologyPanel::feature() const {
    const QVariant v = cmbMetFeature_->currentData();
    return v.isValid() ? v.toInt() : ePlotFeatureV;
}

int MetrologyPanel::dataType() const {
    const int i = cmbMetDataType_->currentIndex();
    return i == 0 ? eRaw : i == 2 ? eResidual : eFitted;
}

bool MetrologyPanel::showRawAnalysis() {
    SetStatusText("Setting up data for Raw Analysis ...");
    if (!lot_) return tabMetrology();
    const BusyPointer busy;
    Proc p("frmMain(MakeRawLot): ");
    bool made = Guarded(p, [&] { MakeRawLot(*lot_); });
    if (!made) {
        Report(p.failure());
        return false;
    }
    filling_ = true;
    lstMetWafers_->clear();
    lstMetWafers_->addItem("All");
    for (const cWafer* w : lot_->Wafers()) lstMetWafers_->addItem(Q(w->KeyName));
    lstMetWafers_->setCurrentRow(0);
    const int keep = cmbMetFeature_->currentData().isValid() ? cmbMetFeature_->currentData().toInt() : -100;
    cmbMetFeature_->clear();
    for (const auto& [k, name] : RawFeatureList(*lot_)) cmbMetFeature_->addItem(Q(name), k);
    // The feature the lot plots, unless the user chose one already.
    int at = cmbMetFeature_->findData(keep != -100 ? keep : lot_->PlotFeature());
    if (at < 0 && lot_->LineWidthType) at = cmbMetFeature_->findData(int(ePlotFeatureV));
    cmbMetFeature_->setCurrentIndex(std::max(at, 0));
    filling_ = false;
    return tabMetrology();
}

void MetrologyPanel::showNoData(const QString& text) {
    lblNoData_->setText(text);
    lblNoData_->show();
    for (ChartView* v : views_) {
        v->setGraphic(nullptr);
        v->clearSelection();
    }
    for (int r = 0; r < tblMetStats_->rowCount(); ++r) tblMetStats_->setItem(r, 0, nullptr);
    shown_ = {};
}

bool MetrologyPanel::readNumber(QLineEdit* edit, double& value) {
    const std::string text = edit->text().trimmed().toStdString();
    if (text.empty()) {
        value = 0;
        return true;
    }
    bool ok = false;
    value = edit->text().trimmed().toDouble(&ok);
    if (ok && std::isfinite(value)) return true;
    std::string m;
    m.append("Entered value of '").append(text).append("' is not valid.");
    MsgBox(m, vbOKOnly | vbExclamation, "Zorv Setup Error");
    return false;
}

bool MetrologyPanel::tabMetrology() {
    const BusyPointer busy;
    SetStatusText("Graphics Setup...");
    lblNoData_->hide();
    long total = 0, culled = 0;
    if (lot_ && lot_->TotalWafers() > 0) total = lot_->TotalPoints(&culled);
    if (!lot_ || total + culled < 1) {
        SetStatusText("No data");
        SetStatusText("No data points in selected lot.");
        showNoData(tr("No data points in selected lot."));
        return false;
    }
    const std::string key = waferKey();
    long live = 0;
    lot_->forEachLive([&](cWafer& w, cField&, cSite&, cPoint&) { live += key.empty() || w.KeyName == key; });
    if (live < 1) {
        SetStatusText("No data");
        SetStatusText("No data points in selected lot.");
        SetStatusText("Too many points culled.");
        showNoData(tr("No data points in selected lot. Too many points culled."));
        return false;
    }

    SetStatusText("Data setup ... ");
    RawComponents comps;
    comps.removeMeanField = chkRemoveMeanField_->isChecked();
    comps.removeValue = chkRemoveValue_->isChecked();
    if (comps.removeValue && !readNumber(txtValueRemove_, comps.value)) comps.removeValue = false;
    const int plot = tabMetrology_->currentIndex();
    Proc p("frmMain(tabMetrology): ");
    const bool prepared = Guarded(p, [&] {
        ApplyRawComponents(*lot_, comps, feature(), key);
        if (plot == kFieldResiduals || dataType() == eResidual) MeanFieldResiduals(*lot_, key);
    });
    if (!prepared) {
        Report(p.failure());
        return false;
    }

    SetStatusText("Plot definitions...");
    lot_->PlotFeature(feature() == ePlotFeatureVector ? int(ePlotFeatureVector) : feature());

    SetStatusText("Calculating statistics ...");
    fillStatistics();

    if (!setupPlot(plot)) return false;
    ChartView* v = view(plot);
    v->setGraphic(charts_[static_cast<size_t>(plot)].get());
    // A visible view draws now, so that a failure is known here and a long
    // drawing shows its progress.
    if (v->isVisible()) v->render();
    ShowProgress(-1);
    if (!v->failureText().isEmpty()) {
        SetStatusText(v->failureText().toStdString());
        return false;
    }
    std::string done;
    done.append("Ready: ").append(std::to_string(shown_.points)).append(" points");
    SetStatusText(done);
    return true;
}

void MetrologyPanel::fillStatistics() {
    const RawStats s = RawFeatureStats(*lot_, waferKey(), feature(), dataType());
    shown_.points = s.points;
    shown_.mean = s.mean;
    shown_.sigma = s.sigma;
    const double values[5] = {double(s.points), s.mean, s.sigma, s.min, s.max};
    for (int r = 0; r < 5; ++r) {
        auto* it = new QTableWidgetItem(r == 0 ? QString::number(s.points) : Q(Num(values[r])));
        it->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
        tblMetStats_->setItem(r, 0, it);
    }
    std::string units;
    long code = 0;
    if (!lot_->GetPlotFeatureUnits(feature() == ePlotFeatureVector ? int(ePlotFeatureV) : feature(), units, code))
        units.clear();
    tblMetStats_->setHorizontalHeaderItem(0, new QTableWidgetItem(units.empty() ? tr("Value") : Q(units)));
}

bool MetrologyPanel::setupPlot(int plot) {
    Proc p("frmMain(tabMetrology): ");
    auto& slot = charts_[static_cast<size_t>(plot)];
    views_[static_cast<size_t>(plot)]->setGraphic(nullptr);
    slot = std::make_unique<cGraphic>();
    cGraphic& g = *slot;
    const std::string key = waferKey();
    const std::string label = key.empty() ? std::string("All") : key;
    const int f = feature(), dt = dataType();
    std::string fname = f == ePlotFeatureVector ? std::string("Vector") : lot_->GetPlotFeatureName(f);
    std::string units = lot_->GetPlotFeatureUnits();
    if (f == ePlotFeatureVector) {
        long code = 0;
        if (!lot_->GetPlotFeatureUnits(ePlotFeatureV, units, code)) units.clear();
    }
    std::string title;
    title.append(lot_->LotName).append(": ").append(fname);
    if (!key.empty()) title.append(" - wafer ").append(key);
    double scale = 0;
    if (!readNumber(txtVectorScale_, scale)) scale = 0;

    int sheets = 0;
    Status st = StatusOk();
    switch (plot) {
    case kWafer:
    case kField:
    case kFieldResiduals: {
        SetStatusText("Vector graphic setup...");
        g.Kind = plot == kWafer ? GraphKind::WaferVector : GraphKind::FieldVector;
        g.PLotDataType = plot == kFieldResiduals ? int(eResidual) : dt;
        g.WaferKey = key;
        g.MapAllWafers = key.empty();
        g.MapAllFields = plot != kWafer;
        g.VectorScale = std::abs(scale) * 1000;
        if (plot == kFieldResiduals) title.append(" less the mean field");
        g.TitleObj.TitleString = title;
        st = g.LotData(lot_);
        sheets = plot == kWafer ? kRawWaferSheet : kRawFieldSheet;
        break;
    }
    case kHistogram: {
        SetStatusText("Histogram setup...");
        long n = 0;
        const long all = shown_.points;
        Datam t(static_cast<int>(std::max(all, 1L)), 1, 0, 1);
        std::string head = fname;
        if (!units.empty()) head.append(" (").append(units).append(")");
        t(0, 1) = Value(head);
        bool stopped = false;
        lot_->forEachLive([&](cWafer& w, cField&, cSite&, cPoint& pt) {
            double v;
            if ((!key.empty() && w.KeyName != key) || !RawPointValue(pt, f, dt, v)) return true;
            if (n >= all) return false;
            t(static_cast<int>(++n), 1) = Value(v / 1000.0);
            if (n % kPointsPerCheck == 0) {
                ShowProgress(static_cast<int>(100.0 * double(n) / double(all)));
                if (CheckEscKey()) {
                    stopped = true;
                    return false;
                }
            }
            return true;
        });
        ShowProgress(0);
        if (stopped) {
            SetStatusText("Stopped.");
            return false;
        }
        st = g.RegisterData(t);
        g.Kind = GraphKind::Histogram;
        g.HistoXcol = 1;
        g.Axes.Add("X").Label = head;
        g.TitleObj.TitleString = title;
        Datam s(3, 1, 0, 0);
        s(1, 0) = Value("Count");
        s(2, 0) = Value("Mean");
        s(3, 0) = Value("Sigma");
        s(0, 1) = Value(label);
        s(1, 1) = Value(int32_t(shown_.points));
        s(2, 1) = Value(Num(shown_.mean));
        s(3, 1) = Value(Num(shown_.sigma));
        g.Stats.Title = "Statistics";
        g.Stats.RegisterArray(s);
        break;
    }
    case kContour: {
        SetStatusText("Contour data setup...");
        meanLot_ = MeanFieldLot(*lot_, key, dt);
        if (!meanLot_) {
            st = p.fail("No data points in selected lot.");
            break;
        }
        // A vector lot's contour shows its first component.
        meanLot_->PlotFeature(f == ePlotFeatureVector ? int(ePlotFeatureV) : f);
        if (f == ePlotFeatureVector) fname = lot_->GetPlotFeatureName(ePlotFeatureV);
        g.Kind = GraphKind::FieldContour;
        g.PLotDataType = eFitted;
        std::string cunits = units;
        if (f == ePlotFeatureVector) {
            long code = 0;
            lot_->GetPlotFeatureUnits(ePlotFeatureV, cunits, code);
        }
        // The key shows three decimals: a mean field flat to the nanometre
        // in micrometres reads as one number, so it goes to nanometres.
        long mcode = -1;
        std::string mtext;
        meanLot_->GetPlotFeatureUnits(meanLot_->PlotFeature(), mtext, mcode);
        if (RawStats r = RawFeatureStats(*meanLot_, {}, meanLot_->PlotFeature(), eFitted);
            r.points > 0 && r.max - r.min < 0.1 && mcode == eUnitsMicron) {
            meanLot_->forEachLive([&](cWafer&, cField&, cSite&, cPoint& pt) {
                for (int k : {eRaw, eFitted}) {
                    float* v = pt.FeatureSlot(meanLot_->PlotFeature(), k);
                    if (v && !IsMissing(*v)) *v *= 1000.0f;
                }
            });
            meanLot_->PlotFeatureUnits(eUnitsNm);
            cunits = UnitName(eUnitsNm);
        }
        std::string t;
        t.append(lot_->LotName).append(": mean field of ").append(fname);
        if (!cunits.empty()) t.append(" (").append(cunits).append(")");
        t.append(" on ").append(label);
        g.TitleObj.TitleString = t;
        st = g.LotData(meanLot_);
        sheets = kRawMeanSurface;
        break;
    }
    case kXYplot: {
        SetStatusText("XYplot data setup...");
        const Datam t = XYSeriesTable(*lot_, key, f, dt, label);
        st = g.RegisterData(t);
        if (!st) break;
        const struct {
            const char* name;
            int x, y;
            SymbolShape sym;
            bool connect;
        } series[] = {{"HorizSeries", 1, 2, SymbolShape::Circle, false},
                      {"VertSeries", 3, 4, SymbolShape::TriangleUp, false},
                      {"MeanSeries", 5, 6, SymbolShape::None, true}};
        for (const auto& s : series) {
            cSeries& c = g.Series.Add(s.name);
            c.Xcol = s.x;
            c.Ycol = s.y;
            c.Symbol = s.sym;
            c.Connect = s.connect;
        }
        std::string xl;
        xl.append("Horizontal postion(mm) on ").append(label).append(" / Vertical position(mm) on ").append(label);
        g.Axes.Add("X").Label = xl;
        std::string yl = fname;
        if (!units.empty()) yl.append(" (").append(units).append(")");
        g.Axes.Add("Y").Label = yl;
        g.Axes.Item("Y")->PlotGridline = true;
        g.TitleObj.TitleString = title;
        sheets = kRawXYSeries;
        break;
    }
    default: break;
    }
    plotSheets_ = st ? sheets : 0;
    if (!st) {
        Report(st.failure());
        return false;
    }
    return true;
}

bool MetrologyPanel::writePlotData() {
    if (!lot_ || !workbook_ || !plotSheets_) {
        SetStatusText("No plot data to write.");
        return false;
    }
    const BusyPointer busy;
    SetStatusText("Writing plot data ...");
    if (Status st = SaveRawAnalysisSheets(*lot_, workbook_, waferKey(), feature(), dataType(), plotSheets_); !st) {
        Report(st.failure());
        return false;
    }
    SetStatusText("Plot data written to the workbook.");
    return true;
}

void MetrologyPanel::afterCull() {
    tabMetrology();
    emit cullsChanged();
}

void MetrologyPanel::cullSelection(bool restore) {
    const int plot = tabMetrology_->currentIndex();
    if (!lot_ || (plot != kWafer && plot != kField && plot != kFieldResiduals)) return;
    ChartView* v = view(plot);
    const QRectF box = v->selectedValues();
    if (box.isNull()) {
        SetStatusText("Drag a box on the map first.");
        return;
    }
    Result<long> r = plot == kWafer
                         ? CullWaferRect(*lot_, box.left(), box.top(), box.right(), box.bottom(), restore, waferKey())
                         : CullFieldRect(*lot_, box.left(), box.top(), box.right(), box.bottom(), restore, waferKey());
    v->clearSelection();
    if (!r) {
        Report(r.failure());
        return;
    }
    std::string m = restore ? "Culls restored: " : "Sites culled: ";
    m.append(std::to_string(*r));
    SetStatusText(m);
    afterCull();
}

void MetrologyPanel::cullWafer() {
    if (!lot_) return;
    const std::string key = waferKey();
    if (key.empty()) {
        MsgBox("Choose a wafer in the list to cull it.", vbOKOnly | vbInformation, "Cull Wafer");
        return;
    }
    std::string m = "Sites culled: ";
    m.append(std::to_string(CullWaferSites(*lot_, key)));
    SetStatusText(m);
    for (ChartView* v : views_) v->clearSelection();
    afterCull();
}

void MetrologyPanel::restoreAll() {
    if (!lot_) return;
    CullLevels levels;
    levels.wafers = false;  // wafer culls belong to the workbenches' selections
    std::string m = "Culls restored: ";
    m.append(std::to_string(ResetCulls(*lot_, levels)));
    SetStatusText(m);
    for (ChartView* v : views_) v->clearSelection();
    afterCull();
}

void MetrologyPanel::resetCulls() { restoreAll(); }

void MetrologyPanel::cullRadius() {
    if (!lot_) return;
    double r = 0;
    if (!readNumber(txtCullRadius_, r)) return;
    if (r <= 0) {
        SetStatusText("Enter a radius in mm.");
        return;
    }
    std::string message;
    Result<long> n = CullRadius(*lot_, r, 0, 0, &message);
    if (!n) {
        Report(n.failure());
        return;
    }
    std::string m = "Sites culled: ";
    m.append(message.empty() ? std::to_string(*n) : message);
    SetStatusText(m);
    afterCull();
}

}  // namespace zorv::ui
