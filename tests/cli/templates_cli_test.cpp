// zorv-cli templates: the library as a user keeps it from a shell. Libraries
// are made and read back through the library itself; what the verb prints is
// checked against values written by hand.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/regional.h"
#include "base/report.h"
#include "calib/template_library.h"

namespace zorv {
namespace {

namespace fs = std::filesystem;

struct CliResult {
    int rc = -1;
    std::string out, err;
};

std::string Bytes(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

class TemplatesCli : public ::testing::Test {
protected:
    void SetUp() override {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir = fs::path(ZORV_TEST_TMP) / "cli-templates" / (std::string(info->name()) + "-" + std::to_string(getpid()));
        fs::remove_all(dir);
        fs::create_directories(dir);
        settings = (dir / "settings.ini").string();
        setenv("ZORV_SETTINGS_FILE", settings.c_str(), 1);
    }
    void TearDown() override {
        unsetenv("ZORV_SETTINGS_FILE");
        if (!HasFailure()) fs::remove_all(dir);
    }

    CliResult cli(const std::string& args) {
        const fs::path errFile = dir / "stderr.txt";
        const std::string cmd = "ZORV_SETTINGS_FILE=" + settings + " " + ZORV_CLI_PATH + " templates " + args +
                                " 2>" + errFile.string();
        CliResult r;
        FILE* p = popen(cmd.c_str(), "r");
        if (!p) return r;
        std::array<char, 4096> buf;
        size_t n;
        while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) r.out.append(buf.data(), n);
        const int st = pclose(p);
        r.rc = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
        r.err = Bytes(errFile);
        return r;
    }
    std::string folder(const std::string& name = "lib") const { return (dir / name).string(); }
    fs::path tpl(const std::string& name = "lib") const { return dir / name / "ZORVpsfm.tpl"; }
    std::string opt(const std::string& name = "lib") const { return " --folder " + folder(name); }

    // The built-in sample plus "Second" (two sites, a best focus set, a
    // three-line comment), saved.
    void makeLibrary() {
        ASSERT_TRUE(CreateTemplateBase(folder()).ok());
        cTemplateLibrary lib(folder());
        ASSERT_TRUE(lib.FileGet().ok());
        auto t = std::make_shared<cTemplate>();
        t->NameTemplate = "Second";
        t->DataSetName = "LotB";
        t->Comment = "one\r\ntwo\r\nthree";
        for (int k = 1; k <= 2; ++k) {
            auto s = std::make_unique<cSiteCal>();
            s->NumberKey = std::to_string(k) + "_20_0.8_0_0";
            s->Dose = 20;
            s->NA = 0.8f;
            s->LocationX = k * 1000.0f;
            s->SlopeX = -2.5f * k;
            s->X3rd = 0.125f;
            t->AddSite(std::move(s));
        }
        t->AddBestFocus(nullptr)->Dose = 20;
        lib.AddTemplate(t);
        ASSERT_TRUE(lib.FileSave().ok());
    }

    fs::path dir;
    std::string settings;
};

TEST_F(TemplatesCli, ListAndShowPrintTheLibrary) {
    makeLibrary();
    CliResult r = cli("list" + opt());
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.out.find("2 templates"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("PSFMsample"), std::string::npos);
    // The sample was made on 1 July 2007, shown in the short date form.
    EXPECT_NE(r.out.find(TemplateDateText(DateSerial(2007, 7, 1))), std::string::npos);
    EXPECT_NE(r.out.find("LotB"), std::string::npos);

    r = cli("list --json" + opt());
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.out.find("\"name\":\"PSFMsample\",\"dataSet\":\"PSFMsample\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"sites\":1,\"bestFocusSets\":0"), std::string::npos);
    EXPECT_NE(r.out.find("\"sites\":2,\"bestFocusSets\":1"), std::string::npos);

    // The sample's site: Xfocus = 0.02809 - 6.91 s, Yfocus = 0.060 + 7.35 s at (5, 0).
    r = cli("show psfmSAMPLE" + opt());
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.out.find("Template:       PSFMsample"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("39_19_0.75_0_0"), std::string::npos);
    for (const char* v : {"0.02809", "-6.91", "7.35", "0.06"}) EXPECT_NE(r.out.find(v), std::string::npos) << v;
    r = cli("show PSFMsample --json" + opt());
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.out.find("\"number\":39,\"key\":\"39_19_0.75_0_0\",\"dose\":19,\"na\":0.75"), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("\"x\":5,\"y\":0,\"offsetX\":0.02809"), std::string::npos);
    EXPECT_NE(r.out.find("\"slopeX\":-6.91"), std::string::npos);
    EXPECT_NE(r.out.find("\"slopeY\":7.35"), std::string::npos);

    r = cli("show Second" + opt());
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.out.find("one\n                two\n                three"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("-5"), std::string::npos);  // site 2's slope
    r = cli("show Second --json" + opt());
    EXPECT_NE(r.out.find("\"comment\":\"one\\r\\ntwo\\r\\nthree\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"higherX\":[0,0.125,0]"), std::string::npos);

    // An empty or missing library lists no templates.
    r = cli("list" + opt("none"));
    EXPECT_EQ(r.rc, 0);
    EXPECT_NE(r.out.find("0 templates"), std::string::npos) << r.out;
}

TEST_F(TemplatesCli, MissingNamesFailAndLeaveTheFileAlone) {
    makeLibrary();
    const std::string before = Bytes(tpl()), backup = Bytes(tpl().replace_extension(".stp"));
    const std::string out = (dir / "out.tpl").string();
    for (const std::string& args :
         std::vector<std::string>{"show Nope", "rename Nope Other", "delete Nope --yes", "export Nope " + out}) {
        const CliResult r = cli(args + opt());
        EXPECT_EQ(r.rc, 1) << args;
        EXPECT_NE(r.err.find("Template not found: Nope"), std::string::npos) << args << ": " << r.err;
        EXPECT_EQ(Bytes(tpl()), before) << args;
        EXPECT_EQ(Bytes(tpl().replace_extension(".stp")), backup) << args;
    }
    EXPECT_FALSE(fs::exists(out));
    const CliResult j = cli("show Nope --json" + opt());
    EXPECT_EQ(j.rc, 1);
    EXPECT_NE(j.out.find("\"error\":{\"tag\":\"zorv-cli(templates): \""), std::string::npos) << j.out;

    // Bad arguments: usage, exit 2.
    for (const std::string args : {"", "frobnicate", "show", "rename OnlyOne", "export PSFMsample"})
        EXPECT_EQ(cli(args + opt()).rc, 2) << args;
    EXPECT_EQ(Bytes(tpl()), before);
}

TEST_F(TemplatesCli, RenameAndDeleteSaveTheLibrary) {
    makeLibrary();
    const std::string before = Bytes(tpl());
    // Onto a name held by another template, or too short: refused.
    CliResult r = cli("rename Second psfmsample" + opt());
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("PSFMsample"), std::string::npos) << r.err;
    r = cli("rename Second X" + opt());
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("Improper template name: X"), std::string::npos) << r.err;
    EXPECT_EQ(Bytes(tpl()), before);

    r = cli("rename second Renamed" + opt());
    ASSERT_EQ(r.rc, 0) << r.err;
    {
        cTemplateLibrary lib(folder());
        ASSERT_TRUE(lib.FileGet().ok());
        ASSERT_EQ(lib.Count(), 2);
        EXPECT_EQ(lib.Templates()[1]->NameTemplate, "Renamed");
        EXPECT_EQ(lib.Templates()[1]->sites.Item(2)->SlopeX, -5.0f);
        EXPECT_EQ(lib.Templates()[1]->Comment, "one\r\ntwo\r\nthree");
    }
    EXPECT_EQ(Bytes(tpl().replace_extension(".stp")), before);

    // Delete without --yes says what would go, and goes nowhere.
    const std::string renamed = Bytes(tpl());
    r = cli("delete renamed" + opt());
    EXPECT_EQ(r.rc, 2);
    EXPECT_NE(r.out.find("Would remove template 'Renamed'"), std::string::npos) << r.out;
    EXPECT_EQ(Bytes(tpl()), renamed);
    r = cli("delete renamed --yes --json" + opt());
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.out.find("\"deleted\":\"Renamed\""), std::string::npos) << r.out;
    cTemplateLibrary lib(folder());
    ASSERT_TRUE(lib.FileGet().ok());
    ASSERT_EQ(lib.Count(), 1);
    EXPECT_EQ(lib.Templates()[0]->NameTemplate, "PSFMsample");
}

TEST_F(TemplatesCli, ExportThenImportCarriesATemplateWhole) {
    makeLibrary();
    const std::string file = (dir / "second.tpl").string();
    CliResult r = cli("export SECOND " + file + opt());
    ASSERT_EQ(r.rc, 0) << r.err;
    // The exported file is a library of one, in the library's own format.
    const std::string bytes = Bytes(file);
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_EQ(bytes.substr(0, 2), "\xFF\xFE");
    cTemplateLibrary src(folder()), one("/nonexistent");
    ASSERT_TRUE(src.FileGet().ok());
    ASSERT_TRUE(one.ReadLibraryBytes(bytes, file).ok());
    ASSERT_EQ(one.Count(), 1);
    EXPECT_EQ(one.Templates()[0]->NameTemplate, "Second");

    // Into a new library: the same lines as in the one it came from.
    r = cli("import " + file + opt("other"));
    ASSERT_EQ(r.rc, 0) << r.err;
    cTemplateLibrary other(folder("other"));
    ASSERT_TRUE(other.FileGet().ok());
    ASSERT_EQ(other.Count(), 1);
    cTemplateLibrary a("/nonexistent"), b("/nonexistent");
    a.AddTemplate(src.Templates()[1]);
    b.AddTemplate(other.Templates()[0]);
    EXPECT_EQ(a.FileLines(), b.FileLines());

    // Again: refused by name unless --replace.
    const std::string before = Bytes(tpl("other"));
    r = cli("import " + file + opt("other"));
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("Template already in the library: Second"), std::string::npos) << r.err;
    EXPECT_EQ(Bytes(tpl("other")), before);
    r = cli("import " + file + " --replace --json" + opt("other"));
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.out.find("\"imported\":[\"Second\"],\"replaced\":[\"Second\"]"), std::string::npos) << r.out;
    cTemplateLibrary replaced(folder("other"));
    ASSERT_TRUE(replaced.FileGet().ok());
    EXPECT_EQ(replaced.Count(), 1);
}

TEST_F(TemplatesCli, DamagedFilesAreReportedNotSaved) {
    makeLibrary();
    const std::string before = Bytes(tpl());
    // A library file cut after 45 lines, 6 into the second template: nothing
    // imported, the line named.
    std::string cut = before.substr(0, 2);
    size_t pos = 2;
    for (int line = 0; line < 45; ++line) {
        const size_t end = before.find(std::string("\r\0\n\0", 4), pos);
        cut += before.substr(pos, end + 4 - pos);
        pos = end + 4;
    }
    const fs::path bad = dir / "bad.tpl";
    std::ofstream(bad, std::ios::binary) << cut;
    CliResult r = cli("import " + bad.string() + opt());
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("Input past end of file"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("File: " + bad.string() + ", line 45"), std::string::npos) << r.err;
    EXPECT_EQ(Bytes(tpl()), before);
    r = cli("import " + (dir / "absent.tpl").string() + opt());
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("File not found"), std::string::npos) << r.err;

    // The library itself damaged: list shows what read, then the failure;
    // nothing is saved over it.
    fs::copy_file(bad, tpl(), fs::copy_options::overwrite_existing);
    r = cli("list" + opt());
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.out.find("PSFMsample"), std::string::npos) << r.out;
    EXPECT_NE(r.err.find(", line 45"), std::string::npos) << r.err;
    r = cli("delete PSFMsample --yes" + opt());
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(Bytes(tpl()), cut);
}

}  // namespace
}  // namespace zorv
