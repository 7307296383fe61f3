// Synthetic data workbook tables with values that follow from the indices.
#include "workbook/data_workbook_sample.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "workbook/data_workbook.h"

namespace zorv {

double SampleValue(int wafer, int dieX, int dieY, int site, int j) {
    // Exact in binary at three decimals is not needed: values are compared
    // as singles after the x1000 scaling.
    return 0.1 * wafer + 0.01 * dieX - 0.02 * dieY + 0.001 * site * (j + 1) + 0.5 * j;
}

int SampleDieIndex(int i, int n) { return i - (n - 1) / 2; }

void SampleSiteXY(const SampleSpec& shape, int s, double& x, double& y) {
    int i = (s - 1) % shape.sitesX, k = (s - 1) / shape.sitesX;
    x = (i - (shape.sitesX - 1) / 2.0) * shape.siteStep;
    y = ((shape.sitesY - 1) / 2.0 - k) * shape.siteStep;
}

const char* SampleValueName(int j, int dataType) {
    static const char* const overlay[] = {"X_reg", "Y_reg", "Mean", "Slope", "Pitch", "A", "B", "C"};
    static const char* const cd[] = {"Measure", "Height", "SWA", "Slope", "Pitch", "A", "B", "C"};
    int k = j < 0 ? 0 : j > 7 ? 7 : j;
    return (dataType == 2 || dataType == 3 ? cd : overlay)[k];
}

SampleTables MakeSampleTables(const SampleSpec& shapeIn) {
    // A shape with nothing in it still gives one row, never a negative size.
    SampleSpec shape = shapeIn;
    shape.wafers = std::max(1, shape.wafers);
    shape.fieldsX = std::max(1, shape.fieldsX);
    shape.fieldsY = std::max(1, shape.fieldsY);
    shape.sitesX = std::max(1, shape.sitesX);
    shape.sitesY = std::max(1, shape.sitesY);
    shape.excludedRows = std::max(0, shape.excludedRows);
    SampleTables t;
    const int nv = std::clamp(shape.values, 1, 8);
    const int nSites = shape.sitesX * shape.sitesY;
    const long rows = static_cast<long>(shape.wafers) * shape.fieldsX * shape.fieldsY * nSites;
    const int cols = 4 + nv;
    t.data = Datam(static_cast<int>(rows), cols, 0, 0);
    t.data(0, 1) = "Wafer";
    t.data(0, 2) = "Test";
    t.data(0, 3) = "Diex";
    t.data(0, 4) = "Diey";
    for (int j = 0; j < nv; ++j) t.data(0, 5 + j) = SampleValueName(j, shape.dataType);
    long r = 0;
    for (int w = 1; w <= shape.wafers; ++w)
        for (int fy = 0; fy < shape.fieldsY; ++fy)
            for (int fx = 0; fx < shape.fieldsX; ++fx) {
                int dx = SampleDieIndex(fx, shape.fieldsX), dy = SampleDieIndex(fy, shape.fieldsY);
                for (int s = 1; s <= nSites; ++s) {
                    ++r;
                    Value* row = t.data.data() + static_cast<size_t>(r) * (cols + 1);
                    row[1] = static_cast<int32_t>(w);
                    row[2] = static_cast<int32_t>(s);
                    row[3] = static_cast<int32_t>(dx);
                    row[4] = static_cast<int32_t>(dy);
                    for (int j = 0; j < nv; ++j) {
                        if (j == 0 && shape.blankEvery > 0 && r % shape.blankEvery == 0) continue;
                        row[5 + j] = SampleValue(w, dx, dy, s, j);
                    }
                }
            }

    t.excluded = Datam(shape.excludedRows, cols, 0, 0);
    for (int c = 1; c <= cols; ++c) t.excluded(0, c) = t.data(0, c);
    t.excluded(0, 0) = "Orig.\r\nRow";
    for (int i = 1; i <= shape.excludedRows; ++i) {
        t.excluded(i, 0) = static_cast<int32_t>(rows + i);
        t.excluded(i, 1) = static_cast<int32_t>(1);
        t.excluded(i, 2) = static_cast<int32_t>(1);
        t.excluded(i, 3) = static_cast<int32_t>(0);
        t.excluded(i, 4) = static_cast<int32_t>(0);
        t.excluded(i, 5) = 9999.0;
    }

    std::vector<std::string> fams;
    for (size_t a = 0; !shape.families.empty();) {
        size_t b = shape.families.find(',', a);
        fams.push_back(shape.families.substr(a, b == std::string::npos ? std::string::npos : b - a));
        if (b == std::string::npos) break;
        a = b + 1;
    }
    const int siteCols = fams.empty() ? 5 + nv : 6 + nv;
    t.sites = Datam(nSites, siteCols, 0, 0);
    t.sites(0, 0) = "Sites";
    t.sites(0, 1) = "X_DIE_SIZE";
    t.sites(0, 2) = "Y_DIE_SIZE";
    t.sites(0, 3) = "TEST";
    t.sites(0, 4) = "X_LOC";
    t.sites(0, 5) = "Y_LOC";
    int uc = 6;
    if (!fams.empty()) t.sites(0, uc++) = "FAMILY";
    const int firstUnit = uc;
    for (int j = 0; j < nv; ++j) t.sites(0, uc + j) = std::string(SampleValueName(j, shape.dataType)) + "_UNITS";
    for (int s = 1; s <= nSites; ++s) {
        double x, y;
        SampleSiteXY(shape, s, x, y);
        t.sites(s, 1) = shape.dieSizeX;
        t.sites(s, 2) = shape.dieSizeY;
        t.sites(s, 3) = static_cast<int32_t>(s);
        t.sites(s, 4) = x;
        t.sites(s, 5) = y;
        if (!fams.empty()) t.sites(s, 6) = fams[(s - 1) % fams.size()];
    }
    for (int j = 0; j < nv; ++j) t.sites(1, firstUnit + j) = j < 2 ? "nm" : "um";

    t.information = Datam(kInformationKeyCount, 1, 1, 0);
    for (int i = 1; i <= kInformationKeyCount; ++i) t.information(i, 0) = kInformationKeys[i - 1];
    t.information(infoDataType, 1) = static_cast<int32_t>(shape.dataType);
    t.information(infoDataTable, 1) = shape.dataTable;
    t.information(infoInspection, 1) = "Sample inspection";
    t.information(infoDieSizeX, 1) = shape.dieSizeX;
    t.information(infoDieSizeY, 1) = shape.dieSizeY;
    t.information(infoDieXarray, 1) = shape.fieldsX % 2 == 0 ? -0.5 : 0.0;
    t.information(infoDieYarray, 1) = shape.fieldsY % 2 == 0 ? -0.5 : 0.0;
    t.information(infoFlatLocation, 1) = "DOWN";
    t.information(infoMetrologynom, 1) = "SampleTool 9000";
    t.information(infoLot, 1) = shape.dataTable;
    t.information(infoDate, 1) = "2026-11-02";
    t.information(infoComments, 1) = "Synthetic sample lot";
    t.information(infoExposureTool, 1) = "Scanner A";
    t.information(infoMeasureTime, 1) = "10:30:00";
    t.information(infoExposureToolType, 1) = static_cast<int32_t>(0);
    t.information(infoNA, 1) = 0.75;
    t.information(infoFo, 1) = -0.2;
    t.information(infoFocusStep, 1) = 0.05;
    t.information(infoDose, 1) = 20.0;
    t.information(infoDoseStep, 1) = 0.5;
    t.information(infoWorkBookPath, 1) = shape.workbookPath;
    t.information(infoFilePath, 1) = shape.dataTable + ".txt";
    if (shape.waferSizeMm > 0) t.information(infoWaferSize, 1) = shape.waferSizeMm;
    return t;
}

}  // namespace zorv
