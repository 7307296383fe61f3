// The main window's layout tab: the wafer's fields coloured by a layout
// variable with their values written in, the controls that compute the
// variable across the wafer from a start field, and the exposure boxes of
// the field last clicked.
#pragma once

#include <QStringList>
#include <QWidget>
#include <memory>
#include <string>

#include "base/datam.h"
#include "layout/layout_draw.h"

class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QListWidgetItem;
class QPushButton;

namespace zorv {
class cField;
class cLot;
class cWafer;
class Workbook;
}  // namespace zorv

namespace zorv::ui {

class LayoutPicture;

class LayoutPanel : public QWidget {
    Q_OBJECT
public:
    explicit LayoutPanel(QWidget* parent = nullptr);

    // The lot and its data workbook. The Layout sheet is rewritten in the
    // workbook in memory after each change; saving the file is the window's
    // business. nullptr: the empty grid, controls disabled.
    void setLot(std::shared_ptr<zorv::cLot> lot, zorv::Workbook* workbook);
    // The layout drawn anew with its status texts; the first call after
    // setLot also sets the wafer to wafer 1 and the variable to "Focus".
    void DisplayVariables();
    // The picture (objectName "pctLayout").
    QWidget* picture() const;

signals:
    // Local files dropped on the picture.
    void filesDropped(const QStringList& paths);
    // The lot's field values were changed (a calculate or a field edit).
    void layoutChanged();

private:
    void buildControls(QWidget* column);
    void fillLists();
    void enableControls(bool on);
    // The layout's picture and value list, from the lot and the table.
    void redraw();
    void render(Surface& s, double width, double height);
    // The shown wafer: the first of cmbWafer's choice.
    cWafer* shownWafer() const;
    std::string shownTableKey() const;
    // The start boxes to the corner of the chosen kind.
    void startAtCorner();
    // The controls from the shown wafer's last layout of the variable.
    void loadSettings();
    void calculate();
    void updateField();
    void selectField(int dieX, int dieY);
    // The field of the shown wafer under a point of the picture, and its die.
    const cField* fieldAtPoint(double x, double y, int& dieX, int& dieY) const;
    QString cellTip(double x, double y) const;
    void pictureClicked(double x, double y);
    void valueClicked(QListWidgetItem* item);
    void showSelectedField();
    // The Layout sheet rewritten in memory.
    void writeSheet();
    // A box that must hold a number: false (after the box) when it does not.
    bool numericBox(QLineEdit* box, const QString& caption, double& out);

    std::shared_ptr<cLot> lot_;
    Workbook* workbook_ = nullptr;
    Datam table_;  // the field table (FP data) the picture and the calculate use
    LayoutView view_;
    bool drawn_ = false;     // view_ holds the last drawing's grid
    bool fresh_ = true;      // no DisplayVariables since setLot
    bool selected_ = false;  // a field is selected
    int selX_ = 0, selY_ = 0;

    LayoutPicture* picture_ = nullptr;
    QComboBox *cmbVariable_ = nullptr, *cmbWafer_ = nullptr, *cmbStart_ = nullptr, *cmbMeander_ = nullptr;
    QLineEdit *txtInitial_ = nullptr, *txtStep_ = nullptr, *txtDieXo_ = nullptr, *txtDieYo_ = nullptr;
    QPushButton* cmdCalculate_ = nullptr;
    QListWidget* lstValues_ = nullptr;
    QLabel* lblField_ = nullptr;
    QLineEdit *txtFocus_ = nullptr, *txtDose_ = nullptr, *txtNA_ = nullptr, *txtPCinner_ = nullptr,
              *txtPCouter_ = nullptr;
    QComboBox* cmbDirection_ = nullptr;
    QPushButton* cmdUpdateField_ = nullptr;
    QList<QWidget*> controls_;
};

}  // namespace zorv::ui
