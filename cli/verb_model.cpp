// zorv-cli model: wafer and field models of a lot, from the sets of the model
// libraries, fitted family by family; the reports, every coefficient, and the
// report sheets written back to the workbook.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "base/proc.h"
#include "base/report.h"
#include "base/text.h"
#include "json.h"
#include "workbook/workbook_ops.h"
#include "procwin/model_reports.h"
#include "model/lot_fit.h"
#include "model/model_sets.h"
#include "tables.h"
#include "verbs.h"
#include "workbook/data_workbook.h"

namespace zorv::cli {

namespace {

void ListSets(const char* kind, const cModelLib& lib, Json* j) {
    if (j) j->key(kind).beginArray();
    else std::printf("%s sets:\n", kind);
    for (const cModelSet* s : lib) {
        if (j) {
            j->beginObject().field("name", s->NameSet).field("comment", s->Comment);
            j->key("models").beginArray();
        } else {
            std::printf("  %s%s%s\n", s->NameSet.c_str(), s->Comment.empty() ? "" : "  - ", s->Comment.c_str());
        }
        for (const Cmodel* m : s->models) {
            std::string terms;
            if (j) {
                j->beginObject().field("name", m->Name).field("variable", m->PlotFeature);
                j->field("family", m->FamilyType).field("fieldModelType", m->FieldModelType);
                j->key("terms").beginArray();
            }
            for (const cCoefficient* c : m->Coefficients) {
                if (j) {
                    j->beginObject().field("name", c->NameCoef).field("term", c->ValueString());
                    j->field("units", c->DisplayUnits).field("threshold", c->Threshold).endObject();
                } else {
                    terms += (terms.empty() ? "" : ", ") + c->NameCoef;
                }
            }
            if (j) j->endArray().endObject();
            else std::printf("    %-12s variable %d: %s\n", m->Name.c_str(), m->PlotFeature, terms.c_str());
        }
        if (j) j->endArray().endObject();
    }
    if (j) j->endArray();
}

// Every coefficient of every wafer's (field's) models, with its display value.
void ModelsJson(Json& j, cLot& lot, bool fields) {
    auto one = [&](const Cmodel& m) {
        long code = 0;
        std::string unitText;
        const int feature = m.PlotFeature >= ePlotFeatureV ? m.PlotFeature : lot.PlotFeature();
        lot.GetPlotFeatureUnits(feature, unitText, code);
        j.beginObject().field("key", m.Key).field("feature", lot.GetPlotFeatureName(feature));
        j.field("mse", m.MSE);
        j.key("terms").beginArray();
        for (cCoefficient* c : m.Coefficients) {
            if (!c->CalcDisplayFactor(code)) c->DisplayFactor = 1;
            j.beginObject().field("name", c->NameCoef).field("included", c->Include);
            j.field("value", c->Value).field("se", c->Sigma);
            j.field("display", c->Value * c->DisplayFactor).field("displaySe", c->Sigma * c->DisplayFactor);
            j.field("units", c->DisplayUnits).endObject();
        }
        j.endArray().endObject();
    };
    j.key(fields ? "fields" : "wafers").beginArray();
    for (cWafer* w : lot.Wafers()) {
        if (w->cull()) continue;
        if (!fields) {
            if (!w->Models) continue;
            j.beginObject().field("wafer", w->WaferID).key("models").beginArray();
            for (Cmodel* m : WaferModels(*w).models) one(*m);
            j.endArray().endObject();
            continue;
        }
        for (cField* f : w->Fields()) {
            if (f->cull() || !f->ModelsField) continue;
            j.beginObject().field("wafer", w->WaferID).field("field", f->NumberKey).key("models").beginArray();
            for (Cmodel* m : FieldModels(*f).models) one(*m);
            j.endArray().endObject();
        }
    }
    j.endArray();
}

}  // namespace

const char kModelHelp[] =
    "Usage: zorv-cli model WORKBOOK [--sheet NAME] [--wafer-set NAME]\n"
    "                      [--field-set NAME | --field-type rows|columns|whole]\n"
    "                      [--feature F] [--families A,B] [--range R] [--threshold T]\n"
    "                      [--json] [--save]\n"
    "       zorv-cli model --list [--json]\n\n"
    "Fits wafer and field models to a lot, family by family: each wafer gets the models\n"
    "of the wafer set (offset, tilts, bows ... across the wafer), each field those of\n"
    "the field set (piston, tilts, curvature across the field). The fitted values and\n"
    "residuals go into the points; the wafer and field reports (one row per wafer or\n"
    "field and model, each term with its standard error, the MSE, and a summary block\n"
    "per model) are printed.\n\n"
    "--wafer-set NAME   a wafer set of the library (default \"Tilt+Bow\" when no field\n"
    "                   model is asked for)\n"
    "--field-set NAME   a field set of the library\n"
    "--field-type T     the field model by rows, by columns or over the whole field;\n"
    "                   without --field-set: piston, tilts and curvature\n"
    "--feature F        fit this feature (by name) instead of the sets' variables\n"
    "--families A,B     only these families (names or numbers; default all)\n"
    "--range R          residual limit above which a point is culled between passes\n"
    "--threshold T      sigma multiple under which a term counts as zero\n"
    "--json             the reports and every coefficient (value, standard error,\n"
    "                   display value in the term's units) as JSON\n"
    "--save             also write the reports to the workbook as \"WaferModel_<feature>\"\n"
    "                   and \"FieldModel_<feature>\" with their Index rows\n"
    "--list             the sets of the model libraries\n\n"
    "The libraries come from data/models/ModelLibrary.xlsx, or the workbook named by\n"
    "$ZORV_MODEL_LIBRARY. An unknown set, a feature the lot does not have or a\n"
    "library that cannot be read gives the message on stderr (with --json as an error\n"
    "object) and exit code 1; the workbook is not changed.\n";

int RunModel(const Args& args) {
    const Args pos = Positional(args, {"--sheet", "--wafer-set", "--field-set", "--field-type", "--feature",
                                       "--families", "--range", "--threshold"});
    const bool json = HasFlag(args, "--json");
    cModelWaferLib& wlib = WaferModelLibrary();
    cModelFieldLib& flib = FieldModelLibrary();
    if (Status st = LoadGlobalModelLibraries(); !st) return ShowFailure(st.failure(), json);
    if (HasFlag(args, "--list")) {
        if (json) {
            Json j;
            j.beginObject().field("library", ModelLibraryPath());
            ListSets("wafer", wlib, &j);
            ListSets("field", flib, &j);
            j.endObject();
            std::printf("%s\n", j.str().c_str());
        } else {
            std::printf("Library: %s\n", ModelLibraryPath().c_str());
            ListSets("Wafer", wlib, nullptr);
            ListSets("Field", flib, nullptr);
        }
        return kExitOk;
    }
    const std::string fieldType = OptionValue(args, "--field-type");
    bool bad = pos.size() != 1 || (!fieldType.empty() && fieldType != "rows" && fieldType != "columns" &&
                                   fieldType != "whole");
    auto number = [&](const char* opt) {
        const std::string s = OptionValue(args, opt);
        double v = 0;
        if (!s.empty() && !ParseNumber(s, v)) bad = true;
        return static_cast<float>(v);
    };
    LotFitSetup setup;
    setup.fit.rangeCull = number("--range");
    setup.fit.thresholdMultiple = number("--threshold");
    if (bad) {
        std::fprintf(stderr,
                     "Usage: zorv-cli model WORKBOOK [--wafer-set NAME] [--field-set NAME | --field-type "
                     "rows|columns|whole]\n       [--feature F] [--families A,B] [--range R] [--threshold T] "
                     "[--json] [--save]\n");
        return kExitUsage;
    }

    LoadOptions options;
    options.sheetName = OptionValue(args, "--sheet");
    options.quiet = true;
    std::shared_ptr<cLot> lotPtr;
    WBLotTables tables;
    if (Status st = GetExcelWBLot(pos[0], options, lotPtr, &tables); !st) return ShowFailure(st.failure(), json);
    KeepUntilExit(lotPtr);
    cLot& lot = *lotPtr;

    Proc p("zorv-cli(model): ");
    int feature = -1;
    if (const std::string f = OptionValue(args, "--feature"); !f.empty()) {
        feature = lot.GetPlotFeature(f);
        if (feature < ePlotFeatureV || feature > ePlotFeatureC)
            return ShowFailure(p.fail("Feature '" + f + "' is not in lot: " + lot.LotName), json);
    }
    std::string waferSet = OptionValue(args, "--wafer-set");
    const std::string fieldSet = OptionValue(args, "--field-set");
    if (waferSet.empty() && fieldSet.empty() && fieldType.empty()) waferSet = "Tilt+Bow";
    setup.doWafer = !waferSet.empty();
    setup.doField = !fieldSet.empty() || !fieldType.empty();
    const int type = fieldType == "rows" ? 1 : fieldType == "columns" ? 2 : 3;

    // The models onto every wafer and field.
    for (cWafer* w : lot.Wafers()) {
        if (setup.doWafer) {
            if (Status st = LoadWaferModelObject(*w, waferSet, &wlib); !st) return ShowFailure(st.failure(), json);
            if (feature > 0) WaferModels(*w).SetPlotFeature(feature);
        }
        if (!setup.doField) continue;
        for (cField* f : w->Fields()) {
            if (!fieldSet.empty()) {
                if (Status st = LoadFieldModelObject(*f, fieldSet, &flib); !st) return ShowFailure(st.failure(), json);
            } else {
                ModelsField& mf = FieldModels(*f);
                mf.Clear();
                auto m = LoadPWModel(feature > 0 ? feature : ePlotFeatureV);
                m->FamilyType = 0;  // every family's, as the library's "ALL"
                const std::string key = m->Key;
                mf.models.Add(std::move(m), key);
                FieldModels(*f);  // parents
            }
            ModelsField& mf = FieldModels(*f);
            if (feature > 0) mf.SetPlotFeature(feature);
            if (!fieldType.empty())
                for (Cmodel* m : mf.models) m->FieldModelType = type;
        }
    }
    // Families by name or number.
    if (const std::string fams = OptionValue(args, "--families"); !fams.empty()) {
        Datam all = LotFamilies(lot);
        std::vector<std::string> want;
        for (size_t a = 0, b; a <= fams.size(); a = b + 1) {
            b = fams.find(',', a);
            if (b == std::string::npos) b = fams.size();
            if (b > a) want.push_back(Trim(std::string_view(fams).substr(a, b - a)));
        }
        for (int r = 1; r <= all.rowUb(); ++r) {
            bool in = false;
            for (const std::string& x : want) in = in || IEquals(x, all(r, 1).toString()) || x == all(r, 2).toString();
            all(r, 3) = Value(in);
        }
        setup.families = all;
    }

    auto fit = LotModelFit(lot, setup);
    if (!fit) return ShowFailure(fit.failure(), json);
    const std::string featureName = lot.GetPlotFeatureName(feature > 0 ? feature : lot.PlotFeature());
    if (HasFlag(args, "--save")) {
        Workbook* wb = tables.workbook.get();
        if (fit->waferReport.isArray())
            if (Status s = SaveResult(wb, fit->waferReport, "WaferModel_" + featureName,
                                      "Modeled wafer " + waferSet + ": " + lot.LotName);
                !s)
                return ShowFailure(s.failure(), json);
        if (fit->fieldReport.isArray())
            if (Status s = SaveResult(wb, fit->fieldReport, "FieldModel_" + featureName,
                                      "Modeled Field Aberrations. " + lot.LotName);
                !s)
                return ShowFailure(s.failure(), json);
        // The summary reports of the fits beside their tables.
        ModelReportSetup rs = ReportSetupFor(lot);
        rs.workbook = wb;
        if (fit->waferReport.isArray())
            if (auto r = CreateWaferReport(lot, fit->waferReport, rs); !r) return ShowFailure(r.failure(), json);
        if (fit->fieldReport.isArray())
            if (auto r = CreateFieldReport(fit->fieldReport, rs, &lot); !r) return ShowFailure(r.failure(), json);
        if (Status s = SaveWorkbookChecked(*wb, "FieldModel_" + featureName, false); !s) return ShowFailure(s.failure(), json);
    }
    if (json) {
        Json j;
        j.beginObject().field("workbook", pos[0]).field("lot", lot.LotName);
        j.field("waferSet", waferSet).field("fieldSet", fieldSet.empty() && setup.doField ? "PW field" : fieldSet);
        j.field("wafersFitted", static_cast<long long>(fit->wafersFitted));
        j.field("fieldsFitted", static_cast<long long>(fit->fieldsFitted));
        if (fit->waferReport.isArray()) {
            j.key("waferReport").beginObject();
            TableJson(j, fit->waferReport);
            j.endObject();
            ModelsJson(j, lot, false);
        }
        if (fit->fieldReport.isArray()) {
            j.key("fieldReport").beginObject();
            TableJson(j, fit->fieldReport);
            j.endObject();
            ModelsJson(j, lot, true);
        }
        if (fit->rowColumnReport.isArray()) {
            j.key("rowColumnReport").beginObject();
            TableJson(j, fit->rowColumnReport);
            j.endObject();
        }
        j.endObject();
        std::printf("%s\n", j.str().c_str());
        return kExitOk;
    }
    std::printf("Lot: %s\n", lot.LotName.c_str());
    if (fit->waferReport.isArray()) {
        std::printf("\nWafer models (%s), %ld wafers\n\n", waferSet.c_str(), fit->wafersFitted);
        PrintTable(fit->waferReport);
    }
    if (fit->fieldReport.isArray()) {
        std::printf("\nField models (%s), %ld fields\n\n", fieldSet.empty() ? "piston, tilt, curvature" : fieldSet.c_str(),
                    fit->fieldsFitted);
        PrintTable(fit->fieldReport);
    }
    if (fit->rowColumnReport.isArray() && fit->rowColumnReport.rowUb() >= 1) {
        std::printf("\nField models by %s, one row per line\n\n", type == 1 ? "rows" : "columns");
        PrintTable(fit->rowColumnReport);
    }
    if (HasFlag(args, "--save")) std::printf("\nSaved the reports to %s\n", pos[0].c_str());
    return kExitOk;
}

}  // namespace zorv::cli
