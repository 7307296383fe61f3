// Site grids and die pitch for readers whose files give no site table.
#include "import/sites.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace zorv {

int MakeSites(Datam& sites, double dieSizeX, double dieSizeY, int nx, int ny, double stepX, double stepY,
              bool meander) {
    if (dieSizeX <= 0 || dieSizeY <= 0) {
        dieSizeX = 24;
        dieSizeY = 32;
    }
    nx = std::max(1, nx);
    ny = std::max(1, ny);
    stepX = std::fabs(stepX);
    stepY = std::fabs(stepY);
    if (dieSizeX > 50 || dieSizeY > 50) {
        dieSizeX /= 1000;
        dieSizeY /= 1000;
    }
    if (stepX > 500 || stepY > 500) {
        stepX /= 1000;
        stepY /= 1000;
    }
    const int n = nx * ny;
    if (!sites.isArray() || sites.dims() != 2 || sites.rowUb() < n || sites.colUb() < 8 || sites.rowLb() > 0 ||
        sites.colLb() > 1)
        sites = Datam(n, 8, 0, 0);
    static const char* const heads[] = {"Sites", "X_DIE_SIZE", "Y_DIE_SIZE", "TEST", "X_LOC", "Y_LOC", "FAMILY"};
    if (sites.colLb() == 0)
        for (int c = 0; c < 7; ++c)
            if (sites(0, c).textLength() == 0) sites(0, c) = heads[c];
    const double x0 = -(nx - 1) * stepX / 2 - stepX;
    double y = (ny - 1) * stepY / 2;
    int row = 0;
    for (int j = 0; j < ny; ++j, y -= stepY) {
        const bool back = meander && (j % 2 == 1);
        double x = x0;
        for (int i = 0; i < nx; ++i) {
            x += stepX;
            ++row;
            double xv = x;
            if (back) xv = std::round((x0 + stepX * (nx - i)) * 1e4) / 1e4;
            sites(row, 1) = dieSizeX;
            sites(row, 2) = dieSizeY;
            sites(row, 3) = static_cast<int32_t>(row);
            sites(row, 4) = xv;
            sites(row, 5) = y;
        }
    }
    return 1;
}

namespace {
// The most frequent spacing between neighbouring distinct positions.
double CommonSpacing(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    v.erase(std::unique(v.begin(), v.end(), [](double a, double b) { return std::fabs(a - b) < 1e-6; }), v.end());
    if (v.size() < 2) return 0;
    std::map<long long, int> counts;  // spacing at 1e-4 resolution
    for (size_t i = 1; i < v.size(); ++i) ++counts[std::llround((v[i] - v[i - 1]) * 1e4)];
    long long best = 0;
    int bestCount = 0;
    for (auto [d, c] : counts)
        if (c > bestCount) {
            best = d;
            bestCount = c;
        }
    return best / 1e4;
}
}  // namespace

bool FindDieSize(const std::vector<double>& x, const std::vector<double>& y, double& dieSizeX, double& dieSizeY) {
    dieSizeX = CommonSpacing(x);
    dieSizeY = CommonSpacing(y);
    return dieSizeX > 0 && dieSizeY > 0;
}

}  // namespace zorv
