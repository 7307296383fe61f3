#include "numerics/surface.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "base/proc.h"
#include "base/report.h"  // CheckEscKey
#include "base/text.h"
#include "tell.h"

namespace zorv {

namespace {

// Data extent of a grid and the coordinates of its lines.
struct Extent {
    int r0 = 1, r1 = 0, c0 = 1, c1 = 0;
    std::vector<double> xs, ys;  // column and row coordinates, indexed from c0 / r0
    double x(int c) const { return xs[static_cast<size_t>(c - c0)]; }
    double y(int r) const { return ys[static_cast<size_t>(r - r0)]; }
};

bool known(const Value& v, double& z) {
    z = 0;
    if (v.isEmpty()) return false;
    bool ok = false;
    z = v.toDouble(&ok);
    return ok;
}

// Coordinates from a header line when every cell of it is numeric, otherwise
// the line numbers.
std::vector<double> coords(const Datam& g, bool rows, int from, int to) {
    std::vector<double> out;
    out.reserve(static_cast<size_t>(std::max(0, to - from + 1)));
    const bool header = rows ? g.colLb() <= 0 : g.rowLb() <= 0;
    bool numeric = header;
    for (int i = from; i <= to && numeric; ++i) {
        double v = 0;
        numeric = known(rows ? g.get(i, 0) : g.get(0, i), v);
        out.push_back(v);
    }
    if (!numeric) {
        out.clear();
        for (int i = from; i <= to; ++i) out.push_back(i);
    }
    return out;
}

Extent extentOf(const Datam& g) {
    Extent e;
    if (g.dims() != 2) return e;
    e.r0 = std::max(g.rowLb(), 1);
    e.r1 = g.rowUb();
    e.c0 = std::max(g.colLb(), 1);
    e.c1 = g.colUb();
    e.xs = coords(g, false, e.c0, e.c1);
    e.ys = coords(g, true, e.r0, e.r1);
    return e;
}

bool masked(const Datam& mask, int r, int c) {
    if (!mask.isArray()) return false;
    const Value& m = mask.get(r, c);
    double v;
    return known(m, v) && v == -9;
}

// One line of the grid seen as a sequence: cell i of the line and its coordinate.
struct Line {
    Datam& g;
    const Datam& mask;
    bool isRow;
    int fixed;
    Value& cell(int i) { return isRow ? g(fixed, i) : g(i, fixed); }
    bool isMasked(int i) const { return isRow ? masked(mask, fixed, i) : masked(mask, i, fixed); }
};

// Linear fill of one line between consecutive known cells; masked or
// non-numeric cells end a run. Position ratios come from the coordinates
// when they run monotonically across the gap, otherwise from the cell count.
void fillLine(Line line, int from, int to, const std::vector<double>& coord, double& zmin, double& zmax) {
    auto pos = [&](int i) { return coord[static_cast<size_t>(i - from)]; };
    int a = -1;
    double za = 0;
    for (int i = from; i <= to; ++i) {
        Value& v = line.cell(i);
        double z;
        if (line.isMasked(i)) {
            a = -1;
            continue;
        }
        if (!known(v, z)) {
            if (!v.isEmpty()) a = -1;  // text: a barrier like the mask
            continue;
        }
        zmin = std::min(zmin, z);
        zmax = std::max(zmax, z);
        if (a >= 0 && i - a > 1) {
            const double xa = pos(a), xb = pos(i);
            bool monotonic = xa != xb;
            for (int k = a + 1; k < i && monotonic; ++k) {
                const double t = (pos(k) - xa) / (xb - xa);
                monotonic = t > 0 && t < 1;
            }
            for (int k = a + 1; k < i; ++k) {
                const double t = monotonic ? (pos(k) - xa) / (xb - xa)
                                           : static_cast<double>(k - a) / (i - a);
                const double f = za + (z - za) * t;
                line.cell(k) = Value(f);
                zmin = std::min(zmin, f);
                zmax = std::max(zmax, f);
            }
        }
        a = i;
        za = z;
    }
}

std::string num(double v) { return NumberToText(v); }

}  // namespace

int surf_interpolate2(Datam& grid, double& zmin, double& zmax, const Datam& mask, Notes* notes) {
    if (zmin == 0) zmin = 9999;
    if (zmax == 0) zmax = -9999;
    if (grid.dims() != 2) {
        Proc p("Math(surf_interpolate2): ");
        TellFailure(notes, p.fail("No surface grid to interpolate."));
        return -1;
    }
    const Extent e = extentOf(grid);
    TellStatus(notes, "Interpolate: ");
    // Rows first: a row with a single known value gains nothing here and is
    // left to the column pass.
    const int nRows = e.r1 - e.r0 + 1;
    for (int r = e.r0; r <= e.r1; ++r) {
        const int i = r - e.r0 + 1;
        if (i == 1)
            TellStatus(notes, "Side Scan Interpolation row 1 of " + std::to_string(nRows));
        else if (i % 100 == 0) {
            TellStatus(notes, "Side Scan Interpolation row " + std::to_string(i));
            if (CheckEscKey()) return -1;
        }
        fillLine(Line{grid, mask, true, r}, e.c0, e.c1, e.xs, zmin, zmax);
    }
    const int nCols = e.c1 - e.c0 + 1;
    for (int c = e.c0; c <= e.c1; ++c) {
        const int i = c - e.c0 + 1;
        if (i == 1)
            TellStatus(notes, "Side Scan Interpolation row 1 of " + std::to_string(nCols));
        else if (i % 100 == 0) {
            TellStatus(notes, "Side Scan Interpolation row " + std::to_string(i));
            if (CheckEscKey()) return -1;
        }
        fillLine(Line{grid, mask, false, c}, e.r0, e.r1, e.ys, zmin, zmax);
    }
    return 1;
}

Datam MakeSurfCorners(int topRow, int leftCol, int bottomRow, int rightCol) {
    return Datam::fromRows({{"upl", topRow, leftCol},
                            {"upr", topRow, rightCol},
                            {"lowl", bottomRow, leftCol},
                            {"lowr", bottomRow, rightCol}},
                           1, 0);
}

int subSurf_Interpolate(Datam& grid, const Datam& corners, std::string* model, Notes* notes) {
    Proc p("Math(subSurf_Interpolate): ");
    if (grid.dims() != 2 || corners.dims() != 2) {
        TellFailure(notes, p.fail("Not enough data points to create a surface."));
        return -1;
    }
    const Extent e = extentOf(grid);
    // Corner positions by name; z11 upper left, z21 upper right, z12 lower
    // left, z22 lower right.
    int rows[2] = {0, 0}, cols[2] = {0, 0};
    bool have[2][2] = {{false, false}, {false, false}};
    double z[2][2] = {{0, 0}, {0, 0}};
    bool placed[2][2] = {{false, false}, {false, false}};
    p.chk = 1;
    for (int r = std::max(corners.rowLb(), 1); r <= corners.rowUb(); ++r) {
        std::string name = corners.get(r, 0).toString();
        for (char& ch : name) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
        int iy, ix;
        if (name == "upl") iy = 0, ix = 0;
        else if (name == "upr") iy = 0, ix = 1;
        else if (name == "lowl") iy = 1, ix = 0;
        else if (name == "lowr") iy = 1, ix = 1;
        else continue;
        const int gr = corners.get(r, 1).toLong(), gc = corners.get(r, 2).toLong();
        if (gr < e.r0 || gr > e.r1 || gc < e.c0 || gc > e.c1) continue;
        placed[iy][ix] = true;
        rows[iy] = gr;
        cols[ix] = gc;
        have[iy][ix] = known(grid(gr, gc), z[iy][ix]);
    }
    const int count = have[0][0] + have[0][1] + have[1][0] + have[1][1];
    if (count < 3 || !(placed[0][0] || placed[0][1]) || !(placed[1][0] || placed[1][1]) ||
        !(placed[0][0] || placed[1][0]) || !(placed[0][1] || placed[1][1])) {
        TellFailure(notes, p.fail("Not enough data points to create a surface."));
        return -1;
    }
    // With three corners the fourth lies on their plane.
    for (int iy = 0; iy < 2; ++iy)
        for (int ix = 0; ix < 2; ++ix)
            if (!have[iy][ix]) z[iy][ix] = z[iy][1 - ix] + z[1 - iy][ix] - z[1 - iy][1 - ix];

    p.chk = 2;
    TellStatus(notes, "Surface Model Fit . . .");
    const int top = std::min(rows[0], rows[1]), bottom = std::max(rows[0], rows[1]);
    const int left = std::min(cols[0], cols[1]), right = std::max(cols[0], cols[1]);
    const double x1 = e.x(cols[0]), x2 = e.x(cols[1]), y1 = e.y(rows[0]), y2 = e.y(rows[1]);
    const double sx = x2 != x1 ? 1 / (x2 - x1) : 0, sy = y2 != y1 ? 1 / (y2 - y1) : 0;
    const double ox = -sx * x1, oy = -sy * y1;
    // z = A + B tx + C ty + D tx ty with tx = sx X + ox, ty = sy Y + oy.
    const double A = z[0][0], B = z[0][1] - z[0][0], C = z[1][0] - z[0][0];
    const double D = z[0][0] - z[0][1] - z[1][0] + z[1][1];
    const double a = A + B * ox + C * oy + D * ox * oy;
    const double b = B * sx + D * sx * oy;
    const double c = C * sy + D * ox * sy;
    const double d = D * sx * sy;
    std::string text = num(a) + " + " + num(b) + " * X + " + num(c) + " * Y + " + num(d) + " * X * Y";
    ReplaceAll(text, "+ -", "- ");
    TellStatus(notes, "Surface Model: " + text);
    if (model) *model = text;

    p.chk = 3;
    int filled = 0;
    const int n = bottom - top + 1;
    for (int r = top; r <= bottom; ++r) {
        const int i = r - top + 1;
        if (i == 1)
            TellStatus(notes, "Interpolate row 1 of " + std::to_string(n));
        else if (i % 100 == 0) {
            TellStatus(notes, "Interpolate row " + std::to_string(i));
            if (CheckEscKey()) return filled;
        }
        const double ty = sy * e.y(r) + oy;
        for (int col = left; col <= right; ++col) {
            Value& v = grid(r, col);
            if (!v.isEmpty()) continue;
            const double tx = sx * e.x(col) + ox;
            v = Value(A + B * tx + C * ty + D * tx * ty);
            ++filled;
        }
    }
    return filled;
}

int EdgeExtrapolate(Datam& grid, int& firstRow, int& lastRow, int& firstCol, int& lastCol) {
    firstRow = firstCol = 0;
    lastRow = lastCol = -1;
    if (grid.dims() != 2) return -1;
    const Extent e = extentOf(grid);
    double z;
    auto rowHasData = [&](int r) {
        for (int c = e.c0; c <= e.c1; ++c)
            if (known(grid(r, c), z)) return true;
        return false;
    };
    auto colHasData = [&](int c) {
        for (int r = e.r0; r <= e.r1; ++r)
            if (known(grid(r, c), z)) return true;
        return false;
    };
    int fr = e.r0, lr = e.r1, fc = e.c0, lc = e.c1;
    while (fr <= e.r1 && !rowHasData(fr)) {
        if (CheckEscKey()) return -1;
        ++fr;
    }
    if (fr > e.r1) return -1;
    while (lr > fr && !rowHasData(lr)) --lr;
    while (fc <= e.c1 && !colHasData(fc)) ++fc;
    while (lc > fc && !colHasData(lc)) --lc;
    firstRow = fr, lastRow = lr, firstCol = fc, lastCol = lc;

    // Continue each row outward from its outermost known cells, then each
    // column, so that rows outside the bounds take the edge rows' values.
    auto extend = [&](auto cell, int from, int to) {
        int first = -1, last = -1;
        for (int i = from; i <= to; ++i)
            if (known(cell(i), z)) {
                if (first < 0) first = i;
                last = i;
            }
        if (first < 0) return;
        const Value lo = cell(first), hi = cell(last);
        for (int i = from; i < first; ++i)
            if (cell(i).isEmpty()) cell(i) = lo;
        for (int i = last + 1; i <= to; ++i)
            if (cell(i).isEmpty()) cell(i) = hi;
    };
    for (int r = e.r0; r <= e.r1; ++r) {
        if ((r - e.r0) % 100 == 99 && CheckEscKey()) return -1;
        extend([&](int c) -> Value& { return grid(r, c); }, e.c0, e.c1);
    }
    for (int c = e.c0; c <= e.c1; ++c) {
        if ((c - e.c0) % 100 == 99 && CheckEscKey()) return -1;
        extend([&](int r) -> Value& { return grid(r, c); }, e.r0, e.r1);
    }
    return 1;
}

Datam SurfExpand(const Datam& grid, int factor) {
    if (factor < 2 || grid.dims() != 2) return grid;
    const Extent e = extentOf(grid);
    const int nr = e.r1 - e.r0 + 1, nc = e.c1 - e.c0 + 1;
    if (nr < 1 || nc < 1) return grid;
    const int NR = (nr - 1) * factor + 1, NC = (nc - 1) * factor + 1;
    Datam out(e.r0 + NR - 1, e.c0 + NC - 1, grid.rowLb(), grid.colLb());
    // Source position of a new line: segment index and fraction within it.
    auto split = [&](int i, int n, int& k, double& t) {
        k = std::min(i / factor, n - 2 < 0 ? 0 : n - 2);
        t = n > 1 ? static_cast<double>(i - k * factor) / factor : 0;
    };
    const bool rowHeader = grid.rowLb() <= 0, colHeader = grid.colLb() <= 0;
    for (int j = 0; j < NC; ++j) {
        int k;
        double t;
        split(j, nc, k, t);
        if (rowHeader) {
            const Value& a = grid(0, e.c0 + k);
            double xa, xb;
            if (t == 0 || nc == 1) out(0, e.c0 + j) = a;
            else if (known(a, xa) && known(grid(0, e.c0 + k + 1), xb)) out(0, e.c0 + j) = Value(xa + (xb - xa) * t);
        }
    }
    for (int i = 0; i < NR; ++i) {
        int kr;
        double tr;
        split(i, nr, kr, tr);
        if (colHeader) {
            const Value& a = grid(e.r0 + kr, 0);
            double ya, yb;
            if (tr == 0 || nr == 1) out(e.r0 + i, 0) = a;
            else if (known(a, ya) && known(grid(e.r0 + kr + 1, 0), yb)) out(e.r0 + i, 0) = Value(ya + (yb - ya) * tr);
        }
        const int ra = e.r0 + kr, rb = std::min(ra + 1, e.r1);
        for (int j = 0; j < NC; ++j) {
            int kc;
            double tc;
            split(j, nc, kc, tc);
            const int ca = e.c0 + kc, cb = std::min(ca + 1, e.c1);
            double z00, z01, z10, z11;
            const bool h00 = known(grid(ra, ca), z00), h01 = known(grid(ra, cb), z01);
            const bool h10 = known(grid(rb, ca), z10), h11 = known(grid(rb, cb), z11);
            if (h00 && h01 && h10 && h11) {
                out(e.r0 + i, e.c0 + j) = Value(z00 * (1 - tr) * (1 - tc) + z01 * (1 - tr) * tc +
                                                z10 * tr * (1 - tc) + z11 * tr * tc);
            } else {
                out(e.r0 + i, e.c0 + j) = grid(tr < 0.5 ? ra : rb, tc < 0.5 ? ca : cb);
            }
        }
    }
    return out;
}

}  // namespace zorv
