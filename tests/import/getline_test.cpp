// The tokeniser and the text stream under every text reader.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "import/getline.h"
#include "import_test_util.h"
#include "reader.h"

namespace zorv {
namespace {

using testing::FreshDir;
using testing::WriteBytes;
using Words = std::vector<std::string>;

Words Tokens(std::string line, std::string delimiter = ",") {
    Words w;
    TokeniseLine(line, delimiter, w);
    return w;
}

TEST(GetLine, FieldsKeepTheirPlaceAndTheirWords) {
    // Two words before a comma are one field joined by "_".
    EXPECT_EQ(Tokens("alpha beta, gamma"), (Words{"alpha_beta", "gamma"}));
    // An empty field between commas stays, as "_"; so do blank ones.
    EXPECT_EQ(Tokens("a,,b"), (Words{"a", "_", "b"}));
    EXPECT_EQ(Tokens("a,  ,b"), (Words{"a", "_", "b"}));
    EXPECT_EQ(Tokens(",x"), (Words{"_", "x"}));
    // Runs of blanks inside a field are one "_".
    EXPECT_EQ(Tokens("lot   name  one,2"), (Words{"lot_name_one", "2"}));
    // Quotes go; the text inside stays one field.
    EXPECT_EQ(Tokens("\"x y\",\"z\""), (Words{"x_y", "z"}));
    // "*" and tabs split like blanks once the fields are made.
    EXPECT_EQ(Tokens("a*b,c"), (Words{"a", "b", "c"}));
}

TEST(GetLine, DelimiterIsFoundWhenTheGivenOneIsMissing) {
    // No comma: the tab is tried next.
    std::string delim = ",";
    Words w;
    std::string line = "10:22\tx_y\t3";
    TokeniseLine(line, delim, w);
    EXPECT_EQ(delim, "\t");
    EXPECT_EQ(w, (Words{"10:22", "x_y", "3"}));
    // A tab-separated line keeps the blanks of its fields as "_".
    EXPECT_EQ(Tokens("10:22 PM\tx y\t3", "\t"), (Words{"10:22_PM", "x_y", "3"}));
    // "|" after comma and tab.
    EXPECT_EQ(Tokens("a|b|c", ","), (Words{"a", "b", "c"}));
    // A blank before the first candidate wins: blanks split, runs are one.
    delim = "|";
    line = "x   y,z";
    TokeniseLine(line, delim, w);
    EXPECT_EQ(delim, " ");
    EXPECT_EQ(w, (Words{"x", "y,z"}));
    // An empty delimiter is a blank.
    EXPECT_EQ(Tokens(" one  two ", ""), (Words{"one", "two"}));
    // No delimiter at all: one word.
    EXPECT_EQ(Tokens("single", "|"), (Words{"single"}));
}

TEST(GetLine, TimeStaysOneWordAfterTheReaderReplacements) {
    std::string line = "11/23/2026 10:22 PM  180";
    ReaderLineReplacements(line);
    EXPECT_EQ(Tokens(line, " "), (Words{"11/23/2026", "10:22_PM", "180"}));
    // A tab-separated line keeps its blanks inside fields as "_".
    line = "DATE\t10:22 AM\tLOT 7";
    ReaderLineReplacements(line);
    EXPECT_EQ(Tokens(line, " "), (Words{"DATE", "10:22_AM", "LOT_7"}));
    line = "(0,0)FIELD_X_LOC (0, 0)FIELD_Y_LOC";
    ReaderLineReplacements(line);
    EXPECT_EQ(Tokens(line, " "), (Words{"(0_0)FIELD_X_LOC", "(0_0)FIELD_Y_LOC"}));
}

TEST(GetLine, FixedColumnsCutAtTheGivenStarts) {
    std::vector<std::string_view> f;
    CutFixed("W01   12    ISO LINE  93.5", {0, 6, 12, 22}, f);
    ASSERT_EQ(f.size(), 4u);
    EXPECT_EQ(f[0], "W01");
    EXPECT_EQ(f[1], "12");
    EXPECT_EQ(f[2], "ISO LINE");
    EXPECT_EQ(f[3], "93.5");
    // A short line leaves the missing columns empty.
    CutFixed("W01", {0, 6, 12}, f);
    EXPECT_EQ(f[1], "");
    EXPECT_EQ(f[2], "");
}

std::vector<std::string> ReadAll(const std::string& path, bool* loneCR = nullptr, bool* nul = nullptr) {
    TextStream s;
    EXPECT_TRUE(s.open(path).ok());
    std::vector<std::string> lines;
    std::string_view v;
    while (s.readLine(v)) lines.emplace_back(v);
    EXPECT_EQ(s.lineNumber(), static_cast<long>(lines.size()));
    if (loneCR) *loneCR = s.sawLoneCR();
    if (nul) *nul = s.sawNul();
    return lines;
}

TEST(TextStream, EveryLineEndReadsAsLines) {
    auto dir = FreshDir("textstream");
    const std::vector<std::string> want = {"first", "", "third line", "last"};
    bool cr = false;
    WriteBytes(dir / "crlf.txt", "first\r\n\r\nthird line\r\nlast\r\n");
    EXPECT_EQ(ReadAll((dir / "crlf.txt").string(), &cr), want);
    EXPECT_FALSE(cr);
    WriteBytes(dir / "lf.txt", "first\n\nthird line\nlast");
    EXPECT_EQ(ReadAll((dir / "lf.txt").string(), &cr), want);
    EXPECT_FALSE(cr);
    WriteBytes(dir / "cr.txt", "first\r\rthird line\rlast\r");
    EXPECT_EQ(ReadAll((dir / "cr.txt").string(), &cr), want);
    EXPECT_TRUE(cr);
    // A mix: a lone CR inside an LF file still ends its line.
    WriteBytes(dir / "mix.txt", "first\n\nthird line\rlast\n");
    EXPECT_EQ(ReadAll((dir / "mix.txt").string(), &cr), want);
    EXPECT_TRUE(cr);
    bool nul = false;
    WriteBytes(dir / "bin.txt", std::string("ab\0cd\n", 6));
    ReadAll((dir / "bin.txt").string(), nullptr, &nul);
    EXPECT_TRUE(nul);
    TextStream missing;
    Status st = missing.open((dir / "none.txt").string());
    ASSERT_FALSE(st.ok());
    EXPECT_NE(st.failure().text.find("Cannot open file: "), std::string::npos);
}

TEST(TextStream, LinesAcrossBlocksAndLongerThanOne) {
    // A CR LF split by the 1 MiB block boundary is one line end, and a line
    // longer than a block comes whole; in CR-only files too.
    auto dir = FreshDir("textstream_blocks");
    for (const char* eol : {"\r\n", "\r"}) {
        std::string body;
        std::vector<std::string> want;
        const size_t block = 1 << 20;
        std::string a(block - 1, 'a');  // its CR ends the first block
        want.push_back(a);
        want.push_back(std::string(3 * block, 'b'));
        for (int i = 0; i < 20000; ++i) want.push_back("row " + std::to_string(i));
        for (const auto& l : want) body += l + eol;
        WriteBytes(dir / "big.txt", body);
        EXPECT_EQ(ReadAll((dir / "big.txt").string()), want) << (eol[1] ? "CR LF" : "CR");
    }
}

TEST(GetLine, ReadsLinesUntilTheEnd) {
    auto dir = FreshDir("getline");
    WriteBytes(dir / "f.txt", "a, b c\rx,,y\r");
    TextStream s;
    ASSERT_TRUE(s.open((dir / "f.txt").string()).ok());
    std::string line, delim = ",";
    Words w;
    ASSERT_TRUE(GetLine(s, line, delim, w));
    EXPECT_EQ(w, (Words{"a", "b_c"}));
    ASSERT_TRUE(GetLine(s, line, delim, w));
    EXPECT_EQ(w, (Words{"x", "_", "y"}));
    EXPECT_FALSE(GetLine(s, line, delim, w));
    EXPECT_TRUE(w.empty());
}

}  // namespace
}  // namespace zorv
