#include "ui/frm_analysis.h"

#include <QVBoxLayout>

namespace zorv::ui {

frmAnalysis::frmAnalysis(QWidget* parent) : ZorvForm("frmAnalysis", "Zorv PSFM Full-Field", parent) {
    setMinimumSize(640, 420);
    contentLayout()->addWidget(emptySurface("pctAnalysis", tr("No lot loaded.\nLoad a data workbook to analyse focus across the field.")));
}
WindowPlace frmAnalysis::place() const { return {"PSFMform", ""}; }

}  // namespace zorv::ui
