// zorv-cli bestfocus: the field aberrations of focus. A focus matrix is
// calibrated and its best focus modelled per exposure set; with --template a
// lot is first converted to focus and modelled field by field.
#include <cstdio>
#include <string>

#include "base/format.h"
#include "base/proc.h"
#include "calib/best_focus.h"
#include "calib/calibrate.h"
#include "calib/convert.h"
#include "calib/template_library.h"
#include "json.h"
#include "lot/lot.h"
#include "tables.h"
#include "verbs.h"
#include "workbook/store.h"

namespace zorv::cli {

const char kBestFocusHelp[] =
    "Usage: zorv-cli bestfocus WORKBOOK [options]\n\n"
    "Piston, tilt (urad) and curvature (nm/cm2) of focus across the field.\n"
    "Without --template, WORKBOOK is a PSFM focus matrix: it is calibrated and the\n"
    "focus at zero image shift of every site is modelled per exposure set, as rows\n"
    "(vertical feature along x), columns (horizontal feature along y) and the whole\n"
    "field (sheet \"BestFocusModel\"). With --template NAME, WORKBOOK is converted to\n"
    "focus by that template and each field is modelled (--model).\n\n"
    "Options:\n"
    "  --template NAME        convert by this template, then model per field\n"
    "  --model M              rows-columns (default; \"FieldAberrations\"), whole\n"
    "                         (\"WholeFieldAberrations\"), or scan (along slit and scan)\n"
    "  --order N              fit order of the calibration (default 6)\n"
    "  --store NAME           keep the calibration with its best focus sets as\n"
    "                         template NAME in the library\n"
    "  --folder DIR           the template library's folder (default: see README)\n"
    "  --continue-missing     convert without lot sites the template lacks\n"
    "  --save                 write the result sheet into the workbook\n"
    "  --sheet NAME           the data sheet (default: the workbook's)\n"
    "  --json                 the tables as JSON\n";

namespace {

void Emit(Json& j, const char* name, const Datam& t) {
    j.key(name).beginObject();
    TableJson(j, t);
    j.endObject();
}

void Show(const char* title, const Datam& t) {
    std::printf("\n%s\n", title);
    PrintTable(t);
}

}  // namespace

int RunBestFocus(const Args& args) {
    const Args pos = Positional(args, {"--template", "--model", "--order", "--store", "--folder", "--sheet"});
    const bool json = HasFlag(args, "--json");
    const std::string tplName = OptionValue(args, "--template"), model = OptionValue(args, "--model");
    double order = 6;
    bool bad = pos.size() != 1 || (!model.empty() && model != "rows-columns" && model != "whole" && model != "scan");
    if (const std::string o = OptionValue(args, "--order"); !o.empty())
        bad = bad || !ParseNumber(o, order) || order < 1 || order > 6;
    bad = bad || (!tplName.empty() && !OptionValue(args, "--store").empty());
    if (bad) {
        std::fprintf(stderr, "Usage: zorv-cli bestfocus WORKBOOK [--template NAME] [--model rows-columns|whole|scan] ...\n"
                             "       (zorv-cli bestfocus --help for the options)\n");
        return kExitUsage;
    }
    Loaded loaded;
    if (Status st = LoadLot(pos[0], args, loaded); !st) return ShowFailure(st.failure(), json);
    Workbook* wb = HasFlag(args, "--save") ? loaded.tables.workbook.get() : nullptr;
    cTemplateLibrary lib(TemplateFolder(OptionValue(args, "--folder")));

    Json j;
    j.beginObject().field("workbook", pos[0]).field("lot", loaded.lot->LotName);
    if (tplName.empty()) {
        CalControls c;
        c.fitOrder = static_cast<int>(order);
        CalFormState state;
        auto run = CalibratePSFM(*loaded.lot, c, state, {});
        if (!run) return ShowFailure(run.failure(), json);
        auto bf = CalcBFTiltCurvature(*run->lots.bestFocus, 0, wb);
        if (!bf) return ShowFailure(bf.failure(), json);
        if (const std::string store = OptionValue(args, "--store"); !store.empty()) {
            ModelUpdate(*run->tpl, *bf);
            if (Status st = lib.FileGet(); !st) return ShowFailure(st.failure(), json);
            auto saved = run->tpl->SaveTemplate(store, &lib, loaded.lot->LotName);
            if (!saved) return ShowFailure(saved.failure(), json);
            j.field("template", store);
        }
        if (json) j.key("sets").beginArray();
        for (const BestFocusSet& s : bf->sets) {
            if (json) {
                j.beginObject().key("exposure").beginArray();
                for (double v : s.exposure) j.value(v);
                j.endArray();
                Emit(j, "whole", WholeFieldTable(s.whole));
                Emit(j, "rows", s.rows);
                Emit(j, "columns", s.columns);
                j.endObject();
                continue;
            }
            std::printf("\nExposure [Dose, NA, PCinner, PCouter]: [%g, %g, %g, %g]\n", s.exposure[0], s.exposure[1],
                        s.exposure[2], s.exposure[3]);
            Show("Full Field Analysis", WholeFieldTable(s.whole));
            Show("Row (Vertical Feature) Field Aberrations", s.rows);
            Show("Column (Horizontal Feature) Field Aberrations", s.columns);
        }
        if (json) j.endArray();
    } else {
        if (Status st = lib.FileGet(); !st) return ShowFailure(st.failure(), json);
        ConvertOptions o;
        o.templateName = tplName;
        const bool goOn = HasFlag(args, "--continue-missing");
        o.continueMissing = [&](const std::string& q) {
            std::fprintf(stderr, "%s\n%s\n", q.c_str(), goOn ? "Yes (--continue-missing)" : "No");
            return goOn;
        };
        auto conv = ConvertLot(*loaded.lot, lib, o);
        if (!conv) return ShowFailure(conv.failure(), json);
        if (!*conv) {
            std::fprintf(stderr, "bestfocus: stopped: some lot sites have no template site (see --continue-missing).\n");
            return kExitFailed;
        }
        const cLot& lot = **conv;
        if (model == "whole") {
            auto r = CalculateWholeFieldTiltCurvature(lot, wb);
            if (!r) return ShowFailure(r.failure(), json);
            if (json) Emit(j, "x", r->x), Emit(j, "y", r->y), Emit(j, "z", r->z);
            else Show("X focus (Vertical Feature) Field Aberrations", r->x), Show("Y focus (Horizontal Feature) Field Aberrations", r->y),
                Show("Z focus Field Aberrations", r->z);
        } else if (model == "scan") {
            auto r = CalculateASMLscanModel(lot, wb);
            if (!r) return ShowFailure(r.failure(), json);
            if (json) Emit(j, "slit", r->slit), Emit(j, "scan", r->scan);
            else Show("Along the slit", r->slit), Show("Along the scan", r->scan);
        } else {
            auto r = CalculateFieldTiltCurvature(lot, 0, wb);
            if (!r) return ShowFailure(r.failure(), json);
            if (json) Emit(j, "rows", r->rows), Emit(j, "columns", r->columns);
            else Show("Row (Vertical Feature) Field Aberrations", r->rows), Show("Column (Horizontal Feature) Field Aberrations", r->columns);
        }
    }
    if (json) std::printf("%s\n", j.endObject().str().c_str());
    return kExitOk;
}

}  // namespace zorv::cli
