// zorv-cli plot, the kinds drawn from the lot: wafer and field maps, contours,
// the 3D surface, and the chart of a selected area with its radial analysis.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/proc.h"
#include "graphics/chart.h"
#include "graphics/sub_data.h"
#include "json.h"
#include "lot/lot.h"
#include "tables.h"
#include "verbs.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"

namespace zorv::cli {

namespace {

struct MapKind {
    const char* word;
    GraphKind kind;
};
constexpr MapKind kMapKinds[] = {
    {"wafer-vector", GraphKind::WaferVector}, {"wafer-map", GraphKind::WaferVector},
    {"field-vector", GraphKind::FieldVector}, {"field-map", GraphKind::FieldVector},
    {"wafer-contour", GraphKind::WaferContour}, {"field-contour", GraphKind::FieldContour},
    {"surface3d", GraphKind::Surface3D},      {"radial", GraphKind::Chart},
};

bool Numbers(const std::string& text, size_t n, std::vector<double>& out) {
    out.clear();
    for (const std::string& s : SplitCommas(text)) {
        double v;
        if (!ParseNumber(s, v)) return false;
        out.push_back(v);
    }
    return out.size() == n;
}

}  // namespace

bool IsMapKind(const std::string& kind) {
    for (const MapKind& k : kMapKinds)
        if (kind == k.word) return true;
    return false;
}

int RunPlotMap(const Args& args, const std::string& kind) {
    const Args pos = Positional(args, {"--out", "--sheet", "--kind", "--feature", "--wafer", "--field", "--scale",
                                       "--view", "--rect", "--by", "--data", "--title", "--size", "--statistic",
                                       "--order"});
    const std::string out = OptionValue(args, "--out");
    const bool json = HasFlag(args, "--json");
    int w = 1000, h = 1000;
    bool bad = pos.size() != 1 || out.empty();
    if (const std::string sz = OptionValue(args, "--size"); !sz.empty())
        bad = bad || std::sscanf(sz.c_str(), "%dx%d", &w, &h) != 2 || w < 50 || h < 50 || w > 20000 || h > 20000;
    std::vector<double> view, rect;
    if (const std::string v = OptionValue(args, "--view"); !v.empty()) bad = bad || !Numbers(v, 3, view);
    if (kind == "radial") bad = bad || !Numbers(OptionValue(args, "--rect"), 4, rect);
    double scale = 0;
    if (const std::string s = OptionValue(args, "--scale"); !s.empty()) bad = bad || !ParseNumber(s, scale) || scale < 0;
    const std::string by = OptionValue(args, "--by"), data = OptionValue(args, "--data");
    bad = bad || (!by.empty() && by != "radius" && by != "rows" && by != "columns");
    bad = bad || (!data.empty() && data != "raw" && data != "fitted" && data != "residual");
    if (bad) {
        std::fprintf(stderr, "Usage: zorv-cli plot WORKBOOK --kind %s --out FILE.png|.svg|.pdf [options]\n"
                             "       (zorv-cli plot --help for the options)\n", kind.c_str());
        return kExitUsage;
    }
    Proc p("zorv-cli(plot): ");
#ifndef ZORV_HAVE_PAINT
    if (!HasFlag(args, "--save") || kind != "radial")
        return ShowFailure(p.fail("This zorv-cli was built without the drawing library."), json);
#endif
    Loaded loaded;
    if (Status st = LoadLot(pos[0], args, loaded); !st) return ShowFailure(st.failure(), json);
    cLot& lot = *loaded.lot;
    if (Status st = SelectFeature(lot, OptionValue(args, "--feature"), "zorv-cli(plot): "); !st)
        return ShowFailure(st.failure(), json);
    // A scalar lot's charts show its first feature unless told otherwise.
    if (OptionValue(args, "--feature").empty() && lot.LineWidthType && lot.PlotFeature() == ePlotFeatureVector)
        lot.PlotFeature(ePlotFeatureV);
    if (lot.TotalPoints() < 1) {
        Failure f = p.fail("The lot in " + pos[0] + " has no points to draw.");
        f.file = pos[0];
        return ShowFailure(f, json);
    }
    lot.PLotDataType = data == "fitted" ? eFitted : data == "residual" ? eResidual : eRaw;

    cGraphic g;
    for (const MapKind& k : kMapKinds)
        if (kind == k.word) g.Kind = k.kind;
    g.PLotDataType = lot.PLotDataType;
    g.WaferKey = OptionValue(args, "--wafer");
    g.FieldKey = OptionValue(args, "--field");
    g.VectorScale = scale * 1000;
    g.TitleObj.TitleString = OptionValue(args, "--title");
    if (view.size() == 3) {
        // Degrees on the command line.
        g.ViewR = view[0];
        g.ViewTheta = view[1] * M_PI / 180;
        g.ViewPhi = view[2] * M_PI / 180;
    }
    if (!g.WaferKey.empty()) {
        // By WaferID or key, else by position.
        int at = lot.mFindWafer(g.WaferKey, true);
        double n;
        if (at < 1 && ParseNumber(g.WaferKey, n) && n >= 1 && n <= lot.TotalWafers() && n == std::floor(n))
            at = static_cast<int>(n);
        if (at < 1) {
            std::string ids;
            for (const cWafer* wf : lot.Wafers()) ids += (ids.empty() ? "" : ", ") + wf->WaferID;
            Failure f = p.fail("Wafer '" + g.WaferKey + "' is not in lot: " + lot.LotName + " (wafers: " + ids + ")");
            f.file = pos[0];
            return ShowFailure(f, json);
        }
        g.WaferKey = lot.Wafers().At(at)->KeyName;
    }
    if (Status st = g.LotData(loaded.lot); !st) return ShowFailure(st.failure(), json);
    const std::string feature = lot.GetPlotFeatureName(lot.PlotFeature());
    if (g.TitleObj.TitleString.empty() && kind != "radial")
        g.TitleObj.TitleString = lot.LotName + ": " + feature + (g.WaferKey.empty() ? "" : " - wafer " + g.WaferKey);

    // The selected area: set up here, drawn by the file writer.
    SubDataResult radial;
    if (kind == "radial") {
        SubDataOptions o;
        o.kind = by == "rows" ? SubDataKind::Rows : by == "columns" ? SubDataKind::Columns : SubDataKind::Radial;
        o.statistic = OptionValue(args, "--statistic");
        o.fitOrder = std::atoi(OptionValue(args, "--order").c_str());
        Datam r(4, 1, 1, 1);
        for (int i = 0; i < 4; ++i) r(i + 1, 1) = Value(rect[static_cast<size_t>(i)] * 1000);  // mm on the command line
        if (Status st = PlotSubData(g, lot, r, o, &radial); !st) return ShowFailure(st.failure(), json);
        if (HasFlag(args, "--save") && radial.zones.isArray()) {
            Workbook* wb = loaded.tables.workbook.get();
            if (Status st = SaveRadialSheets(radial, wb, feature); !st) return ShowFailure(st.failure(), json);
            if (Status st = SaveWorkbookChecked(*wb, "RadialZones_" + feature, false); !st)
                return ShowFailure(st.failure(), json);
        }
    }
#ifdef ZORV_HAVE_PAINT
    if (Status st = WriteChart(g, out, w, h); !st) return ShowFailure(st.failure(), json);
#endif
    if (json) {
        Json j;
        j.beginObject().field("workbook", pos[0]).field("kind", kind).field("out", out);
        j.field("lot", lot.LotName).field("feature", feature).field("width", w).field("height", h);
        if (kind == "radial") {
            j.field("points", static_cast<long long>(radial.points));
            j.key("fits").beginArray();
            for (const std::string& e : radial.equations) j.value(e);
            j.endArray();
            if (radial.zones.isArray()) {
                j.key("zones").beginObject();
                TableJson(j, radial.zones);
                j.endObject();
                j.key("fit").beginObject();
                TableJson(j, radial.fit);
                j.endObject();
            }
        }
        j.endObject();
        std::printf("%s\n", j.str().c_str());
    } else {
        for (const std::string& e : radial.equations) std::printf("%s\n", e.c_str());
        std::printf("%s\n", out.c_str());
    }
    return kExitOk;
}

}  // namespace zorv::cli
