#include "ui/expo_tool_panel.h"

#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>
#include <vector>

#include "app/preferences.h"
#include "app/settings.h"
#include "base/report.h"
#include "ui/qtext.h"

namespace zorv::ui {

namespace {


// The lists some rows choose from; the combos stay editable for other values.
const std::map<std::string, QStringList>& RowLists() {
    static const std::map<std::string, QStringList> lists = {
        {"Tool Type", {"SCANNER", "STEPPER"}},
        {"Substrate", {"50", "75", "100", "125", "150", "200", "225", "250", "300", "325"}},
        {"Notch", {"UP", "DOWN", "LEFT", "RIGHT"}},
        {"Reduction", {"1", "2", "2.5", "4", "5", "10"}},
        {"Wavelength", {"13.5", "157", "193", "248", "365", "436"}},
    };
    return lists;
}

// A control's name from its row: "FieldSizeX" -> "txtFieldSizeX", "Tool Type" -> "cmbToolType".
QString ControlName(const std::string& key, bool combo) {
    QString k = Q(key);
    k.remove(' ');
    return (combo ? "cmb" : "txt") + k;
}

}  // namespace

ExpoToolPanel::ExpoToolPanel(QWidget* parent) : QWidget(parent) {
    setObjectName("fraExposureTool");
    // Three groups side by side: the tool, its optics, its field; numbers
    // need no more than a short box each.
    struct Group {
        QString title;
        std::vector<std::string> keys;
    };
    const Group groups[] = {
        {tr("Tool"), {"Exposure Tool", "Tool Type", "Substrate", "Notch", "Reduction"}},
        {tr("Lens and illumination"), {"NA", "PCinner", "PCouter", "Wavelength", "FocalLength"}},
        {tr("Field"), {"FieldSizeX", "FieldSizeY", "FieldCenterX", "FieldCenterY", "SubWidth", "SubHeight", "SubXoffset",
                       "SubYoffset"}},
    };
    auto* row = new QHBoxLayout;
    for (const Group& g : groups) {
        auto* box = new QGroupBox(g.title, this);
        auto* form = new QFormLayout(box);
        form->setFieldGrowthPolicy(QFormLayout::FieldsStayAtSizeHint);
        for (const std::string& key : g.keys) {
            QWidget* editor = nullptr;
            if (key == "Exposure Tool") {
                cmbExpoTool_ = new QComboBox(box);
                cmbExpoTool_->setObjectName("cmbExpoTool");
                cmbExpoTool_->setEditable(true);
                cmbExpoTool_->setMinimumContentsLength(16);
                form->addRow(tr("Exposure tool"), cmbExpoTool_);
                continue;
            }
            const auto list = RowLists().find(key);
            if (list != RowLists().end()) {
                auto* c = new QComboBox(box);
                c->setEditable(true);
                c->addItems(list->second);
                c->setMinimumContentsLength(10);
                editor = c;
            } else {
                auto* e = new QLineEdit(box);
                e->setMaximumWidth(e->fontMetrics().horizontalAdvance(QString(14, '0')));
                editor = e;
            }
            editor->setObjectName(ControlName(key, list != RowLists().end()));
            editors_[key] = editor;
            form->addRow(Q(key), editor);
        }
        row->addWidget(box, 0, Qt::AlignTop);
    }
    row->addStretch(1);
    auto* cmdLoad = new QPushButton(tr("Load from library"), this);
    cmdLoad->setObjectName("cmdLoadTool");
    auto* cmdSave = new QPushButton(tr("Save to library"), this);
    cmdSave->setObjectName("cmdSaveTool");
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(cmdLoad);
    buttons->addWidget(cmdSave);
    buttons->addStretch(1);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(row);
    layout->addLayout(buttons);
    layout->addStretch(1);
    connect(cmdLoad, &QPushButton::clicked, this, &ExpoToolPanel::loadTool);
    connect(cmdSave, &QPushButton::clicked, this, &ExpoToolPanel::saveTool);
    // Picking a tool of the list shows it.
    connect(cmbExpoTool_, &QComboBox::activated, this, [this](int) { loadTool(); });
}

ExpoTool ExpoToolPanel::fields() const {
    ExpoTool t;
    t["Exposure Tool"] = cmbExpoTool_->currentText().trimmed().toStdString();
    for (const auto& [key, w] : editors_) {
        if (auto* c = qobject_cast<QComboBox*>(w)) t[key] = c->currentText().trimmed().toStdString();
        else if (auto* e = qobject_cast<QLineEdit*>(w)) t[key] = e->text().trimmed().toStdString();
    }
    return t;
}

void ExpoToolPanel::setFields(const ExpoTool& tool) {
    cmbExpoTool_->setEditText(Q(tool.name()));
    for (const auto& [key, w] : editors_) {
        if (auto* c = qobject_cast<QComboBox*>(w)) c->setEditText(Q(tool.get(key)));
        else if (auto* e = qobject_cast<QLineEdit*>(w)) e->setText(Q(tool.get(key)));
    }
}

bool ExpoToolPanel::bringInLibrary(const std::string& path) {
    auto sheet = HeldToolLibrary(path);
    if (!sheet) {
        Report(sheet.failure());
        return false;
    }
    const ExpoTool current = ExpoToolFromSettings();
    cmbExpoTool_->clear();
    for (const std::string& n : ExpoToolNames(**sheet)) cmbExpoTool_->addItem(Q(n));
    setFields(current);
    SetStatusText("Ready");
    return true;
}

bool ExpoToolPanel::loadTool() {
    auto sheet = HeldToolLibrary();
    if (!sheet) {
        Report(sheet.failure());
        return false;
    }
    auto tool = UpdateExpoToolFromLibrary(*sheet, cmbExpoTool_->currentText().toStdString());
    if (!tool) {
        Report(tool.failure());
        return false;
    }
    setFields(*tool);
    return true;
}

bool ExpoToolPanel::saveTool() {
    auto sheet = HeldToolLibrary();
    if (!sheet) {
        Report(sheet.failure());
        return false;
    }
    const ExpoTool tool = fields();
    if (Status st = SaveExpoTool2Library(*sheet, tool); !st) {
        Report(st.failure());
        return false;
    }
    // The tool the next start shows.
    const std::string app = PreferenceApplication("ToolSettings");
    const auto& rows = ExpoToolRows();
    for (size_t i = 0; i < rows.size(); ++i) SaveSetting(app, "ToolSettings", rows[i].setting, tool.values[i]);
    if (cmbExpoTool_->findText(Q(tool.name()), Qt::MatchFixedString) < 0) cmbExpoTool_->addItem(Q(tool.name()));
    return true;
}

}  // namespace zorv::ui
