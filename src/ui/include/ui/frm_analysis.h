// frmAnalysis: converts lots to focus with a stored template and models the aberrations.
#pragma once

#include "ui/forms.h"

namespace zorv::ui {

class frmAnalysis : public ZorvForm {
    Q_OBJECT
public:
    explicit frmAnalysis(QWidget* parent = nullptr);

protected:
    WindowPlace place() const override;
};

}  // namespace zorv::ui
