// zorv-cli monitor: the daily monitor as a factory host runs it (the same
// switches as the desktop program's DMA mode), its batches, its trend charts,
// and new monitor templates made from a data workbook.
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/proc.h"
#include "base/report.h"
#include "graphics/chart.h"
#include "json.h"
#include "lot/lot.h"
#include "monitor/dm_run.h"
#include "monitor/dm_template.h"
#include "monitor/dm_trend.h"
#include "tables.h"
#include "verbs.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"


namespace zorv::cli {

const char kMonitorHelp[] =
    "Usage: zorv-cli monitor -f DATA -t TEMPLATE [-o DIR] [-x DIR] [-w DIR] [--json]\n"
    "       zorv-cli monitor --batch TEMPLATE --sheet NAME [--json]\n"
    "       zorv-cli monitor --batch-list TEMPLATE --sheet NAME FILE...\n"
    "       zorv-cli monitor --trend TEMPLATE --feature F --out FILE.png [--stat NAME] [--size WxH]\n"
    "       zorv-cli monitor --new-template OUT.xlt --kind overlay|psfm|matrix|fem --from DATA.xlsx\n\n"
    "Runs the daily monitor of a template on a data file, as the desktop program's\n"
    "DMA mode does for a factory host: -f (or -d) the data file (a raw tool file or a\n"
    "data workbook), -t the template, -o the folder of base_ZorvDMA.csv and .json,\n"
    "-x of base_ZorvDMA.xls (an .xlsx workbook with the lot's data and \"Results\"),\n"
    "-w (or -h) of base_ZorvDMA.html; --charts DIR the trend charts as PNG. A run that fails still leaves the files, with\n"
    "\"Fault in data ouput or computation\"; the run log is RemoteCall.Log (see\n"
    "README). Each run adds a row to the template's trend sheets.\n\n"
    "  --batch T --sheet S   runs every file of the batch list S of template T\n"
    "  --batch-list T --sheet S FILE...   stores a batch list in the template\n"
    "  --trend T --feature F --out FILE   the trend chart of a feature (the first\n"
    "                        trended statistic, or --stat NAME) as PNG, SVG or PDF\n"
    "  --new-template OUT --kind K --from DATA   a monitor template made from a\n"
    "                        data workbook: overlay (raw metrology, wafer and field\n"
    "                        models), psfm (fixed focus by the sample calibration\n"
    "                        template), matrix (a PSFM focus matrix calibrated in\n"
    "                        the run), fem (process window)\n"
    "  --library DIR         the focus template library (default: see README)\n\n"
    "Exit: 0 done, 1 the run failed (the result files say so), 2 bad arguments or\n"
    "a command line that names no data file and template.\n";

namespace {

std::string Quoted(const std::string& s) { return s.find(' ') == std::string::npos ? s : "\"" + s + "\""; }

void OutcomeJson(Json& j, const DMRunOutcome& o) {
    j.field("lot", o.lot ? o.lot->LotName : std::string()).field("wafers", static_cast<long long>(o.info.wafers));
    j.field("dataWorkbook", o.dataWorkbookPath);
    j.key("trendFeatures").beginArray();
    for (const std::string& f : o.trendFeatures) j.value(f);
    j.endArray();
    j.key("stats").beginObject();
    TableJson(j, o.stats);
    j.endObject();
}

int NewTemplate(const Args& args) {
    const std::string out = OptionValue(args, "--new-template"), kind = OptionValue(args, "--kind"),
                      from = OptionValue(args, "--from");
    if (out.empty() || kind.empty() || from.empty()) {
        std::fprintf(stderr, "Usage: zorv-cli monitor --new-template OUT.xlt --kind overlay|psfm|matrix|fem --from DATA.xlsx\n");
        return kExitUsage;
    }
    auto made = NewDMTemplate(from, kind, out);
    if (!made) return ShowFailure(made.failure(), false);
    std::printf("Template: %s (%s)\n", made->path.c_str(), made->caption.c_str());
    return kExitOk;
}

int Trend(const Args& args) {
    const std::string tpl = OptionValue(args, "--trend"), feature = OptionValue(args, "--feature"),
                      out = OptionValue(args, "--out"), stat = OptionValue(args, "--stat");
    int w = 1000, h = 600;
    bool bad = tpl.empty() || feature.empty() || out.empty();
    if (const std::string sz = OptionValue(args, "--size"); !sz.empty())
        bad = bad || std::sscanf(sz.c_str(), "%dx%d", &w, &h) != 2 || w < 50 || h < 50 || w > 20000 || h > 20000;
    if (bad) {
        std::fprintf(stderr, "Usage: zorv-cli monitor --trend TEMPLATE --feature F --out FILE.png [--stat NAME]\n");
        return kExitUsage;
    }
    Proc p("zorv-cli(monitor): ");
    auto wb = Workbooks::Open(tpl);
    if (!wb) return ShowFailure(wb.failure(), false);
    auto t = ReadDMTemplate(wb->get());
    if (!t) return ShowFailure(t.failure(), false);
    int rows = 0;
    auto charts = DMTrendCharts(**wb, t->tables, feature, stat, &rows);
    if (!charts) return ShowFailure(charts.failure(), false);
#ifdef ZORV_HAVE_PAINT
    if (Status st = WriteChart(*charts->front(), out, w, h); !st) return ShowFailure(st.failure(), false);
    std::printf("%s: %d trend rows of %s\n", out.c_str(), rows, feature.c_str());
    return kExitOk;
#else
    return ShowFailure(p.fail("This zorv-cli was built without the drawing library."), false);
#endif
}

// Every trend chart of the run's features as a PNG in dir.
Status WriteTrendCharts(const DMRunOutcome& o, const std::string& dir, std::vector<std::string>& files) {
    Proc p("zorv-cli(monitor): ");
#ifdef ZORV_HAVE_PAINT
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    for (const std::string& feature : o.trendFeatures) {
        auto charts = DMTrendCharts(*o.templateWorkbook, o.tpl.tables, feature);
        if (!charts) continue;  // a feature without trended statistics
        for (const auto& g : *charts) {
            std::string name = "trend_" + g->TitleObj.TitleString;
            for (char& c : name)
                if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_') c = '_';
            const std::string path = (std::filesystem::path(dir) / (name + ".png")).string();
            if (g->Data().rowUb() < 1) continue;
            if (Status st = WriteChart(*g, path, 1000, 600); !st) return st;
            files.push_back(path);
        }
    }
    return StatusOk();
#else
    (void)o, (void)dir, (void)files;
    return p.fail("This zorv-cli was built without the drawing library.");
#endif
}

}  // namespace

int RunMonitor(const Args& args) {
    const bool json = HasFlag(args, "--json");
    if (!OptionValue(args, "--new-template").empty()) return NewTemplate(args);
    if (!OptionValue(args, "--trend").empty()) return Trend(args);
    const std::string library = OptionValue(args, "--library");
    if (const std::string tpl = OptionValue(args, "--batch-list"); !tpl.empty()) {
        const std::string sheet = OptionValue(args, "--sheet");
        const Args files = Positional(args, {"--batch-list", "--sheet"});
        if (sheet.empty() || files.empty()) {
            std::fprintf(stderr, "Usage: zorv-cli monitor --batch-list TEMPLATE --sheet NAME FILE...\n");
            return kExitUsage;
        }
        auto wb = Workbooks::Open(tpl);
        if (!wb) return ShowFailure(wb.failure(), json);
        std::vector<std::pair<std::string, std::string>> list;
        for (const std::string& f : files) {
            const size_t slash = f.find_last_of('/');
            list.emplace_back(slash == std::string::npos ? f : f.substr(slash + 1),
                              slash == std::string::npos ? std::string() : f.substr(0, slash));
        }
        if (Status st = SaveBatchSheet(**wb, sheet, list); !st) return ShowFailure(st.failure(), json);
        std::printf("Batch list saved to: '%s' in '%s' (%zu files)\n", sheet.c_str(), (*wb)->name().c_str(), list.size());
        return kExitOk;
    }
    if (const std::string tpl = OptionValue(args, "--batch"); !tpl.empty()) {
        const std::string sheet = OptionValue(args, "--sheet");
        if (sheet.empty()) {
            std::fprintf(stderr, "Usage: zorv-cli monitor --batch TEMPLATE --sheet NAME\n");
            return kExitUsage;
        }
        DMRunRequest base;
        base.templatePath = tpl;
        base.libraryFolder = library;
        base.proceedWithoutReticle = [](const std::string& q) {
            std::fprintf(stderr, "%s\nNo\n", q.c_str());
            return false;
        };
        Json j;
        if (json) j.beginObject().field("template", tpl).field("sheet", sheet).key("files").beginArray();
        auto r = RunBatch(base, sheet, [&](int i, const std::string& file, const Result<DMRunOutcome>& o) {
            if (json) {
                j.beginObject().field("file", file).field("ok", o.ok());
                if (o.ok()) OutcomeJson(j, *o);
                else j.field("error", o.failure().message());
                j.endObject();
            } else {
                std::printf("%d: %s %s\n", i, file.c_str(), o.ok() ? "done" : ("FAILED: " + o.failure().text).c_str());
            }
        });
        if (json) {
            j.endArray().field("ok", r.ok());
            if (!r.ok()) j.field("error", r.failure().message());
            j.endObject();
            std::printf("%s\n", j.str().c_str());
            return r.ok() ? kExitOk : kExitFailed;
        }
        if (!r) return ShowFailure(r.failure(), false);
        std::printf("Batch [%s]: %d of %d files\n", sheet.c_str(), r->done, r->files);
        return kExitOk;
    }

    // The host's line: the switches as given, each value quoted when it
    // holds a blank.
    std::string line;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--json" || a == "--library" || a == "--charts") {
            if (a != "--json") ++i;
            continue;
        }
        if (!line.empty()) line += ' ';
        line += a.size() == 2 && a[0] == '-' ? a : Quoted(a);
    }
    DMAOptions options;
    options.saveSettings = true;
    options.proceedWithoutReticle = [](const std::string& q) {
        std::fprintf(stderr, "%s\nNo\n", q.c_str());
        return false;
    };
    options.libraryFolder = library;
    const DMAResult r = RunDMA(line, options);
    // The trend charts of the run beside its results, when asked.
    std::vector<std::string> chartFiles;
    if (const std::string dir = OptionValue(args, "--charts"); !dir.empty() && r.outcome) {
        if (Status st = WriteTrendCharts(*r.outcome, dir, chartFiles); !st) return ShowFailure(st.failure(), json);
    }
    if (json) {
        Json j;
        j.beginObject().field("ok", r.succeeded).field("result", r.resultText).field("dataFile", r.dataName);
        j.key("files").beginObject().field("csv", r.files.csv).field("json", r.files.json);
        j.field("xls", r.files.xls).field("html", r.files.html).endObject();
        if (r.outcome) OutcomeJson(j, *r.outcome);
        j.key("charts").beginArray();
        for (const std::string& f : chartFiles) j.value(f);
        j.endArray().endObject();
        std::printf("%s\n", j.str().c_str());
    } else {
        for (const std::string* f : {&r.files.csv, &r.files.json, &r.files.xls, &r.files.html})
            if (!f->empty()) std::printf("%s\n", f->c_str());
        for (const std::string& f : chartFiles) std::printf("%s\n", f.c_str());
        if (r.outcome) {
            std::printf("\n");
            PrintTable(r.outcome->stats);
        }
        if (!r.succeeded) std::fprintf(stderr, "%s\n", r.resultText.c_str());
    }
    return r.exitCode();
}

}  // namespace zorv::cli
