// frmDailyMonitorSetup: builds and saves a monitor template.
#pragma once

#include "ui/forms.h"

namespace zorv::ui {

class frmDailyMonitorSetup : public ZorvForm {
    Q_OBJECT
public:
    explicit frmDailyMonitorSetup(QWidget* parent = nullptr);

protected:
    WindowPlace place() const override;
};

}  // namespace zorv::ui
