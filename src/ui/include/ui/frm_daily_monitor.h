// frmDailyMonitor: runs a monitor template on a data file and shows its trends.
#pragma once

#include "ui/forms.h"

namespace zorv::ui {

class frmDailyMonitor : public ZorvForm {
    Q_OBJECT
public:
    explicit frmDailyMonitor(QWidget* parent = nullptr);

protected:
    WindowPlace place() const override;
};

}  // namespace zorv::ui
