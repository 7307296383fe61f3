#include "ui/frm_calibrate.h"

#include <QVBoxLayout>

namespace zorv::ui {

frmCalibrate::frmCalibrate(QWidget* parent) : ZorvForm("frmCalibrate", "Zorv PSFM Calibrate", parent) {
    setMinimumSize(640, 420);
    contentLayout()->addWidget(emptySurface("pctCalibrate", tr("No lot loaded.\nLoad a data workbook to calibrate focus.")));
}
WindowPlace frmCalibrate::place() const { return {"PSFMformSize", ""}; }

}  // namespace zorv::ui
