// zorv-cli calibrate: the PSFM focus calibration of a focus matrix workbook,
// headless: the results table (or JSON), the template saved into the library,
// the "Calibration" sheet written back, and a chart per site and exposure set.
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/proc.h"
#include "calib/best_focus.h"
#include "calib/calibrate.h"
#include "calib/template_library.h"
#include "graphics/chart.h"
#include "json.h"
#include "lot/lot.h"
#include "tables.h"
#include "verbs.h"
#include "workbook/store.h"

namespace zorv::cli {

const char kCalibrateHelp[] =
    "Usage: zorv-cli calibrate WORKBOOK [options]\n\n"
    "Calibrates a PSFM focus matrix: per site and exposure set, the X (ValueV) and Y\n"
    "(ValueH) image shift is fitted as a polynomial of the field's tool focus and the\n"
    "polynomial is inverted (least squares over the calibrated focus range), so that\n"
    "focus becomes a polynomial of image shift. Prints the results table: \"Xoffset\",\n"
    "\"Xslope\" ... the forward fit (um of shift), \"Xfocus\", \"Yfocus\" the focus at zero\n"
    "shift (um), with their standard errors, and a statistics block per exposure set.\n\n"
    "Options:\n"
    "  --order N              fit order 1..6 (default 6)\n"
    "  --range R              cull range of the fits, um of shift (default 0: 4 sigma)\n"
    "  --site N|all           calibrate one site (default all)\n"
    "  --focus-max V, --focus-min V, --dose-max V, --dose-min V\n"
    "                         field limits (default All)\n"
    "  --na V, --pci V, --pco V   keep fields of this exposure only\n"
    "  --wafer KEY            keep this wafer (repeatable)\n"
    "  --astig-cull R         cull points whose astigmatism lies beyond R of the mean\n"
    "  --template NAME        save the calibration as template NAME in the library\n"
    "  --folder DIR           the template library's folder (default: see README)\n"
    "  --save                 write the \"Calibration\" sheet into the workbook\n"
    "  --charts DIR           a PNG chart per site and exposure set into DIR\n"
    "  --dose-views DIR       the slopes by dose (dose_slope.png), the residual\n"
    "                         quartiles by dose (nonlinearity.png) and the shift\n"
    "                         against focus by dose of the chosen site, else site 1\n"
    "                         (calibration_dose.png) into DIR\n"
    "  --sheet NAME           the data sheet (default: the workbook's)\n"
    "  --json                 the results as JSON\n\n"
    "Exit: 0 done, 1 the calibration failed (message on stderr), 2 bad arguments.\n";

namespace {

void SiteJson(Json& j, const cSiteCal& s) {
    j.beginObject().field("site", static_cast<long long>(s.Number)).field("key", s.NumberKey);
    j.field("dose", s.Dose).field("na", s.NA).field("pcInner", s.PCinner).field("pcOuter", s.PCouter);
    j.field("x", s.LocationX).field("y", s.LocationY);
    j.field("offsetX", s.OffsetX).field("offsetXse", s.OffsetXse).field("slopeX", s.SlopeX).field("slopeXse", s.SlopeXse);
    j.field("offsetY", s.OffsetY).field("offsetYse", s.OffsetYse).field("slopeY", s.SlopeY).field("slopeYse", s.SlopeYse);
    j.key("higherX").beginArray();
    for (float v : {s.X2nd, s.X3rd, s.X4th, s.X5th, s.X6th}) j.value(v);
    j.endArray();
    j.key("higherY").beginArray();
    for (float v : {s.Y2nd, s.Y3rd, s.Y4th, s.Y5th, s.Y6th}) j.value(v);
    j.endArray().endObject();
}

}  // namespace

int RunCalibrate(const Args& args) {
    const std::vector<std::string> valueOptions = {"--order", "--range", "--site", "--focus-max", "--focus-min",
                                                   "--dose-max", "--dose-min", "--na", "--pci", "--pco", "--wafer",
                                                   "--astig-cull", "--template", "--folder", "--charts", "--dose-views",
                                                   "--sheet"};
    const Args pos = Positional(args, valueOptions);
    const bool json = HasFlag(args, "--json");
    CalControls c;
    bool bad = pos.size() != 1;
    auto number = [&](const char* name, double& v) {
        const std::string t = OptionValue(args, name);
        if (!t.empty() && !ParseNumber(t, v)) bad = true;
        return !t.empty();
    };
    double order = 6, range = 0, astig = 0;
    number("--order", order);
    number("--range", range);
    number("--astig-cull", astig);
    bad = bad || order < 1 || order > 6 || order != static_cast<int>(order);
    c.fitOrder = static_cast<int>(order);
    c.range = static_cast<float>(range);
    c.astigCull = astig;
    if (const std::string s = OptionValue(args, "--site"); !s.empty() && !IEquals(s, "all")) {
        double v = 0;
        bad = bad || !ParseNumber(s, v) || v < 1;
        c.siteNumber = static_cast<long>(v);
    }
    auto box = [&](const char* name, std::string& out) {
        const std::string t = OptionValue(args, name);
        double v;
        if (t.empty()) return;
        if (!IEquals(t, "all") && !ParseNumber(t, v)) bad = true;
        out = IEquals(t, "all") ? "All" : t;
    };
    box("--focus-max", c.focusMax), box("--focus-min", c.focusMin);
    box("--dose-max", c.doseMax), box("--dose-min", c.doseMin);
    box("--na", c.na), box("--pci", c.pci), box("--pco", c.pco);
    c.wafers = OptionValues(args, "--wafer");
    if (bad) {
        std::fprintf(stderr, "Usage: zorv-cli calibrate WORKBOOK [--order 1..6] [--range R] [--site N|all] ...\n"
                             "       (zorv-cli calibrate --help for the options)\n");
        return kExitUsage;
    }

    Loaded loaded;
    if (Status st = LoadLot(pos[0], args, loaded); !st) return ShowFailure(st.failure(), json);
    cLot& lot = *loaded.lot;
    const std::string chartDir = OptionValue(args, "--charts");
    CalibrateOptions o;
    o.charts = !chartDir.empty();
    o.saveSheet = HasFlag(args, "--save");
    o.workbook = loaded.tables.workbook.get();
    CalFormState state;
    auto run = CalibratePSFM(lot, c, state, o);
    if (!run) return ShowFailure(run.failure(), json);

    const std::string name = OptionValue(args, "--template");
    if (!name.empty()) {
        cTemplateLibrary lib(TemplateFolder(OptionValue(args, "--folder")));
        if (Status st = lib.FileGet(); !st) return ShowFailure(st.failure(), json);
        auto saved = run->tpl->SaveTemplate(name, &lib, lot.LotName);
        if (!saved) return ShowFailure(saved.failure(), json);
    }

    int charts = 0;
    if (!chartDir.empty() && run->graphs) {
#ifdef ZORV_HAVE_PAINT
        std::error_code ec;
        std::filesystem::create_directories(chartDir, ec);
        for (int i = 1; i <= run->graphs->Count(); ++i) {
            const std::string file = (std::filesystem::path(chartDir) / ("site_" + run->graphs->KeyAt(i) + ".png")).string();
            if (Status st = WriteChart(*run->graphs->Item(i), file, 800, 600); !st) return ShowFailure(st.failure(), json);
            ++charts;
        }
#else
        return ShowFailure(Proc("zorv-cli(calibrate): ").fail("This zorv-cli was built without the drawing library."), json);
#endif
    }

    const std::string viewDir = OptionValue(args, "--dose-views");
    if (!viewDir.empty()) {
#ifdef ZORV_HAVE_PAINT
        std::error_code ec;
        std::filesystem::create_directories(viewDir, ec);
        cGraphic slope, linearity;
        if (Status st = DoseSlopeGraph(*run->lots.calibrated, slope); !st) return ShowFailure(st.failure(), json);
        auto table = NonLinearityGraph(*run->lots.calibrated, linearity);
        if (!table) return ShowFailure(table.failure(), json);
        const std::filesystem::path dir(viewDir);
        if (Status st = WriteChart(slope, (dir / "dose_slope.png").string(), 800, 600); !st)
            return ShowFailure(st.failure(), json);
        if (Status st = WriteChart(linearity, (dir / "nonlinearity.png").string(), 800, 600); !st)
            return ShowFailure(st.failure(), json);
        cGraphic byDose;
        auto curves = FocusDoseGraph(lot, c.siteNumber > 0 ? c.siteNumber : 1, byDose);
        if (!curves) return ShowFailure(curves.failure(), json);
        if (Status st = WriteChart(byDose, (dir / "calibration_dose.png").string(), 800, 600); !st)
            return ShowFailure(st.failure(), json);
#else
        return ShowFailure(Proc("zorv-cli(calibrate): ").fail("This zorv-cli was built without the drawing library."), json);
#endif
    }

    if (json) {
        Json j;
        j.beginObject().field("workbook", pos[0]).field("lot", lot.LotName).field("order", c.fitOrder);
        j.field("culled", static_cast<long long>(run->culled)).field("astigCulled", static_cast<long long>(run->astigCulled));
        j.field("description", run->description);
        if (!name.empty()) j.field("template", name);
        if (charts) j.field("charts", charts);
        j.key("exposures").beginArray();
        for (const std::string& e : run->exposureGroups) j.value(e);
        j.endArray();
        j.key("sites").beginArray();
        for (const cSiteCal* s : run->tpl->sites) SiteJson(j, *s);
        j.endArray();
        j.key("results").beginObject();
        TableJson(j, run->results);
        j.endObject().endObject();
        std::printf("%s\n", j.str().c_str());
        return kExitOk;
    }
    std::printf("Calibration of %s: %d sites, order %d, %ld points culled\n", lot.LotName.c_str(),
                run->tpl->sites.Count(), c.fitOrder, run->culled);
    if (!run->description.empty()) std::printf("%s\n", run->description.c_str());
    PrintTable(run->results);
    if (!name.empty()) std::printf("Saved as template '%s'.\n", name.c_str());
    if (charts) std::printf("%d charts in %s\n", charts, chartDir.c_str());
    return kExitOk;
}

}  // namespace zorv::cli
