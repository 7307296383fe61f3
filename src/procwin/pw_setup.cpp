#include "procwin/pw_setup.h"

#include <algorithm>

#include "base/value.h"

#include "numerics/matrix.h"

namespace zorv {

namespace {

double Number(const std::string& text) {
    double v = 0;
    return ParseNumber(text, v) ? v : 0.0;
}

std::string Flags(const std::vector<bool>& selected) {
    std::string s;
    for (bool b : selected) s += b ? '1' : '0';
    return s;
}

// "ALL" when every value (or none) is selected, else the values joined by ","
// with their table; low, high and the smallest step of the selection.
void Selection(const std::vector<std::string>& chosen, const std::vector<std::string>& all, std::string& text,
               Datam& table, float& low, float& high, float& step) {
    const std::vector<std::string>& use = chosen.empty() ? all : chosen;
    std::vector<double> v;
    for (const std::string& x : use) v.push_back(Number(x));
    std::sort(v.begin(), v.end());
    v.erase(std::unique(v.begin(), v.end()), v.end());
    if (chosen.empty() || chosen.size() == all.size()) {
        text = "ALL";
        table = Datam();
    } else {
        text.clear();
        table = Datam::vec(static_cast<int>(chosen.size()));
        for (size_t i = 0; i < chosen.size(); ++i) {
            text += (i ? "," : "") + chosen[i];
            table(static_cast<int>(i) + 1, 1) = Value(Number(chosen[i]));
        }
    }
    ScanSpan(std::move(v), low, high, step);
}

}  // namespace

void ScanSpan(std::vector<double> v, float& low, float& high, float& step) {
    std::sort(v.begin(), v.end());
    v.erase(std::unique(v.begin(), v.end()), v.end());
    if (v.empty()) return;
    low = static_cast<float>(v.front());
    high = static_cast<float>(v.back());
    double s = 0;
    for (size_t i = 1; i < v.size(); ++i) s = s == 0 ? v[i] - v[i - 1] : std::min(s, v[i] - v[i - 1]);
    step = static_cast<float>(s);
}

void ScanSpan(const Datam& column, float& low, float& high, float& step) {
    std::vector<double> v;
    for (int r = 1; column.isArray() && r <= column.rowUb(); ++r)
        if (!IsBlank(column(r, 1))) v.push_back(column(r, 1).toDouble());
    ScanSpan(std::move(v), low, high, step);
}

PWSetup LoadPWanalysis(const PWControls& c) {
    PWSetup s;
    s.showLimits = c.chkShowLimits;
    s.dataTypeName = c.cmbDataType;
    s.dataTypeIndex = c.cmbDataTypeIndex;
    s.dataTypeCode = c.cmbDataTypeItemData;
    s.waferModelRemoval = c.waferModel;
    s.fieldModelRemoval = c.fieldModel;
    s.waferCoefs = Flags(c.lstWcoef);
    s.fieldCoefs = Flags(c.lstFcoef);
    s.waferCoefsPW = Flags(c.lstWcoefPW);
    s.fieldCoefsPW = Flags(c.lstFCoefPW);
    s.range = static_cast<float>(Number(c.txtPWRange));
    s.sigma = static_cast<float>(Number(c.txtPWSigma));
    s.cullVariable = c.cmbPWDataCull.empty() ? "NONE" : c.cmbPWDataCull;
    s.cullIndex = c.cmbPWDataCullItemData;
    s.cullMax = static_cast<float>(Number(c.txtPWDataMax));
    s.cullMin = static_cast<float>(Number(c.txtPWDataMin));
    s.key = c.tabPWCurve;
    // The window always runs on the surface; the other tabs by their option.
    s.surfaceAlgorithm = s.key == kPW || c.responseOption == 0;
    s.method = s.key == kPW ? "PW Surface Fit"
               : s.surfaceAlgorithm ? "Process Window Algorithm"
               : s.key == kFocus    ? "Focus polynomial"
                                    : "Dose polynomial";
    int n = 0;
    for (const auto& v : c.variables) n += v.checked;
    s.variables = Datam(n, 4, 0, 0);
    const char* heads[] = {"Variable", "Target", "Max", "Min"};
    for (int k = 0; k < 4; ++k) s.variables(0, k + 1) = Value(heads[k]);
    int r = 0;
    for (const auto& v : c.variables) {
        if (!v.checked) continue;
        ++r;
        s.variables(r, 1) = Value(v.name);
        s.variables(r, 2) = Value(Number(v.target));
        s.variables(r, 3) = Value(Number(v.max));
        s.variables(r, 4) = Value(Number(v.min));
        s.title += (s.title.empty() ? "" : ", ") + v.name;
    }
    s.stickyX = c.stickyX;
    s.stickyY = c.stickyY;
    Selection(c.lstPWfocus, c.allFocus, s.focusText, s.focusSelection, s.focusLow, s.focusHigh, s.focusStep);
    if (!c.cmbPWfocusMax.empty()) s.focusHigh = static_cast<float>(Number(c.cmbPWfocusMax));
    if (!c.cmbPWfocusMin.empty()) s.focusLow = static_cast<float>(Number(c.cmbPWfocusMin));
    s.focusListText = s.focusText;
    Selection(c.lstPWDose, c.allDose, s.doseText, s.doseSelection, s.doseLow, s.doseHigh, s.doseStep);
    s.siteListText = c.siteList.empty() || c.siteList == "ALL" ? "All Sites" : c.siteList;
    s.statistics = c.chkPWStatistics;
    s.graphics = c.chkPWGraphics;
    s.precision = std::max(1, static_cast<int>(Number(c.cmbPWprecision)));
    return s;
}

}  // namespace zorv
