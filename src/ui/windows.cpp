#include "ui/windows.h"

namespace zorv::ui {

FormRefs& forms() {
    static FormRefs r;
    return r;
}

}  // namespace zorv::ui
