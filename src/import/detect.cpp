// DetectFormat: which row of the format table a file is for, from the words
// of its first few kilobytes. Every reader finds its way by keywords; the
// same words, weighted by how much they tell, pick the reader here. Words
// that name one tool's format weigh most, words any report may hold least,
// and a word that several readers look for is shared among them.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "import/import.h"
#include "workbook/store.h"

namespace zorv {

namespace {

constexpr size_t kHead = 8192;       // bytes of a file that are read
constexpr double kStrong = 4, kNormal = 2, kWeak = 1;
constexpr double kMinScore = 3;      // below this nothing is said to fit
constexpr double kClearRatio = 1.5;  // the best must beat the second by this much

// One candidate: the rows of the format table its reader serves (the first
// is chosen, a variant when one of its words is present and none of its
// "!" words) and its words in
// three weights, "|" between words. The words are those the readers look
// for, upper case; the readers outside the table that take the same files
// (the Questar, Q200 and Archer statistics readers, the ASML XT log, the
// NanoSEM RPT form, the verbose Timbre layout) add theirs to the row they
// belong with.
struct Candidate {
    const char* description;
    const char* strong;
    const char* normal;
    const char* weak;
    const char* variant = nullptr;       // the second row of the same reader
    const char* variantWords = nullptr;  // which choose it
};

const Candidate kCandidates[] = {
    {"Accent Optical CDS", "XPOSITION|YPOSITION|FOC/SCAN|LINE/SPACE|%RMSE|%MSE",
     "XPOS|YPOS|DIEX|DIEY|THK|SLP|PTC|RMSE|MSE|SWA|OPER",
     "TOOL|RECIPE|SITE|FEATURE|LINE|VIA|DOSE|FOCUS|THICK|HEIGHT|ANGLE|SLOPE|ANG|PITCH|LIMIT|UNITS"},
    {"Accent Overlay",
     "AUTORUN|FIDUCIAL|MISREGISTRATION|XTIS|YTIS|SITE_X_ARRAY|DIE_STEP_X:|SITE_STEP_X:|TIS.X|RESULT.X|RESULT.Y",
     "MEAS-X|MEAS-Y|FIELD.X|FIELD.Y|LOT:|DATA FILE|WAFER NUMBER|MEAS_X|MEAS_Y|MEAS X|MEAS Y|MEASX|MEASY|"
     "FIELD X|FIELD Y|F_X|F_Y|F X|F Y|OK?|URAD|ORTHO|EXPAN|ROTA|SITE.X|SITE.Y|TIS.Y|3SIGMA|HEADER_LENGTH",
     "PASS/FAIL|FX|FY|VERSION|ARRAY|SIZE|---|___|NORMAL|GROUP|AVERAGE|RAW|RESIDUAL|ANALYSIS|TRANS|MAG|OK|"
     "WAFER_SIZE|FIELDX|FIELDY|SOFTWARE|PORT|CARRIER|CENTRE|TOP|BOTTOM|ORIGIN|MEASURED|STATISTICS",
     "BioRad Questar Overlay"},
    {"AMAT NanoSEM 3D",
     "DETAILED|EDGES|EDGES_|+--|FIELD_ORDER|LC_ORDER|F.ID_X|PR_VECTOR_X|LOCATIONX_(FIELD)|RECIPE_PRODUCT|"
     "RECIPE_LAYER",
     "ORIENTATION:|NAME:|RECIPE:|ID:|@ |@_|----|3SIGMA|SUCCESS|LOCATION_X|TOOL_ID", "LOT:|TARGET|LOCATION|MEASUREMENT",
     "AMAT NanoSEM 3D(Family)"},
    {"ASML Registration",
     "SCAN_EXPO|STEP_EXPO|MARK_OFFSET|REDBLUE|M1EM2|EXPOSURE_POSITION|FIELD_CLUSTER_RESULT|MEAS_DEVICE_ID|"
     "MARK_RESULT|MEAS_RESULT_TYPE_POSITION|MEAS_RESULT_TYPE_FOCUS_OFFSET|MATCHING_RETICLE_ID|FOCUS_Z_OFFSET|"
     "LENS_TEMPERATURE|LENS_PRESSURE|WAFER_SCAN_VELOCITY|IMAGE_SIZE={|IMAGE_SIZE= {",
     "CONVENTIONAL|ANNULAR|AERIAL|> IL|> IP|FOCAL_BESTFOCUS|BESTFOCUSFOCAL|BESTFOCUSSTATISTICS|DEVICE_RESULT|"
     "RESULT_TYPE|FOCUS_OFFSET|RETICLE_ID|ACTUAL_POSITION|IMAGE_ID|SIGMA_OUTER|SIGMA_INNER|SCAN_DIRECTION|NA=",
     "MD|MB|FS|OV|PM|COMPONENT|VALID|ENERGY|NA = "},
    {"CDE ResMap Probe", "TEMPLATEFILE|FLATORNOTCH|DATA_UNITS|NUMPROBEPOINTS|CASSSLOTSELECTED|RANGEFROM|MERIT>",
     "DIAM:|DATETIME|ENGINEER", "FILENAME|TITLE"},
    {"Focus/Dose(FEM) spreadsheets", "", "MEDIUM DATE|MEDIUM TIME", "MARK|FAMILY"},
    {"Hitachi_CDSEM (multi-point)",
     "IDW_INFO|MP_NAME|TOTAL_OF_MP_NAME|MAP_ORIGIN|MAP_OFFSET|FEM_EXECUTION|EDGROUGH|UPPERLEFT|LOWERRIGHT",
     "SLOT_NO|FEM_X|FEM_Y|FOCUS_STEP|CTRL_VALUE|UCL1|UCL2|LCL2|_MEASURE|_STATS",
     "_DATA|_INFO|_MEAN|_3SIGMA|_MI/MA|_XDIAM|_YDIAM|_AREA", "Hitachi_CDSEM (statistical)",
     "_STATS|_STATS_WAFER|!_DATA"},
    {"Hitachi LAXXX Overlay", "XREG|YREG", "", ""},
    {"KLA Archer overlay",
     "WAFER COLUMN(X)|WAFER ROW(Y)|FIELD_XPOS|FIELD_YPOS|XF(FIELD COORD)|YF(FIELD COORD)|XW(WAFER COORD)|"
     "YW(WAFER COORD)|MREG X(NM)|MREG Y(NM)|MREG X(UM)|MREG Y(UM)|FLYER FLAG|LOT START TIME:|TESTNUMBER",
     "MREGX|MREGY|MISREG|ELEMENT X|ELEMENT Y|ARRAY COLUMNS|ARRAY ROWS|ARRAY_X|ARRAY_Y|X DIE SIZE|Y DIE SIZE|"
     "DIESIZEX|DIESIZEY|P/F|TARGET X|TARGET Y|TEST ID|TESTID|TEST_ID|MIS X|MIS_X|MISX|MREG X|MREG_X|PITCH:",
     "PASS/FAIL|DIE_X|PROGRAM|WAFERS|ARRAY|COLUMNS", "KLA ZspinFocus", "ZSPIN|ZSPINFOCUS"},
    {"KLA ASET F5 Ellipsometer", "RCP CNT|MEAS SET|SITE #|STD DEV|SCD|FIELD NO.",
     "MACHINE|COLLECTION|MATERIAL|EQUIPMENT", "CASSETTE|SHIFT"},
    {"KLA 5xxx",
     "PROGRAM:|STATISTICS:|WAFER PASS|WAFER FAIL|MISR_X|MISR_Y|MISR._X|MISR._Y|MISR X|MISR Y|ELM_X|ELM_Y|"
     "ELM X|ELM Y|LOC. X|LOC. Y",
     "ACQUISITION|DELTAX|DELTAY|XFIELD|YFIELD|XOFF|YOFF|X OFF|Y OFF|X_OFF|Y_OFF|LOC_X|LOC_Y|COORDINATES|TIS",
     "NX|NY|AX|AY|DX|DY|PASS"},
    {"KLA 8xxx CD-SEM",
     "BEAM_FILE|X_SITE_LOC|Y_SITE_LOC|ORIENTATION_OF_NOTCH|X_ARRAY_OFFSET|Y_ARRAY_OFFSET|X_STEP_SIZE|"
     "Y_STEP_SIZE|CASSETTE_STATION|IMAGE_PATH",
     "PROCESS_DEVICE|NUM_ROWS|NUM_COLS|FIELD_X_LOC|FIELD_Y_LOC|CASSETTE_ID|X_WAFER_LOC|Y_WAFER_LOC|SITE_NAME|"
     "MEAS_1|MEASURE_1|SYSTEM_ID",
     "WAFER_ID|SLOT|COLUMN|ROW|FOCUS|EXPOSURE|FEATURE|REPEAT|FLD|MEAS|MEASURE|LOT|JOB|LAYER|DEVICE|DATE|TIME"},
    {"KLA ProData Files", "TYPEOFDATA|FORMATOFDATA", "PARAMETER", "DATA|TARGET"},
    {"NanoMetrics OCD", "DIEROW|DIECOL|DIENUM|OFFW|X(MM)|X (MM)|DIE X(MM)|DIE_X(MM)|POINT #|POINT#",
     "TITLE:|LOTID|LOT_ID|LOT ID|WAFERID|FILM|STAGE|LOCX|LOC X|STATISTIC", "POINT", "NanoMetrics OCD(strReticle)",
     "STAT|NOTE"},
    {"Nikon NRM Series OL (*.msr, *.XLS)", "", "L1:|L2:|L3:|L4:|L5:|F1:|F2:|M1:|M2:",
     "W1:|W2:|W3:|W4:|W5:|W6:|W7:|W8:|W9:|WA:|WB:|WC:|WD:|WE:|WF:|WG:|WH:|WI:|WJ:|WK:|WL:|WM:|WN:|WO:|WP:|WQ:|"
     "WR:|WS:|WT:|WU:|WV:"},
    {"Nova Track 2020-3030 OL (*.*)",
     "WAFER_DIA|FIELD_X_COORD|FIELD_Y_COORD|SITE_X_COORD|SITE_Y_COORD|X_OVERLAY|Y_OVERLAY", "TOOL_ID|CREATOR|LOT_ID",
     "ORIENTATION|NO.|LAYER"},
    {"OnWafer Thermal Map (*.*)", "[WAFER DATA]|#DATA",
     "VENDOR|ACQUISITION|RESOLUTION|QUANTITY|ANA/DIG|XMM|YMM|TEMPERATURE",
     "FILENAME|COMPANY|VERSION|COMMENT|OPERATOR|UNIT|DIAMETER|LABEL|TIME"},
    {"Yield data summary (*.*)", "STRUCT_X|XSTRUCT|STRUCTX|TARGET_NAME|DUMMY_FILL|DUMMYFILL|PDFSDATA",
     "SLOT_ID|SLOTID|DIE_X|XDIE|DIEX|SUBSTRATE", "LOT_ID|ORIENT|ORIENTATION"},
    {"SensArray Thermal Map(*.xls,*.*)", "*DATA*|SENSOR TYPE|WAFER S/N|WAFER TYPE|TMAP",
     "SENSORS|POSITIONS|ROTATION|ACQUIRED|INTERVAL|ATTRIBUTES|DESCRIPTIONS|RTD|ISIS", "LIMITS|WAFER SIZE"},
    {"Soluris IVS Overlay family(IVS135 etc.)",
     "PIVOT_X|PIVOT_Y|EXPOSURE_AXIS_X|EXPOSURE_AXIS_Y|SITE_X_OFFSET|SITE_Y_OFFSET|DIE_X_OFFSET|DIE_Y_OFFSET|"
     "SITE_LOCATION|SITE-LOCATION|SITE LOCATION|SITELOCATION",
     "SITE_STEP_X|SITE_STEP_Y|DIE_STEP_X|DIE_STEP_Y|HEADER_LENGTH|WAFER-SIZE|WAFERSIZE|WAFER-ID|LOCATION:|SITE:|"
     "USER_NAME",
     "SYSTEM|PLAN|DATE|WAFERID|WAFER_ID|X:|Y:|USER|USERNAME|LEVEL|DEVICE"},
    {"Soluris Yosemite CD-SEM family",
     "DIE_X_ARRAY|DIE_Y_ARRAY|STEPSIZE_X|STEPSIZE_Y|TEMPLATE_NAME|OUTPUT_NAME|JOB_PLAN|LOT_#",
     "FIELD_NUM|LOCATION_X|LOCATION_Y|LOT#|CARRIER|HEADER",
     "ROWS|COLUMNS|PROCESS|LAYER|RECIPE|TIME|COLUMN|VALUE|UNITS"},
    {"Therma-Wave RTCD (*.csv)",
     "MEASUREMENT POINT NUMBER|MEASUREMENT POINT|HORIXONTAL|SUBDIRECTORY|H_UNITS|V_UNITS|Z_UNITS|PITCH_UNITS|"
     "SLOPE_UNITS|A_UNITS|B_UNITS|C_UNITS",
     "FILE:|PROCESS:|DIRECTORY|SYSTEM ID|POINT NUMBER|HORIZONTAL|VERTICAL|GOF",
     "EQUIPMENT|RESIDUAL|SHIFT|CASSETTE"},
    {"Timbre Tech. ODP (*.odp;*.csv)",
     "MDLN|SOFTREV|RECIPENAME|CARRIERID|SLOTNUMBER|DIETEMPLATE|SEQUENCENUMBER|PROCESSMODULENAME|LIBRARYNAME|"
     "REF_DIE_X|GLOBAL_X|GLOBALX",
     "DIE_SIZE_X|DIE_ROW|DIE_COL|MEAS.NO|VUNITS|HUNITS|ZUNITS|ALARM", "N=|V="},
};
constexpr int kCandidateCount = static_cast<int>(sizeof(kCandidates) / sizeof(kCandidates[0]));

// Column names the delimited reader knows (upper case, without separators)
// and its info line keys. A reader's word that is also such a name is shared
// with the delimited reader, since any table may hold it.
const char* const kTableNames[] = {"WAFER", "WAFERID", "SLOT", "SITE", "SITEID", "TEST", "POINT", "DIEX",
                                   "DIEY", "COL", "COLUMN", "ROW", "FIELDX", "FIELDY", "X", "Y", "XLOC", "YLOC",
                                   "SITEX", "SITEY", "POSX", "POSY", "WAFERX", "WAFERY", "FOCUS", "DOSE",
                                   "EXPOSURE", "ENERGY", "FAMILY", "FEATURE"};
const char* const kInfoKeys[] = {"LOT", "DEVICE", "LAYER", "JOB", "TOOL", "USER", "DATE", "TIME", "DATATYPE",
                                 "DIESIZEX", "DIESIZEY", "NOTCH", "WAFERSIZE"};

struct Word {
    std::string text;
    double weight;
};

std::vector<std::string> SplitBars(const char* list) {
    std::vector<std::string> out;
    if (!list) return out;
    std::string_view s(list);
    while (!s.empty()) {
        const size_t bar = s.find('|');
        const std::string_view w = s.substr(0, bar);
        if (!w.empty()) out.emplace_back(w);
        if (bar == std::string_view::npos) break;
        s.remove_prefix(bar + 1);
    }
    return out;
}

// The words of every candidate with their weights: the weight of the tier,
// divided among the candidates that share the word.
const std::vector<std::vector<Word>>& CandidateWords() {
    static const std::vector<std::vector<Word>> words = [] {
        std::vector<std::vector<Word>> all(kCandidateCount);
        std::map<std::string, int> sharing;
        for (const char* name : kTableNames) sharing[name] = 1;
        for (int i = 0; i < kCandidateCount; ++i) {
            const Candidate& c = kCandidates[i];
            const std::pair<const char*, double> tiers[] = {{c.strong, kStrong}, {c.normal, kNormal}, {c.weak, kWeak}};
            for (const auto& [list, weight] : tiers)
                for (std::string& w : SplitBars(list)) {
                    const bool seen = std::any_of(all[i].begin(), all[i].end(), [&](const Word& o) { return o.text == w; });
                    if (seen) continue;
                    ++sharing[w];
                    all[i].push_back(Word{std::move(w), weight});
                }
        }
        for (auto& list : all)
            for (Word& w : list) w.weight /= sharing[w.text];
        return all;
    }();
    return words;
}

bool WordChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// The word stands in the text on its own: an end of the word that is a
// letter, digit or "_" may not touch another such character.
bool HasWord(std::string_view text, std::string_view word) {
    const bool left = WordChar(word.front()), right = WordChar(word.back());
    for (size_t at = text.find(word); at != std::string_view::npos; at = text.find(word, at + 1)) {
        if (left && at > 0 && WordChar(text[at - 1])) continue;
        const size_t end = at + word.size();
        if (right && end < text.size() && WordChar(text[end])) continue;
        return true;
    }
    return false;
}

struct Score {
    int candidate = 0;  // index into kCandidates, or kCandidateCount for the delimited reader
    double score = 0;
    std::vector<const Word*> found;
    std::string delimitedWhy;
};

// ------------------------------------------------------ the delimited reader

std::string_view TrimBlank(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

// The fields of a line at a delimiter, quotes honoured.
void Fields(std::string_view line, char d, std::vector<std::string_view>& out) {
    out.clear();
    bool quoted = false;
    size_t start = 0;
    for (size_t i = 0; i <= line.size(); ++i) {
        if (i < line.size() && line[i] == '"') quoted = !quoted;
        if (i == line.size() || (!quoted && line[i] == d)) {
            std::string_view f = TrimBlank(line.substr(start, i - start));
            if (f.size() >= 2 && f.front() == '"' && f.back() == '"') f = f.substr(1, f.size() - 2);
            out.push_back(f);
            start = i + 1;
        }
    }
}

bool IsNumber(std::string_view s) {
    if (s.empty() || s.size() > 40) return false;
    std::string t(s);
    std::replace(t.begin(), t.end(), ',', '.');
    char* end = nullptr;
    std::strtod(t.c_str(), &end);
    return end == t.c_str() + t.size();
}

// Upper case without the separators people put into names at will, and
// without a unit in brackets.
std::string TableKey(std::string_view name) {
    std::string key;
    for (char c : name)
        if (c != ' ' && c != '_' && c != '-' && c != '.') key += UpChar(c);
    if (const size_t b = key.find_first_of("[("); b != std::string::npos && b > 0) key.resize(b);
    return key;
}

template <size_t N>
bool Among(const std::string& key, const char* const (&names)[N]) {
    return std::any_of(std::begin(names), std::end(names), [&](const char* n) { return key == n; });
}

// A header of three or more names at one delimiter, and below it rows of
// as many fields with numbers in them: a table the delimited reader takes.
// Column names it knows, "# Key: Value" lines and units in brackets add to it.
void ScoreDelimited(std::string_view text, bool cut, Score& s) {
    std::vector<std::string_view> lines;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find_first_of("\r\n", at);
        if (end == std::string_view::npos) {
            if (!cut) lines.push_back(text.substr(at));  // a cut last line is left out
            break;
        }
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
        if (text[end] == '\r' && at < text.size() && text[at] == '\n') ++at;
    }
    size_t i = 0;
    int info = 0;
    for (; i < lines.size(); ++i) {
        const std::string_view t = TrimBlank(lines[i]);
        if (t.empty()) continue;
        if (t.front() != '#') break;
        const size_t colon = t.find_first_of(":=");
        if (colon != std::string_view::npos && Among(TableKey(t.substr(1, colon - 1)), kInfoKeys)) ++info;
    }
    if (i >= lines.size()) return;
    const std::string_view header = lines[i];
    int counts[3] = {0, 0, 0};
    const char delims[3] = {'\t', ';', ','};
    bool quoted = false;
    for (char c : header) {
        if (c == '"') quoted = !quoted;
        if (!quoted)
            for (int k = 0; k < 3; ++k) counts[k] += c == delims[k];
    }
    const int best = static_cast<int>(std::max_element(counts, counts + 3) - counts);
    const char d = delims[best];
    if (counts[best] < 2) return;
    std::vector<std::string_view> f;
    Fields(header, d, f);
    const size_t width = f.size();
    int names = 0, known = 0;
    bool units = false;
    for (std::string_view name : f) {
        if (name.empty() || IsNumber(name)) continue;
        ++names;
        known += Among(TableKey(name), kTableNames);
        units = units || name.back() == ']' || name.back() == ')';
    }
    if (names * 2 <= static_cast<int>(width)) return;
    int rows = 0, even = 0, numeric = 0;
    for (size_t j = i + 1; j < lines.size() && rows < 20; ++j) {
        const std::string_view t = TrimBlank(lines[j]);
        if (t.empty() || t.front() == '#') continue;
        ++rows;
        Fields(lines[j], d, f);
        even += f.size() == width;
        numeric += std::any_of(f.begin(), f.end(), IsNumber);
    }
    if (rows == 0 || even * 10 < rows * 8 || numeric * 10 < rows * 8) return;
    s.score = 5 + std::min(4.0, 0.75 * known) + std::min(2.0, 0.5 * info) + (units ? 0.5 : 0);
    const char* dname = d == '\t' ? "tab" : d == ';' ? "';'" : "','";
    s.delimitedWhy = "a header of " + std::to_string(width) + " names separated by " + dname + ", " +
                     std::to_string(even) + " of " + std::to_string(rows) + " rows below alike";
}

// ------------------------------------------------------------- scoring

std::vector<Score> ScoreText(std::string_view upper, bool cut) {
    const auto& words = CandidateWords();
    std::vector<Score> scores;
    for (int i = 0; i < kCandidateCount; ++i) {
        Score s;
        s.candidate = i;
        for (const Word& w : words[static_cast<size_t>(i)])
            if (HasWord(upper, w.text)) {
                s.score += w.weight;
                s.found.push_back(&w);
            }
        scores.push_back(std::move(s));
    }
    Score d;
    d.candidate = kCandidateCount;
    ScoreDelimited(upper, cut, d);
    scores.push_back(std::move(d));
    // Best first; a tie keeps the order of the table, so the answer never varies.
    std::stable_sort(scores.begin(), scores.end(), [](const Score& a, const Score& b) { return a.score > b.score; });
    return scores;
}

std::string DescriptionOf(const Score& s, std::string_view upper) {
    if (s.candidate == kCandidateCount) return kDelimitedDescription;
    const Candidate& c = kCandidates[s.candidate];
    if (!c.variant || !c.variantWords) return c.description;
    // Any of the words chooses the variant; a word after "!" must be absent.
    bool any = false, hasPositive = false;
    for (const std::string& w : SplitBars(c.variantWords)) {
        if (!w.empty() && w[0] == '!') {
            if (HasWord(upper, w.substr(1))) return c.description;
            continue;
        }
        hasPositive = true;
        any = any || HasWord(upper, w);
    }
    return any || !hasPositive ? c.variant : c.description;
}

std::string OneDecimal(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f", v);
    return buf;
}

std::string WhyOf(const Score& s, const std::string& description) {
    if (s.candidate == kCandidateCount) return description + ": " + s.delimitedWhy;
    std::vector<const Word*> found = s.found;
    std::stable_sort(found.begin(), found.end(), [](const Word* a, const Word* b) { return a->weight > b->weight; });
    std::string why = description + ": ";
    const size_t shown = std::min<size_t>(found.size(), 6);
    for (size_t i = 0; i < shown; ++i) why += (i ? ", " : "") + found[i]->text;
    if (found.size() > shown) why += " ...";
    return why;
}

Detection Decide(const std::vector<Score>& scores, std::string_view upper) {
    Detection d;
    const Score& first = scores[0];
    const Score& second = scores[1];
    if (first.score < kMinScore) {
        d.why = "No known format for this file: no reader's words were found.";
        return d;
    }
    const std::string name = DescriptionOf(first, upper);
    if (first.score < kClearRatio * second.score) {
        d.why = "Not clear which format: " + name + " (" + OneDecimal(first.score) + ") or " +
                DescriptionOf(second, upper) + " (" + OneDecimal(second.score) + ").";
        return d;
    }
    d.description = name;
    d.why = WhyOf(first, name);
    return d;
}

// A spreadsheet: a workbook of "CD_" sheets is a FEM workbook; otherwise
// the first rows of its first sheet are read as the text copy would hold them.
Detection DetectSpreadsheet(const std::string& path) {
    Detection d;
    Result<WorkbookPtr> opened = Workbook::open(path, Workbook::Load::Lazy);
    if (!opened) {
        d.why = "Cannot read the workbook: " + opened.failure().text;
        return d;
    }
    Workbook& wb = **opened;
    std::vector<std::string> cd;
    for (const std::string& name : wb.sheetNames()) {
        if (IStartsWith(name, "CD_")) cd.push_back(name);
        if (IEquals(name, "PDFSdata")) {
            d.description = "Yield data summary (*.*)";
            d.why = d.description + ": sheet " + name;
            return d;
        }
    }
    if (!cd.empty()) {
        d.description = "Focus/Dose(FEM) spreadsheets";
        d.why = d.description + ": sheets ";
        for (size_t i = 0; i < cd.size() && i < 4; ++i) d.why += (i ? ", " : "") + cd[i];
        if (cd.size() > 4) d.why += " ...";
        return d;
    }
    std::string text;
    if (Worksheet* ws = wb.sheet(1)) {
        int rows = 0;
        Status s = ws->forEachRow([&](int, const Value* cells, int count) {
            for (int c = 0; c < count; ++c) {
                if (c) text += '\t';
                text += cells[c].toString();
            }
            text += "\r\n";
            return ++rows < 60 && text.size() < kHead;
        });
        (void)s;  // a damaged sheet gives what it gave before the damage
    }
    const std::string upper = Upper(text);
    return Decide(ScoreText(upper, false), upper);
}

bool SpreadsheetSignature(std::string_view head) {
    return head.substr(0, 4) == std::string_view("PK\x03\x04", 4) ||
           head.substr(0, 8) == std::string_view("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8);
}

}  // namespace

Detection DetectFormat(const std::string& path) {
    Detection d;
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        d.why = "Cannot open file: " + path;
        return d;
    }
    std::string head(kHead, '\0');
    const size_t n = std::fread(head.data(), 1, kHead, f);
    const bool cut = n == kHead && std::fgetc(f) != EOF;
    std::fclose(f);
    head.resize(n);
    if (IsSpreadsheetPath(path) || SpreadsheetSignature(head)) return DetectSpreadsheet(path);
    if (head.find('\0') != std::string::npos) {
        d.why = "No known format for this file: it is not text.";
        return d;
    }
    const std::string upper = Upper(head);
    return Decide(ScoreText(upper, cut), upper);
}

}  // namespace zorv
