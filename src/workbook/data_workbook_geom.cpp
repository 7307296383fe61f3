// Table look-ups and site geometry used by the importers and the loader.
#include <algorithm>
#include <climits>
#include <cmath>
#include <vector>

#include "base/proc.h"
#include "lot/lot.h"
#include "workbook/data_workbook.h"
#include "data_workbook_util.h"

namespace zorv {

using namespace dwb;

int FindFirstRow(const Datam& table, int& row, int& column, std::string_view text, int lastRow,
                 int lastColumn, int firstRow, int firstColumn, bool quiet) {
    Proc p("Import(FindFirstRow): ");
    row = -1;
    column = -1;
    p.chk = 1;
    // The look-up owns its two messages and finds nothing; a quiet caller has
    // its own answer to a table that is no table.
    auto noTable = [&](const char* text) {
        p.msg = text;
        if (quiet) p.quiet();
        else p.report();
        return -1;
    };
    if (!table.isArray() || table.dims() != 2) return noTable("Input matrix is not an array.");
    if (table.rowCount() < 1 || table.colCount() < 1) return noTable("No data points in array.");
    p.chk = 2;
    int r0 = firstRow == kDefaultBound ? table.rowLb() : std::max(firstRow, table.rowLb());
    int c0 = firstColumn == kDefaultBound ? table.colLb() : std::max(firstColumn, table.colLb());
    int r1 = lastRow == kDefaultBound ? table.rowUb() : std::min(lastRow, table.rowUb());
    int c1 = lastColumn == kDefaultBound ? table.colUb() : std::min(lastColumn, table.colUb());
    for (int r = r0; r <= r1; ++r) {
        for (int c = c0; c <= c1; ++c) {
            const Value& v = table(r, c);
            if (v.isError() || v.isEmpty()) continue;
            if (CellIs(v, text)) {
                row = r;
                column = c;
                return r;
            }
        }
    }
    return -1;
}

namespace {
// Smallest positive spacing between the distinct values of a list.
double SmallestStep(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    double best = 0;
    for (size_t i = 1; i < v.size(); ++i) {
        double d = Round(v[i] - v[i - 1], 4);
        if (d > 0 && (best == 0 || d < best)) best = d;
    }
    return best;
}
}  // namespace

Status FindFieldSize(Datam& sites, double& sizeX, double& sizeY, double& stepX, double& stepY,
                     bool center) {
    Proc p("import(FindFieldSize): ");
    p.chk = 1;
    std::vector<double> xs, ys;
    if (sites.isArray() && sites.dims() == 2 && sites.colUb() >= 5) {
        for (int r = std::max(1, sites.rowLb()); r <= sites.rowUb(); ++r) {
            const Value& x = sites(r, 4);
            const Value& y = sites(r, 5);
            if (!IsNumericValue(x) || !IsNumericValue(y)) continue;
            xs.push_back(x.toDouble());
            ys.push_back(y.toDouble());
        }
    }
    if (xs.empty()) return p.fail("No site information in data.");
    p.chk = 2;
    if (xs.size() <= 3) {
        sizeX = 24;
        sizeY = 36;
        return StatusOk();
    }
    if (stepX <= 0) stepX = SmallestStep(xs);
    if (stepY <= 0) stepY = SmallestStep(ys);
    auto [xmin, xmax] = std::minmax_element(xs.begin(), xs.end());
    auto [ymin, ymax] = std::minmax_element(ys.begin(), ys.end());
    double minX = *xmin, maxX = *xmax, minY = *ymin, maxY = *ymax;
    // A range that stays on one side of zero is widened by one step: the
    // field edge lies half a step beyond the outer sites on each side.
    double sx = maxX - minX, sy = maxY - minY;
    if (minX >= 0 || maxX <= 0) sx += stepX;
    if (minY >= 0 || maxY <= 0) sy += stepY;
    sizeX = Round(sx, 1);
    sizeY = Round(sy, 1);
    p.chk = 3;
    if (center) {
        // The centre of X is taken with the magnitude of the Y minimum and the
        // reverse; existing workbooks were centred that way.
        double cx = (std::fabs(minY) + maxX) / 2;
        double cy = (std::fabs(minX) + maxY) / 2;
        for (int r = std::max(1, sites.rowLb()); r <= sites.rowUb(); ++r) {
            if (!IsNumericValue(sites(r, 4)) || !IsNumericValue(sites(r, 5))) continue;
            sites(r, 4) = Round(sites(r, 4).toDouble() - cx, 1);
            sites(r, 5) = Round(sites(r, 5).toDouble() - cy, 1);
        }
    }
    return StatusOk();
}

Status CenterFieldSites(Datam& sites, double& offsetX, double& offsetY, bool center, cLot* lot) {
    Proc p("Import(CenterFieldSites): ");
    p.chk = 1;
    double minX = 0, maxX = 0, minY = 0, maxY = 0;
    bool any = false;
    if (sites.isArray() && sites.dims() == 2 && sites.colUb() >= 5) {
        for (int r = std::max(1, sites.rowLb()); r <= sites.rowUb(); ++r) {
            if (!IsNumericValue(sites(r, 4)) || !IsNumericValue(sites(r, 5))) continue;
            double x = sites(r, 4).toDouble(), y = sites(r, 5).toDouble();
            if (!any) {
                minX = maxX = x;
                minY = maxY = y;
                any = true;
            }
            minX = std::min(minX, x);
            maxX = std::max(maxX, x);
            minY = std::min(minY, y);
            maxY = std::max(maxY, y);
        }
    }
    if (!any) return p.fail("No sites data.");
    p.chk = 2;
    double midX = (minX + maxX) / 2, midY = (minY + maxY) / 2;
    if (center && (midX != 0 || midY != 0)) {
        for (int r = std::max(1, sites.rowLb()); r <= sites.rowUb(); ++r) {
            if (!IsNumericValue(sites(r, 4)) || !IsNumericValue(sites(r, 5))) continue;
            sites(r, 4) = Round(sites(r, 4).toDouble(), 1);
            sites(r, 5) = Round(sites(r, 5).toDouble(), 1);
        }
        if (lot) {
            lot->SiteXoffset = 0;
            lot->SiteYoffset = 0;
        }
    }
    offsetX = -midX;
    offsetY = -midY;
    if (lot) {
        lot->SiteXoffset = static_cast<float>(-midX * 1000);
        lot->SiteYoffset = static_cast<float>(-midY * 1000);
    }
    return StatusOk();
}

Status CenterWaferGrid(Datam& data, bool reposition, cLot* lot) {
    Proc p("Import(CenterWaferGrid): ");
    p.chk = 1;
    if (!data.isArray() || data.dims() != 2 || data.colUb() < 4) return p.fail("No data rows.");
    long loX = 0, hiX = 0, loY = 0, hiY = 0;
    bool any = false;
    for (int r = std::max(1, data.rowLb()); r <= data.rowUb(); ++r) {
        const Value& dx = data(r, 3);
        const Value& dy = data(r, 4);
        if (!IsNumericValue(dx) || !IsNumericValue(dy)) continue;
        long x = static_cast<long>(std::floor(dx.toDouble())), y = static_cast<long>(std::floor(dy.toDouble()));
        if (!any) {
            loX = hiX = x;
            loY = hiY = y;
            any = true;
        }
        loX = std::min(loX, x);
        hiX = std::max(hiX, x);
        loY = std::min(loY, y);
        hiY = std::max(hiY, y);
    }
    if (!any) return StatusOk();
    p.chk = 2;
    double midX = (loX + hiX + 1) / 2.0, midY = (loY + hiY + 1) / 2.0;
    double wholeX = std::trunc(midX), wholeY = std::trunc(midY);
    double fracX = Round(midX - wholeX, 1), fracY = Round(midY - wholeY, 1);
    if (reposition && (wholeX != 0 || wholeY != 0)) {
        for (int r = std::max(1, data.rowLb()); r <= data.rowUb(); ++r) {
            if (!IsNumericValue(data(r, 3)) || !IsNumericValue(data(r, 4))) continue;
            data(r, 3) = static_cast<int32_t>(std::lround(data(r, 3).toDouble() - wholeX));
            data(r, 4) = static_cast<int32_t>(std::lround(data(r, 4).toDouble() - wholeY));
        }
    }
    if (lot) {
        lot->DieXarray = static_cast<float>(-fracX);
        lot->DieYarray = static_cast<float>(-fracY);
        lot->DieXoffset = 0;
        lot->DieYoffset = 0;
        if (reposition && (wholeX != 0 || wholeY != 0)) {
            for (cWafer* w : lot->Wafers())
                for (cField* f : w->Fields()) {
                    f->DieX -= static_cast<float>(wholeX);
                    f->DieY -= static_cast<float>(wholeY);
                    f->LocationX = f->DieX * lot->DieSizeX;
                    f->LocationY = f->DieY * lot->DieSizeY;
                }
        }
    }
    return StatusOk();
}

}  // namespace zorv
