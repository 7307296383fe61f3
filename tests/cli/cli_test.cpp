// zorv-cli as a script sees it: exit codes, stdout and stderr.
#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "workbook/store.h"

namespace fs = std::filesystem;

namespace {

struct CliRun {
    int rc = -1;
    std::string out, err;
};

// A folder of its own for every test: ctest runs each test in its own
// process, in parallel, and a file one test leaves must not feed another.
class Cli : public ::testing::Test {
protected:
    void SetUp() override {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir = fs::path(ZORV_TEST_TMP) / "cli" / (std::string(info->name()) + "-" + std::to_string(getpid()));
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    void TearDown() override {
        if (!HasFailure()) fs::remove_all(dir);
    }

    // env: assignments put before the command ("NAME=value ...").
    CliRun run(const std::string& args, const std::string& env = {}) {
        const fs::path errFile = dir / ("stderr-" + std::to_string(++calls) + ".txt");
        const std::string cmd = env + " " + std::string(ZORV_CLI_PATH) + " " + args + " 2>" + errFile.string();
        CliRun r;
        FILE* p = popen(cmd.c_str(), "r");
        if (!p) return r;
        std::array<char, 4096> buf;
        size_t n;
        while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) r.out.append(buf.data(), n);
        const int status = pclose(p);
        r.rc = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        std::ifstream in(errFile);
        r.err.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        fs::remove(errFile);
        return r;
    }

    bool validJson(const std::string& text) {
        const fs::path f = dir / "out.json";
        std::ofstream(f) << text;
        if (std::system("/usr/bin/python3 -c 'import json' 2>/dev/null") != 0) return true;
        return std::system(("/usr/bin/python3 -c 'import json,sys; json.load(open(sys.argv[1]))' " +
                            f.string() + " 2>/dev/null")
                               .c_str()) == 0;
    }

    fs::path dir;
    int calls = 0;
};

// JSON read into "a.b.0.c" -> value (strings unescaped, other scalars as
// written). Written apart from the program's writer so that it checks it.
class FlatJson {
public:
    explicit FlatJson(const std::string& text) : s_(text) {
        ok_ = parseValue("") && (skip(), pos_ == s_.size());
    }
    bool ok() const { return ok_; }
    bool has(const std::string& path) const { return values_.count(path) != 0; }
    std::string operator[](const std::string& path) const {
        auto it = values_.find(path);
        return it == values_.end() ? "<absent>" : it->second;
    }

private:
    void skip() {
        while (pos_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[pos_]))) ++pos_;
    }
    bool parseString(std::string& out) {
        if (pos_ >= s_.size() || s_[pos_] != '"') return false;
        ++pos_;
        while (pos_ < s_.size() && s_[pos_] != '"') {
            char c = s_[pos_++];
            if (static_cast<unsigned char>(c) < 0x20) return false;
            if (c != '\\') {
                out += c;
                continue;
            }
            if (pos_ >= s_.size()) return false;
            switch (char e = s_[pos_++]) {
                case 'n': out += '\n'; break;
                case 'r': out += '\r'; break;
                case 't': out += '\t'; break;
                case 'u': {
                    if (pos_ + 4 > s_.size()) return false;
                    const long code = std::stol(s_.substr(pos_, 4), nullptr, 16);
                    pos_ += 4;
                    if (code >= 0x80) return false;  // not needed by these tests
                    out += static_cast<char>(code);
                    break;
                }
                default: out += e;
            }
        }
        if (pos_ >= s_.size()) return false;
        ++pos_;
        return true;
    }
    bool parseValue(const std::string& path) {
        skip();
        if (pos_ >= s_.size()) return false;
        const std::string prefix = path.empty() ? "" : path + ".";
        if (s_[pos_] == '{' || s_[pos_] == '[') {
            const bool object = s_[pos_] == '{';
            const char close = object ? '}' : ']';
            ++pos_;
            skip();
            if (pos_ < s_.size() && s_[pos_] == close) {
                ++pos_;
                return true;
            }
            for (int i = 0;; ++i) {
                skip();
                std::string key = std::to_string(i);
                if (object) {
                    key.clear();
                    if (!parseString(key)) return false;
                    skip();
                    if (pos_ >= s_.size() || s_[pos_++] != ':') return false;
                }
                if (!parseValue(prefix + key)) return false;
                skip();
                if (pos_ >= s_.size()) return false;
                if (s_[pos_] == ',') {
                    ++pos_;
                    continue;
                }
                if (s_[pos_++] != close) return false;
                return true;
            }
        }
        std::string v;
        if (s_[pos_] == '"') {
            if (!parseString(v)) return false;
        } else {
            while (pos_ < s_.size() && std::string_view(",}] \n\r\t").find(s_[pos_]) == std::string_view::npos)
                v += s_[pos_++];
            if (v.empty()) return false;
        }
        values_[path] = v;
        return true;
    }

    std::string s_;
    size_t pos_ = 0;
    bool ok_ = false;
    std::map<std::string, std::string> values_;
};

size_t Occurrences(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

}  // namespace

TEST_F(Cli, VersionHelpAndUnknownVerb) {
    CliRun v = run("--version");
    EXPECT_EQ(v.rc, 0);
    EXPECT_EQ(v.out, "Zorv Wavefront Engineering ver: 5.1.0\n");
    CliRun j = run("version --json");
    EXPECT_EQ(j.rc, 0);
    EXPECT_TRUE(validJson(j.out)) << j.out;
    EXPECT_NE(j.out.find("\"version\":\"5.1.0\""), std::string::npos);

    CliRun h = run("--help");
    EXPECT_EQ(h.rc, 0);
    for (const char* verb : {"version", "info", "sample-workbook"})
        EXPECT_NE(h.out.find(verb), std::string::npos) << verb;

    CliRun none = run("");
    EXPECT_EQ(none.rc, 2);  // no verb: usage, and a failure for scripts
    CliRun bad = run("frobnicate");
    EXPECT_EQ(bad.rc, 2);
    EXPECT_NE(bad.err.find("unknown verb 'frobnicate'"), std::string::npos) << bad.err;
}

TEST_F(Cli, EveryVerbHasHelp) {
    for (const char* verb : {"version", "info", "sample-workbook", "formats", "import", "simulate", "stats", "cull", "model", "plot"}) {
        CliRun r = run(std::string(verb) + " --help");
        EXPECT_EQ(r.rc, 0) << verb;
        EXPECT_NE(r.out.find("Usage: zorv-cli " + std::string(verb)), std::string::npos) << r.out;
    }
}

TEST_F(Cli, HelpSaysWhereFailuresGo) {
    CliRun top = run("--help");
    EXPECT_NE(top.out.find("stderr"), std::string::npos) << top.out;
    EXPECT_NE(top.out.find("{\"error\": {...}} on stdout"), std::string::npos) << top.out;
    CliRun info = run("info --help");
    EXPECT_NE(info.out.find("stderr"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("{\"error\": {\"tag\""), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("exit code 1"), std::string::npos) << info.out;
    CliRun sample = run("sample-workbook --help");
    EXPECT_NE(sample.out.find("stderr and exit code 1"), std::string::npos) << sample.out;
}

TEST_F(Cli, InfoOnSamplesAndOnBadInput) {
    const std::string sample = std::string(ZORV_DATA_DIR) + "/samples/SampleCD.xlsx";
    CliRun ok = run("info " + sample + " --json");
    ASSERT_EQ(ok.rc, 0) << ok.err;
    EXPECT_TRUE(validJson(ok.out)) << ok.out;
    EXPECT_NE(ok.out.find("\"points\":162"), std::string::npos) << ok.out;

    // Not a workbook: the loader's message names the file; nothing on stdout.
    const fs::path junk = dir / "notes.xlsx";
    std::ofstream(junk) << "these are not the cells you are looking for\n";
    CliRun bad = run("info " + junk.string());
    EXPECT_NE(bad.rc, 0);
    EXPECT_NE(bad.err.find("notes.xlsx"), std::string::npos) << bad.err;
    CliRun missing = run("info /nonexistent/folder/none.xlsx");
    EXPECT_NE(missing.rc, 0);
    EXPECT_FALSE(missing.err.empty());
}

TEST_F(Cli, SampleWorkbookRoundTrip) {
    const fs::path out = dir / "Synth.xlsx";
    CliRun w = run("sample-workbook " + out.string() + " --wafers 3 --fields 2 --sites 3");
    ASSERT_EQ(w.rc, 0) << w.err;
    CliRun i = run("info " + out.string() + " --json");
    ASSERT_EQ(i.rc, 0) << i.err;
    // 3 wafers x (2 x 2 fields) x (3 x 3 sites), one point per site.
    EXPECT_NE(i.out.find("\"wafers\":3,\"fields\":12,\"sites\":108,\"points\":108"), std::string::npos)
        << i.out;

    // With --json the path and the row count; a folder that cannot be made is
    // an error object naming the file, and exit 1.
    const fs::path out2 = dir / "Synth2.xlsx";
    CliRun j = run("sample-workbook " + out2.string() + " --wafers 2 --fields 3 --sites 2 --json");
    ASSERT_EQ(j.rc, 0) << j.err;
    EXPECT_EQ(j.out, "{\"workbook\":\"" + out2.string() + "\",\"rows\":72}\n");  // 2 x 9 x 4
    const fs::path bad = dir / "no" / "such" / "folder" / "x.xlsx";
    CliRun f = run("sample-workbook " + bad.string() + " --json");
    EXPECT_EQ(f.rc, 1);
    EXPECT_EQ(f.out.rfind("{\"error\":{\"tag\":", 0), 0u) << f.out;
    EXPECT_NE(f.out.find("\"file\":\"" + bad.string() + "\""), std::string::npos) << f.out;
    EXPECT_FALSE(fs::exists(bad));
}

namespace {

// What the loader says about one bad input.
struct Expected {
    std::string tag, chk, text;
};

// Bytes that look like nothing: neither a zip package ("PK") nor an old
// compound file (0xD0 0xCF), the two things a workbook can start with.
std::string NoiseBytes(size_t n) {
    std::mt19937 gen(20240611);
    std::uniform_int_distribution<int> byte(0, 255);
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>(byte(gen));
    s[0] = 'Z';
    return s;
}

}  // namespace

TEST_F(Cli, InfoFailuresAreOneErrorObjectWithJsonAndOneMessageWithout) {
    // A good workbook from the sample verb, less its "Sites" sheet.
    const std::string noSites = (dir / "NoSites.xlsx").string();
    ASSERT_EQ(run("sample-workbook " + noSites + " --wafers 1").rc, 0);
    {
        auto wb = zorv::Workbook::open(noSites);
        ASSERT_TRUE(wb.ok()) << wb.failure().text;
        ASSERT_TRUE((*wb)->removeSheet("Sites"));
        ASSERT_TRUE((*wb)->save().ok());
    }
    const std::string garbage = (dir / "garbage.xlsx").string();
    std::ofstream(garbage, std::ios::binary) << NoiseBytes(4096);
    const std::string missing = (dir / "none.xlsx").string();

    const std::vector<std::pair<std::string, Expected>> cases = {
        {missing, {"Import(GetExcelWBLot): ", "1", "Cannot find file: " + missing}},
        {garbage,
         {"Utility(OpenExcelWorksheet): ", "3", "garbage.xlsx is not an .xlsx workbook (not a zip package)."}},
        {noSites, {"Import(GetWorksheetSites): ", "1", "The workbook does not contain a 'Sites' worksheet."}},
    };
    for (const auto& [path, want] : cases) {
        SCOPED_TRACE(path);
        CliRun j = run("info " + path + " --json");
        EXPECT_EQ(j.rc, 1);
        FlatJson e(j.out);
        ASSERT_TRUE(e.ok()) << j.out;
        EXPECT_EQ(e["error.tag"], want.tag) << j.out;
        EXPECT_EQ(e["error.chk"], want.chk) << j.out;
        EXPECT_EQ(e["error.text"], want.text) << j.out;
        EXPECT_EQ(e["error.file"], path) << j.out;
        // Where the failure does not know them, they are left out rather than empty or 0.
        for (const char* key : {"error.sheet", "error.row", "error.col"})
            EXPECT_TRUE(!e.has(key) || (e[key] != "" && e[key] != "0")) << key << ": " << j.out;
        EXPECT_EQ(Occurrences(j.err, want.text), 0u) << "also on stderr: " << j.err;

        CliRun t = run("info " + path);
        EXPECT_EQ(t.rc, 1);
        EXPECT_EQ(t.out, "");
        // As the box reads, its CR LF a plain line break on a terminal.
        EXPECT_EQ(Occurrences(t.err, want.tag + "\n" + want.text + " chk: " + want.chk + "\n"), 1u) << t.err;
        EXPECT_EQ(Occurrences(t.err, want.text), 1u) << t.err;
        EXPECT_EQ(t.err.find('\r'), std::string::npos) << t.err;
    }
}

TEST_F(Cli, InfoPrintsTheSummaryOfAGoodWorkbook) {
    const std::string sample = std::string(ZORV_DATA_DIR) + "/samples/SampleOverlay.xlsx";
    CliRun t = run("info " + sample);
    ASSERT_EQ(t.rc, 0) << t.err;
    EXPECT_EQ(t.err, "");
    for (const char* line : {"Data sheet:    SampleOverlay\n", "Lot:           SampleOverlay\n",
                             "Data type:     Overlay (DataSource 1)\n",
                             "Counts:        2 wafers, 18 fields, 72 sites, 72 points\n",
                             "Feature V      X_reg [nm]\n", "Feature H      Y_reg [nm]\n",
                             "Die size:      26.0000 x 33.0000 mm\n", "Wafer size:    200.0 mm, notch Down\n",
                             "Family 1       IsoLine (36 sites)\n", "Family 2       DensePack (36 sites)\n",
                             "\nInformation:\n  Data Type          Overlay\n"})
        EXPECT_NE(t.out.find(line), std::string::npos) << line << t.out;

    CliRun j = run("info " + sample + " --json");
    ASSERT_EQ(j.rc, 0) << j.err;
    FlatJson s(j.out);
    ASSERT_TRUE(s.ok()) << j.out;
    EXPECT_FALSE(s.has("error.tag"));
    EXPECT_EQ(s["dataType"], "Overlay");
    EXPECT_EQ(s["counts.sites"], "72");
    EXPECT_EQ(s["families.1.name"], "DensePack");
    EXPECT_EQ(s["families.1.count"], "36");
    EXPECT_EQ(s["geometryMm.dieSizeY"], "33");
    EXPECT_EQ(s["information.Data Type"], "Overlay");
}

TEST_F(Cli, InfoLeavesTheSettingsAlone) {
    // A settings file of the user's, with a source folder the loader would
    // otherwise overwrite.
    const fs::path settings = dir / "settings" / "settings.ini";
    fs::create_directories(settings.parent_path());
    const std::string text =
        "; Zorv settings: [application\\section], key=value\n\n"
        "[Zorv Wavefront Engineering\\Options]\nSourceDirectory=/home/someone/lots\n";
    std::ofstream(settings) << text;
    const auto stamp = fs::last_write_time(settings);
    const std::string sample = std::string(ZORV_DATA_DIR) + "/samples/SampleCD.xlsx";
    CliRun r = run("info " + sample + " --json", "ZORV_SETTINGS_FILE=" + settings.string());
    ASSERT_EQ(r.rc, 0) << r.err;
    std::ifstream in(settings);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()), text);
    EXPECT_EQ(fs::last_write_time(settings), stamp);
    size_t files = 0;
    for (const auto& e : fs::directory_iterator(settings.parent_path())) files += e.is_regular_file();
    EXPECT_EQ(files, 1u);  // no lock or temporary file either
}

TEST_F(Cli, InfoFailureNamesTheSheet) {
    // A data sheet of two columns, the rest of the workbook sound.
    const std::string narrow = (dir / "Narrow.xlsx").string();
    ASSERT_EQ(run("sample-workbook " + narrow + " --wafers 1").rc, 0);
    {
        auto wb = zorv::Workbook::open(narrow);
        ASSERT_TRUE(wb.ok()) << wb.failure().text;
        zorv::Worksheet* data = (*wb)->sheet("Narrow");
        ASSERT_NE(data, nullptr);
        data->clear();
        data->setCell(1, 1, zorv::Value("Wafer"));
        data->setCell(1, 2, zorv::Value("Test"));
        for (int r = 2; r <= 4; ++r) {
            data->setCell(r, 1, zorv::Value(1.0));
            data->setCell(r, 2, zorv::Value(static_cast<double>(r - 1)));
        }
        ASSERT_TRUE((*wb)->save().ok());
    }
    CliRun j = run("info " + narrow + " --json");
    EXPECT_EQ(j.rc, 1);
    FlatJson e(j.out);
    ASSERT_TRUE(e.ok()) << j.out;
    EXPECT_EQ(e["error.tag"], "Import(GetExcelWBLot): ");
    EXPECT_EQ(e["error.chk"], "17");
    EXPECT_EQ(e["error.text"], "Improper worksheet setup. Only 2 columns of data.");
    EXPECT_EQ(e["error.file"], narrow);
    EXPECT_EQ(e["error.sheet"], "Narrow");
    EXPECT_FALSE(e.has("error.row")) << j.out;
    EXPECT_FALSE(e.has("error.col")) << j.out;
    EXPECT_EQ(j.err, "");

    CliRun t = run("info " + narrow);
    EXPECT_EQ(t.rc, 1);
    EXPECT_EQ(t.err, "Zorv Wavefront Engineering chk: 17: Import(GetExcelWBLot): \n"
                     "Improper worksheet setup. Only 2 columns of data. chk: 17\n");
}

TEST_F(Cli, InfoOnAMissingSheetStopsAtTheQuestion) {
    const std::string good = (dir / "Good.xlsx").string();
    ASSERT_EQ(run("sample-workbook " + good + " --wafers 1").rc, 0);
    // Sheets are "Sites", "Information", "Good": the question offers the first,
    // and a run without a user answers No.
    const std::string question = "Zorv Wavefront Engineering: Cannot locate data sheet:'Nope' in workbook:"
                                 "'Good.xlsx'\nUse data from sheet: Sites instead?\n";
    CliRun t = run("info " + good + " --sheet Nope");
    EXPECT_EQ(t.rc, 1);
    EXPECT_EQ(t.out, "");
    EXPECT_EQ(t.err, question);  // the question was the message: no empty one after it

    CliRun j = run("info " + good + " --sheet Nope --json");
    EXPECT_EQ(j.rc, 1);
    FlatJson e(j.out);
    ASSERT_TRUE(e.ok()) << j.out;
    EXPECT_EQ(e["error.tag"], "Import(GetExcelWBLot): ");
    EXPECT_EQ(e["error.text"], "");
    EXPECT_EQ(e["error.file"], good);
    EXPECT_EQ(j.err, question);
}

TEST_F(Cli, FormatsListTheTableInOrder) {
    CliRun r = run("formats --json");
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_TRUE(validJson(r.out)) << r.out;
    FlatJson j(r.out);
    EXPECT_EQ(j["0.description"], "Accent Optical CDS");
    EXPECT_EQ(j["15.description"], "KLA 8xxx CD-SEM");
    // Every row has its reader.
    for (int i = 0; i <= 28; ++i) EXPECT_EQ(j[std::to_string(i) + ".available"], "true") << i;
    EXPECT_EQ(j["28.description"], "Delimited text (CSV, TSV)");
    CliRun text = run("formats");
    EXPECT_NE(text.out.find("Focus/Dose(FEM) spreadsheets"), std::string::npos);
}

TEST_F(Cli, SimulateThenImportDetectsAndLoads) {
    CliRun sim = run("simulate fem --wafers 2 --sites 3 --out " + (dir / "fem").string() + " --json");
    ASSERT_EQ(sim.rc, 0) << sim.err;
    FlatJson s(sim.out);
    const std::string file = s["file"];
    ASSERT_FALSE(file.empty()) << sim.out;
    // No --format: the file's words choose the reader, said on stderr.
    CliRun imp = run("import " + file + " --out " + dir.string());
    ASSERT_EQ(imp.rc, 0) << imp.err;
    EXPECT_NE(imp.err.find("Format: KLA 8xxx CD-SEM"), std::string::npos) << imp.err;
    EXPECT_NE(imp.out.find("Counts:        2 wafers, 198 fields"), std::string::npos) << imp.out;
    EXPECT_TRUE(fs::exists(dir / "fem.xlsx"));
    CliRun js = run("import " + file + " --format \"KLA 8xxx CD-SEM\" --out " + dir.string() + " --json");
    ASSERT_EQ(js.rc, 0) << js.err;
    EXPECT_TRUE(validJson(js.out)) << js.out;
    FlatJson j(js.out);
    EXPECT_EQ(j["format"], "KLA 8xxx CD-SEM");
    EXPECT_EQ(j["counts.wafers"], "2");
    EXPECT_EQ(j["features.0.name"], "MEAS_1");
}

TEST_F(Cli, ImportFailuresExitNonZeroAndWriteNothing) {
    const fs::path junk = dir / "junk.txt";
    std::ofstream(junk, std::ios::binary) << std::string("\x01\x02\0\x7f garbage\0", 14);
    CliRun a = run("import " + junk.string() + " --format \"KLA 8xxx CD-SEM\"");
    EXPECT_EQ(a.rc, 1);
    EXPECT_NE(a.err.find("File type incorrect: "), std::string::npos) << a.err;
    EXPECT_NE(a.err.find("junk.txt"), std::string::npos) << a.err;
    CliRun b = run("import " + junk.string() + " --format \"KLA 8xxx CD-SEM\" --json");
    EXPECT_EQ(b.rc, 1);
    FlatJson j(b.out);
    EXPECT_EQ(j["error.file"], junk.string());
    EXPECT_EQ(j["error.row"], "1");
    // An unknown format; another reader that cannot read the file either.
    CliRun c = run("import " + junk.string() + " --format \"No Such Tool\"");
    EXPECT_EQ(c.rc, 1);
    EXPECT_NE(c.err.find("Import format not found."), std::string::npos) << c.err;
    CliRun d = run("import " + junk.string() + " --format \"KLA Archer overlay\"");
    EXPECT_EQ(d.rc, 1);
    EXPECT_NE(d.err.find("junk.txt"), std::string::npos) << d.err;
    // Undetectable without --format.
    CliRun e = run("import " + junk.string());
    EXPECT_EQ(e.rc, 1);
    EXPECT_NE(e.err.find("Please check the import type or data file."), std::string::npos) << e.err;
    for (const auto& f : fs::directory_iterator(dir)) EXPECT_NE(f.path().extension(), ".xlsx") << f.path();
    EXPECT_EQ(run("import").rc, 2);
}

// The mean and sample deviation of a data sheet column, read through the
// store rather than through the lot and the statistics.
static std::pair<double, double> ColumnMoments(const fs::path& wb, const std::string& sheet, int col) {
    auto opened = zorv::Workbook::open(wb.string());
    if (!opened) return {NAN, NAN};
    zorv::Worksheet* s = (*opened)->sheet(sheet);
    if (!s) return {NAN, NAN};
    double n = 0, s1 = 0, s2 = 0;
    for (int r = 2; r <= s->lastRow(); ++r) {
        const zorv::Value& v = s->cell(r, col);
        if (!v.isNumberType()) continue;
        const double x = v.toDouble();
        n += 1, s1 += x, s2 += x * x;
    }
    return {s1 / n, std::sqrt((n * s2 - s1 * s1) / (n * (n - 1)))};
}

TEST_F(Cli, StatsTablesAgreeWithTheDataSheet) {
    const fs::path wb = dir / "SampleCD.xlsx";
    fs::copy_file(std::string(ZORV_DATA_DIR) + "/samples/SampleCD.xlsx", wb);
    CliRun s = run("stats " + wb.string() + " --json");
    ASSERT_EQ(s.rc, 0) << s.err;
    ASSERT_TRUE(validJson(s.out)) << s.out;
    FlatJson j(s.out);
    ASSERT_TRUE(j.ok()) << s.out;
    EXPECT_EQ(j["table"], "summary");
    EXPECT_EQ(j["columns.0"], "Measure");
    EXPECT_EQ(j["rows.0.label"], "Count");
    EXPECT_EQ(j["rows.0.values.Measure"], "162");
    // Column F of the data sheet is "Measure"; the table's numbers are "###0.00#".
    const auto [mean, sd] = ColumnMoments(wb, "SampleCD", 6);
    EXPECT_EQ(j["rows.1.label"], "Mean");
    EXPECT_NEAR(std::stod(j["rows.1.values.Measure"]), mean, 5e-4);
    EXPECT_EQ(j["rows.4.label"], "StDev");
    EXPECT_NEAR(std::stod(j["rows.4.values.Measure"]), sd, 5e-4);

    CliRun p = run("stats " + wb.string() + " --table precision --json");
    ASSERT_EQ(p.rc, 0) << p.err;
    FlatJson pj(p.out);
    EXPECT_EQ(pj["rows.4.label"], "Lot");
    EXPECT_NEAR(std::stod(pj["rows.4.values.Measure"]), sd, 5e-4);  // the lot's spread is the sample sd
    for (const char* t : {"raw", "ifd", "feature", "covariance"}) {
        CliRun r = run("stats " + wb.string() + " --table " + t + " --json");
        EXPECT_EQ(r.rc, 0) << t << r.err;
        EXPECT_TRUE(validJson(r.out)) << t;
    }
    CliRun text = run("stats " + wb.string() + " --table precision");
    EXPECT_NE(text.out.find("Precision Table for: SampleCD"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("InterWafer"), std::string::npos) << text.out;

    // Bad input: an unknown table or feature, a file that is not a workbook.
    EXPECT_EQ(run("stats " + wb.string() + " --table nope").rc, 2);
    CliRun f = run("stats " + wb.string() + " --feature Nope");
    EXPECT_EQ(f.rc, 1);
    EXPECT_NE(f.err.find("Feature 'Nope' is not in lot: SampleCD"), std::string::npos) << f.err;
    const fs::path junk = dir / "junk.xlsx";
    std::ofstream(junk) << "not a workbook";
    CliRun jb = run("stats " + junk.string() + " --json");
    EXPECT_EQ(jb.rc, 1);
    EXPECT_EQ(FlatJson(jb.out)["error.file"], junk.string());
}

TEST_F(Cli, CullSavesItsSheetAndLeavesTheDataSheet) {
    const fs::path wb = dir / "SampleCD.xlsx";
    fs::copy_file(std::string(ZORV_DATA_DIR) + "/samples/SampleCD.xlsx", wb);
    auto dataSheet = [&]() {
        auto opened = zorv::Workbook::open(wb.string());
        return opened ? (*opened)->sheet("SampleCD")->usedRange() : zorv::Datam();
    };
    const zorv::Datam before = dataSheet();
    ASSERT_TRUE(before.isArray());

    // Range 0 and sigma 0 take out only missing values, and the sample has none.
    CliRun none = run("cull " + wb.string() + " --json");
    ASSERT_EQ(none.rc, 0) << none.err;
    FlatJson n(none.out);
    EXPECT_EQ(n["pointsBefore"], "162");
    EXPECT_EQ(n["pointsAfter"], "162");

    // Measure runs 0.071 .. 0.239 about a median near 0.155: a range of 0.06
    // leaves the points within it. Count them from the sheet itself.
    const auto [mean, sd] = ColumnMoments(wb, "SampleCD", 6);
    (void)sd;
    CliRun c = run("cull " + wb.string() + " --feature Measure --range 0.06 --json --save");
    ASSERT_EQ(c.rc, 0) << c.err;
    FlatJson cj(c.out);
    const double median = std::stod(cj["detail.rows.0.values.Median"]);
    EXPECT_NEAR(median, mean, 0.02);  // the histogram's median lies near the centre
    int expected = 0;
    for (int r = 2; r <= before.rowUb(); ++r)
        if (before(r, 6).isNumberType() && std::fabs(before(r, 6).toDouble() - median) > 0.06 + 1e-9) ++expected;
    EXPECT_EQ(cj["rangeCount"], std::to_string(expected));
    EXPECT_EQ(cj["savedSheet"], "Culled");

    auto opened = zorv::Workbook::open(wb.string());
    ASSERT_TRUE(opened);
    ASSERT_NE((*opened)->sheet("Culled"), nullptr);
    EXPECT_EQ((*opened)->sheet("Culled")->cell(1, 1).toString(), "Culled Data Values for: SampleCD");
    ASSERT_NE((*opened)->sheet("Index"), nullptr);
    const zorv::Datam after = (*opened)->sheet("SampleCD")->usedRange();
    ASSERT_EQ(after.rowUb(), before.rowUb());
    ASSERT_EQ(after.colUb(), before.colUb());
    for (int r = 1; r <= before.rowUb(); ++r)
        for (int col = 1; col <= before.colUb(); ++col)
            EXPECT_EQ(after(r, col).toString(), before(r, col).toString()) << r << "," << col;
    EXPECT_EQ(run("cull " + wb.string() + " --range abc").rc, 2);
}

// An overlay lot simulated with wafer terms only (no field terms, no
// outliers), through import and the shipped "Tilt+Bow" set. The set's terms
// are 1, X, Y, X^2, Y^2 on the wafer (mm); the simulator's X is Tx + ScaleX X
// - RotX Y + BowX (Y/100)^2 + Trifoil ((X/100)^2 - (Y/100)^2), and Y is
// Ty + ScaleY Y + RotY X + BowY (X/100)^2 - 2 Trifoil X Y / 10^4 (the last
// orthogonal to the set's terms on the symmetric grid).
TEST_F(Cli, ModelRecoversSimulatedWaferTerms) {
    const std::string out = (dir / "ov").string();
    ASSERT_EQ(run("simulate overlay --out " + out +
                  " --seed 5 --wafers 3 --fields 7 --sites 16 --outliers 0 --noise 0.5"
                  " --coef FieldMagX=0,FieldMagY=0,FieldRotX=0,FieldRotY=0,FieldCurvX=0,FieldCurvY=0")
                  .rc,
              0);
    ASSERT_EQ(run("import " + out + "/overlay.csv").rc, 0);
    const std::string wb = out + "/overlay.xlsx";
    CliRun m = run("model " + wb + " --wafer-set Tilt+Bow --json");
    ASSERT_EQ(m.rc, 0) << m.err;
    FlatJson j(m.out);
    ASSERT_TRUE(j.ok()) << m.out;
    const double truth[2][5] = {{3, 0.05, -0.03, 0.8e-4, (1.5 - 0.8) * 1e-4}, {-2, 0.02, -0.04, -1.0e-4, 0}};
    int checked = 0;
    for (int w = 0; w < 3; ++w)
        for (int k = 0; k < 2; ++k) {
            const std::string base = "wafers." + std::to_string(w) + ".models." + std::to_string(k) + ".";
            const int comp = j[base + "feature"] == "X_reg" ? 0 : 1;
            for (int t = 0; t < 5; ++t) {
                const std::string term = base + "terms." + std::to_string(t) + ".";
                const double v = std::stod(j[term + "value"]), se = std::stod(j[term + "se"]);
                EXPECT_LT(std::fabs(v - truth[comp][t]), 3 * se) << term << " " << v << " +- " << se;
                ++checked;
                // nm per mm is urad; nm per mm^2 is 100 nm/cm2.
                const double display = std::stod(j[term + "display"]);
                const double factor = t >= 3 ? 100 : t >= 1 ? 1 : display / v;
                EXPECT_NEAR(display, factor * v, 1e-12 + 1e-9 * std::fabs(v));
            }
        }
    EXPECT_EQ(checked, 30);
    EXPECT_EQ(j["wafersFitted"], "3");
}

// Field terms only: each field's tilts and curvatures, averaged over the
// fields, within three standard errors of that mean.
TEST_F(Cli, ModelRecoversSimulatedFieldTerms) {
    const std::string out = (dir / "ovf").string();
    ASSERT_EQ(run("simulate overlay --out " + out +
                  " --seed 5 --wafers 2 --fields 3 --sites 25 --outliers 0 --noise 0.5"
                  " --coef ScaleX=0,ScaleY=0,RotX=0,RotY=0,BowX=0,BowY=0,Trifoil=0")
                  .rc,
              0);
    ASSERT_EQ(run("import " + out + "/overlay.csv").rc, 0);
    CliRun m = run("model " + out + "/overlay.xlsx --field-set \"Field Piston+Tilt+Curv\" --json");
    ASSERT_EQ(m.rc, 0) << m.err;
    FlatJson j(m.out);
    ASSERT_TRUE(j.ok());
    EXPECT_EQ(j["fieldsFitted"], "18");
    // x, y in the field (mm): X = FieldMagX x - FieldRotX y + FieldCurvX (y/10)^2,
    // Y = FieldMagY y + FieldRotY x + FieldCurvY (x/10)^2.
    const double truth[2][5] = {{3, 0.6, -0.3, 0, 0.012}, {-2, 0.4, -0.4, -0.008, 0}};
    double sum[2][5] = {}, se2[2][5] = {};
    int n[2] = {};
    for (int f = 0; f < 18; ++f)
        for (int k = 0; k < 2; ++k) {
            const std::string base = "fields." + std::to_string(f) + ".models." + std::to_string(k) + ".";
            ASSERT_TRUE(j.has(base + "feature")) << base;
            const int comp = j[base + "feature"] == "X_reg" ? 0 : 1;
            ++n[comp];
            for (int t = 1; t < 5; ++t) {
                const std::string term = base + "terms." + std::to_string(t) + ".";
                sum[comp][t] += std::stod(j[term + "value"]);
                se2[comp][t] += std::pow(std::stod(j[term + "se"]), 2);
            }
        }
    for (int c = 0; c < 2; ++c)
        for (int t = 1; t < 5; ++t) {
            const double mean = sum[c][t] / n[c], seMean = std::sqrt(se2[c][t]) / n[c];
            EXPECT_LT(std::fabs(mean - truth[c][t]), 3 * seMean) << c << "," << t << ": " << mean;
        }
}

TEST_F(Cli, ModelFailuresLeaveTheWorkbookAlone) {
    const std::string out = (dir / "ovb").string();
    ASSERT_EQ(run("simulate overlay --out " + out + " --seed 2 --wafers 1 --fields 3 --sites 9").rc, 0);
    ASSERT_EQ(run("import " + out + "/overlay.csv").rc, 0);
    const fs::path wb = out + "/overlay.xlsx";
    auto bytes = [&] {
        std::ifstream in(wb, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    };
    const std::string before = bytes();
    CliRun a = run("model " + wb.string() + " --wafer-set Nope --save");
    EXPECT_EQ(a.rc, 1);
    EXPECT_NE(a.err.find("Could not locate wafer model: Nope"), std::string::npos) << a.err;
    CliRun b = run("model " + wb.string() + " --feature Height --save --json");
    EXPECT_EQ(b.rc, 1);
    EXPECT_NE(FlatJson(b.out)["error.text"].find("Feature 'Height' is not in lot"), std::string::npos) << b.out;
    // A library workbook without its markers.
    const fs::path lib = dir / "lib.xlsx";
    ASSERT_EQ(run("sample-workbook " + lib.string() + " --wafers 1").rc, 0);
    CliRun c = run("model " + wb.string() + " --save", "ZORV_MODEL_LIBRARY=" + lib.string());
    EXPECT_EQ(c.rc, 1);
    EXPECT_NE(c.err.find("Could not find first row with 'Name' of model."), std::string::npos) << c.err;
    EXPECT_EQ(bytes(), before);
    EXPECT_EQ(run("model " + wb.string() + " --field-type diagonal").rc, 2);

    // A fit that succeeds writes its report sheet, with an Index row.
    CliRun ok = run("model " + wb.string() + " --wafer-set Offset+Tilt --save");
    ASSERT_EQ(ok.rc, 0) << ok.err;
    auto opened = zorv::Workbook::open(wb.string());
    ASSERT_TRUE(opened);
    EXPECT_NE((*opened)->sheet("WaferModel_Vector"), nullptr);  // X and Y: the lot's vector
    EXPECT_NE((*opened)->sheet("Index"), nullptr);
}
