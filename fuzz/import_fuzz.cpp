// libFuzzer target of the import subsystem: the line tokeniser, every built
// reader of the format table, the format detection, and the load of a
// workbook a reader wrote.
//
// Each input is tokenised line by line with each delimiter, then written to a
// file in a scratch folder (".xlsx" or ".xls" when it starts like one, else
// ".txt") that goes through ImportRawData with each format whose reader is
// built, and through DetectFormat. The folder, with the workbooks and the
// "Zorv" copies of Macintosh files, is removed after every input. With
// ZORV_FUZZ_LOAD=1 each workbook a reader wrote is loaded as a lot too (four
// times slower: the load is most of an input's time).
//
// Besides crashes it stops on what bad input must never do: a failed import
// that leaves a workbook behind, a success without one, a detection that names
// no row of the table, a word of the tokeniser that is empty or still holds a
// separator.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/report.h"
#include "import/getline.h"
#include "import/import.h"
#include "import/simulate.h"
#include "lot/lot.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

namespace fs = std::filesystem;
using namespace zorv;

namespace {

// Boxes, questions and the status line: nothing shown, questions answer 0.
class QuietReporter : public Reporter {
public:
    int showBox(const std::string&, int, const std::string&) override { return 0; }
};

QuietReporter g_quiet;
fs::path g_root;                     // this process's scratch folder
std::vector<std::string> g_formats;  // descriptions with a built reader
bool g_load = false;                 // ZORV_FUZZ_LOAD: load what a reader wrote

void Fail(const std::string& what) {
    std::fprintf(stderr, "import_fuzz: %s\n", what.c_str());
    std::abort();
}

void CheckTokeniser(std::string_view input) {
    static const char* const kDelimiters[] = {"", " ", ",", "\t", ";", "|"};
    std::vector<std::string> words;
    size_t at = 0;
    for (int n = 0; at <= input.size() && n < 64; ++n) {
        size_t end = input.find('\n', at);
        if (end == std::string_view::npos) end = input.size();
        for (const char* d : kDelimiters) {
            std::string line(input.substr(at, end - at)), delimiter(d);
            TokeniseLine(line, delimiter, words);
            for (const std::string& w : words) {
                if (w.empty()) Fail("TokeniseLine gave an empty word");
                if (w.find_first_of(" \t\r\n*\"") != std::string::npos)
                    Fail("TokeniseLine gave a word with a separator: '" + w + "'");
            }
            if (line.find_first_of("\t\r\n*\"") != std::string::npos) Fail("TokeniseLine left a separator in the line");
        }
        at = end + 1;
    }
}

std::string Extension(std::string_view in) {
    if (in.substr(0, 4) == std::string_view("PK\x03\x04", 4)) return ".xlsx";
    if (in.substr(0, 4) == std::string_view("\xD0\xCF\x11\xE0", 4)) return ".xls";
    return ".txt";
}

void ImportEach(const std::string& path, const fs::path& out) {
    for (const std::string& format : g_formats) {
        ImportRequest q;
        q.path = path;
        q.workbookPath = (out / "data.xlsx").string();
        q.dataFolder = out.string();
        q.description = format;
        Result<std::string> r = ImportRawData(q);
        std::error_code ec;
        if (!r) {
            Workbooks::CloseAll();
            if (fs::exists(q.workbookPath, ec))
                Fail(format + ": a failed import left its workbook behind: " + r.failure().message());
            continue;
        }
        if (!fs::exists(*r, ec)) Fail(format + ": the import answered a workbook that is not there: " + *r);
        Workbooks::CloseAll();
        if (g_load) {
            // What a reader wrote loads, or fails as a value.
            std::shared_ptr<cLot> lot;
            LoadOptions o;
            o.quiet = true;
            if (GetExcelWBLot(*r, o, lot) && lot) lot->Kill();
            lot.reset();
            Workbooks::CloseAll();
        }
        fs::remove_all(out, ec);
        fs::create_directories(out, ec);
    }
}

void CheckDetection(const std::string& path) {
    Detection d = DetectFormat(path);
    if (!d.ok()) return;
    const Datam& t = FormatTable();
    for (int r = 1; r <= t.rowUb(); ++r)
        if (t(r, 0).str() == d.description) return;
    Fail("DetectFormat chose a format that is not in the table: " + d.description);
}

// ZORV_FUZZ_SEEDS=dir: the sample files and small simulated tool files.
void WriteSeeds(const fs::path& dir) {
    fs::create_directories(dir);
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(ZORV_FUZZ_SAMPLES, ec)) {
        const std::string name = e.path().filename().string();
        if (name.rfind("kla_cdsem_", 0) == 0 || name.rfind("delimited_", 0) == 0 || name == "fem_spreadsheet.xlsx")
            fs::copy_file(e.path(), dir / name, fs::copy_options::overwrite_existing, ec);
    }
    const fs::path sim = g_root / "seeds";
    int n = 0;
    for (const std::string& kind : SimulateKinds()) {
        for (const char* format : {"", "kla", "csv"}) {
            for (LineEnd eol : {LineEnd::CrLf, LineEnd::Lf, LineEnd::Cr}) {
                SimulateOptions o;
                o.outDir = (sim / std::to_string(n)).string();
                o.format = format;
                o.wafers = 1;
                o.fieldsX = 2;
                o.fieldsY = 2;
                o.sites = 3;
                o.seed = static_cast<std::uint64_t>(n + 1);
                o.outliers = 1;
                o.failed = 1;
                o.eol = eol;
                Result<SimulateOutput> r = Simulate(kind, o);
                if (!r) continue;  // a format the kind does not write
                for (const std::string& f : {r->file, r->reticleFile})
                    if (!f.empty())
                        fs::copy_file(f, dir / ("sim" + std::to_string(n) + "_" + fs::path(f).filename().string()),
                                      fs::copy_options::overwrite_existing, ec);
                ++n;
            }
        }
    }
    fs::remove_all(g_root, ec);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    SetReporter(&g_quiet);
    g_root = fs::temp_directory_path() / ("zorv_import_fuzz_" + std::to_string(getpid()));
    fs::create_directories(g_root);
    const Datam& t = FormatTable();
    for (int r = 1; r <= t.rowUb(); ++r)
        if (ReaderOfProcedure(t(r, 2).str())) g_formats.emplace_back(t(r, 0).str());
    if (const char* dir = std::getenv("ZORV_FUZZ_SEEDS")) {
        WriteSeeds(dir);
        std::exit(0);
    }
    const char* load = std::getenv("ZORV_FUZZ_LOAD");
    g_load = load && *load && *load != '0';
    std::fprintf(stderr, "import_fuzz: %zu readers%s:", g_formats.size(), g_load ? " and the load" : "");
    for (const std::string& f : g_formats) std::fprintf(stderr, " \"%s\"", f.c_str());
    std::fprintf(stderr, "\n");
    std::atexit([] {
        std::error_code ec;
        fs::remove_all(g_root, ec);
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view in(reinterpret_cast<const char*>(data), size);
    CheckTokeniser(in);

    const fs::path run = g_root / "run";
    const fs::path out = run / "out";
    std::error_code ec;
    fs::remove_all(run, ec);
    fs::create_directories(out, ec);
    const std::string path = (run / ("input" + Extension(in))).string();
    {
        std::ofstream f(path, std::ios::binary);
        f.write(in.data(), static_cast<std::streamsize>(in.size()));
    }
    ImportEach(path, out);
    CheckDetection(path);
    Workbooks::CloseAll();
    fs::remove_all(run, ec);
    return 0;
}
