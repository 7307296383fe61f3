// Window geometry: the composite of the painted grids, the rectangle and
// ellipse searches on cell indices, and the ProcessWindowSpace table.
//
// The searches read the grid through a byte mask built once per grid: the
// ellipse stage tests millions of perimeter points and a Value lookup per
// point would dominate the analysis.
#include "procwin/pw_geometry.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <numbers>
#include <string>
#include <vector>

#include "app/strings.h"
#include "base/format.h"
#include "base/regional.h"
#include "base/report.h"
#include "graphics/chart.h"
#include "numerics/lsq.h"
#include "numerics/matrix.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace {

// The rounding of the original language (half to even).
int RoundInt(double x) {
    return static_cast<int>(std::nearbyint(x));
}

double RoundTo(double x, int decimals) {
    const double f = std::pow(10.0, decimals);
    return std::round(x * f) / f;
}

// Filled cells of a grid as bytes, indexed like the grid from row 0 and
// column 0; headers count as empty.
class Cells {
  public:
    explicit Cells(const Datam& g) {
        if (g.isArray() && g.dims() == 2) {
            lastRow = std::max(g.rowUb(), 0);
            lastCol = std::max(g.colUb(), 0);
        }
        stride_ = static_cast<size_t>(lastCol) + 1;
        mask_.assign((static_cast<size_t>(lastRow) + 1) * stride_, 0);
        for (int r = std::max(g.rowLb(), 1); r <= lastRow; ++r)
            for (int c = std::max(g.colLb(), 1); c <= lastCol; ++c)
                if (!g(r, c).isEmpty()) {
                    mask_[static_cast<size_t>(r) * stride_ + static_cast<size_t>(c)] = 1;
                    ++count;
                }
    }
    // Unchecked: 0 <= r <= lastRow, 0 <= c <= lastCol.
    bool at(int r, int c) const {
        return mask_[static_cast<size_t>(r) * stride_ + static_cast<size_t>(c)] != 0;
    }
    int rowCount(int r) const {
        int n = 0;
        for (int c = 1; c <= lastCol; ++c) n += at(r, c);
        return n;
    }

    int lastRow = 0, lastCol = 0;
    long count = 0;

  private:
    size_t stride_ = 1;
    std::vector<uint8_t> mask_;
};

// ---------------------------------------------------------------- cell searches

void DoseLimits(const Cells& g, int column, int& row, int& top, int& bottom) {
    top = bottom = 0;
    if (column < 1 || column > g.lastCol || g.lastRow < 1) return;
    if (row < 0) row = 0;
    if (row != 0) {
        row = std::min(row, g.lastRow);
        if (!g.at(row, column)) row = 0;
    }
    if (row == 0) {
        for (int i = 1; i <= g.lastRow; ++i)
            if (g.at(i, column)) {
                row = i;
                break;
            }
        if (row == 0) return;
    }
    int i = row;
    while (i >= 1 && g.at(i, column)) --i;
    top = i + 1;
    i = top;
    while (i <= g.lastRow && g.at(i, column)) ++i;
    bottom = i - 1;
}

int CheckEllipse(const Cells& g, int column, int row, int xRadius, int yRadius, int& quadrant,
                 int& failedColumn, int& failedRow, int& radiusLimit);

int FirstFilled(const Cells& g, int row, int from) {
    for (int k = std::max(from, 1); k <= g.lastCol; ++k)
        if (g.at(row, k)) return k;
    return 0;
}

bool FocusLimits(const Cells& g, int row, int column, int& left, int& right, bool ellipse,
                 int* left2, int* right2) {
    if (left2) *left2 = 0;
    if (right2) *right2 = 0;
    if (row < 1 || row > g.lastRow || g.lastCol < 1) return false;
    const int first = std::min(column, g.lastCol);
    int seed = first;
    if (seed <= 0) seed = FirstFilled(g, row, 1);
    if (seed <= 0 || !g.at(row, seed)) {
        int s = seed >= 1 ? FirstFilled(g, row, seed + 1) : 0;
        if (s == 0) s = FirstFilled(g, row, 1);
        if (s == 0) return false;
        seed = s;
    }
    int k = seed;
    while (k <= g.lastCol && g.at(row, k)) ++k;
    right = k - 1;
    k = seed;
    while (k >= 1 && g.at(row, k)) --k;
    left = k + 1;
    if (ellipse && right == g.lastCol) {
        // Cut to what an ellipse about the seed can reach inside the grid.
        int r = row, top = 0, bottom = 0;
        DoseLimits(g, seed, r, top, bottom);
        const int doseReach = std::min(row - top, bottom - row);
        int reach = std::max(right - seed, seed - left);
        int q = 0, fc = 0, fr = 0, limit = 0;
        CheckEllipse(g, seed, row, reach, doseReach, q, fc, fr, limit);
        if (limit > 0) reach = limit;
        left = seed - reach;
        right = seed + reach;
    }
    if ((left2 || right2) && (first < left || first > right)) {
        // The next island on the far side of the seed.
        int s = 0;
        if (first < left) {
            for (k = std::min(left - 1, g.lastCol); k >= 1; --k)
                if (g.at(row, k)) {
                    s = k;
                    break;
                }
        } else {
            s = FirstFilled(g, row, right + 1);
        }
        int l2 = 0, r2 = 0;
        if (s > 0 && FocusLimits(g, row, s, l2, r2, ellipse, nullptr, nullptr)) {
            if (left2) *left2 = l2;
            if (right2) *right2 = r2;
        }
    }
    return true;
}

int CheckEllipse(const Cells& g, int column, int row, int xRadius, int yRadius, int& quadrant,
                 int& failedColumn, int& failedRow, int& radiusLimit) {
    quadrant = failedColumn = failedRow = 0;
    radiusLimit = 0;
    if (xRadius < 0 || row + yRadius - 1 > g.lastRow || row - yRadius + 1 < 0) return -1;
    const int last = g.lastCol;
    if (last < column + xRadius - 1) {
        // The figure passes the last column: how far may it reach there?
        const int x = last - column;
        int r = row, top = 0, bottom = 0;
        DoseLimits(g, last, r, top, bottom);
        if (row == top || row == bottom) {
            for (int rr = last - column + 1; rr >= 1; --rr) {
                int q = 0, fc = 0, fr = 0, lim = 0;
                if (CheckEllipse(g, column, row, rr, yRadius, q, fc, fr, lim) == 1) {
                    radiusLimit = rr;
                    return -1;
                }
            }
            return -1;
        }
        const double y2 = static_cast<double>(yRadius) * yRadius, x2 = static_cast<double>(x) * x;
        const double t = row - top, b = bottom - row;
        const bool hasT = t < yRadius && y2 - t * t > 0, hasB = b < yRadius && y2 - b * b > 0;
        const double lt = hasT ? std::sqrt(x2 * y2 / (y2 - t * t)) : 0;
        const double lb = hasB ? std::sqrt(x2 * y2 / (y2 - b * b)) : 0;
        if (hasT && hasB)
            radiusLimit = RoundInt(std::min(lt, lb));
        else if (hasT)
            radiusLimit = RoundInt(lt);
        else if (hasB)
            radiusLimit = RoundInt(lb);
    }
    const double xr2 = static_cast<double>(xRadius) * xRadius;
    for (int i = 0; i < xRadius; ++i) {
        const double y = yRadius * std::sqrt(1.0 - static_cast<double>(i) * i / xr2);
        const int up = RoundInt(row - y), down = RoundInt(row + y);
        const int pr[4] = {up, up, down, down};
        const int pc[4] = {column + i, column - i, column + i, column - i};
        static constexpr int kQuadrant[4] = {1, 4, 2, 3};
        for (int k = 0; k < 4; ++k) {
            const int r = pr[k], c = pc[k];
            if (r < 1 || r > g.lastRow || (c >= 1 && c <= last && !g.at(r, c))) {
                quadrant = kQuadrant[k];
                failedColumn = c;
                failedRow = r;
                return -1;
            }
        }
    }
    return 1;
}

// ---------------------------------------------------------------- the searches

// A rectangle candidate in cells: the rows stored as lower and upper are the
// last and the first row of the candidate in its pass.
struct RectCand {
    int scanColumn, left, right, lower, upper;
};

struct EllipseCand {
    int column, row, xRadius, yRadius;
};

struct Seed {
    int column = 0, row = 0, colRadius = 0, rowRadius = 0;
    long value = 0;
};

// One scan column's two passes: candidates recorded, the seed kept.
void RectanglePasses(const Cells& g, int c, int T, int B, std::vector<RectCand>& cands,
                     Seed& seed) {
    auto score = [](int w, int h) {
        return 2.0 * w * h / (static_cast<double>(w) * w + static_cast<double>(h) * h);
    };
    // Top-down: the first row's right bounds every row below, its left stays.
    bool tdOk = false;
    int L0 = 0, tdRow = 0, tdRight = 0;
    {
        int l = 0, r = 0;
        if (FocusLimits(g, T, c, l, r, false, nullptr, nullptr) && r >= l && c >= l && c <= r) {
            L0 = l;
            const int R0 = r;
            double best = 0;
            for (int row = T; row <= B; ++row) {
                int left = 0, right = 0;
                if (!FocusLimits(g, row, c, left, right, false, nullptr, nullptr)) break;
                if (left > c || left > right) break;
                const int rp = std::min(right, R0);
                const int w = rp - L0 + 1, h = row - T + 1;
                if (w < 0 || h < 0) continue;
                cands.push_back({c, L0, rp, row, T});
                const double s = score(w, h);
                if (s > best) {
                    best = s;
                    tdRow = row;
                    tdRight = rp;
                    tdOk = true;
                }
            }
        }
    }
    // Bottom-up: seeded one column past the scan column; the right shrinks as it goes.
    bool buOk = false;
    int L1 = 0, buRow = 0, buRight = 0;
    {
        int l = 0, r = 0;
        if (FocusLimits(g, B, c, l, r, false, nullptr, nullptr) && r >= l && c >= l && c <= r) {
            L1 = l;
            int running = r;
            double best = 0;
            for (int row = B; row >= T; --row) {
                int left = 0, right = 0;
                if (!FocusLimits(g, row, c + 1, left, right, false, nullptr, nullptr)) break;
                if (left > c || right < left) break;
                const int rp = std::min(right, running);
                running = rp;
                const int w = rp - L1 + 1, h = B - row + 1;
                if (w < 0 || h < 0) continue;
                cands.push_back({c, L1, rp, row, B});
                const double s = score(w, h);
                if (s > best) {
                    best = s;
                    buRow = row;
                    buRight = rp;
                    buOk = true;
                }
            }
        }
    }
    const long tdW = tdOk ? tdRight - L0 + 1 : 0, tdH = tdOk ? tdRow - T + 1 : 0;
    const long buW = buOk ? buRight - L1 + 1 : 0, buH = buOk ? B - buRow + 1 : 0;
    const long tdArea = std::labs(tdW) * std::labs(tdH), buArea = std::labs(buW) * std::labs(buH);
    if (tdArea == 0 && buArea == 0) return;
    int left, right, top, bottom;
    long w, h;
    if (tdArea > buArea) {
        left = L0, right = tdRight, top = T, bottom = tdRow, w = tdW, h = tdH;
    } else {
        left = L1, right = buRight, top = buRow, bottom = B, w = buW, h = buH;
    }
    const int hw = RoundInt(w / 2.0), hh = RoundInt(h / 2.0);
    const long v = 4L * hw * hh;
    if (v > seed.value) {
        seed.value = v;
        seed.column = RoundInt((left + right) / 2.0);
        seed.row = RoundInt((top + bottom) / 2.0);
        seed.colRadius = hw;
        seed.rowRadius = hh;
    }
}

// The best ellipse of one span of row r, if any. False when Escape was pressed.
bool EllipseOfSpan(const Cells& g, int r, int lastRow, int spanLeft, int spanRight,
                   std::vector<EllipseCand>& out) {
    // The column whose dose run is most nearly centred on this row.
    const int k0 = std::max(spanLeft, 1), k1 = std::min(spanRight, g.lastCol);
    if (k0 > k1) return true;
    std::vector<int> asym(static_cast<size_t>(k1 - k0 + 1));
    int minAsym = std::numeric_limits<int>::max();
    for (int k = k0; k <= k1; ++k) {
        int rr = r, top = 0, bottom = 0;
        DoseLimits(g, k, rr, top, bottom);
        const int a = std::abs((bottom - r) - (r - top));
        asym[static_cast<size_t>(k - k0)] = a;
        minAsym = std::min(minAsym, a);
    }
    int first = k0;
    while (asym[static_cast<size_t>(first - k0)] != minAsym) ++first;
    int lastRun = first;
    while (lastRun + 1 <= k1 && asym[static_cast<size_t>(lastRun + 1 - k0)] == minAsym) ++lastRun;
    const int centre = lastRun == first ? first : RoundInt((first + lastRun) / 2.0);

    int rr = r, top = 0, bottom = 0;
    DoseLimits(g, centre, rr, top, bottom);
    const int yStart = std::min(r - top + 2, bottom - r + 2);
    const int width = spanRight - spanLeft + 1;
    const int xStart = static_cast<int>(std::floor(width / 2.0 + 1));

    // The score pi (x+1)(y+1) / r only grows with the product, and only a
    // strictly greater score replaces the best: products at or under the
    // best's cannot change the outcome and are not tested.
    double best = 0;
    long bestProduct = 0;
    EllipseCand found{0, 0, 0, 0};
    bool have = false;
    for (int yr = yStart; yr >= 0; --yr) {
        if (static_cast<long>(xStart + 1) * (yr + 1) <= bestProduct) break;
        for (int xr = xStart; xr >= 1; --xr) {
            const long product = static_cast<long>(xr + 1) * (yr + 1);
            if (product <= bestProduct) break;
            const int c0 = std::max(spanLeft + xr, 1), c1 = std::min(spanRight - xr, g.lastCol);
            for (int col = c0; col <= c1; ++col) {
                if (CheckEscKey()) return false;
                int q = 0, fc = 0, fr = 0, lim = 0;
                if (CheckEllipse(g, col, r, xr, yr, q, fc, fr, lim) != 1) continue;
                const double s = std::numbers::pi * (xr + 1) * (yr + 1) / r;
                if (s > best) {
                    best = s;
                    bestProduct = product;
                    found = {col, r, xr, yr};
                    have = true;
                }
                break;  // the other columns give the same score
            }
        }
    }
    if (have) {
        out.push_back(found);
        SetStatusText("Ellipse Calculation Dose: " + std::to_string(r) + " of " +
                      std::to_string(lastRow));
    }
    return true;
}

// FindPWEllipseLimits: the best ellipse of every row (and of a row's second
// island), seeded by the rectangle search. False when Escape was pressed.
Result<bool> FindPWEllipseLimits(const Cells& g, const Seed& seed, std::vector<EllipseCand>& out) {
    Proc p("PWcommon(FindPWEllipseLimits): ");
    if (g.count == 0) return p.fail("Surface contains no values.");
    const int cLo = std::max(seed.column - 2 * seed.colRadius, 1);
    const int cHi = std::min(seed.column + 2 * seed.colRadius, g.lastCol);
    int lastRow = 0;
    std::vector<int> counts(static_cast<size_t>(g.lastRow) + 1, 0);
    for (int r = 1; r <= g.lastRow; ++r) {
        counts[static_cast<size_t>(r)] = g.rowCount(r);
        if (counts[static_cast<size_t>(r)] > 0) lastRow = r;
    }
    auto usable = [&](int l, int r) { return l != r && !(r < cLo || l > cHi); };
    for (int r = 1; r <= lastRow; ++r) {
        if (counts[static_cast<size_t>(r)] == 0) continue;
        int left = 0, right = 0, left2 = 0, right2 = 0;
        if (!FocusLimits(g, r, seed.column, left, right, true, &left2, &right2)) continue;
        bool second = left2 != 0 || right2 != 0;
        if (!usable(left, right)) {
            if (!second) continue;
            left = left2, right = right2;
            second = false;
        }
        if (!EllipseOfSpan(g, r, lastRow, left, right, out)) return false;
        if (second && usable(left2, right2))
            if (!EllipseOfSpan(g, r, lastRow, left2, right2, out)) return false;
    }
    return true;
}

// ---------------------------------------------------------------- tables

constexpr int kRectCols = 12;   // columns 0..12: the rectangle block
constexpr int kTableCols = 23;  // columns 0..23

void WriteHeaders(Datam& t) {
    // clang-format off
    static const char* const kHeads[] = {
        "", "Rectangle Focus", "Dose", "Xleft LFocus", "Xright LFocus", "LDose", "Xleft UFocus",
        "Xright UFocus", "UDose", "Area", "DoF", "ExpoLat", "ExpoLat%", "",
        "Ellipse Focus", "Dose", "Xradius", "Yradius", "Area", "DoF", "ExpoLat", "ExpoLat%",
        "Xleft Focus", "Xright Focus"};
    // clang-format on
    for (int c = 0; c <= kTableCols; ++c)
        if (*kHeads[c]) t(0, c) = Value(kHeads[c]);
}

double Num(const Value& v) {
    double x = 0;
    return NumericOf(v, x) ? x : 0.0;
}

std::string FeatureOfKey(const std::string& key) {
    const size_t u = key.rfind('_');
    return u == std::string::npos ? key : key.substr(0, u);
}

// The first row holding the largest numeric value of a column.
int FirstLargest(const Datam& t, int col, int rows) {
    int best = 0;
    double bestV = -std::numeric_limits<double>::infinity();
    for (int r = 1; r <= rows; ++r) {
        double v = 0;
        if (!NumericOf(t(r, col), v)) continue;
        if (v > bestV) {
            bestV = v;
            best = r;
        }
    }
    return best;
}

}  // namespace

// ---------------------------------------------------------------- public cell routines

Result<Datam> PWgridSetup(double doseLow, double doseHigh, double doseStep, double focusLow,
                          double focusHigh, double focusStep, int precision) {
    Proc p("PWcommon(PWgridSetup): ");
    if (precision <= 0) precision = 10;
    // Decimals: as many as the printed step has zeros after its point, at least 5.
    auto decimals = [](double step) {
        const std::string text = NumberToText(step);
        int zeros = 0;
        const size_t dot = text.find('.');
        if (dot != std::string::npos)
            for (size_t i = dot + 1; i < text.size() && text[i] != 'E' && text[i] != 'e'; ++i)
                zeros += text[i] == '0';
        return std::max(zeros, 5);
    };
    p.chk = 1;
    double dStep = doseStep / precision, fStep = focusStep / precision;
    const int dDec = decimals(dStep), fDec = decimals(fStep);
    if (RoundTo(dStep, dDec) != 0) dStep = RoundTo(dStep, dDec);
    if (RoundTo(fStep, fDec) != 0) fStep = RoundTo(fStep, fDec);
    if (!(dStep > 0) || !(fStep > 0))
        return p.fail("Scan Range (dose/focus) values not set properly.");
    const double doseRange = doseHigh - doseLow, focusRange = focusHigh - focusLow;
    const double dTop = RoundTo(doseHigh + doseRange / 2, dDec),
                 dBottom = RoundTo(doseLow - doseRange / 2, dDec);
    const double fTop = RoundTo(focusHigh + focusRange / 2, fDec),
                 fBottom = RoundTo(focusLow - focusRange / 2, fDec);
    p.chk = 2;
    const double rowsD = std::nearbyint((dTop - dBottom) / dStep),
                 colsD = std::nearbyint((fTop - fBottom) / fStep);
    if (!(rowsD >= 1) || !(colsD >= 1) || rowsD * colsD > 5e7)
        return p.fail("Scan Range (dose/focus) values not set properly.");
    const int rows = static_cast<int>(rowsD), cols = static_cast<int>(colsD);
    Datam grid(rows, cols, 0, 0);
    for (int r = 1; r <= rows; ++r) grid(r, 0) = Value(RoundTo(dTop - (r - 1) * dStep, dDec));
    for (int c = 1; c <= cols; ++c) grid(0, c) = Value(RoundTo(fBottom + (c - 1) * fStep, fDec));
    return grid;
}

void FindPWDoseLimits(const Datam& grid, int column, int& row, int& top, int& bottom) {
    DoseLimits(Cells(grid), column, row, top, bottom);
}

bool FindPWFocusLimits(const Datam& grid, int row, int column, int& left, int& right, bool ellipse,
                       int* left2, int* right2) {
    return FocusLimits(Cells(grid), row, column, left, right, ellipse, left2, right2);
}

int PWcheckEllipse(const Datam& grid, int column, int row, int xRadius, int yRadius, int& quadrant,
                   int& failedColumn, int& failedRow, int& radiusLimit) {
    return CheckEllipse(Cells(grid), column, row, xRadius, yRadius, quadrant, failedColumn,
                        failedRow, radiusLimit);
}

// ---------------------------------------------------------------- GetInscribe

Result<PWInscribed> GetInscribe(const PWSetup& setup,
                                const std::vector<std::pair<std::string, Datam>>& surfaces,
                                PWState& state) {
    Proc p("PWcommon(GetInscribe): ");
    state.haveWindow = false;
    state.processWindowSpace.clear();
    PWInscribed res;

    // 1. The composite: a cell survives only where every grid is filled.
    p.chk = 1;
    if (surfaces.empty()) return p.fail("No surfaces stored in collection.");
    const std::string lead = LoadResString(resCompositeSurface);
    const int m = static_cast<int>(surfaces.size());
    Datam comp, sums;
    for (int k = 0; k < m; ++k) {
        SetStatusText(lead + " Surface #:" + std::to_string(k + 1) + " of " + std::to_string(m));
        const Datam& grid = surfaces[static_cast<size_t>(k)].second;
        if (k == 0) {
            comp = grid;
        } else if (comp.isArray() && comp.dims() == 2) {
            for (int r = std::max(comp.rowLb(), 1); r <= comp.rowUb(); ++r)
                for (int c = std::max(comp.colLb(), 1); c <= comp.colUb(); ++c) {
                    Value& a = comp(r, c);
                    if (a.isEmpty()) continue;
                    const Value& b = grid.isArray() && grid.dims() == 2 ? grid.get(r, c) : Value();
                    if (b.isEmpty())
                        a = Value();
                    else
                        a = Value(a.toDouble() * b.toDouble());
                }
        }
        // The SUM statistic of the composite, kept for the scan below.
        double total = 0;
        sums = comp.isArray() && comp.dims() == 2 ? mat_rcstat(comp, "SUM") : Datam();
        if (sums.isArray())
            for (int r = FirstData(sums, 1); r <= sums.rowUb(); ++r)
                total += Num(sums(r, VecCol(sums)));
        if (total == 0) {
            const std::string feature = FeatureOfKey(surfaces[static_cast<size_t>(k)].first);
            return p.fail(
                "There is no common process window for the variables selected and "
                "over this range.\r\nVariable: '" +
                feature + "' exceeds the window.");
        }
    }

    const Cells g(comp);
    std::vector<double> fH(static_cast<size_t>(g.lastCol) + 1),
        dH(static_cast<size_t>(g.lastRow) + 1);
    for (int c = 1; c <= g.lastCol; ++c) fH[static_cast<size_t>(c)] = Num(comp(0, c));
    for (int r = 1; r <= g.lastRow; ++r) dH[static_cast<size_t>(r)] = Num(comp(r, 0));
    auto F = [&](int c) { return fH[static_cast<size_t>(c)]; };
    auto D = [&](int r) { return dH[static_cast<size_t>(r)]; };
    // The focus step along the headers, also used to carry doses past the last row.
    const int k11 = std::min(11, g.lastCol);
    const double fStep = k11 > 1 ? (F(k11) - F(1)) / (k11 - 1) : 0.0;

    // 2. The scan table: the first dose run of every column holding cells.
    p.chk = 2;
    struct ScanRow {
        int column, top, bottom;
    };
    std::vector<ScanRow> scan;
    {
        const int lastSum = sums.isArray() ? mat_LastRow(sums) : 0;
        for (int c = 1; c <= std::min(g.lastCol, lastSum); ++c) {
            if (!(Num(sums.get(c, VecCol(sums))) > 0)) continue;
            int row = 0, top = 0, bottom = 0;
            DoseLimits(g, c, row, top, bottom);
            if (top < 1) continue;
            scan.push_back({c, top, bottom});
        }
    }
    Datam& st = res.scan;
    st = Datam(static_cast<int>(scan.size()), 5, 0, 0);
    {
        const char* heads[] = {"Xfocus", "TopDose", "BotDose", "rwTopDose", "rwBotDose", "clFocus"};
        for (int c = 0; c <= 5; ++c) st(0, c) = Value(heads[c]);
        for (size_t i = 0; i < scan.size(); ++i) {
            const int r = static_cast<int>(i) + 1;
            st(r, 0) = Value(F(scan[i].column));
            st(r, 1) = Value(D(scan[i].top));
            st(r, 2) = Value(D(scan[i].bottom));
            st(r, 3) = Value(int32_t(scan[i].top));
            st(r, 4) = Value(int32_t(scan[i].bottom));
            st(r, 5) = Value(int32_t(scan[i].column));
        }
    }

    // 3. The rectangle search, two passes per scan column.
    p.chk = 3;
    std::vector<RectCand> rects;
    Seed seed;
    bool escaped = false;
    for (size_t i = 0; i < scan.size(); ++i) {
        SetStatusText("Systematic window fit # " + std::to_string(i + 1) + " of " +
                      std::to_string(scan.size()));
        if (CheckEscKey()) {
            escaped = true;
            break;
        }
        RectanglePasses(g, scan[i].column, scan[i].top, scan[i].bottom, rects, seed);
    }

    // 4. The ellipse search about the seed rectangle.
    p.chk = 4;
    std::vector<EllipseCand> ellipses;
    if (!escaped) {
        Result<bool> e = FindPWEllipseLimits(g, seed, ellipses);
        if (!e) return e.failure();
    }

    // 5. The ProcessWindowSpace table: rectangles left, ellipses right.
    p.chk = 5;
    const int nRect = static_cast<int>(rects.size());
    // Built in place: the table holds every candidate and is large.
    Datam& table = state.processWindowSpace;
    table = Datam(std::max<int>(nRect, static_cast<int>(ellipses.size())), kTableCols, 0, 0);
    WriteHeaders(table);
    for (int i = 0; i < nRect; ++i) {
        const RectCand& c = rects[static_cast<size_t>(i)];
        const int r = i + 1;
        const double fl = F(c.left), fr = F(c.right), lo = D(c.lower), up = D(c.upper);
        const double dose = (lo + up) / 2;
        const double dof = std::fabs(fr - fl), el = std::fabs(up - lo);
        const std::string pct =
            dose != 0 ? Format(100.0 * el / dose, "###0.00") : Format(0.0, "###0.00");
        table(r, 0) = Value(F(c.scanColumn));
        table(r, 1) = Value((fl + fr) / 2);
        table(r, 2) = Value(dose);
        table(r, 3) = Value(fl);
        table(r, 4) = Value(fr);
        table(r, 5) = Value(lo);
        table(r, 6) = Value(fl);
        table(r, 7) = Value(fr);
        table(r, 8) = Value(up);
        table(r, 10) = Value(dof);
        table(r, 11) = Value(el);
        table(r, 12) = Value(pct);
        table(r, 9) = Value(dof * Num(table(r, 12)));
    }
    int nEll = 0;
    for (const EllipseCand& e : ellipses) {
        if (e.column <= 0) continue;
        const int last = g.lastCol, lastRow = g.lastRow;
        auto focusAt = [&](int c) {
            if (c > last) return F(last) + fStep * (c - last);
            if (c < 1) return F(1) + fStep * (c - 1);
            return F(c);
        };
        auto doseAt = [&](int r) {
            return r > lastRow ? D(lastRow) + fStep * (r - lastRow) : D(r);
        };
        const double focus = focusAt(e.column), dose = doseAt(e.row);
        const double xr = e.column + e.xRadius <= last ? F(e.column + e.xRadius) - focus
                                                       : focus - focusAt(e.column - e.xRadius);
        const double yr = dose - doseAt(e.row + e.yRadius);
        const int r = ++nEll;
        table(r, 14) = Value(focus);
        table(r, 15) = Value(dose);
        table(r, 16) = Value(xr);
        table(r, 17) = Value(yr);
        const double dof = 2 * xr, el = 2 * yr, pct = dose != 0 ? 100.0 * el / dose : 0.0;
        table(r, 19) = Value(dof);
        table(r, 20) = Value(el);
        table(r, 21) = Value(pct);
        table(r, 18) = Value(std::numbers::pi * (dof / 2) * (pct / 2));
        table(r, 22) = Value(focus - xr);
        table(r, 23) = Value(focus + xr);
    }
    if (std::max(nRect, nEll) < table.rowUb())
        table.redimPreserve(std::max(nRect, nEll), kTableCols);

    // 6. One rectangle per dose: the largest Area of each.
    p.chk = 6;
    {
        Datam& out = res.rectangles;
        out = Datam(0, kRectCols, 0, 0);
        for (int c = 0; c <= kRectCols; ++c) out(0, c) = table(0, c);
        if (nRect > 0) {
            Datam left(nRect, kRectCols, 0, 0);
            for (int r = 0; r <= nRect; ++r)
                for (int c = 0; c <= kRectCols; ++c) left(r, c) = table(r, c);
            Datam keys(2, 1, 1, 1);
            keys(1, 1) = Value(int32_t(2));
            keys(2, 1) = Value(int32_t(9));
            Datam unique;
            Notes notes;
            const Datam sorted = mat_SheetSort(left, keys, &unique, &notes);
            if (!sorted.isArray())
                return notes.failure ? *notes.failure : p.fail("Sort of the rectangles failed.");
            const int nu = unique.isArray() ? unique.rowUb() : 0;
            out.redimPreserve(nu, kRectCols);
            for (int u = 1; u <= nu; ++u) {
                const int from =
                    unique.colUb() >= 3 ? static_cast<int>(unique(u, 3).toLong()) : sorted.rowUb();
                for (int c = 0; c <= kRectCols; ++c) out(u, c) = sorted(from, c);
            }
        }
    }

    // 7. The best figures.
    p.chk = 7;
    if (nRect + nEll < 2)
        return p.fail(
            "No rows available for process window analysis.\r\nTry a different dose-seed value.");
    if (setup.workbook) {
        const std::string sheet = "ProcessWindowSpace";
        SaveArrayOptions o;
        o.save = false;
        if (Status s = SaveArray(table, sheet, setup.workbook, o); !s) return s.failure();
        if (Status s = AddIndexItem(
                setup.workbook, sheet,
                "Data characterization of process window for " + setup.title + ", " + FormatDate(NowSerial(), "yyyy-mm-dd hh:mm:ss"));
            !s)
            return s.failure();
    }
    if (const int r = FirstLargest(table, 9, nRect); r > 0) {
        res.rectFocus = Num(table(r, 1));
        res.rectDose = Num(table(r, 2));
        res.rectDoF = Num(table(r, 10));
        res.rectExpoLatPct = Num(table(r, 12));
    }
    if (const int r = FirstLargest(table, 18, nEll); r > 0) {
        res.ellipseFocus = Num(table(r, 14));
        res.ellipseDose = Num(table(r, 15));
        res.ellipseFocusRadius = Num(table(r, 19)) / 2;
        res.ellipseDoseRadius = Num(table(r, 20)) / 2;
    }
    state.rectFocus = res.rectFocus;
    state.rectDose = res.rectDose;
    state.rectDoF = res.rectDoF;
    state.rectExpoLatPct = res.rectExpoLatPct;
    state.ellipseFocus = res.ellipseFocus;
    state.ellipseDose = res.ellipseDose;
    state.ellipseFocusRadius = res.ellipseFocusRadius;
    state.ellipseDoseRadius = res.ellipseDoseRadius;
    state.haveWindow = true;
    return res;
}

// ---------------------------------------------------------------- the DoF frontier

Result<PWFrontier> PWselectreduceDOF(const Datam& table, int focusColumn, int doseColumn,
                                     int xColumn, int yColumn, double dose, double focus,
                                     double percent, double dof) {
    Proc p("PWcommon(PWselectreduceDOF): ");
    PWFrontier out;
    out.table = table;
    if (!table.isArray() || table.dims() != 2 || table.rowUb() < 1) return out;
    for (int c : {focusColumn, doseColumn, xColumn, yColumn})
        if (c < table.colLb() || c > table.colUb()) {
            p.error("Subscript out of range");
            return p.failure();
        }
    // The dose gate takes the percentage as a fraction: wide open, as it has always been.
    const double doseHigh = dose * (1 + percent), doseLow = dose * (1 - percent);
    const double focusHigh = RoundTo(focus + dof / 3, 3), focusLow = RoundTo(focus - dof / 3, 3);

    p.chk = 1;
    Datam keys(2, 2, 1, 1);
    keys(1, 1) = Value(int32_t(yColumn));
    keys(1, 2) = Value(int32_t(1));
    keys(2, 1) = Value(int32_t(xColumn));
    keys(2, 2) = Value(int32_t(0));
    Notes notes;
    Datam unique;
    const Datam sorted = mat_sort(table, keys, &unique, true, &notes);
    if (!sorted.isArray())
        return notes.failure ? *notes.failure : p.fail("Sort of the DoF table failed.");
    // The last row of each DoF group holds its widest latitude.
    std::vector<int> ends;
    if (unique.isArray() && unique.colUb() >= 3) {
        for (int u = FirstData(unique, 1); u <= unique.rowUb(); ++u)
            ends.push_back(static_cast<int>(unique(u, 3).toLong()));
    } else {
        ends.push_back(sorted.rowUb());
    }
    p.chk = 2;
    std::vector<int> keep;
    double lastEl = -std::numeric_limits<double>::infinity();
    for (int r : ends) {
        double el = 0;
        if (!NumericOf(sorted(r, xColumn), el)) continue;
        const double d = Num(sorted(r, doseColumn)), f = Num(sorted(r, focusColumn));
        if (el >= lastEl && d >= doseLow && d <= doseHigh && f >= focusLow && f <= focusHigh) {
            keep.push_back(r);
            lastEl = el;
        }
    }
    if (!keep.empty()) {
        Datam t(static_cast<int>(keep.size()), table.colUb(), table.rowLb(), table.colLb());
        for (int r = table.rowLb(); r < FirstData(table, 1); ++r)
            for (int c = table.colLb(); c <= table.colUb(); ++c) t(r, c) = table(r, c);
        for (size_t i = 0; i < keep.size(); ++i)
            for (int c = table.colLb(); c <= table.colUb(); ++c)
                t(FirstData(t, 1) + static_cast<int>(i), c) = sorted(keep[i], c);
        out.table = std::move(t);
    }
    p.chk = 3;
    if (out.table.rowUb() - FirstData(out.table, 1) + 1 > 1) {
        const CurveFit a = FitCurve(out.table, xColumn, yColumn, 3);
        if (a.coef.isArray()) out.equation = a.equation;
        const CurveFit b = FitCurve(out.table, yColumn, xColumn, 3);
        if (b.coef.isArray()) out.equation2 = b.equation;
    }
    return out;
}

Status CreateGraphExpoLat_DOF(const PWSetup& setup, const PWState& state, const Datam& sortedTable,
                              cGraphic& chart) {
    Proc p("PWcommon(CreateGraphExpoLat_DOF): ");
    SetStatusText("DoF vs EL% graph setup ....");
    chart.KeyName = "ExpoLatDof";
    chart.Kind = GraphKind::Chart;
    chart.Series.Clear();
    chart.Messages.clear();
    chart.ClearData();

    // The frontiers come from every candidate: the left block of the table,
    // and the right block as a table of its own (columns 1..10 = 14..23).
    p.chk = 1;
    const Datam& pws = state.processWindowSpace;
    int nCand = 0, nEll = 0;
    if (pws.isArray() && pws.colUb() >= kTableCols)
        for (int r = 1; r <= pws.rowUb(); ++r) {
            if (IsNumericValue(pws(r, 9))) nCand = r;
            if (IsNumericValue(pws(r, 18))) nEll = r;
        }
    Datam cand(nCand, kRectCols, 0, 0);
    for (int r = 0; r <= nCand; ++r)
        for (int c = 0; c <= kRectCols; ++c) cand(r, c) = pws.get(r, c);
    Result<PWFrontier> rect = PWselectreduceDOF(cand, 1, 2, 12, 10, state.rectDose, state.rectFocus,
                                                state.rectExpoLatPct, state.rectDoF);
    if (!rect) return rect.failure();
    const int nRect = sortedTable.isArray() ? std::max(sortedTable.rowUb(), 0) : 0;

    p.chk = 2;
    Datam ell(nEll, 10, 0, 1);
    for (int r = 0; r <= nEll; ++r)
        for (int c = 1; c <= 10; ++c) ell(r, c) = pws.get(r, c + 13);
    PWFrontier ellF;
    if (nEll > 0) {
        const double pct =
            state.ellipseDose != 0 ? 100.0 * 2 * state.ellipseDoseRadius / state.ellipseDose : 0.0;
        Result<PWFrontier> e =
            PWselectreduceDOF(ell, 1, 2, 8, 6, state.ellipseDose, state.ellipseFocus, pct,
                              2 * state.ellipseFocusRadius);
        if (!e) return e.failure();
        ellF = std::move(*e);
    }

    // The chart's table: rectangles, ellipses, and the drop from the last frontier point.
    p.chk = 3;
    const int n = std::max({nRect, nEll, 2});
    Datam t(n, 6, 0, 1);
    const char* heads[] = {"ExpoLat%",    "DoF",       "ExpoLat%_Ellipse",
                           "DoF_Ellipse", "XconstDOF", "YconstDOF"};
    for (int c = 1; c <= 6; ++c) t(0, c) = Value(heads[c - 1]);
    double xMax = 0, yMax = 0;
    for (int r = 1; r <= nRect; ++r) {
        double x = 0, y = 0;
        if (!NumericOf(sortedTable(r, 12), x) || !NumericOf(sortedTable(r, 10), y)) continue;
        t(r, 1) = Value(x);
        t(r, 2) = Value(y);
        xMax = std::max(xMax, x);
        yMax = std::max(yMax, y);
    }
    for (int r = 1; r <= nEll; ++r) {
        double x = 0, y = 0;
        if (!NumericOf(ell(r, 8), x) || !NumericOf(ell(r, 6), y)) continue;
        t(r, 3) = Value(x);
        t(r, 4) = Value(y);
        xMax = std::max(xMax, x);
        yMax = std::max(yMax, y);
    }
    const Datam& ft = rect->table;
    double xLast = 0, yLast = 0, xLo = 0, xHi = 0;
    if (ft.isArray() && ft.rowUb() >= 1) {
        xLast = Num(ft(ft.rowUb(), 12));
        yLast = Num(ft(ft.rowUb(), 10));
        xLo = xHi = xLast;
        for (int r = 1; r <= ft.rowUb(); ++r) {
            xLo = std::min(xLo, Num(ft(r, 12)));
            xHi = std::max(xHi, Num(ft(r, 12)));
        }
    }
    t(1, 5) = Value(xLast);
    t(2, 5) = Value(xLast);
    t(1, 6) = Value(yLast);
    t(2, 6) = Value(0.0);

    p.chk = 4;
    chart.TitleObj.TitleString = setup.title +
                                 "  --  Zorv PW Process Window\r\nData: " + setup.dataTypeName +
                                 "\r\nSite: " + setup.siteListText + "\r\nMetrology Date: ";
    // Both axes are set here: auto-scaling would replace the tick formats.
    auto axis = [](cAxis& a, const char* label, const char* format, double high) {
        a.Label = label;
        a.TickFormat = format;
        a.LowValue = 0;
        a.HighValue = static_cast<float>(high);
        a.TickInterval = static_cast<float>(high / 10);
        a.UnitsPerTick = a.TickInterval;
        a.AutoScale = false;
        a.OriginLowValue = a.LowValue;
        a.OriginHighValue = a.HighValue;
        a.OriginTickInterval = a.TickInterval;
        a.OriginTickFormat = a.TickFormat;
    };
    double xHigh = std::nearbyint(xMax * 1.1);
    if (!(xHigh > 0)) xHigh = xMax > 0 ? xMax * 1.1 : 1.0;
    double yHigh = RoundTo(yMax * 1.1, 3);
    if (!(yHigh > 0)) yHigh = yMax > 0 ? yMax * 1.1 : 1.0;
    axis(chart.Axes.Add("X"), "Exposure Latitude(%)", "#0.00", xHigh);
    axis(chart.Axes.Add("Y"), "Depth-of-Focus", "#0.000", yHigh);

    auto curve = [&](const std::string& label, const std::string& equation, double lo, double hi,
                     Color colour) {
        if (equation.empty()) return;
        cSeries& f = chart.Series.Add(label + equation);
        f.Xcol = 1;
        f.DisplayFunction.setEquation(equation);
        f.DisplayFunctionXlow = lo;
        f.DisplayFunctionXhigh = hi;
        f.SymbolDisplay = false;
        f.ColorFore = colour;
    };
    cSeries& rs = chart.Series.Add("DoF_Rectangle");
    rs.Xcol = 1;
    rs.Ycol = 2;
    rs.Connect = false;
    rs.Symbol = SymbolShape::FilledSquare;
    rs.ColorFore = cGraphic::GetPlotColors(0);
    curve("DoFrect=", rect->equation, xLo, xHi, rs.ColorFore);
    if (nEll > 0) {
        cSeries& es = chart.Series.Add("DoF_Ellipse");
        es.Xcol = 3;
        es.Ycol = 4;
        es.Connect = false;
        es.Symbol = SymbolShape::FilledCircle;
        es.ColorFore = cGraphic::GetPlotColors(1);
        double lo = 0, hi = 0;
        const Datam& et = ellF.table;
        for (int r = 1; et.isArray() && r <= et.rowUb(); ++r) {
            const double x = Num(et(r, 8));
            lo = r == 1 ? x : std::min(lo, x);
            hi = r == 1 ? x : std::max(hi, x);
        }
        curve("DoFellipse=", ellF.equation, lo, hi, es.ColorFore);
    }
    cSeries& drop = chart.Series.Add("ELmaxX=" + Format(xLast, "0.00"));
    drop.Xcol = 5;
    drop.Ycol = 6;
    drop.LineType = static_cast<int>(DrawStyle::Dash);
    drop.SymbolDisplay = false;
    drop.ColorFore = cGraphic::GetPlotColors(2);

    p.chk = 5;
    return chart.RegisterData(t);
}

}  // namespace zorv
