// frmCalibrate: the focus calibration workbench.
#pragma once

#include "ui/forms.h"

namespace zorv::ui {

class frmCalibrate : public ZorvForm {
    Q_OBJECT
public:
    explicit frmCalibrate(QWidget* parent = nullptr);

protected:
    WindowPlace place() const override;
};

}  // namespace zorv::ui
