// The main window's exposure tool tab: the tool picked by name from the
// library, its lens, illumination and field values, and the library saved
// from the fields.
#pragma once

#include <QWidget>
#include <map>
#include <string>

#include "layout/tool_library.h"

class QComboBox;
class QLineEdit;

namespace zorv::ui {

class ExpoToolPanel : public QWidget {
    Q_OBJECT
public:
    explicit ExpoToolPanel(QWidget* parent = nullptr);

    // The tab's click: the library brought in, its tools listed and the
    // settings' tool shown. False (after the box) when it cannot be opened.
    bool bringInLibrary(const std::string& path = {});
    // The fields as a tool, and a tool into the fields.
    ExpoTool fields() const;
    void setFields(const ExpoTool& tool);

public slots:
    // frmMain(UpdateExpoToolFromLibrary) for the tool named in cmbExpoTool.
    bool loadTool();
    // frmMain(SaveExpoTool2Library): the fields stored under cmbExpoTool's
    // name, and kept as the "ToolSettings" the next start shows.
    bool saveTool();

private:
    QComboBox* cmbExpoTool_ = nullptr;
    // One editor per library row but the name: a combo where the row has a
    // list (type, substrate, notch, reduction, wavelength), else a line.
    std::map<std::string, QWidget*> editors_;
};

}  // namespace zorv::ui
