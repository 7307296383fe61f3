// zorv-cli as a script sees it: exit codes, stdout and stderr.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

struct CliRun {
    int rc = -1;
    std::string out, err;
};

CliRun run(const std::string& args) {
    const fs::path dir = fs::path(ZORV_TEST_TMP) / "cli";
    fs::create_directories(dir);
    // ctest runs each test in its own process, in parallel: names per process.
    static int calls = 0;
    const fs::path errFile =
        dir / ("stderr-" + std::to_string(getpid()) + "-" + std::to_string(++calls) + ".txt");
    const std::string cmd = std::string(ZORV_CLI_PATH) + " " + args + " 2>" + errFile.string();
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
    const fs::path f = fs::path(ZORV_TEST_TMP) / "cli" / ("out-" + std::to_string(getpid()) + ".json");
    std::ofstream(f) << text;
    if (std::system("/usr/bin/python3 -c 'import json' 2>/dev/null") != 0) return true;
    return std::system(("/usr/bin/python3 -c 'import json,sys; json.load(open(sys.argv[1]))' " +
                        f.string() + " 2>/dev/null")
                           .c_str()) == 0;
}

}  // namespace

TEST(Cli, VersionHelpAndUnknownVerb) {
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

TEST(Cli, EveryVerbHasHelp) {
    for (const char* verb : {"version", "info", "sample-workbook"}) {
        CliRun r = run(std::string(verb) + " --help");
        EXPECT_EQ(r.rc, 0) << verb;
        EXPECT_NE(r.out.find("Usage: zorv-cli " + std::string(verb)), std::string::npos) << r.out;
    }
}

TEST(Cli, InfoOnSamplesAndOnBadInput) {
    const std::string sample = std::string(ZORV_DATA_DIR) + "/samples/SampleCD.xlsx";
    CliRun ok = run("info " + sample + " --json");
    ASSERT_EQ(ok.rc, 0) << ok.err;
    EXPECT_TRUE(validJson(ok.out)) << ok.out;
    EXPECT_NE(ok.out.find("\"points\":162"), std::string::npos) << ok.out;

    // Not a workbook: the loader's message names the file; nothing on stdout.
    const fs::path junk = fs::path(ZORV_TEST_TMP) / "cli" / "notes.xlsx";
    std::ofstream(junk) << "these are not the cells you are looking for\n";
    CliRun bad = run("info " + junk.string());
    EXPECT_NE(bad.rc, 0);
    EXPECT_NE(bad.err.find("notes.xlsx"), std::string::npos) << bad.err;
    CliRun missing = run("info /nonexistent/folder/none.xlsx");
    EXPECT_NE(missing.rc, 0);
    EXPECT_FALSE(missing.err.empty());
}

TEST(Cli, SampleWorkbookRoundTrip) {
    const fs::path out = fs::path(ZORV_TEST_TMP) / "cli" / "Synth.xlsx";
    fs::remove(out);
    CliRun w = run("sample-workbook " + out.string() + " --wafers 3 --fields 2 --sites 3");
    ASSERT_EQ(w.rc, 0) << w.err;
    CliRun i = run("info " + out.string() + " --json");
    ASSERT_EQ(i.rc, 0) << i.err;
    // 3 wafers x (2 x 2 fields) x (3 x 3 sites), one point per site.
    EXPECT_NE(i.out.find("\"wafers\":3,\"fields\":12,\"sites\":108,\"points\":108"), std::string::npos)
        << i.out;
}
