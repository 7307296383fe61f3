// Simulate: the files read back by hand (lines, fixed columns, fields) and
// held against truth.json and against models worked out here independently.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "import/simulate.h"

namespace zorv {
namespace {

namespace fs = std::filesystem;

// ---- a small JSON reader, enough for truth.json ----

struct Json {
    enum Type { Null, Bool, Number, String, Array, Object } type = Null;
    double num = 0;
    std::string str;
    std::vector<Json> items;
    std::vector<std::pair<std::string, Json>> members;

    const Json& operator[](const std::string& k) const {
        for (const auto& m : members)
            if (m.first == k) return m.second;
        static const Json none;
        ADD_FAILURE() << "no key " << k;
        return none;
    }
    const Json& operator[](size_t i) const { return items.at(i); }
    bool has(const std::string& k) const {
        for (const auto& m : members)
            if (m.first == k) return true;
        return false;
    }
    size_t size() const { return type == Array ? items.size() : members.size(); }
};

class JsonParser {
public:
    explicit JsonParser(std::string s) : s_(std::move(s)) {}
    Json parse() {
        Json j = value();
        ws();
        if (i_ != s_.size()) fail("trailing text");
        return j;
    }
    bool ok() const { return ok_; }

private:
    void fail(const char* why) {
        if (ok_) ADD_FAILURE() << "JSON: " << why << " at " << i_;
        ok_ = false;
        i_ = s_.size();
    }
    void ws() {
        while (i_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[i_]))) ++i_;
    }
    bool eat(char c) {
        ws();
        if (i_ < s_.size() && s_[i_] == c) return ++i_, true;
        return false;
    }
    std::string text() {
        std::string out;
        if (!eat('"')) return fail("string expected"), out;
        while (i_ < s_.size() && s_[i_] != '"') {
            char c = s_[i_++];
            if (c == '\\' && i_ < s_.size()) {
                const char e = s_[i_++];
                c = e == 'n' ? '\n' : e == 'r' ? '\r' : e == 't' ? '\t' : e;
                if (e == 'u') {
                    c = static_cast<char>(std::strtol(s_.substr(i_, 4).c_str(), nullptr, 16));
                    i_ += 4;
                }
            }
            out += c;
        }
        ++i_;
        return out;
    }
    Json value() {
        Json j;
        ws();
        if (i_ >= s_.size()) return fail("value expected"), j;
        const char c = s_[i_];
        if (c == '{') {
            ++i_;
            j.type = Json::Object;
            if (eat('}')) return j;
            do {
                std::string k = text();
                if (!eat(':')) return fail("':' expected"), j;
                j.members.emplace_back(k, value());
            } while (eat(','));
            if (!eat('}')) fail("'}' expected");
        } else if (c == '[') {
            ++i_;
            j.type = Json::Array;
            if (eat(']')) return j;
            do j.items.push_back(value());
            while (eat(','));
            if (!eat(']')) fail("']' expected");
        } else if (c == '"') {
            j.type = Json::String;
            j.str = text();
        } else if (s_.compare(i_, 4, "true") == 0 || s_.compare(i_, 5, "false") == 0) {
            j.type = Json::Bool;
            j.num = s_[i_] == 't';
            i_ += s_[i_] == 't' ? 4 : 5;
        } else if (s_.compare(i_, 4, "null") == 0) {
            i_ += 4;
        } else {
            char* end = nullptr;
            j.type = Json::Number;
            j.num = std::strtod(s_.c_str() + i_, &end);
            if (end == s_.c_str() + i_) return fail("number expected"), j;
            i_ = static_cast<size_t>(end - s_.c_str());
        }
        return j;
    }
    std::string s_;
    size_t i_ = 0;
    bool ok_ = true;
};

// ---- files ----

std::string ReadBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Lines of any ending (CR LF, LF or CR).
std::vector<std::string> Lines(const std::string& bytes) {
    std::vector<std::string> out;
    std::string cur;
    for (size_t i = 0; i < bytes.size(); ++i) {
        const char c = bytes[i];
        if (c == '\r' || c == '\n') {
            out.push_back(cur);
            cur.clear();
            if (c == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n') ++i;
        } else {
            cur += c;
        }
    }
    if (!cur.empty()) out.push_back(cur);
    return out;
}

std::vector<std::string> SplitCsv(const std::string& line) {
    std::vector<std::string> out(1);
    for (char c : line) {
        if (c == ',')
            out.emplace_back();
        else
            out.back() += c;
    }
    return out;
}

double Num(const std::string& s) { return std::strtod(s.c_str(), nullptr); }

// A fixed-column header: each name and where it starts.
std::vector<std::pair<std::string, size_t>> ColumnStarts(const std::string& header) {
    std::vector<std::pair<std::string, size_t>> cols;
    for (size_t i = 0; i < header.size(); ++i)
        if (header[i] != ' ' && (i == 0 || header[i - 1] == ' ')) {
            const size_t e = header.find(' ', i);
            cols.emplace_back(header.substr(i, e == std::string::npos ? std::string::npos : e - i), i);
        }
    return cols;
}

struct SimRun {
    fs::path dir;
    SimulateOutput out;
    Json truth;
    std::vector<std::string> lines;
};

class SimulateTest : public ::testing::Test {
protected:
    void SetUp() override {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        root_ = fs::path(ZORV_TEST_TMP) / "simulate" / (std::string(info->name()) + "-" + std::to_string(getpid()));
        fs::remove_all(root_);
    }
    void TearDown() override {
        if (!HasFailure()) fs::remove_all(root_);
    }

    SimRun run(const std::string& kind, SimulateOptions o, const std::string& sub = "a") {
        SimRun r;
        r.dir = root_ / sub;
        o.outDir = r.dir.string();
        Result<SimulateOutput> res = Simulate(kind, o);
        EXPECT_TRUE(res.ok()) << (res.ok() ? "" : res.failure().text);
        if (!res.ok()) return r;
        r.out = *res;
        JsonParser parser(ReadBytes(r.out.truth));
        r.truth = parser.parse();
        r.lines = Lines(ReadBytes(r.out.file));
        return r;
    }

    fs::path root_;
};

// Line `n` of the file, counted from 1.
const std::string& LineAt(const SimRun& r, const Json& n) { return r.lines.at(static_cast<size_t>(n.num) - 1); }

double Coef(const Json& truth, const std::string& name) {
    for (const Json& c : truth["model"]["coefficients"].items)
        if (c["name"].str == name) return c["value"].num;
    ADD_FAILURE() << "no coefficient " << name;
    return 0;
}

// Written to 2 decimals: within half a hundredth of model + noise.
constexpr double kHalfCent = 0.005 + 1e-9;

TEST_F(SimulateTest, FemKlaColumnsLineUpAndChecksFollowTheModel) {
    SimulateOptions o;
    o.wafers = 2;
    o.fieldsX = 5;
    o.fieldsY = 3;
    o.sites = 4;
    o.seed = 7;
    o.outliers = 2;
    o.failed = 2;
    SimRun r = run("fem", o);
    const Json& t = r.truth;
    EXPECT_EQ(t["format"].str, "KLA 8xxx CD-SEM");
    EXPECT_EQ(t["rows"].num, 2 * 15 * 4);
    const size_t head = static_cast<size_t>(t["headerLines"].num);
    ASSERT_EQ(r.lines.size(), head + 120);
    // The file header pair: BEAM_FILE not first, as many values as names.
    EXPECT_GT(r.lines[1].find("BEAM_FILE"), 0u);
    const std::string& header = r.lines[head - 1];
    ASSERT_NE(header.find("X_SITE_LOC"), std::string::npos);
    const auto cols = ColumnStarts(header);
    ASSERT_EQ(cols.back().first, "MEAS_1");
    std::map<std::string, size_t> at;
    for (size_t k = 0; k < cols.size(); ++k) at[cols[k].first] = k;

    // Every value starts under its name and ends before the next one's start.
    int zeros = 0, stars = 0;
    for (size_t i = head; i < r.lines.size(); ++i) {
        const std::string& line = r.lines[i];
        std::vector<std::string> v;
        for (size_t k = 0; k < cols.size(); ++k) {
            const size_t a = cols[k].second;
            const size_t b = k + 1 < cols.size() ? cols[k + 1].second : line.size();
            ASSERT_LT(a, line.size()) << line;
            const std::string cell = line.substr(a, b - a);
            const size_t end = cell.find(' ');
            ASSERT_NE(cell[0], ' ') << "line " << i + 1 << " column " << cols[k].first;
            if (k + 1 < cols.size()) {
                ASSERT_NE(end, std::string::npos) << "line " << i + 1 << " column " << cols[k].first;
                EXPECT_EQ(cell.find_first_not_of(' ', end), std::string::npos) << "line " << i + 1;
            } else {
                EXPECT_EQ(end, std::string::npos);
            }
            v.push_back(cell.substr(0, end));
        }
        // Focus steps 0.1 um along the columns, dose 6 mJ/cm2 along the rows.
        EXPECT_DOUBLE_EQ(Num(v[at["FOCUS"]]), 0.1 * Num(v[at["COLUMN"]]));
        EXPECT_DOUBLE_EQ(Num(v[at["EXPOSURE"]]), 24 + 6 * Num(v[at["ROW"]]));
        zeros += v.back() == "0.00";
        stars += v.back() == "*****";
    }
    EXPECT_EQ(zeros, t["excludedRows"].num);
    EXPECT_EQ(stars, t["skippedRows"].num);
    EXPECT_EQ(zeros + stars, 2);

    double c[7];
    for (int i = 0; i < 7; ++i) c[i] = Coef(t, "c" + std::to_string(i + 1));
    ASSERT_EQ(t["checks"].size(), 20u);
    for (const Json& chk : t["checks"].items) {
        const std::string& line = LineAt(r, chk["line"]);
        const double D = Num(line.substr(cols[at["EXPOSURE"]].second));
        const double F = Num(line.substr(cols[at["FOCUS"]].second));
        const std::string text = line.substr(cols[at["MEAS_1"]].second);
        const Json& v = chk["values"][0];
        EXPECT_EQ(text, v["text"].str);
        EXPECT_EQ(D, chk["dose"].num);
        EXPECT_EQ(F, chk["focus"].num);
        const double model =
            c[0] + c[1] * D + c[2] * F + c[3] * F * F + c[4] * D * F + c[5] * F * F * F + c[6] * D * F * F;
        EXPECT_NEAR(v["model"].num, model, 1e-9);
        EXPECT_NEAR(Num(text), model + v["noise"].num, kHalfCent);
        EXPECT_LT(std::fabs(v["noise"].num), 6 * 0.5);
    }
    for (const Json& out : t["outliers"].items) {
        const Json& v = out["values"][0];
        EXPECT_EQ(LineAt(r, out["line"]).substr(cols.back().second), v["text"].str);
        EXPECT_NEAR(v["written"].num, v["model"].num + v["noise"].num + v["offset"].num, kHalfCent);
        EXPECT_GE(std::fabs(v["offset"].num), 25);
    }
    for (const Json& f : t["failed"].items)
        EXPECT_EQ(LineAt(r, f["line"]).substr(cols.back().second), f["text"].str);
    EXPECT_EQ(t["fieldTable"].size(), 30u);
    EXPECT_EQ(t["sitePositions"].size(), 4u);
}

// The seven terms at points worked out by hand, through the delimited file.
TEST_F(SimulateTest, SevenTermResponseMatchesHandCalculation) {
    SimulateOptions o;
    o.format = "csv";
    o.fieldsX = 3;
    o.fieldsY = 3;
    o.sites = 1;
    o.noise = 0;
    o.outliers = 0;
    o.failed = 0;
    o.focusCentre = 0;
    o.focusSpan = 0.2;
    o.doseCentre = 20;
    o.doseSpan = 4;
    o.coefficients = {{"c1", 100}, {"c2", -2}, {"c3", 10}, {"c4", -50}, {"c5", 1}, {"c6", 20}, {"c7", 3}};
    SimRun r = run("fem", o);
    // CD = 100 - 2D + 10F - 50F^2 + DF + 20F^3 + 3DF^2
    const std::map<std::pair<std::string, std::string>, std::string> hand = {
        {{"0.100", "20.00"}, "63.12"},  {{"-0.100", "18.00"}, "61.22"}, {{"0.000", "22.00"}, "56.00"},
        {{"0.100", "22.00"}, "59.38"},  {{"0.100", "18.00"}, "66.86"},  {{"-0.100", "20.00"}, "57.08"},
    };
    const size_t head = static_cast<size_t>(r.truth["headerLines"].num);
    const auto names = SplitCsv(r.lines.at(head - 1));
    ASSERT_EQ(names, (std::vector<std::string>{"Wafer", "DieX", "DieY", "Site", "X [mm]", "Y [mm]", "Focus [um]",
                                                "Dose", "CD [nm]"}));
    int found = 0;
    for (size_t i = head; i < r.lines.size(); ++i) {
        const auto v = SplitCsv(r.lines[i]);
        ASSERT_EQ(v.size(), names.size());
        auto it = hand.find({v[6], v[7]});
        if (it == hand.end()) continue;
        EXPECT_EQ(v[8], it->second) << "focus " << v[6] << " dose " << v[7];
        ++found;
    }
    EXPECT_EQ(found, 6);
    EXPECT_DOUBLE_EQ(r.truth["model"]["isofocalDose"].num, 50.0 / 3.0);
}

TEST_F(SimulateTest, OverlayFollowsWaferAndFieldTerms) {
    SimulateOptions o;
    o.wafers = 1;
    o.fieldsX = 3;
    o.fieldsY = 3;
    o.sites = 9;
    o.noise = 0;
    o.outliers = 0;
    o.coefficients = {{"Tx", 4},          {"Ty", -3},        {"ScaleX", 0.1},     {"ScaleY", -0.2},
                      {"RotX", 0.05},     {"RotY", 0.07},    {"BowX", 2},         {"BowY", -1.5},
                      {"Trifoil", 1},     {"FieldTx", 0.5},  {"FieldTy", -0.5},   {"FieldMagX", 1},
                      {"FieldMagY", -0.8}, {"FieldRotX", 0.6}, {"FieldRotY", 0.9}, {"FieldCurvX", 2},
                      {"FieldCurvY", -3}};
    SimRun r = run("overlay", o);
    EXPECT_EQ(r.truth["format"].str, "Delimited text (CSV, TSV)");
    EXPECT_EQ(r.truth["model"]["terms"].size(), 17u);
    const size_t head = static_cast<size_t>(r.truth["headerLines"].num);
    EXPECT_EQ(r.lines.at(head - 1), "Wafer,DieX,DieY,Site,X [mm],Y [mm],X_reg [nm],Y_reg [nm]");
    bool dataType = false;
    for (size_t i = 0; i + 1 < head; ++i) dataType |= r.lines[i] == "# Data Type: Overlay";
    EXPECT_TRUE(dataType);
    ASSERT_EQ(r.lines.size() - head, 81u);
    for (size_t i = head; i < r.lines.size(); ++i) {
        const auto v = SplitCsv(r.lines[i]);
        ASSERT_EQ(v.size(), 8u);
        const double x = Num(v[4]), y = Num(v[5]);
        const double X = Num(v[1]) * 26 + x, Y = Num(v[2]) * 33 + y;
        const double u = X / 100, w = Y / 100, s = x / 10, t = y / 10;
        const double dx = 4 + 0.1 * X - 0.05 * Y + 2 * w * w + (u * u - w * w) + 0.5 + 1 * x - 0.6 * y + 2 * t * t;
        const double dy = -3 - 0.2 * Y + 0.07 * X - 1.5 * u * u - 2 * u * w - 0.5 - 0.8 * y + 0.9 * x - 3 * s * s;
        EXPECT_NEAR(Num(v[6]), dx, kHalfCent) << r.lines[i];
        EXPECT_NEAR(Num(v[7]), dy, kHalfCent) << r.lines[i];
    }
}

TEST_F(SimulateTest, PsfmShiftFollowsTheFocusEachSiteSees) {
    SimulateOptions o;
    o.noise = 0;
    o.outliers = 0;
    SimRun r = run("psfm", o);
    const Json& t = r.truth;
    EXPECT_EQ(t["rows"].num, 13 * 3 * 9);
    const Json& sm = t["model"]["siteModel"];
    ASSERT_EQ(sm.size(), 9u);
    const double tx = Coef(t, "TiltX"), ty = Coef(t, "TiltY"), cv = Coef(t, "Curvature");
    const double x2 = Coef(t, "X2"), x3 = Coef(t, "X3"), y2 = Coef(t, "Y2"), y3 = Coef(t, "Y3");
    const size_t head = static_cast<size_t>(t["headerLines"].num);
    EXPECT_EQ(SplitCsv(r.lines.at(head - 1)).size(), 10u);
    std::map<double, int> focusCount;
    for (size_t i = head; i < r.lines.size(); ++i) {
        const auto v = SplitCsv(r.lines[i]);
        const int site = static_cast<int>(Num(v[3]));
        const Json& m = sm[static_cast<size_t>(site - 1)];
        const double x = Num(v[4]), y = Num(v[5]), F = Num(v[6]);
        const double offset = (tx * x + ty * y + cv * (x * x + y * y)) / 1000;
        EXPECT_NEAR(m["focusOffset"].num, offset, 1e-12);
        const double fs = F + offset;
        EXPECT_NEAR(Num(v[8]), m["offsetX"].num + m["slopeX"].num * fs + x2 * fs * fs + x3 * fs * fs * fs, kHalfCent);
        EXPECT_NEAR(Num(v[9]), m["offsetY"].num + m["slopeY"].num * fs + y2 * fs * fs + y3 * fs * fs * fs, kHalfCent);
        EXPECT_EQ(v[7], "24.00");
        focusCount[F]++;
    }
    // The check points quote the cells as written.
    ASSERT_EQ(t["checks"].size(), 20u);
    for (const Json& chk : t["checks"].items) {
        const auto v = SplitCsv(LineAt(r, chk["line"]));
        EXPECT_EQ(v[8], chk["values"][0]["text"].str);
        EXPECT_EQ(v[9], chk["values"][1]["text"].str);
        EXPECT_EQ(Num(v[6]), chk["focus"].num);
    }
    // -0.3 to 0.3 um in 13 columns of 0.05.
    ASSERT_EQ(focusCount.size(), 13u);
    EXPECT_DOUBLE_EQ(focusCount.begin()->first, -0.3);
    EXPECT_DOUBLE_EQ(focusCount.rbegin()->first, 0.3);
}

TEST_F(SimulateTest, ReticleWaferCdFollowsLocalMeefOfTheMaskFile) {
    SimulateOptions o;
    o.format = "csv";
    o.fieldsX = 2;
    o.fieldsY = 2;
    o.noise = 0;
    o.outliers = 0;
    o.failed = 0;
    SimRun r = run("reticle", o);
    const Json& t = r.truth;
    ASSERT_FALSE(r.out.reticleFile.empty());
    EXPECT_EQ(fs::path(r.out.reticleFile).filename().string(), t["reticleFile"].str);
    const auto mask = Lines(ReadBytes(r.out.reticleFile));
    size_t mh = 0;
    while (mh < mask.size() && mask[mh].rfind("Site,", 0) != 0) ++mh;
    ASSERT_LT(mh, mask.size());
    EXPECT_EQ(mask[mh], "Site,X [mm],Y [mm],Mask CD [nm]");
    ASSERT_EQ(mask.size() - mh - 1, 49u);
    const double m0 = Coef(t, "MEEF0"), mx = Coef(t, "MEEFx"), my = Coef(t, "MEEFy"), mr = Coef(t, "MEEFr2");
    std::map<int, double> meefOf, maskOf;
    for (size_t i = mh + 1; i < mask.size(); ++i) {
        const auto v = SplitCsv(mask[i]);
        const int site = static_cast<int>(Num(v[0]));
        const double x = Num(v[1]), y = Num(v[2]);
        meefOf[site] = m0 + mx * x + my * y + mr * (x * x + y * y);
        maskOf[site] = Num(v[3]);
        const Json& m = t["model"]["meef"][static_cast<size_t>(site - 1)];
        EXPECT_NEAR(m["meef"].num, meefOf[site], 1e-12);
        EXPECT_EQ(m["maskCD"].num, maskOf[site]);
    }
    const size_t head = static_cast<size_t>(t["headerLines"].num);
    ASSERT_EQ(r.lines.size() - head, 4u * 49u);
    for (size_t i = head; i < r.lines.size(); ++i) {
        const auto v = SplitCsv(r.lines[i]);
        const int site = static_cast<int>(Num(v[3]));
        EXPECT_NEAR(Num(v[8]), 90 + meefOf[site] * (maskOf[site] / 4 - 90), kHalfCent) << r.lines[i];
    }
}

TEST_F(SimulateTest, EachLineEndAlone) {
    for (LineEnd e : {LineEnd::CrLf, LineEnd::Lf, LineEnd::Cr}) {
        SimulateOptions o;
        o.eol = e;
        o.fieldsX = 2;
        o.fieldsY = 2;
        o.sites = 3;
        const std::string sub = e == LineEnd::CrLf ? "crlf" : e == LineEnd::Lf ? "lf" : "cr";
        for (const char* kind : {"fem", "reticle"}) {
            SimRun r = run(kind, o, sub + kind);
            std::vector<std::string> files = {r.out.file};
            if (!r.out.reticleFile.empty()) files.push_back(r.out.reticleFile);
            for (const std::string& f : files) {
                const std::string b = ReadBytes(f);
                size_t cr = 0, lf = 0, pairs = 0;
                for (size_t i = 0; i < b.size(); ++i) {
                    cr += b[i] == '\r';
                    lf += b[i] == '\n';
                    pairs += b[i] == '\r' && i + 1 < b.size() && b[i + 1] == '\n';
                }
                ASSERT_GT(cr + lf, 0u);
                if (e == LineEnd::CrLf) {
                    EXPECT_EQ(cr, pairs) << f;
                    EXPECT_EQ(lf, pairs) << f;
                } else if (e == LineEnd::Lf) {
                    EXPECT_EQ(cr, 0u) << f;
                } else {
                    EXPECT_EQ(lf, 0u) << f;
                }
                EXPECT_TRUE(b.back() == '\n' || b.back() == '\r');
            }
            EXPECT_EQ(r.lines.size(), r.truth["headerLines"].num + r.truth["rows"].num);
            EXPECT_EQ(r.truth["eol"].str, sub);
        }
    }
}

std::vector<std::string> SplitTabs(const std::string& line) {
    std::vector<std::string> out(1);
    for (char c : line) {
        if (c == '\t')
            out.emplace_back();
        else
            out.back() += c;
    }
    return out;
}

// The Archer export and the OnWafer map: their own line ends only, the same
// bytes for a seed, and values as worked out here from the columns.
TEST_F(SimulateTest, ArcherAndOnWaferLinesAndBytes) {
    for (LineEnd e : {LineEnd::CrLf, LineEnd::Lf, LineEnd::Cr}) {
        const std::string sub = e == LineEnd::CrLf ? "crlf" : e == LineEnd::Lf ? "lf" : "cr";
        for (const char* kind : {"overlay", "thermal"}) {
            SimulateOptions o;
            o.eol = e;
            o.seed = 5;
            o.format = std::string(kind) == "overlay" ? "archer" : "";
            SimRun a = run(kind, o, sub + kind + "a");
            SimRun b = run(kind, o, sub + kind + "b");
            const std::string bytes = ReadBytes(a.out.file);
            EXPECT_EQ(bytes, ReadBytes(b.out.file)) << kind;
            EXPECT_EQ(ReadBytes(a.out.truth), ReadBytes(b.out.truth)) << kind;
            const size_t cr = static_cast<size_t>(std::count(bytes.begin(), bytes.end(), '\r'));
            const size_t lf = static_cast<size_t>(std::count(bytes.begin(), bytes.end(), '\n'));
            const size_t lines = static_cast<size_t>(a.truth["headerLines"].num + a.truth["rows"].num);
            EXPECT_EQ(cr, e == LineEnd::Lf ? 0u : lines) << kind << sub;
            EXPECT_EQ(lf, e == LineEnd::Cr ? 0u : lines) << kind << sub;
            EXPECT_EQ(a.lines.size(), lines);
        }
    }

    SimulateOptions o;
    o.format = "archer";
    o.noise = 0;
    o.outliers = 0;
    o.coefficients = {{"Tx", 4}, {"Ty", -3}, {"ScaleX", 0}, {"ScaleY", 0}, {"RotX", 0}, {"RotY", 0},
                      {"BowX", 0}, {"BowY", 0}, {"Trifoil", 0}, {"FieldMagX", 1}, {"FieldMagY", 0},
                      {"FieldRotX", 0}, {"FieldRotY", 0}, {"FieldCurvX", 0}, {"FieldCurvY", 0}};
    SimRun r = run("overlay", o, "archer");
    EXPECT_EQ(r.truth["format"].str, "KLA Archer overlay");
    const size_t head = static_cast<size_t>(r.truth["headerLines"].num);
    EXPECT_EQ(r.lines.at(head - 1), "Wafer\tTestNumber\tWafer Column(X)\tWafer Row(Y)\tXf(Field Coord)\t"
                                    "Yf(Field Coord)\tPass/Fail\tFlyer Flag\tMReg X(nm)\tMReg Y(nm)");
    ASSERT_EQ(r.lines.size() - head, 2u * 25u * 9u);
    for (size_t i = head; i < r.lines.size(); ++i) {
        const auto v = SplitTabs(r.lines[i]);
        ASSERT_EQ(v.size(), 10u);
        EXPECT_TRUE(v[0] == "1" || v[0] == "2");
        EXPECT_NEAR(Num(v[8]), 4 + Num(v[4]), kHalfCent) << r.lines[i];  // Tx + FieldMagX * x
        EXPECT_EQ(v[9], "-3.00");
    }

    // The map: settling from Start to Setpoint with time constant Tau.
    o = {};
    o.noise = 0;
    o.outliers = 0;
    o.wafers = 3;
    o.sites = 7;
    o.coefficients = {{"Radial", 0}, {"TiltX", 1}, {"TiltY", 0}, {"Tau", 10}, {"TimeStep", 2.5}};
    SimRun t = run("thermal", o, "thermal");
    EXPECT_EQ(t.truth["format"].str, "OnWafer Thermal Map (*.*)");
    const size_t th = static_cast<size_t>(t.truth["headerLines"].num);
    EXPECT_EQ(t.lines.at(0), "[Wafer Data]");
    EXPECT_EQ(t.lines.at(th - 2), "#Data");
    EXPECT_EQ(t.lines.at(th - 1), "Sensor\tXmm\tYmm\tAna/Dig\tTime\tTemperature (C)");
    ASSERT_EQ(t.lines.size() - th, 3u * 7u);
    std::map<std::string, int> perTime;
    for (size_t i = th; i < t.lines.size(); ++i) {
        const auto v = SplitTabs(t.lines[i]);
        ASSERT_EQ(v.size(), 6u);
        const double x = Num(v[1]), y = Num(v[2]), time = Num(v[4]);
        EXPECT_NEAR(std::hypot(x, y), v[0] == "S1" ? 0.0 : 140.0, 1e-3);  // a centre and a ring of six
        const double e = std::exp(-time / 10);
        EXPECT_NEAR(Num(v[5]), 110 - 87 * e + (1 - e) * x / 150, kHalfCent) << t.lines[i];
        perTime[v[4]]++;
    }
    EXPECT_EQ(perTime, (std::map<std::string, int>{{"0.00", 7}, {"2.50", 7}, {"5.00", 7}}));
}

TEST_F(SimulateTest, SameSeedSameBytesOtherSeedOtherValues) {
    SimulateOptions o;
    o.seed = 42;
    o.sites = 4;
    SimRun a = run("psfm", o, "a");
    SimRun b = run("psfm", o, "b");
    o.seed = 43;
    SimRun c = run("psfm", o, "c");
    const std::string fa = ReadBytes(a.out.file);
    EXPECT_EQ(fa, ReadBytes(b.out.file));
    EXPECT_EQ(ReadBytes(a.out.truth), ReadBytes(b.out.truth));
    EXPECT_NE(fa, ReadBytes(c.out.file));
    EXPECT_EQ(c.truth["seed"].num, 43);
    // Outliers of a two-value row: both cells off by their recorded offsets.
    ASSERT_EQ(a.truth["outliers"].size(), 2u);
    for (const Json& out : a.truth["outliers"].items) {
        const auto v = SplitCsv(LineAt(a, out["line"]));
        for (size_t k = 0; k < 2; ++k) {
            const Json& val = out["values"][k];
            EXPECT_EQ(v[8 + k], val["text"].str);
            EXPECT_NEAR(Num(v[8 + k]), val["model"].num + val["noise"].num + val["offset"].num, kHalfCent);
            EXPECT_GE(std::fabs(val["offset"].num), 40);
        }
    }
}

TEST_F(SimulateTest, RowsPicksAShapeNearTheCount) {
    for (long long n : {37LL, 5000LL, 20000LL}) {
        SimulateOptions o;
        o.rows = n;
        o.name = "fem" + std::to_string(n);
        SimRun r = run("fem", o, "rows" + std::to_string(n));
        const Json& t = r.truth;
        const double rows = t["rows"].num;
        EXPECT_EQ(rows, t["wafers"].num * t["fields"].num * t["sites"].num);
        EXPECT_EQ(r.lines.size(), t["headerLines"].num + rows);
        // The default grid of 99 fields is the smallest step.
        EXPECT_LE(std::fabs(rows - static_cast<double>(n)), std::max(99.0, 0.05 * static_cast<double>(n))) << n;
    }
    SimulateOptions o;
    o.rows = 100;
    o.wafers = 1;
    o.sites = 4;
    SimRun r = run("overlay", o, "grid");
    EXPECT_NEAR(r.truth["rows"].num, 100, 25);
}

TEST_F(SimulateTest, BadRequestsFailAndLeaveNothing) {
    auto fails = [&](const std::string& kind, SimulateOptions o, const std::string& text) {
        o.outDir = (root_ / "bad").string();
        Result<SimulateOutput> r = Simulate(kind, o);
        ASSERT_FALSE(r.ok()) << text;
        EXPECT_EQ(r.failure().tag, "Import(Simulate): ");
        EXPECT_NE(r.failure().text.find(text), std::string::npos) << r.failure().text;
        if (fs::exists(root_ / "bad")) {
            EXPECT_TRUE(fs::is_empty(root_ / "bad"));
        }
    };
    fails("wafermap", {}, "Unknown kind 'wafermap'. Kinds: fem, overlay, psfm, reticle, thermal.");
    SimulateOptions o;
    o.format = "kla";
    fails("overlay", o, "written as csv or archer only");
    o.format = "archer";
    fails("fem", o, "written as kla or csv only");
    o.format = "csv";
    fails("thermal", o, "written as onwafer only");
    o = {};
    o.failed = 1;
    fails("thermal", o, "--failed must be 0");
    o = {};
    o.fieldsX = 2;
    fails("thermal", o, "one field");
    o = {};
    o.coefficients = {{"c9", 1}};
    fails("fem", o, "Unknown coefficient 'c9' for fem: c1, c2, c3, c4, c5, c6, c7.");
    o = {};
    o.fieldsX = o.fieldsY = o.sites = 1;
    o.outliers = 1;
    fails("fem", o, "at most half the rows");
    o = {};
    o.rows = 1000;
    o.wafers = 1;
    o.sites = 1;
    o.fieldsX = 3;
    fails("fem", o, "--rows cannot be met");
    // A response that goes below 1 nm cannot be a CD-SEM value.
    o = {};
    o.coefficients = {{"c1", 10}};
    fails("fem", o, "CD-SEM values must be 1 nm or more.");
    o = {};
    o.name = "../up";
    fails("fem", o, "not a plain file name");
}

}  // namespace
}  // namespace zorv
