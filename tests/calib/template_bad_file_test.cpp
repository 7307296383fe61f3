// Damaged library files: each reads as far as it can, gives a failure whose
// text names the file and the line reached, and never brings the program down.
#include <gtest/gtest.h>

#include <cfloat>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "base/regional.h"
#include "base/report.h"
#include "calib/template_library.h"

namespace zorv {
namespace {

namespace fs = std::filesystem;

// Every box answered No and remembered, so a test can say none was shown.
class QuietReporter : public Reporter {
public:
    int boxes = 0;
    int showBox(const std::string&, int, const std::string&) override {
        ++boxes;
        return vbNo;
    }
};

// ASCII lines as UTF-16 LE, CR LF ends, built by hand.
std::string Utf16(const std::vector<std::string>& lines, bool bom = true) {
    std::string b = bom ? "\xFF\xFE" : "";
    for (const std::string& l : lines) {
        for (char c : l) b += {c, '\0'};
        b += std::string("\r\0\n\0", 4);
    }
    return b;
}

std::string Utf8(const std::vector<std::string>& lines) {
    std::string b;
    for (const std::string& l : lines) b += l + "\r\n";
    return b;
}

// One template record of 37 lines: 10 of header, one version 3 site of 27.
std::vector<std::string> Record(const std::string& name, const std::string& slopeX = "-6.91") {
    return {name, "CommentLines: 1", "", "DS", "1/2/2003", "2/3/2004", "", "0", "SitesTotal: 1",
            "BestFocusSets: 0",
            // dose, NA, PCinner, PCouter, X, Y, key
            "19", "0.75", "0", "0", "5", "0", "39_19_0.75_0_0",
            // offsets, slopes and their se
            "2.809E-02", "2.57E-03", "6.0E-02", "2.47E-03", slopeX, "7.42E-03", "7.35", "7.14E-03",
            // 2nd to 4th orders
            "0", "0", "0", "0", "0", "0", "0", "0", "0", "0", "0", "0"};
}

// A version 3 library of the named templates: 2 + 37 n lines.
std::vector<std::string> Library(const std::vector<std::string>& names) {
    std::vector<std::string> L = {"Version: 3", "TemplatesTotal: " + std::to_string(names.size())};
    for (const std::string& n : names) {
        const auto r = Record(n);
        L.insert(L.end(), r.begin(), r.end());
    }
    return L;
}

class TemplateBadFile : public ::testing::Test {
protected:
    void SetUp() override {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir = fs::path(ZORV_TEST_TMP) / "tplbad" / info->name();
        fs::remove_all(dir);
        fs::create_directories(dir / "Templates");
        setenv("ZORV_SETTINGS_FILE", (dir / "settings.ini").c_str(), 1);
        SetReporter(&rep);
    }
    void TearDown() override {
        SetReporter(nullptr);
        unsetenv("ZORV_SETTINGS_FILE");
    }
    void write(const std::string& bytes) {
        std::ofstream out(file(), std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    std::string file() const { return (dir / "Templates" / "ZORVpsfm.tpl").string(); }
    std::string folder() const { return (dir / "Templates").string(); }
    // The text a failure ends with: the file, and the line when one was read.
    std::string where(long line) const {
        return "\r\nFile: " + file() + (line > 0 ? ", line " + std::to_string(line) : "");
    }
    // A library already holding "Held", so that a read that stops before its
    // head has read shows it untouched.
    std::unique_ptr<cTemplateLibrary> held() {
        auto lib = std::make_unique<cTemplateLibrary>(folder());
        auto t = std::make_shared<cTemplate>();
        t->NameTemplate = "Held";
        lib->AddTemplate(t);
        return lib;
    }

    fs::path dir;
    QuietReporter rep;
};

TEST_F(TemplateBadFile, TruncatedKeepsTheTemplatesBeforeTheCut) {
    const std::vector<std::string> good = Library({"First", "Second"});
    ASSERT_EQ(good.size(), 76u);
    // Cut after 20 lines of the second record: line 59 was the last read.
    write(Utf16(std::vector<std::string>(good.begin(), good.begin() + 59)));
    auto lib = held();
    Status st = lib->FileGet();
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().tag, "cTemplateLibrary(FileGet): ");
    EXPECT_EQ(st.failure().text, "Input past end of file" + where(59));
    EXPECT_EQ(st.failure().file, file());
    EXPECT_EQ(st.failure().row, 59);
    ASSERT_EQ(lib->Count(), 1);
    EXPECT_EQ(lib->Templates()[0]->NameTemplate, "First");
    EXPECT_EQ(lib->Templates()[0]->sites.Item(1)->SlopeY, 7.35f);

    // Cut inside a character: the odd byte is dropped, the line before it
    // stands (the record's last "0" lost its CR LF and still reads).
    std::string bytes = Utf16(Library({"First"}));
    bytes.resize(bytes.size() - 3);
    write(bytes);
    st = lib->FileGet();
    EXPECT_TRUE(st.ok()) << st.failure().text;
    EXPECT_EQ(lib->Count(), 1);

    // Cut inside the head: the library is as it was.
    write(Utf16({"Version: 3"}));
    lib = held();
    st = lib->FileGet();
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().text, "Input past end of file" + where(1));
    EXPECT_EQ(st.failure().chk, 2.0f);
    ASSERT_EQ(lib->Count(), 1);
    EXPECT_EQ(lib->Templates()[0]->NameTemplate, "Held");
    EXPECT_EQ(rep.boxes, 0);
}

TEST_F(TemplateBadFile, WrongVersionTextStopsAtLineOne) {
    for (const std::string head : {"Version: three", "Version 3", "VERSION:", "version: 3.5.1"}) {
        std::vector<std::string> L = Library({"A"});
        L[0] = head;
        write(Utf16(L));
        auto lib = held();
        const Status st = lib->FileGet();
        ASSERT_FALSE(st.ok()) << head;
        EXPECT_EQ(st.failure().text, "Type mismatch" + where(1)) << head;
        ASSERT_EQ(lib->Count(), 1);
        EXPECT_EQ(lib->Templates()[0]->NameTemplate, "Held");
    }
    // A version past 3 reads as 3; any case of the word will do.
    std::vector<std::string> L = Library({"A"});
    L[0] = "vErSiOn: 7";
    write(Utf16(L));
    cTemplateLibrary lib(folder());
    ASSERT_TRUE(lib.FileGet().ok());
    ASSERT_EQ(lib.Count(), 1);
    EXPECT_EQ(lib.Templates()[0]->Version, 7.0f);
    EXPECT_EQ(lib.Templates()[0]->sites.Item(1)->SlopeX, -6.91f);
}

TEST_F(TemplateBadFile, EmptyAndMarkOnlyFilesReadNothing) {
    const std::vector<std::string> contents = {"", "\xFF\xFE", "\xFE\xFF", "\xEF\xBB\xBF", "\xFF\xFE\r"};
    for (const std::string& bytes : contents) {
        write(bytes);
        auto lib = held();
        const Status st = lib->FileGet();
        ASSERT_FALSE(st.ok()) << bytes.size();
        EXPECT_EQ(st.failure().text, "Input past end of file" + where(0)) << bytes.size();
        EXPECT_EQ(st.failure().file, file());
        ASSERT_EQ(lib->Count(), 1);
        EXPECT_EQ(lib->Templates()[0]->NameTemplate, "Held");
    }
}

TEST_F(TemplateBadFile, Utf8WithoutMarkReadsWhole) {
    // 8-bit text is read as UTF-8; "Größe" is G r 0xC3 0xB6 0xC3 0x9F e.
    std::vector<std::string> L = Library({"Gr\xC3\xB6\xC3\x9F" "e", "Plain"});
    write(Utf8(L));
    cTemplateLibrary lib(folder());
    const Status st = lib.FileGet();
    ASSERT_TRUE(st.ok()) << st.failure().text;
    ASSERT_EQ(lib.Count(), 2);
    EXPECT_EQ(lib.Templates()[0]->NameTemplate, "Gr\xC3\xB6\xC3\x9F" "e");
    EXPECT_EQ(lib.Templates()[1]->sites.Item(1)->OffsetX, 0.02809f);

    // Saved again it is UTF-16: the two letters are the units 00F6 and 00DF.
    ASSERT_TRUE(lib.FileSave().ok());
    std::ifstream in(file(), std::ios::binary);
    const std::string saved((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string name16 = std::string("G\0r\0\xF6\0\xDF\0e\0\r\0\n\0", 14);
    EXPECT_NE(saved.find(name16), std::string::npos);

    // UTF-8, LF ends only, cut short: the message still names the line.
    std::string lf;
    for (size_t i = 0; i < 30; ++i) lf += L[i] + "\n";
    write(lf);
    const Status cut = lib.FileGet();
    ASSERT_FALSE(cut.ok());
    EXPECT_EQ(cut.failure().text, "Input past end of file" + where(30));
    EXPECT_EQ(lib.Count(), 0);
}

TEST_F(TemplateBadFile, NumbersBeyondASingleAreOverflows) {
    // The largest single, written in its shortest form, reads back exactly.
    EXPECT_EQ(TemplateNumberText(FLT_MAX), "3.4028235E+38");
    std::vector<std::string> L = Library({"A"});
    L[2 + 19] = "3.4028235E+38";  // OffsetY
    L[2 + 20] = "-3.4028235E+38";
    write(Utf16(L));
    cTemplateLibrary lib(folder());
    ASSERT_TRUE(lib.FileGet().ok());
    EXPECT_EQ(lib.Templates()[0]->sites.Item(1)->OffsetY, FLT_MAX);
    EXPECT_EQ(lib.Templates()[0]->sites.Item(1)->OffsetYse, -FLT_MAX);

    // SlopeX of 1e300 on line 24; a template type of 1e12 on line 10.
    L = Library({"A"});
    L[23] = "1e300";
    write(Utf16(L));
    Status st = lib.FileGet();
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().text, "Overflow" + where(24));
    L = Library({"A"});
    L[9] = "1e12";
    write(Utf16(L));
    st = lib.FileGet();
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().text, "Overflow" + where(10));
    L = Library({"A"});
    L[0] = "Version: 1e39";
    write(Utf16(L));
    st = lib.FileGet();
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().text, "Overflow" + where(1));
}

TEST_F(TemplateBadFile, DatesTheShortFormCannotCarryStillReadBack) {
    // 1 Feb 207 (a three-digit year), and 29 Dec 1899 06:00, serial -1.25:
    // before the epoch the time counts away from zero.
    std::vector<std::string> L = Library({"Old"});
    L[2 + 4] = "2/1/0207";
    L[2 + 5] = "1899-12-29 06:00";
    write(Utf16(L));
    cTemplateLibrary lib(folder());
    ASSERT_TRUE(lib.FileGet().ok());
    const double feb207 = DateSerial(207, 2, 1);
    EXPECT_EQ(lib.Templates()[0]->DateCreated, feb207);
    EXPECT_EQ(lib.Templates()[0]->DateModified, -1.25);
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(lib.FileSave().ok());
        ASSERT_TRUE(lib.FileGet().ok()) << round;
        ASSERT_EQ(lib.Count(), 1);
        EXPECT_EQ(lib.Templates()[0]->DateCreated, feb207) << round;
        EXPECT_EQ(lib.Templates()[0]->DateModified, -1.25) << round;
    }
}

TEST_F(TemplateBadFile, GarbageNeverCrashesAndAlwaysSaysWhere) {
    std::mt19937 rng(2026);
    const std::string good = Utf16(Library({"A", "B", "C"}));
    for (int round = 0; round < 300; ++round) {
        std::string bytes;
        switch (round % 4) {
            case 0:  // random bytes
                for (int i = static_cast<int>(rng() % 600); i > 0; --i) bytes += static_cast<char>(rng());
                break;
            case 1:  // a good file with bytes flipped
                bytes = good;
                for (int i = 0; i < 5; ++i) bytes[rng() % bytes.size()] = static_cast<char>(rng());
                break;
            case 2:  // random UTF-16 units after the mark, surrogates included
                bytes = "\xFF\xFE";
                for (int i = static_cast<int>(rng() % 300); i > 0; --i) {
                    const unsigned u = rng() % 4 == 0 ? 0xD800 + rng() % 0x800 : rng() % 0x80;
                    bytes += {static_cast<char>(u & 0xFF), static_cast<char>(u >> 8)};
                }
                break;
            default:  // plausible lines in the wrong places
                for (int i = static_cast<int>(rng() % 60); i > 0; --i) {
                    const char* pick[] = {"Version: 3", "TemplatesTotal: 2", "SitesTotal: 99999999", "0.5", "",
                                          "x", "CommentLines: 3", "-1", "1/2/2003", "\xF7\xBF\xBF\xBF"};
                    bytes += std::string(pick[rng() % 10]) + "\n";
                }
        }
        write(bytes);
        cTemplateLibrary lib(folder());
        const Status st = lib.FileGet();
        if (st.ok()) continue;
        const std::string& text = st.failure().text;
        EXPECT_NE(text.find("\r\nFile: " + file()), std::string::npos) << round << ": " << text;
        EXPECT_FALSE(text.substr(0, text.find('\r')).empty()) << round;
        // What was read saves and reads back the same.
        ASSERT_TRUE(lib.FileSave().ok());
        cTemplateLibrary again(folder());
        ASSERT_TRUE(again.FileGet().ok()) << round;
        EXPECT_EQ(again.FileLines(), lib.FileLines()) << round;
    }
    EXPECT_EQ(rep.boxes, 0);
}

}  // namespace
}  // namespace zorv
