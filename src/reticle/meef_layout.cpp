// The site layout of the mask error analysis: the grid of the field's sites
// and its neighbours, the sites tied by the reticle, and the reticle CD at
// each site from the surface of the reticle's measurements.
#include <algorithm>
#include <cmath>
#include <map>

#include "meef_common.h"
#include "numerics/surface.h"
#include "reticle/meef.h"

namespace zorv {

using namespace mefimpl;

namespace {

// Sorted distinct values, those within the tolerance taken as one.
std::vector<double> GridLines(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    std::vector<double> lines;
    for (double x : v)
        if (lines.empty() || x - lines.back() > kMefGridTolerance) lines.push_back(x);
    return lines;
}

// Index of the grid line within the tolerance of v; -1 when none.
int LineOf(const std::vector<double>& lines, double v) {
    auto it = std::lower_bound(lines.begin(), lines.end(), v - kMefGridTolerance);
    if (it != lines.end() && std::fabs(*it - v) <= kMefGridTolerance) return static_cast<int>(it - lines.begin());
    return -1;
}

// The reticle's measured sites at wafer scale: place (um) and CD.
struct ReticleSite {
    int32_t number = 0;
    double x = 0, y = 0, cd = 0;
};

std::vector<ReticleSite> ReticleSites(const cLot& reticle, int feature, const MEFSetup& setup) {
    std::map<int32_t, std::pair<ReticleSite, int>> by;  // sums by site number, then averaged
    reticle.forEachLiveSite([&](cWafer&, cField&, cSite& s) {
        const double v = SiteMean(s, feature);
        if (!Known(v)) return;
        auto [it, isNew] = by.try_emplace(s.NumberKey());
        if (isNew) {
            it->second.first.number = s.NumberKey();
            it->second.first.x = s.LocationX / setup.siteMag;
            it->second.first.y = s.LocationY / setup.siteMag;
        }
        it->second.first.cd += v;
        ++it->second.second;
    });
    std::vector<ReticleSite> out;
    for (auto& [n, e] : by) {
        e.first.cd = e.first.cd / e.second / setup.mag;
        out.push_back(e.first);
    }
    return out;
}

// The reticle site within the tolerance of a place; nullptr when none.
const ReticleSite* ReticleAt(const std::vector<ReticleSite>& rs, double x, double y) {
    for (const ReticleSite& r : rs)
        if (std::fabs(r.x - x) <= kMefGridTolerance && std::fabs(r.y - y) <= kMefGridTolerance) return &r;
    return nullptr;
}

// Bilinear value of a filled surface grid (X in row 0, Y in column 0) at a
// place within its lines.
double GridValue(const Datam& g, const std::vector<double>& xs, const std::vector<double>& ys, double x, double y) {
    auto bracket = [](const std::vector<double>& l, double v, int& i, double& t) {
        i = 0;
        t = 0;
        if (l.size() < 2) return;
        i = static_cast<int>(std::upper_bound(l.begin(), l.end(), v) - l.begin()) - 1;
        i = std::clamp(i, 0, static_cast<int>(l.size()) - 2);
        t = std::clamp((v - l[i]) / (l[i + 1] - l[i]), 0.0, 1.0);
    };
    int i, j;
    double tx, ty;
    bracket(xs, x, i, tx);
    bracket(ys, y, j, ty);
    const int i1 = xs.size() > 1 ? i + 1 : i, j1 = ys.size() > 1 ? j + 1 : j;
    const Value* c[4] = {&g(j + 1, i + 1), &g(j + 1, i1 + 1), &g(j1 + 1, i + 1), &g(j1 + 1, i1 + 1)};
    const double w[4] = {(1 - tx) * (1 - ty), tx * (1 - ty), (1 - tx) * ty, tx * ty};
    double sum = 0, wsum = 0;
    for (int k = 0; k < 4; ++k) {
        if (!c[k]->isNumberType()) continue;
        sum += w[k] * c[k]->toDouble();
        wsum += w[k];
    }
    return wsum > 0 ? sum / wsum : kNaN;
}

}  // namespace

const std::array<std::array<int, 2>, kMefNeighbors> kMefNeighborOffsets = {{
    {0, -1}, {0, 1}, {1, 0}, {-1, 0}, {-1, -1}, {1, -1}, {-1, 1}, {1, 1},   // ring one
    {-2, -2}, {-1, -2}, {0, -2}, {1, -2}, {2, -2},                          // row r - 2
    {-2, -1}, {2, -1}, {-2, 0}, {2, 0}, {-2, 1}, {2, 1},                    // the sides of ring two
    {-2, 2}, {-1, 2}, {0, 2}, {1, 2}, {2, 2},                               // row r + 2
}};

// ---------------------------------------------------------------- layout

SiteLayout GetSiteLayout(const cLot& lot) {
    std::map<int32_t, LayoutSite> by;
    lot.forEachLiveSite([&](cWafer&, cField&, cSite& s) {
        by.try_emplace(s.NumberKey(), LayoutSite{s.NumberKey(), s.LocationX, s.LocationY});
    });
    SiteLayout out;
    out.reserve(by.size());
    for (auto& [n, s] : by) out.push_back(s);
    return out;
}

int NeighborTable::IndexOf(int32_t number) const {
    auto it = std::lower_bound(site.begin(), site.end(), number);
    return it != site.end() && *it == number ? static_cast<int>(it - site.begin()) : -1;
}

Datam NeighborTable::ToDatam() const {
    Datam t(Count(), kMefNeighbors + 1, 0, 1);
    t(0, 1) = "Site";
    for (int k = 1; k <= kMefNeighbors; ++k) t(0, k + 1) = std::string("N").append(std::to_string(k));
    for (int i = 0; i < Count(); ++i) {
        t(i + 1, 1) = Value(site[i]);
        for (int k = 0; k < kMefNeighbors; ++k)
            if (neighbor[i][k] >= 0) t(i + 1, k + 2) = Value(site[neighbor[i][k]]);
    }
    return t;
}

Result<NeighborTable> GetNeighborSites(const SiteLayout& layoutIn) {
    Proc p("ReticleAnalysis(GetNeighborSites): ");
    p.chk = 1;
    if (layoutIn.empty()) return p.fail("No sites in the layout.");
    SiteLayout layout = layoutIn;
    std::sort(layout.begin(), layout.end(), [](const LayoutSite& a, const LayoutSite& b) { return a.number < b.number; });
    layout.erase(std::unique(layout.begin(), layout.end(),
                             [](const LayoutSite& a, const LayoutSite& b) { return a.number == b.number; }),
                 layout.end());

    // Grid lines of the site places; a place holds the lowest site number on it.
    p.chk = 2;
    std::vector<double> xs, ys;
    for (const LayoutSite& s : layout) xs.push_back(s.x), ys.push_back(s.y);
    const std::vector<double> cols = GridLines(std::move(xs)), rows = GridLines(std::move(ys));
    const int nc = static_cast<int>(cols.size()), nr = static_cast<int>(rows.size());
    NeighborTable nb;
    const size_t n = layout.size();
    nb.site.resize(n);
    nb.x.resize(n);
    nb.y.resize(n);
    nb.col.resize(n);
    nb.row.resize(n);
    nb.neighbor.resize(n);
    std::vector<int> place(static_cast<size_t>(nc) * nr, -1);
    for (size_t i = 0; i < n; ++i) {
        nb.site[i] = layout[i].number;
        nb.x[i] = layout[i].x;
        nb.y[i] = layout[i].y;
        nb.col[i] = LineOf(cols, layout[i].x);
        nb.row[i] = LineOf(rows, layout[i].y);
        int& at = place[static_cast<size_t>(nb.row[i]) * nc + nb.col[i]];
        if (at < 0) at = static_cast<int>(i);
    }

    p.chk = 3;
    for (size_t i = 0; i < n; ++i)
        for (int k = 0; k < kMefNeighbors; ++k) {
            const int c = nb.col[i] + kMefNeighborOffsets[k][0], r = nb.row[i] + kMefNeighborOffsets[k][1];
            nb.neighbor[i][k] = c < 0 || r < 0 || c >= nc || r >= nr ? -1 : place[static_cast<size_t>(r) * nc + c];
        }
    return nb;
}

// ---------------------------------------------------------------- equivalents

Datam EquivalentTable::ToDatam(const NeighborTable& nb) const {
    long pairs = 0;
    for (const auto& e : of) pairs += static_cast<long>(e.size());
    Datam t(static_cast<int>(pairs), 2, 0, 1);
    t(0, 1) = "Site";
    t(0, 2) = "Equivalent";
    int r = 0;
    for (size_t i = 0; i < of.size(); ++i)
        for (int j : of[i]) {
            ++r;
            t(r, 1) = Value(nb.site[i]);
            t(r, 2) = Value(nb.site[j]);
        }
    return t;
}

Result<EquivalentTable> GetEquivalentSites(const cLot& lot, const cLot& reticle, const NeighborTable& nb,
                                           const MEFSetup& setup) {
    Proc p("RetAnalysis(GetEquivalentSites): ");
    p.chk = 1;
    if (!FeatureOf(lot, setup.feature)) return p.fail("Could not find feature column.");
    const int rf = FeatureOf(reticle, setup.reticleFeature);
    if (!rf) return p.fail("Could not find feature column.");
    const std::vector<ReticleSite> rs = ReticleSites(reticle, rf, setup);

    // Sites on one grid place stand in for each other where the reticle
    // measured that place: they sit on the same mask feature.
    p.chk = 2;
    std::map<std::pair<int, int>, std::vector<int>> byPlace;
    for (int i = 0; i < nb.Count(); ++i) byPlace[{nb.col[i], nb.row[i]}].push_back(i);
    EquivalentTable eq;
    eq.of.resize(static_cast<size_t>(nb.Count()));
    for (const auto& [pos, members] : byPlace) {
        if (members.size() < 2) continue;
        const size_t first = static_cast<size_t>(members.front());
        if (!ReticleAt(rs, nb.x[first], nb.y[first])) continue;
        for (int i : members)
            for (int j : members)
                if (i != j) eq.of[static_cast<size_t>(i)].push_back(j);
    }
    return eq;
}

// ---------------------------------------------------------------- the reticle surface

Result<std::vector<double>> ReticleAtSites(const cLot& reticle, const NeighborTable& nb, const MEFSetup& setup) {
    Proc p(kTag);
    p.chk = 3;
    const int rf = FeatureOf(reticle, setup.reticleFeature);
    if (!rf) return p.fail("Could not find feature column.");
    const std::vector<ReticleSite> rs = ReticleSites(reticle, rf, setup);
    if (rs.empty()) return p.fail("Surface array could not be generated.");

    // The surface grid on the reticle's own lines, its holes filled.
    std::vector<double> xs, ys;
    for (const ReticleSite& r : rs) xs.push_back(r.x), ys.push_back(r.y);
    xs = GridLines(std::move(xs));
    ys = GridLines(std::move(ys));
    Datam grid(static_cast<int>(ys.size()), static_cast<int>(xs.size()), 0, 0);
    for (size_t i = 0; i < xs.size(); ++i) grid(0, static_cast<int>(i) + 1) = Value(xs[i]);
    for (size_t j = 0; j < ys.size(); ++j) grid(static_cast<int>(j) + 1, 0) = Value(ys[j]);
    for (const ReticleSite& r : rs) grid(LineOf(ys, r.y) + 1, LineOf(xs, r.x) + 1) = Value(r.cd);
    double zmin = 0, zmax = 0;
    int r0, r1, c0, c1;
    if (surf_interpolate2(grid, zmin, zmax) < 0 || EdgeExtrapolate(grid, r0, r1, c0, c1) < 0)
        return p.fail("Surface array could not be generated.");

    // Each layout site: the reticle's own value on its place, else the
    // surface within the reticle's area; outside it, nothing.
    std::vector<double> out(static_cast<size_t>(nb.Count()), kNaN);
    bool any = false;
    for (int i = 0; i < nb.Count(); ++i) {
        const double x = nb.x[i], y = nb.y[i];
        if (const ReticleSite* r = ReticleAt(rs, x, y)) {
            out[i] = r->cd;
        } else if (x >= xs.front() - kMefGridTolerance && x <= xs.back() + kMefGridTolerance &&
                   y >= ys.front() - kMefGridTolerance && y <= ys.back() + kMefGridTolerance) {
            out[i] = GridValue(grid, xs, ys, x, y);
        }
        any = any || Known(out[i]);
    }
    if (!any) return p.fail("Surface array could not be generated.");
    return out;
}
}  // namespace zorv
