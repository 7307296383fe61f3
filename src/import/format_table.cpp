// The table of import formats and the dispatch to their readers.
#include <filesystem>
#include <string>

#include "app/shutdown.h"
#include "base/report.h"
#include "base/text.h"
#include "import/import.h"
#include "reader.h"
#include "readers.h"
#include "readers_extra.h"
#include "readers_fem.h"
#include "readers_biorad_asml.h"
#include "readers_cdsem.h"
#include "readers_kla_overlay.h"
#include "readers_ocd_film.h"
#include "readers_thermal_yield.h"

namespace zorv {

namespace {

struct FormatRow {
    const char* description;
    const char* filter;
    const char* procedure;
};

// The order is the order users have always seen; two descriptions share the
// Questar "res" reader on purpose.
constexpr FormatRow kFormats[] = {
    {"Accent Optical CDS", "*.*", "ImportAccentCDS"},
    {"Accent Overlay", "*.*", "ImportBioRadQ6res"},
    {"AMAT NanoSEM 3D", "*.*", "ImportNanoSEM"},
    {"AMAT NanoSEM 3D(Family)", "*.*", "ImportNanoSEM_ByFamily"},
    {"ASML Registration", "*.*", "ImportASML"},
    {"BioRad Questar Overlay", "*.*", "ImportBioRadQ6res"},
    {"CDE ResMap Probe", "*.*", "ImportCDEResMap"},
    {"Focus/Dose(FEM) spreadsheets", "*.XLS", "ImportExcelFEM"},
    {"Hitachi_CDSEM (multi-point)", "*.msr", "ImportHitachi_CDSEM_S9xxx"},
    {"Hitachi_CDSEM (statistical)", "*.msr", "ImportHitachi_CDSEM_Stats"},
    {"Hitachi LAXXX Overlay", "*.*,*.XLS", "ImportHitachiLAXX"},
    {"KLA Archer overlay", "*.*", "ImportKLAarcher"},
    {"KLA ZspinFocus", "*.*", "ImportKLAZspin"},
    {"KLA ASET F5 Ellipsometer", "*.*", "ImportKLAAsetF5"},
    {"KLA 5xxx", "*.*", "ImportKLA"},
    {"KLA 8xxx CD-SEM", "*.*", "ImportKLACDsem"},
    {"KLA ProData Files", "*.pfe", "ImportKLAProData"},
    {"NanoMetrics OCD", "*.*", "ImportNanoMetricsOCD"},
    {"NanoMetrics OCD(strReticle)", "*.*", "ImportNanoMetricsOCDreticle"},
    {"Nikon NRM Series OL (*.msr, *.XLS)", "*.msr; *.XLS", "ImportNikonNRM"},
    {"Nova Track 2020-3030 OL (*.*)", "*.*", "ImportNovaTrackOL"},
    {"OnWafer Thermal Map (*.*)", "*.*", "ImportOnWafer"},
    {"Yield data summary (*.*)", "*.*", "ImportYieldXLS"},
    {"SensArray Thermal Map(*.xls,*.*)", "*.*", "ImportSensArray"},
    {"Soluris IVS Overlay family(IVS135 etc.)", "*.*", "ImportIVS"},
    {"Soluris Yosemite CD-SEM family", "*.*", "ImportIVSyosemite"},
    {"Therma-Wave RTCD (*.csv)", "*.*", "ImportThermaWaveProfile"},
    {"Timbre Tech. ODP (*.odp;*.csv)", "*.*", "ImportTimbreODP"},
    {kDelimitedDescription, "*.csv;*.tsv;*.txt", "ImportDelimited"},
};
static_assert(sizeof(kFormats) / sizeof(kFormats[0]) == kToolFormatCount + 1);

struct ReaderEntry {
    const char* procedure;
    ReaderFn fn;
    bool takesText;  // a spreadsheet source is made a text copy first
};

// Readers that open a workbook themselves take the spreadsheet as it is;
// OnWafer refuses one with its own message, so it sees the file too.
constexpr ReaderEntry kReaders[] = {
    {"ImportAccentCDS", ImportAccentCDS, true},
    {"ImportBioRadQ6res", ImportBioRadQ6res, true},
    {"ImportNanoSEM", ImportNanoSEM, true},
    {"ImportNanoSEM_ByFamily", ImportNanoSEM_ByFamily, true},
    {"ImportASML", ImportASML, true},
    {"ImportCDEResMap", ImportCDEResMap, true},
    {"ImportExcelFEM", ImportExcelFEM, false},
    {"ImportHitachi_CDSEM_S9xxx", ImportHitachi_CDSEM_S9xxx, true},
    {"ImportHitachi_CDSEM_Stats", ImportHitachi_CDSEM_Stats, true},
    {"ImportHitachiLAXX", ImportHitachiLAXX, false},
    {"ImportKLAarcher", ImportKLAarcher, true},
    {"ImportKLAAsetF5", ImportKLAAsetF5, true},
    {"ImportKLA", ImportKLA, true},
    {"ImportKLACDsem", ImportKLACDsem, true},
    {"ImportKLAProData", ImportKLAProData, true},
    {"ImportNanoMetricsOCD", ImportNanoMetricsOCD, true},
    {"ImportNanoMetricsOCDreticle", ImportNanoMetricsOCDreticle, true},
    {"ImportNikonNRM", ImportNikonNRM, true},
    {"ImportNovaTrackOL", ImportNovaTrackOL, true},
    {"ImportOnWafer", ImportOnWafer, false},
    {"ImportYieldXLS", ImportYieldXLS, false},
    {"ImportSensArray", ImportSensArray, true},
    {"ImportIVS", ImportIVS, true},
    {"ImportIVSyosemite", ImportIVSyosemite, true},
    {"ImportThermaWaveProfile", ImportThermaWaveProfile, true},
    {"ImportTimbreODP", ImportTimbreODP, true},
    {"ImportDelimited", ImportDelimited, true},
};

const ReaderEntry* EntryOf(std::string_view procedure) {
    // The Zspin focus files go through the Archer reader.
    if (procedure == "ImportKLAZspin") procedure = "ImportKLAarcher";
    for (const ReaderEntry& e : kReaders)
        if (procedure == e.procedure) return &e;
    return nullptr;
}

}  // namespace

const Datam& FormatTable() {
    static const Datam table = [] {
        const int n = static_cast<int>(sizeof(kFormats) / sizeof(kFormats[0]));
        Datam t(n, 2, 0, 0);
        t(0, 0) = "Description";
        t(0, 1) = "Filter";
        t(0, 2) = "Procedure";
        for (int i = 0; i < n; ++i) {
            t(i + 1, 0) = kFormats[i].description;
            t(i + 1, 1) = kFormats[i].filter;
            t(i + 1, 2) = kFormats[i].procedure;
        }
        return t;
    }();
    return table;
}

ReaderFn ReaderOfProcedure(std::string_view procedure) {
    const ReaderEntry* e = EntryOf(procedure);
    return e ? e->fn : nullptr;
}

Result<std::string> ImportRawData(const ImportRequest& request) {
    Proc p("Import(ImportRawData): ");
    p.chk = 1;
    const Datam& table = FormatTable();
    int row = -1;
    for (int r = 1; r <= table.rowUb(); ++r)
        if (IEquals(table(r, 0).str(), Trim(request.description))) row = r;
    if (row < 0) return p.fail("Import format not found.");
    p.chk = 2;
    if (Logging()) AppendLogLine(p.tag() + " Begin import of raw data.  chk:" + ChkText(p.chk));
    const std::string procedure(table(row, 2).str());
    const ReaderEntry* entry = EntryOf(procedure);
    if (!entry) return p.fail("Data import format not available.");

    p.chk = 3;
    std::error_code ec;
    if (!std::filesystem::is_regular_file(request.path, ec)) {
        Failure f = p.fail("Cannot find file: " + request.path);
        f.file = request.path;
        return f;
    }
    ImportRequest call = request;
    call.description = table(row, 0).str();
    if (entry->takesText && IsSpreadsheetPath(request.path)) {
        // The workbook is named after the spreadsheet, not after its text copy.
        call.workbookPath = ReaderWorkbookPath(request);
        std::string text;
        if (Status s = XLS2ASCII(request.path, text); !s) {
            p.quiet();
            return s.failure();
        }
        call.path = text;
    }
    p.chk = 4;
    Result<std::string> r = entry->fn(call);
    if (!r) {
        p.quiet();
        return r.failure();
    }
    return r;
}

Result<ImportRequest> GetDataFile(const std::string& path, const std::string& description, std::string* why) {
    Proc p("Import(GetDataFile): ");
    p.chk = 1;
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) {
        Failure f = p.fail("Cannot find file: " + path);
        f.file = path;
        return f;
    }
    ImportRequest req;
    req.path = path;
    req.description = description;
    if (!description.empty()) return req;
    p.chk = 2;
    Detection d = DetectFormat(path);
    if (!d.ok()) {
        std::string text = d.why;
        text.append("\r\nFile: ").append(path).append("\r\nPlease check the import type or data file.");
        Failure f = p.fail(text);
        f.file = path;
        return f;
    }
    req.description = d.description;
    if (why) *why = d.why;
    return req;
}

Result<std::string> ImportCall(const ImportRequest& request) {
    struct Hold {
        bool was = Exiting();
        Hold() { SetExiting(true); }
        ~Hold() { SetExiting(was); }
    } hold;
    return ImportRawData(request);
}

}  // namespace zorv
