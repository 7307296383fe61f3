#include "ui/frm_template_maintenance.h"

#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSplitter>
#include <QTabWidget>
#include <QTableWidget>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <array>
#include <vector>

#include "base/proc.h"
#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "calib/template_library.h"
#include "graphics/chart.h"
#include "lot/lot.h"
#include "ui/chart_view.h"
#include "ui/grid_fill.h"
#include "ui/qtext.h"

namespace zorv::ui {

namespace {

constexpr const char* kLoadTitle = "Zorv Template Maintenance";
constexpr const char* kSaveTitle = "Zorving templates";

// Library list columns.
enum LibCol { kLibName = 0, kLibDataSet, kLibCreated, kLibModified, kLibSites, kLibSets, kLibComment, kLibCols };

// A single for reading: seven significant digits, no exponent for plain
// values ("20", "-5000", "0.02809").
std::string Num(float v) { return S(QString::number(static_cast<double>(v), 'g', 7)); }

// "[Dose,NA,PCouter,PCinnter]: [" values "]", the values in the order the
// label names them.
std::string SetCaption(float dose, float na, float pcInner, float pcOuter) {
    std::string t = "[Dose,NA,PCouter,PCinnter]: [";
    t.append(Num(dose)).append(",").append(Num(na)).append(",").append(Num(pcOuter)).append(",");
    t.append(Num(pcInner)).append("]");
    return t;
}

// The sites as a table, header row 0, one row per site in the template's order.
Datam SiteTable(const cTemplate& t) {
    static const char* heads[] = {"Site",    "Key",     "Dose",   "NA",     "PCinner", "PCouter",
                                  "X (um)",  "Y (um)",  "OffsetX", "OffsetXse", "OffsetY", "OffsetYse",
                                  "SlopeX",  "SlopeXse", "SlopeY", "SlopeYse", "X2nd",   "Y2nd",
                                  "X3rd",    "Y3rd",    "X4th",   "Y4th"};
    constexpr int kCols = static_cast<int>(sizeof heads / sizeof heads[0]) - 1;
    Datam d(t.sites.Count(), kCols);
    for (int c = 0; c <= kCols; ++c) d(0, c) = Value(std::string(heads[c]));
    int r = 0;
    for (const cSiteCal* s : t.sites) {
        ++r;
        d(r, 0) = Value(static_cast<int32_t>(s->Number));
        d(r, 1) = Value(s->NumberKey);
        const float v[] = {s->Dose,    s->NA,      s->PCinner, s->PCouter,  s->LocationX, s->LocationY,
                           s->OffsetX, s->OffsetXse, s->OffsetY, s->OffsetYse, s->SlopeX,   s->SlopeXse,
                           s->SlopeY,  s->SlopeYse, s->X2nd,   s->Y2nd,     s->X3rd,      s->Y3rd,
                           s->X4th,    s->Y4th};
        for (int c = 0; c < kCols - 1; ++c) d(r, c + 2) = Value(v[c]);
    }
    return d;
}

// The rows and columns of a best focus set in one table: "Line" ("Row" or
// "Column"), then the columns of GetRowData.
Datam SetTable(const cBestFocus& b) {
    const Datam rows = b.GetRowData(), cols = b.GetColData();
    const int n = b.CalRows.Count() + b.CalColumns.Count();
    Datam d(n, 8);
    d(0, 0) = Value(std::string("Line"));
    d(0, 1) = Value(std::string("Location (mm)"));
    for (int c = 1; c <= 7; ++c) d(0, c + 1) = rows(0, c);
    int r = 0;
    auto copy = [&](const Datam& src, int count, const char* what) {
        for (int i = 1; i <= count; ++i) {
            ++r;
            d(r, 0) = Value(std::string(what));
            for (int c = 0; c <= 7; ++c) d(r, c + 1) = src(i, c);
        }
    };
    copy(rows, b.CalRows.Count(), "Row");
    copy(cols, b.CalColumns.Count(), "Column");
    return d;
}

// Each site's focus at zero image shift as arrows (X focus vertical feature,
// Y focus horizontal) over the field of the first exposure set.
Status SitesFocusChart(cTemplate& t, const Datam& exposures, cGraphic& g) {
    g.Kind = GraphKind::FieldVector;
    g.WaferKey = "1";
    g.FieldKey = "W1F1";
    g.MapAllFields = false;
    std::string title = "Best Focus: ";
    title.append(t.NameTemplate).append("  ");
    title.append(SetCaption(exposures(1, 1).toSingle(), exposures(1, 2).toSingle(), exposures(1, 3).toSingle(),
                            exposures(1, 4).toSingle()));
    g.TitleObj.TitleString = title;
    return g.LotData(t.GetLot());
}

// The focus (piston, um) of each row and column of a best focus set along
// its location (mm), with its standard error as bars.
Status BestFocusSetChart(const cBestFocus& b, cGraphic& g) {
    struct Line {
        float at, focus, se;
    };
    auto lines = [](const auto& coll) {
        std::vector<Line> v;
        for (const cCalLine* l : coll) v.push_back({l->Location, l->Piston, l->PistonSE});
        std::sort(v.begin(), v.end(), [](const Line& x, const Line& y) { return x.at < y.at; });
        return v;
    };
    const std::vector<Line> rows = lines(b.CalRows), cols = lines(b.CalColumns);
    Datam t(static_cast<int>(rows.size() + cols.size()), 5, 0, 1);
    const char* heads[] = {"Location (mm)", "Rows", "RowsSE", "Columns", "ColumnsSE"};
    for (int c = 0; c < 5; ++c) t(0, c + 1) = Value(heads[c]);
    int r = 0;
    for (const Line& l : rows) {
        ++r;
        t(r, 1) = Value(l.at), t(r, 2) = Value(l.focus), t(r, 3) = Value(l.se);
    }
    for (const Line& l : cols) {
        ++r;
        t(r, 1) = Value(l.at), t(r, 4) = Value(l.focus), t(r, 5) = Value(l.se);
    }
    if (Status st = g.RegisterData(t); !st) return st;
    g.KeyName = "kBestFocusSet";
    g.TitleObj.TitleString = SetCaption(b.Dose, b.NA, b.PCinner, b.PCouter);
    g.Axes.Add("X").Label = "Location (mm)";
    cAxis& ay = g.Axes.Add("Y");
    ay.Label = "Focus (um)";
    ay.TickFormat = "####0.000";
    const Color colors[] = {RGB(0, 0, 255), RGB(200, 0, 0)};
    const SymbolShape shapes[] = {SymbolShape::FilledCircle, SymbolShape::FilledSquare};
    for (int k = 0; k < 2; ++k) {
        if ((k == 0 ? rows : cols).empty()) continue;
        cSeries& s = g.Series.Add(heads[1 + 2 * k]);
        s.Xcol = 1, s.Ycol = 2 + 2 * k;
        s.YerrCol1 = s.YerrCol2 = 3 + 2 * k;
        s.ColorFore = colors[k];
        s.Symbol = shapes[k];
    }
    return StatusOk();
}

QString CellText(const Value& v) {
    if (v.isNumberType() && !v.isBool()) {
        if (v.type() == VType::Integer || v.type() == VType::Long) return QString::number(v.toLong());
        return Q(Num(v.toSingle()));
    }
    return Q(v.toString());
}

QPushButton* Button(const QString& text, const char* name, const QString& tip, QWidget* parent) {
    auto* b = new QPushButton(text, parent);
    b->setObjectName(name);
    b->setToolTip(tip);
    return b;
}

}  // namespace

// ------------------------------------------------------------------ window

frmTemplateMaintenance::frmTemplateMaintenance(QWidget* parent, const QString& libraryFolder)
    : ZorvForm("frmTemplateMaintenance", kLoadTitle, parent) {
    if (libraryFolder.isEmpty()) {
        lib_ = &TemplateLibrary();
    } else {
        ownLib_ = std::make_unique<cTemplateLibrary>(S(libraryFolder));
        lib_ = ownLib_.get();
    }
    setMinimumSize(760, 480);
    resize(1240, 780);

    tabTM_ = new QTabWidget(contentArea());
    tabTM_->setObjectName("tabTM");
    tabTM_->addTab(buildTemplateTab(), tr("Template"));
    tabTM_->addTab(buildLibraryTab(), tr("Library"));
    contentLayout()->addWidget(tabTM_);
}

frmTemplateMaintenance::~frmTemplateMaintenance() {
    if (chtTemplate_) chtTemplate_->setGraphic(nullptr);
}

frmTemplateMaintenance* frmTemplateMaintenance::Open(QWidget* parent, const QString& libraryFolder) {
    auto* f = new frmTemplateMaintenance(parent, libraryFolder);
    f->Load();
    if (f->isUnloaded()) return nullptr;
    f->show();
    return f;
}

QString frmTemplateMaintenance::libraryFilePath() const { return Q(lib_->FilePath()); }

QWidget* frmTemplateMaintenance::buildTemplateTab() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    auto* top = new QHBoxLayout;
    top->addWidget(new QLabel(tr("Template:"), page));
    cmbTemplate_ = new QComboBox(page);
    cmbTemplate_->setObjectName("cmbTemplate");
    cmbTemplate_->setMinimumWidth(260);
    cmbTemplate_->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    top->addWidget(cmbTemplate_);
    top->addStretch(1);
    v->addLayout(top);
    connect(cmbTemplate_, &QComboBox::currentIndexChanged, this, [this] {
        if (!filling_) cmdTemplate();
    });

    auto* split = new QSplitter(Qt::Horizontal, page);
    split->setObjectName("splTemplate");
    v->addWidget(split, 1);

    // Left: the template's fields and its sites.
    auto* left = new QWidget(split);
    auto* lv = new QVBoxLayout(left);
    lv->setContentsMargins(0, 0, 4, 0);
    auto* box = new QGroupBox(tr("Template"), left);
    auto* form = new QFormLayout(box);
    auto label = [box](const char* name) {
        auto* l = new QLabel(box);
        l->setObjectName(name);
        l->setTextInteractionFlags(Qt::TextSelectableByMouse);
        return l;
    };
    lblName_ = label("lblName");
    lblDataSet_ = label("lblDataSet");
    lblReticle_ = label("lblReticle");
    lblDateCreated_ = label("lblDateCreated");
    lblDateModified_ = label("lblDateModified");
    lblSites_ = label("lblSites");
    lblComment_ = label("lblComment");
    lblComment_->setWordWrap(true);
    lblComment_->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    form->addRow(tr("Name:"), lblName_);
    form->addRow(tr("Data set:"), lblDataSet_);
    form->addRow(tr("Reticle:"), lblReticle_);
    form->addRow(tr("Created:"), lblDateCreated_);
    form->addRow(tr("Modified:"), lblDateModified_);
    form->addRow(tr("Sites:"), lblSites_);
    form->addRow(tr("Comment:"), lblComment_);
    lv->addWidget(box);
    auto* sitesLabel = new QLabel(tr("Sites: focus = offset + slope x shift + ... (X vertical, Y horizontal feature)"), left);
    sitesLabel->setWordWrap(true);
    lv->addWidget(sitesLabel);
    tblSites_ = new QTableWidget(left);
    tblSites_->setObjectName("tblSites");
    tblSites_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    tblSites_->verticalHeader()->setVisible(false);
    tblSites_->setAlternatingRowColors(true);
    lv->addWidget(tblSites_, 1);

    // Right: the best focus, as a chart and a table.
    auto* right = new QWidget(split);
    auto* rv = new QVBoxLayout(right);
    rv->setContentsMargins(4, 0, 0, 0);
    auto* pick = new QHBoxLayout;
    pick->addWidget(new QLabel(tr("Display:"), right));
    cmbDisplayData_ = new QComboBox(right);
    cmbDisplayData_->setObjectName("cmbDisplayData");
    cmbDisplayData_->setMinimumWidth(240);
    cmbDisplayData_->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    pick->addWidget(cmbDisplayData_);
    pick->addStretch(1);
    rv->addLayout(pick);
    connect(cmbDisplayData_, &QComboBox::currentIndexChanged, this, [this](int i) {
        if (!filling_) showDisplayData(i);
    });
    chtTemplate_ = new ChartView(right);
    chtTemplate_->setObjectName("chtTemplate");
    rv->addWidget(chtTemplate_, 5);
    tblDisplayData_ = new QTableWidget(right);
    tblDisplayData_->setObjectName("tblDisplayData");
    tblDisplayData_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    tblDisplayData_->verticalHeader()->setVisible(false);
    tblDisplayData_->setAlternatingRowColors(true);
    rv->addWidget(tblDisplayData_, 2);

    split->addWidget(left);
    split->addWidget(right);
    split->setStretchFactor(0, 2);
    split->setStretchFactor(1, 3);
    split->setSizes({480, 720});
    return page;
}

QWidget* frmTemplateMaintenance::buildLibraryTab() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    lblLibraryFile_ = new QLabel(page);
    lblLibraryFile_->setObjectName("lblLibraryFile");
    lblLibraryFile_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    lblLibraryFile_->setText(tr("Library: %1").arg(libraryFilePath()));
    v->addWidget(lblLibraryFile_);

    lstLibrary_ = new QTreeWidget(page);
    lstLibrary_->setObjectName("lstLibrary");
    lstLibrary_->setRootIsDecorated(false);
    lstLibrary_->setAlternatingRowColors(true);
    lstLibrary_->setUniformRowHeights(true);
    lstLibrary_->setHeaderLabels({tr("Name"), tr("Data set"), tr("Created"), tr("Modified"), tr("Sites"),
                                  tr("Best focus sets"), tr("Comment")});
    // The comment takes the room that is left.
    lstLibrary_->header()->setStretchLastSection(true);
    lstLibrary_->header()->setSectionResizeMode(QHeaderView::Interactive);
    v->addWidget(lstLibrary_, 1);
    connect(lstLibrary_, &QTreeWidget::currentItemChanged, this, [this](QTreeWidgetItem* item) {
        if (filling_ || !item) return;
        const int i = cmbTemplate_->findText(item->text(kLibName), Qt::MatchFixedString);
        if (i >= 0 && i != cmbTemplate_->currentIndex()) cmbTemplate_->setCurrentIndex(i);
    });

    auto* box = new QGroupBox(tr("Selected template"), page);
    auto* form = new QFormLayout(box);
    txtSaveAs_ = new QLineEdit(box);
    txtSaveAs_->setObjectName("txtSaveAs");
    txtSaveAs_->setToolTip(tr("The template's name; a new name here saves a copy (Save) or renames it (Rename)."));
    form->addRow(tr("Name:"), txtSaveAs_);
    txtComment_ = new QPlainTextEdit(box);
    txtComment_->setObjectName("txtComment");
    txtComment_->setTabChangesFocus(true);
    txtComment_->setFixedHeight(90);
    form->addRow(tr("Comment:"), txtComment_);
    auto* buttons = new QHBoxLayout;
    cmdSave_ = Button(tr("&Save"), "cmdSaveCalTemplate",
                      tr("Saves the comment; with a new name, saves a copy of the template under that name."), box);
    cmdRename_ = Button(tr("&Rename"), "cmdSaveAs", tr("Gives the template the new name, saves and closes."), box);
    cmdDelete_ = Button(tr("&Delete"), "cmdDeleteCalTemplate", tr("Removes the template from the library."), box);
    buttons->addWidget(cmdSave_);
    buttons->addWidget(cmdRename_);
    buttons->addStretch(1);
    buttons->addWidget(cmdDelete_);
    form->addRow(buttons);
    v->addWidget(box);
    connect(cmdSave_, &QPushButton::clicked, this, [this] { cmdSaveCalTemplate(); });
    connect(cmdRename_, &QPushButton::clicked, this, [this] { cmdSaveAs(); });
    connect(cmdDelete_, &QPushButton::clicked, this, [this] { cmdDeleteCalTemplate(); });
    return page;
}

// ------------------------------------------------------------------ load

void frmTemplateMaintenance::formLoad() {
    Status st = lib_->FileGet();
    if (!st) {
        // What did read is shown; the file is never saved over from it.
        readOnly_ = true;
        Report(st.failure());
    }
    if (CalledFromCalibrate && !CallerTemplate) MsgBox("No calibrations have been performed.'", vbInformation, kLoadTitle);
    if (lib_->Count() == 0 && !CallerTemplate) {
        MsgBox("There are not any templates stored in the library.", vbInformation, kLoadTitle);
        Unload();
        return;
    }
    if (readOnly_) lblLibraryFile_->setText(tr("Library (read only: it did not read completely): %1").arg(libraryFilePath()));
    refill(CallerTemplate ? CallerTemplate->NameTemplate : std::string());
}

// ------------------------------------------------------------------ lists

std::shared_ptr<cTemplate> frmTemplateMaintenance::find(const std::string& name) const {
    if (CallerTemplate && IEquals(CallerTemplate->NameTemplate, name)) return CallerTemplate;
    for (const auto& t : lib_->Templates())
        if (IEquals(t->NameTemplate, name)) return t;
    return nullptr;
}

bool frmTemplateMaintenance::inLibrary(const std::shared_ptr<cTemplate>& t) const {
    const auto& all = lib_->Templates();
    return t && std::find(all.begin(), all.end(), t) != all.end();
}

void frmTemplateMaintenance::refill(const std::string& select) {
    filling_ = true;
    cmbTemplate_->clear();
    lstLibrary_->clear();
    // The caller's template stands for its name while it is held.
    if (CallerTemplate && !inLibrary(CallerTemplate)) cmbTemplate_->addItem(Q(CallerTemplate->NameTemplate));
    for (const auto& t : lib_->Templates()) {
        const bool shadowed = CallerTemplate && t != CallerTemplate && IEquals(t->NameTemplate, CallerTemplate->NameTemplate);
        if (!shadowed) cmbTemplate_->addItem(Q(t->NameTemplate));
        auto* item = new QTreeWidgetItem(lstLibrary_);
        item->setText(kLibName, Q(t->NameTemplate));
        item->setText(kLibDataSet, Q(t->DataSetName));
        item->setText(kLibCreated, Q(TemplateDateText(t->DateCreated)));
        item->setText(kLibModified, Q(TemplateDateText(t->DateModified)));
        item->setText(kLibSites, QString::number(t->sites.Count()));
        item->setText(kLibSets, QString::number(t->BestFocusSets.Count()));
        item->setTextAlignment(kLibSites, Qt::AlignRight | Qt::AlignVCenter);
        item->setTextAlignment(kLibSets, Qt::AlignRight | Qt::AlignVCenter);
        const QString comment = Q(t->Comment).replace("\r\n", "\n");
        item->setText(kLibComment, comment.section('\n', 0, 0));
        item->setToolTip(kLibName, comment);
        item->setToolTip(kLibComment, comment);
    }
    // Columns fitted to what they hold, with a little air between them.
    for (int c = kLibName; c < kLibComment; ++c) {
        lstLibrary_->resizeColumnToContents(c);
        lstLibrary_->setColumnWidth(c, lstLibrary_->columnWidth(c) + 18);
    }
    int i = select.empty() ? -1 : cmbTemplate_->findText(Q(select), Qt::MatchFixedString);
    if (i < 0 && cmbTemplate_->count() > 0) i = 0;
    cmbTemplate_->setCurrentIndex(i);
    filling_ = false;
    cmdTemplate();
}

void frmTemplateMaintenance::selectInLibrary(const std::string& name) {
    const bool was = filling_;
    filling_ = true;
    lstLibrary_->setCurrentItem(nullptr);
    for (int i = 0; i < lstLibrary_->topLevelItemCount(); ++i) {
        QTreeWidgetItem* item = lstLibrary_->topLevelItem(i);
        if (IEquals(S(item->text(kLibName)), name)) {
            lstLibrary_->setCurrentItem(item);
            break;
        }
    }
    filling_ = was;
}

// ------------------------------------------------------------------ showing

bool frmTemplateMaintenance::cmdTemplate() {
    const std::string name = S(cmbTemplate_->currentText());
    SetStatusText("Getting template: " + name);
    tpl_ = name.empty() ? nullptr : find(name);
    if (!tpl_) {
        clearTemplate();
        SetStatusText("");
        return false;
    }
    showTemplate();
    SetStatusText("Best Focus items update ...");
    filling_ = true;
    cmbDisplayData_->clear();
    cmbDisplayData_->addItem("Best Focus");
    for (const cBestFocus* b : tpl_->BestFocusSets) cmbDisplayData_->addItem(Q("BestFocus: " + b->KeyName));
    cmbDisplayData_->setCurrentIndex(0);
    filling_ = false;
    showDisplayData(0);
    SetStatusText("");
    return true;
}

void frmTemplateMaintenance::clearTemplate() {
    for (QLabel* l : {lblName_, lblDataSet_, lblReticle_, lblDateCreated_, lblDateModified_, lblSites_, lblComment_})
        l->clear();
    tblSites_->clear();
    tblSites_->setRowCount(0);
    tblSites_->setColumnCount(0);
    tblDisplayData_->clear();
    tblDisplayData_->setRowCount(0);
    tblDisplayData_->setColumnCount(0);
    filling_ = true;
    cmbDisplayData_->clear();
    filling_ = false;
    chtTemplate_->setGraphic(nullptr);
    chart_.reset();
    txtSaveAs_->clear();
    txtComment_->clear();
    setWriteEnabled();
}

void frmTemplateMaintenance::showTemplate() {
    const cTemplate& t = *tpl_;
    QString name = Q(t.NameTemplate);
    if (!inLibrary(tpl_)) name += tr("   (not saved in the library)");
    lblName_->setText(name);
    lblDataSet_->setText(Q(t.DataSetName));
    lblReticle_->setText(Q(t.ReticleName));
    lblDateCreated_->setText(Q(TemplateDateText(t.DateCreated)));
    lblDateModified_->setText(Q(TemplateDateText(t.DateModified)));
    int exposures = 0;
    (void)t.GetUniqueExposures(exposures);
    lblSites_->setText(tr("%1 in %2 exposure set(s), %3 best focus set(s)")
                           .arg(t.sites.Count())
                           .arg(exposures)
                           .arg(t.BestFocusSets.Count()));
    QString comment = Q(t.Comment);
    comment.replace("\r\n", "\n");
    lblComment_->setText(comment);
    FillGrid(tblSites_, SiteTable(t), CellText);
    txtSaveAs_->setText(Q(t.NameTemplate));
    txtComment_->setPlainText(comment);
    selectInLibrary(t.NameTemplate);
    setWriteEnabled();
}

void frmTemplateMaintenance::showDisplayData(int index) {
    chtTemplate_->setGraphic(nullptr);
    chart_ = std::make_unique<cGraphic>();
    if (!tpl_ || index < 0) return;
    Status st = StatusOk();
    bool drawn = false;
    if (index == 0) {
        int count = 0;
        const Datam exposures = tpl_->GetUniqueExposures(count);
        FillGrid(tblDisplayData_, exposures, CellText);
        drawn = count > 0;
        if (drawn) st = SitesFocusChart(*tpl_, exposures, *chart_);
    } else if (const cBestFocus* b = tpl_->BestFocusSets.Item(index)) {
        FillGrid(tblDisplayData_, SetTable(*b), CellText);
        drawn = b->CalRows.Count() + b->CalColumns.Count() > 0;
        if (drawn) st = BestFocusSetChart(*b, *chart_);
    }
    if (!st) {
        Report(st.failure());
        chart_ = std::make_unique<cGraphic>();
        return;
    }
    if (!drawn) return;
    chtTemplate_->setGraphic(chart_.get());
    chtTemplate_->render();
}

// ------------------------------------------------------------------ writing

std::string frmTemplateMaintenance::commentText() const {
    QString c = txtComment_->toPlainText();
    // The file keeps CR LF between the lines of a comment.
    c.replace("\r\n", "\n");
    c.replace('\r', '\n');
    while (c.endsWith('\n')) c.chop(1);
    c.replace("\n", "\r\n");
    return S(c);
}

void frmTemplateMaintenance::setWriteEnabled() {
    const bool on = tpl_ && !readOnly_;
    cmdSave_->setEnabled(on);
    cmdRename_->setEnabled(on);
    cmdDelete_->setEnabled(on && inLibrary(tpl_));
}

bool frmTemplateMaintenance::mayWrite(const std::string& name, std::shared_ptr<cTemplate>& other) {
    other.reset();
    if (!tpl_) {
        MsgBox("Template not created.", vbExclamation, kSaveTitle);
        return false;
    }
    if (readOnly_) {
        std::string text = "The template library did not read completely and is not saved over:\r\n";
        text.append(lib_->FilePath());
        MsgBox(text, vbExclamation, kSaveTitle);
        return false;
    }
    if (Q(name).size() < 2) {
        MsgBox("Improper template name: " + name, vbExclamation, kSaveTitle);
        return false;
    }
    for (const auto& t : lib_->Templates())
        if (t != tpl_ && IEquals(t->NameTemplate, name)) other = t;
    if (other) {
        std::string q = "A template of that name is in the library: ";
        q.append(other->NameTemplate).append("\r\nReplace it?");
        if (MsgBox(q, vbYesNo | vbQuestion, kSaveTitle) != vbYes) return false;
    }
    return true;
}

bool frmTemplateMaintenance::saveUnderOwnName(const std::string& name) {
    bool saved = false;
    Result<bool> r = tpl_->SaveTemplate(name, lib_);
    if (r.ok())
        saved = *r;
    else
        Report(r.failure());
    if (saved) {
        // The library holds the saved one now (Update may have copied onto
        // a stored template of that name).
        std::shared_ptr<cTemplate> stored;
        for (const auto& t : lib_->Templates())
            if (IEquals(t->NameTemplate, name)) stored = t;
        if (CallerTemplate && (CallerTemplate == tpl_ || IEquals(CallerTemplate->NameTemplate, name)))
            CallerTemplate = stored;
        if (stored) tpl_ = stored;
        refill(name);
    }
    std::string status;
    if (saved)
        status.append("Template Saved: ").append(name);
    else
        status.append("Template ").append(name).append(" NOT Saved");
    SetStatusText(status);
    return saved;
}

bool frmTemplateMaintenance::cmdSaveCalTemplate() {
    const std::string name = S(txtSaveAs_->text().trimmed());
    std::shared_ptr<cTemplate> other;
    if (!mayWrite(name, other)) return false;
    const std::string comment = commentText();
    if (name == tpl_->NameTemplate) {
        tpl_->Comment = comment;
        return saveUnderOwnName(name);
    }
    // A new name: a copy takes it and becomes the window's template.
    std::shared_ptr<cTemplate> source = tpl_;
    tpl_ = source->clone();
    tpl_->NameTemplate = name;
    tpl_->Comment = comment;
    if (saveUnderOwnName(name)) return true;
    tpl_ = source;
    return false;
}

bool frmTemplateMaintenance::cmdSaveAs() {
    const std::string name = S(txtSaveAs_->text().trimmed());
    std::shared_ptr<cTemplate> other;
    if (!mayWrite(name, other)) return false;
    const std::string oldName = tpl_->NameTemplate, oldComment = tpl_->Comment;
    // The template of the other name goes: a rename leaves one template per name.
    if (other) lib_->Remove(other->NameTemplate, true);
    tpl_->NameTemplate = name;
    tpl_->Comment = commentText();
    std::string status = name;
    status.append(" Saving calibration template ...");
    SetStatusText(status);
    filling_ = true;
    cmbTemplate_->setItemText(cmbTemplate_->currentIndex(), Q(name));
    filling_ = false;
    if (!saveUnderOwnName(name)) {
        tpl_->NameTemplate = oldName;
        tpl_->Comment = oldComment;
        return false;
    }
    Unload();
    return true;
}

bool frmTemplateMaintenance::cmdDeleteCalTemplate() {
    if (!tpl_) {
        MsgBox("Template not created.", vbExclamation, kSaveTitle);
        return false;
    }
    if (readOnly_) {
        std::shared_ptr<cTemplate> none;
        return mayWrite(tpl_->NameTemplate, none);
    }
    const std::string name = tpl_->NameTemplate;
    SetStatusText("Removing template: " + name);
    // RemoveCalTemplate
    const int removed = lib_->Remove(name, false);
    if (removed != 1) {
        if (inLibrary(tpl_)) SetStatusText("");
        return false;
    }
    SetStatusText("Saving updated library...");
    Status st = lib_->FileSave();
    if (!st) Report(st.failure());
    if (CallerTemplate == tpl_) CallerTemplate.reset();
    tpl_.reset();
    refill({});
    std::string status = "Template";
    status.append(name).append("removed");
    SetStatusText(status);
    if (cmbTemplate_->count() == 0) MsgBox("Template not created.", vbExclamation, kSaveTitle);
    return st.ok();
}

}  // namespace zorv::ui
