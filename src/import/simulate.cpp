// Import(Simulate): options against the kind's defaults, the shape of the lot,
// its field grid and sites, the columns of the chosen format, then the row
// stream and truth.json. Files appear only when every one of them is complete.
#include "import/simulate.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>

#include "base/text.h"
#include "import/import.h"
#include "simulate_core.h"

namespace zorv {

using namespace sim;

namespace {

constexpr int kChecks = 20;
// --rows grows the sites of a field up to this before it adds wafers.
constexpr int kAutoSites = 400;
constexpr long long kMaxRows = 100'000'000;
// truth.json lists the fields of every wafer up to this many rows.
constexpr size_t kMaxFieldTable = 20000;
constexpr const char* kKlaDescription = "KLA 8xxx CD-SEM";
constexpr const char* kArcherDescription = "KLA Archer overlay";
constexpr const char* kOnWaferDescription = "OnWafer Thermal Map (*.*)";
// The header of every simulated file carries the same day, so a seed gives the same bytes.
constexpr const char* kDate = "03/14/2026";
constexpr const char* kTime = "10:22 AM";

struct Shape {
    int wafers = 1, fieldsX = 1, fieldsY = 1, sites = 1;
    long long rows() const { return 1LL * wafers * fieldsX * fieldsY * sites; }
};

long long RoundPositive(double v) { return std::max<long long>(1, std::llround(v)); }

// The shape asked for; --rows fills in the sizes not given: sites (up to
// kAutoSites) and wafers, or the field grid when both of those are given.
Status ChooseShape(Proc& p, const SimulateOptions& o, const KindDefaults& d, Shape& s) {
    s.wafers = o.wafers.value_or(d.wafers);
    s.fieldsX = o.fieldsX.value_or(d.fieldsX);
    s.fieldsY = o.fieldsY.value_or(d.fieldsY);
    s.sites = o.sites.value_or(d.sites);
    if (s.wafers < 1 || s.wafers > 9999) return p.fail("--wafers must be from 1 to 9999.");
    if (s.fieldsX < 1 || s.fieldsX > 999 || s.fieldsY < 1 || s.fieldsY > 999)
        return p.fail("--fields-x and --fields-y must be from 1 to 999.");
    if (s.sites < 1 || s.sites > 100000) return p.fail("--sites must be from 1 to 100000.");
    if (o.rows) {
        const long long n = *o.rows;
        if (n < 1 || n > kMaxRows) return p.fail("--rows must be from 1 to " + std::to_string(kMaxRows) + ".");
        const double fields = 1.0 * s.fieldsX * s.fieldsY;
        if (!o.wafers && !o.sites) {
            s.wafers = static_cast<int>(std::min(9999.0, std::ceil(n / (fields * kAutoSites))));
            s.sites = static_cast<int>(RoundPositive(n / (fields * s.wafers)));
        } else if (!o.sites) {
            s.sites = static_cast<int>(std::min<long long>(100000, RoundPositive(n / (fields * s.wafers))));
        } else if (!o.wafers) {
            s.wafers = static_cast<int>(std::min<long long>(9999, RoundPositive(n / (fields * s.sites))));
        } else if (!o.fieldsX && !o.fieldsY) {
            const long long f = RoundPositive(static_cast<double>(n) / (1.0 * s.wafers * s.sites));
            s.fieldsX = static_cast<int>(std::min<long long>(999, static_cast<long long>(std::ceil(std::sqrt(f)))));
            s.fieldsY = static_cast<int>(std::min<long long>(999, RoundPositive(static_cast<double>(f) / s.fieldsX)));
        } else {
            return p.fail("--rows cannot be met: --wafers, --sites and the field grid are all given.");
        }
    }
    if (s.rows() > kMaxRows)
        return p.fail("The lot would have " + std::to_string(s.rows()) + " rows, more than " +
                      std::to_string(kMaxRows) + ".");
    return StatusOk();
}

double RoundTo(double v, int decimals) {
    const double f = std::pow(10.0, decimals);
    const double r = std::round(v * f) / f;
    return r == 0 ? 0.0 : r;
}

// A centred field grid, rows from the lowest index up; focus steps along the
// columns and dose along the rows, rounded as the file writes them.
void MakeFieldGrid(LotPlan& plan, const Shape& s, double fc, double fs, double dc, double ds) {
    plan.fieldsX = s.fieldsX;
    plan.fieldsY = s.fieldsY;
    plan.fields.clear();
    for (int j = 0; j < s.fieldsY; ++j) {
        for (int i = 0; i < s.fieldsX; ++i) {
            SimField f;
            f.dieX = i - (s.fieldsX - 1) / 2;
            f.dieY = j - (s.fieldsY - 1) / 2;
            f.centreX = f.dieX * plan.fieldSizeX;
            f.centreY = f.dieY * plan.fieldSizeY;
            if (plan.focusDose) {
                const double fx = s.fieldsX > 1 ? (i - (s.fieldsX - 1) / 2.0) / (s.fieldsX - 1) : 0.0;
                const double fy = s.fieldsY > 1 ? (j - (s.fieldsY - 1) / 2.0) / (s.fieldsY - 1) : 0.0;
                f.focus = RoundTo(fc + fx * fs, 3);
                f.dose = RoundTo(dc + fy * ds, 2);
            }
            plan.fields.push_back(f);
        }
    }
}

// n sites on a near-square grid over the field, numbered row by row from the
// top left, at whole micrometres.
void MakeSiteGrid(LotPlan& plan, int n) {
    const int sx = static_cast<int>(std::ceil(std::sqrt(static_cast<double>(n))));
    const int sy = (n + sx - 1) / sx;
    const double px = plan.fieldSizeX * 1000.0 / sx, py = plan.fieldSizeY * 1000.0 / sy;
    plan.sites.clear();
    for (int b = 0; b < sy; ++b)
        for (int a = 0; a < sx && static_cast<int>(plan.sites.size()) < n; ++a) {
            SimSite site;
            site.number = static_cast<int>(plan.sites.size()) + 1;
            site.xUm = std::lround((a - (sx - 1) / 2.0) * px);
            site.yUm = std::lround(((sy - 1) / 2.0 - b) * py);
            plan.sites.push_back(site);
        }
}

void MakeWafers(LotPlan& plan, int n) {
    const size_t digits = std::max<size_t>(2, std::to_string(n).size());
    plan.wafers.clear();
    for (int w = 1; w <= n; ++w) {
        // "W" and the number, zero-padded to the width of the largest.
        std::string id(digits + 1, '0');
        id[0] = 'W';
        for (size_t v = static_cast<size_t>(w), i = digits; v > 0; v /= 10, --i)
            id[i] = static_cast<char>('0' + v % 10);
        plan.wafers.push_back(std::move(id));
    }
}

// One column of the file, with its text for every wafer, field or site.
struct ColumnDef {
    std::string name;
    Source source;
    std::vector<std::string> text;
};

ColumnDef WaferColumn(const LotPlan& plan, std::string name, bool slot) {
    ColumnDef c{std::move(name), Source::Wafer, {}};
    for (size_t w = 0; w < plan.wafers.size(); ++w) c.text.push_back(slot ? std::to_string(w + 1) : plan.wafers[w]);
    return c;
}

template <class F>
ColumnDef FieldColumn(const LotPlan& plan, std::string name, F text) {
    ColumnDef c{std::move(name), Source::Field, {}};
    for (const SimField& f : plan.fields) c.text.push_back(text(f));
    return c;
}

template <class F>
ColumnDef SiteColumn(const LotPlan& plan, std::string name, F text) {
    ColumnDef c{std::move(name), Source::Site, {}};
    for (const SimSite& s : plan.sites) c.text.push_back(text(s));
    return c;
}

// Runs of columns of one source become segments; fixed columns are padded
// to the widest of name and texts plus two blanks, separated ones end in the
// separator. Returns the header line of the columns and the values.
std::string BuildSegments(LotPlan& plan, const std::vector<ColumnDef>& cols) {
    std::string header;
    plan.segments.clear();
    for (const ColumnDef& c : cols) {
        size_t width = c.name.size();
        if (plan.fixedColumns)
            for (const std::string& t : c.text) width = std::max(width, t.size());
        width += 2;
        if (plan.segments.empty() || plan.segments.back().source != c.source)
            plan.segments.push_back({c.source, std::vector<std::string>(c.text.size())});
        Segment& seg = plan.segments.back();
        for (size_t i = 0; i < c.text.size(); ++i) {
            seg.text[i] += c.text[i];
            if (plan.fixedColumns)
                PadTo(seg.text[i], seg.text[i].size() + width - c.text[i].size());
            else
                seg.text[i] += plan.separator;
        }
        header += c.name;
        if (plan.fixedColumns)
            PadTo(header, header.size() + width - c.name.size());
        else
            header += plan.separator;
    }
    // Values: room for "-99999.99" under each name.
    plan.valueWidths.clear();
    for (size_t k = 0; k < plan.features.size(); ++k) {
        const std::string& name = plan.features[k].column;
        header += name;
        if (k + 1 == plan.features.size()) break;
        if (plan.fixedColumns) {
            const size_t width = std::max<size_t>(name.size(), 9) + 2;
            plan.valueWidths.push_back(static_cast<int>(width));
            PadTo(header, header.size() + width - name.size());
        } else {
            header += plan.separator;
        }
    }
    return header;
}

// The KLA 8xxx CD-SEM report: title, the header pair with BEAM_FILE, a blank
// line, then fixed columns cut where their names start.
void LayoutKla(LotPlan& plan, const SimulateOptions& o, const std::string& kind) {
    plan.fixedColumns = true;
    plan.headerLines.clear();
    plan.headerLines.push_back("Zorv simulated CD SEM  Measurement Report");
    const std::vector<std::pair<std::string, std::string>> header = {
        {"PROCESS_DEVICE", "ZSIMDEV"},
        {"BEAM_FILE", "BF_800V"},
        {"LAYER", "POLY"},
        {"JOB", Upper(kind) + "SIM"},
        {"LOT", o.lot},
        {"SYSTEM_ID", "SIMSEM01"},
        {"NUM_ROWS", std::to_string(plan.fieldsY)},
        {"NUM_COLS", std::to_string(plan.fieldsX)},
        {"X_STEP_SIZE", std::to_string(std::lround(plan.fieldSizeX * 1000))},
        {"Y_STEP_SIZE", std::to_string(std::lround(plan.fieldSizeY * 1000))},
        {"X_ARRAY_OFFSET", "0"},
        {"Y_ARRAY_OFFSET", "0"},
        {"DATE", kDate},
        {"TIME", kTime},
        {"ORIENTATION_OF_NOTCH", "180"},
    };
    std::string names, values;
    for (const auto& [n, v] : header) {
        const size_t width = std::max(n.size(), v.size()) + 2;
        names += n;
        values += v;
        PadTo(names, names.size() + width - n.size());
        PadTo(values, values.size() + width - v.size());
    }
    while (!names.empty() && names.back() == ' ') names.pop_back();
    while (!values.empty() && values.back() == ' ') values.pop_back();
    plan.headerLines.push_back(names);
    plan.headerLines.push_back(values);
    plan.headerLines.emplace_back();

    std::vector<ColumnDef> cols;
    cols.push_back(WaferColumn(plan, "WAFER_ID", false));
    cols.push_back(WaferColumn(plan, "SLOT", true));
    cols.push_back(FieldColumn(plan, "COLUMN", [](const SimField& f) { return std::to_string(f.dieX); }));
    cols.push_back(FieldColumn(plan, "ROW", [](const SimField& f) { return std::to_string(f.dieY); }));
    cols.push_back(FieldColumn(plan, "FOCUS", [](const SimField& f) { return Fixed(f.focus, 3); }));
    cols.push_back(FieldColumn(plan, "EXPOSURE", [](const SimField& f) { return Fixed(f.dose, 2); }));
    cols.push_back(SiteColumn(plan, "SITE", [](const SimSite& s) { return std::to_string(s.number); }));
    cols.push_back(SiteColumn(plan, "X_SITE_LOC", [](const SimSite& s) { return std::to_string(s.xUm); }));
    cols.push_back(SiteColumn(plan, "Y_SITE_LOC", [](const SimSite& s) { return std::to_string(s.yUm); }));
    cols.push_back(SiteColumn(plan, "FEATURE", [](const SimSite&) { return std::string("ISO_LINE"); }));
    plan.headerLines.push_back(BuildSegments(plan, cols));
}

// Delimited text: "# Key: Value" lines, one header row, comma separated.
void LayoutCsv(LotPlan& plan, const SimulateOptions& o, const char* dataType) {
    plan.fixedColumns = false;
    plan.separator = ',';
    plan.headerLines = {
        std::string("# Lot: ") + o.lot,
        "# Device: ZSIMDEV",
        "# Layer: POLY",
        "# Tool: Zorv simulator",
        std::string("# Data Type: ") + dataType,
        std::string("# Date: ") + kDate,
        std::string("# Time: ") + kTime,
        "# Die Size X: " + Shortest(plan.fieldSizeX),
        "# Die Size Y: " + Shortest(plan.fieldSizeY),
        "# Notch: DOWN",
        "# Wafer Size: 300",
    };
    std::vector<ColumnDef> cols;
    cols.push_back(WaferColumn(plan, "Wafer", false));
    cols.push_back(FieldColumn(plan, "DieX", [](const SimField& f) { return std::to_string(f.dieX); }));
    cols.push_back(FieldColumn(plan, "DieY", [](const SimField& f) { return std::to_string(f.dieY); }));
    cols.push_back(SiteColumn(plan, "Site", [](const SimSite& s) { return std::to_string(s.number); }));
    cols.push_back(SiteColumn(plan, "X [mm]", [](const SimSite& s) { return Fixed(s.x(), 3); }));
    cols.push_back(SiteColumn(plan, "Y [mm]", [](const SimSite& s) { return Fixed(s.y(), 3); }));
    if (plan.focusDose) {
        cols.push_back(FieldColumn(plan, "Focus [um]", [](const SimField& f) { return Fixed(f.focus, 3); }));
        cols.push_back(FieldColumn(plan, "Dose", [](const SimField& f) { return Fixed(f.dose, 2); }));
    }
    plan.headerLines.push_back(BuildSegments(plan, cols));
}

// The KLA Archer overlay export: "Name:<tab>value" lines, a blank line, then a
// tab-separated table with the wafers as slot numbers.
void LayoutArcher(LotPlan& plan, const SimulateOptions& o) {
    plan.fixedColumns = false;
    plan.separator = '\t';
    for (size_t w = 0; w < plan.wafers.size(); ++w) plan.wafers[w] = std::to_string(w + 1);
    plan.headerLines = {
        "KLA-Tencor Archer 100 Overlay Export",
        "Lot ID:\t" + o.lot,
        "Recipe:\tOVL_SIM",
        "Tool:\tSIMARCHER",
        "Device:\tZSIMDEV",
        "Layer:\tPOLY",
        std::string("Lot Start Time:\t") + kDate + " " + kTime,
        "X Die Size:\t" + Fixed(plan.fieldSizeX, 3),
        "Y Die Size:\t" + Fixed(plan.fieldSizeY, 3),
        "Array Columns:\t" + std::to_string(plan.fieldsX),
        "Array Rows:\t" + std::to_string(plan.fieldsY),
        "",
    };
    // The reader names a feature by its heading without the unit, blanks as "_".
    plan.features[0].column = "MReg X(nm)";
    plan.features[0].name = "MReg_X";
    plan.features[1].column = "MReg Y(nm)";
    plan.features[1].name = "MReg_Y";
    std::vector<ColumnDef> cols;
    cols.push_back(WaferColumn(plan, "Wafer", false));
    cols.push_back(SiteColumn(plan, "TestNumber", [](const SimSite& s) { return std::to_string(s.number); }));
    cols.push_back(FieldColumn(plan, "Wafer Column(X)", [](const SimField& f) { return std::to_string(f.dieX); }));
    cols.push_back(FieldColumn(plan, "Wafer Row(Y)", [](const SimField& f) { return std::to_string(f.dieY); }));
    cols.push_back(SiteColumn(plan, "Xf(Field Coord)", [](const SimSite& s) { return Fixed(s.x(), 3); }));
    cols.push_back(SiteColumn(plan, "Yf(Field Coord)", [](const SimSite& s) { return Fixed(s.y(), 3); }));
    cols.push_back(SiteColumn(plan, "Pass/Fail", [](const SimSite&) { return std::string("P"); }));
    cols.push_back(SiteColumn(plan, "Flyer Flag", [](const SimSite&) { return std::string("0"); }));
    plan.headerLines.push_back(BuildSegments(plan, cols));
}

// The OnWafer thermal map: the "[Wafer Data]" keys, "#Data", then one
// tab-separated line per sensor and time; the wafers are the times ("t0.00").
void LayoutOnWafer(LotPlan& plan, const SimulateOptions& o) {
    plan.fixedColumns = false;
    plan.separator = '\t';
    plan.headerLines = {
        "[Wafer Data]",
        "FileName=" + o.lot + ".owd",
        "Vendor=OnWafer Technologies",
        "Company=Zorv",
        "Acquisition=2026-03-14 10:22:05",
        "Version=4.1",
        "Comment=Zorv simulated thermal map",
        "Operator=zorv",
        "Quantity=Temperature",
        "Unit=C",
        "Resolution=0.01",
        "Diameter=" + Shortest(plan.fieldSizeX) + " mm",
        "Label=ZSIM-TP",
        "",
        "#Data",
    };
    std::vector<ColumnDef> cols;
    cols.push_back(SiteColumn(plan, "Sensor", [](const SimSite& s) {
        std::string name(1, 'S');
        return name.append(std::to_string(s.number));
    }));
    cols.push_back(SiteColumn(plan, "Xmm", [](const SimSite& s) { return Fixed(s.x(), 3); }));
    cols.push_back(SiteColumn(plan, "Ymm", [](const SimSite& s) { return Fixed(s.y(), 3); }));
    cols.push_back(SiteColumn(plan, "Ana/Dig", [](const SimSite&) { return std::string("Ana"); }));
    ColumnDef time{"Time", Source::Wafer, {}};
    for (const std::string& w : plan.wafers) time.text.push_back(w.substr(1));
    cols.push_back(std::move(time));
    plan.headerLines.push_back(BuildSegments(plan, cols));
}

const char* EolName(LineEnd e) { return e == LineEnd::CrLf ? "crlf" : e == LineEnd::Lf ? "lf" : "cr"; }

// Where a row of the stream lies: wafer, field and site.
void WriteRowPlace(JsonWriter& j, const LotPlan& plan, const RowNote& n) {
    const SimField& f = plan.fields[static_cast<size_t>(n.field)];
    j.field("line", n.line).field("wafer", plan.wafers[static_cast<size_t>(n.wafer)]);
    j.field("dieX", f.dieX).field("dieY", f.dieY).field("site", plan.sites[static_cast<size_t>(n.site)].number);
}

double Written(const std::string& text) {
    double v = 0;
    std::from_chars(text.data(), text.data() + text.size(), v);
    return v;
}

void WriteValues(JsonWriter& j, const LotPlan& plan, const RowNote& n, bool offsets) {
    j.key("values").beginArray();
    for (size_t k = 0; k < plan.features.size(); ++k) {
        j.beginObject(true).field("feature", plan.features[k].name).field("text", n.text[k]);
        j.field("written", Written(n.text[k])).field("model", n.model[k]).field("noise", n.noise[k]);
        if (offsets) j.field("offset", n.offset[k]);
        j.endObject();
    }
    j.endArray();
}

struct TruthFiles {
    std::string format, file, reticleFile;
};

std::string TruthText(const std::string& kindName, const SimKind& kind, const LotPlan& plan,
                      const std::vector<Coefficient>& coefs, const SimulateOptions& o, const TruthFiles& files,
                      const StreamNotes& notes) {
    JsonWriter j;
    j.beginObject();
    j.field("generator", "zorv simulate").field("kind", kindName).field("format", files.format);
    j.field("file", files.file);
    if (!files.reticleFile.empty())
        j.field("reticleFile", files.reticleFile).field("reticleFormat", kDelimitedDescription);
    j.key("seed").number(std::to_string(o.seed));
    j.field("eol", EolName(o.eol));
    long long skipped = 0, excluded = 0;
    for (const RowNote& n : notes.failed) (n.expect == "excluded" ? excluded : skipped)++;
    j.field("rows", notes.rows).field("headerLines", static_cast<long long>(plan.headerLines.size()));
    j.field("skippedRows", skipped).field("excludedRows", excluded);
    j.field("wafers", static_cast<long long>(plan.wafers.size()));
    j.field("fields", static_cast<long long>(plan.fields.size()));
    j.field("fieldsX", plan.fieldsX).field("fieldsY", plan.fieldsY);
    j.field("sites", static_cast<long long>(plan.sites.size()));
    j.key("fieldSize").beginObject(true).field("x", plan.fieldSizeX).field("y", plan.fieldSizeY).endObject();

    j.key("features").beginArray();
    for (const SimFeature& f : plan.features) {
        j.beginObject(true).field("name", f.name).field("column", f.column).field("unit", f.unit);
        j.field("fileUnit", f.fileUnit).field("toWorkbook", f.toWorkbook).field("decimals", f.decimals);
        j.endObject();
    }
    j.endArray();

    j.key("model").beginObject();
    j.field("formula", kind.formula());
    j.key("coefficients").beginArray();
    for (const Coefficient& c : coefs)
        j.beginObject(true)
            .field("name", c.name)
            .field("value", c.value)
            .field("unit", c.unit)
            .field("meaning", c.meaning)
            .endObject();
    j.endArray();
    kind.writeModel(j, plan);
    j.endObject();

    j.key("noise").beginObject(true);
    j.field("sigma", plan.noise).field("unit", plan.features.front().fileUnit).field("distribution", "normal");
    j.endObject();

    j.key("outliers").beginArray();
    for (const RowNote& n : notes.outliers) {
        j.beginObject(true);
        WriteRowPlace(j, plan, n);
        WriteValues(j, plan, n, true);
        j.endObject();
    }
    j.endArray();
    j.key("failed").beginArray();
    for (const RowNote& n : notes.failed) {
        j.beginObject(true);
        WriteRowPlace(j, plan, n);
        j.field("text", n.text[0]).field("expect", n.expect);
        j.endObject();
    }
    j.endArray();

    // The grid is the same on every wafer; a very large lot lists its first fields only.
    const bool complete = plan.wafers.size() * plan.fields.size() <= kMaxFieldTable;
    j.field("fieldTableComplete", complete);
    j.key("fieldTable").beginArray();
    size_t listed = 0;
    for (size_t w = 0; w < plan.wafers.size() && listed < kMaxFieldTable; ++w) {
        for (size_t i = 0; i < plan.fields.size() && listed < kMaxFieldTable; ++i, ++listed) {
            const SimField& f = plan.fields[i];
            j.beginObject(true).field("wafer", plan.wafers[w]).field("dieX", f.dieX).field("dieY", f.dieY);
            j.field("centreX", f.centreX).field("centreY", f.centreY);
            if (plan.focusDose) j.field("focus", f.focus).field("dose", f.dose);
            j.endObject();
        }
    }
    j.endArray();

    j.key("sitePositions").beginArray();
    for (const SimSite& s : plan.sites)
        j.beginObject(true).field("site", s.number).field("x", s.x()).field("y", s.y()).endObject();
    j.endArray();

    j.key("checks").beginArray();
    for (const RowNote& n : notes.checks) {
        const SimField& f = plan.fields[static_cast<size_t>(n.field)];
        const SimSite& s = plan.sites[static_cast<size_t>(n.site)];
        j.beginObject(true);
        WriteRowPlace(j, plan, n);
        j.field("x", s.x()).field("y", s.y());
        if (plan.focusDose) j.field("focus", f.focus).field("dose", f.dose);
        WriteValues(j, plan, n, false);
        j.endObject();
    }
    j.endArray();
    j.endObject();
    std::string text = j.str();
    text += '\n';
    return text;
}

// A file name that stays inside the output folder.
bool PlainName(const std::string& name) {
    return !name.empty() && name.find_first_of("/\\") == std::string::npos && name != "." && name != ".." &&
           name != "truth.json";
}

// What the options resolve to against the kind's defaults.
struct Request {
    std::string kindName;
    std::unique_ptr<SimKind> kind;
    KindDefaults defaults;
    std::string layout;  // "kla", "csv", "archer" or "onwafer"
    std::string base;  // the tool file's name
    double noise = 0;
    int outliers = 0, failed = 0;
    std::vector<Coefficient> coefs;
    double focusCentre = 0, focusSpan = 0, doseCentre = 0, doseSpan = 0;
    Shape shape;
};

Status ResolveRequest(Proc& p, const std::string& kindText, const SimulateOptions& o, Request& r) {
    r.kindName = Lower(kindText);
    r.kind = MakeSimKind(r.kindName);
    if (!r.kind) return p.fail("Unknown kind '" + kindText + "'. Kinds: fem, overlay, psfm, reticle, thermal.");
    const KindDefaults& d = r.defaults = r.kind->defaults();
    const std::string fmt = Lower(o.format);
    std::vector<std::string> layouts;
    for (std::string_view rest = d.layouts; !rest.empty();) {
        const size_t bar = std::min(rest.find('|'), rest.size());
        layouts.emplace_back(rest.substr(0, bar));
        rest.remove_prefix(std::min(bar + 1, rest.size()));
    }
    r.layout = fmt.empty() ? layouts.front() : fmt;
    if (fmt != "kla" && fmt != "csv" && fmt != "archer" && fmt != "onwafer" && !fmt.empty())
        return p.fail("Unknown format '" + o.format + "': kla, csv, archer or onwafer.");
    if (std::find(layouts.begin(), layouts.end(), r.layout) == layouts.end()) {
        std::string allowed;
        for (size_t i = 0; i < layouts.size(); ++i)
            allowed += (i == 0 ? "" : i + 1 == layouts.size() ? " or " : ", ") + layouts[i];
        const char* article = std::string_view("aeiou").find(r.kindName[0]) != std::string_view::npos ? "An " : "A ";
        return p.fail(article + r.kindName + " lot is written as " + allowed + " only.");
    }
    if (o.outDir.empty()) return p.fail("No output folder given.");
    r.base = o.name.empty() ? r.kindName : o.name;
    if (!PlainName(r.base)) return p.fail("The name '" + r.base + "' is not a plain file name.");
    if (r.base.find('.') == std::string::npos) r.base += r.layout == "csv" ? ".csv" : ".txt";
    if (o.lot.empty() || o.lot.find_first_of(" \t,;\"") != std::string::npos)
        return p.fail("The lot name may not be empty nor hold a blank, comma, semicolon or quote.");
    r.noise = o.noise.value_or(d.noise);
    if (!std::isfinite(r.noise) || r.noise < 0) return p.fail("--noise must be 0 or more.");
    r.outliers = o.outliers.value_or(d.outliers);
    r.failed = o.failed.value_or(d.failed);
    if (r.outliers < 0 || r.failed < 0) return p.fail("--outliers and --failed must be 0 or more.");
    if (r.failed > 0 && !d.canFail)
        return p.fail("A " + r.kindName + " file has no failed readings: --failed must be 0.");

    r.coefs = r.kind->coefficients();
    for (const auto& given : o.coefficients) {
        const std::string& name = given.first;
        const double value = given.second;
        auto it = std::find_if(r.coefs.begin(), r.coefs.end(),
                               [&](const Coefficient& c) { return IEquals(c.name, name); });
        if (it == r.coefs.end()) {
            std::string known;
            for (const Coefficient& c : r.coefs) known += (known.empty() ? "" : ", ") + c.name;
            return p.fail("Unknown coefficient '" + name + "' for " + r.kindName + ": " + known + ".");
        }
        if (!std::isfinite(value)) return p.fail("The coefficient " + it->name + " must be a finite number.");
        it->value = value;
    }
    r.focusCentre = o.focusCentre.value_or(d.focusCentre);
    r.focusSpan = o.focusSpan.value_or(d.focusSpan);
    r.doseCentre = o.doseCentre.value_or(d.doseCentre);
    r.doseSpan = o.doseSpan.value_or(d.doseSpan);
    if (d.focusDose && (!std::isfinite(r.focusCentre + r.focusSpan + r.doseCentre + r.doseSpan) ||
                        std::fabs(r.focusCentre) > 100 || std::fabs(r.focusSpan) > 100 ||
                        r.doseCentre - std::fabs(r.doseSpan) / 2 <= 0 || r.doseCentre > 10000))
        return p.fail("The focus range must lie within +/-100 um and the dose range above 0 mJ/cm2.");
    return StatusOk();
}

// The grid, the sites, the kind's model and the columns of the format.
Status BuildPlan(Proc& p, Request& r, const SimulateOptions& o, LotPlan& plan) {
    plan.focusDose = r.defaults.focusDose;
    plan.noise = r.noise;
    MakeWafers(plan, r.shape.wafers);
    MakeFieldGrid(plan, r.shape, r.focusCentre, r.focusSpan, r.doseCentre, r.doseSpan);
    MakeSiteGrid(plan, r.shape.sites);
    if (Status s = r.kind->prepare(p, plan, r.coefs, r.layout == "kla", o.seed); !s) return s;
    if (r.layout == "kla")
        LayoutKla(plan, o, r.kindName);
    else if (r.layout == "archer")
        LayoutArcher(plan, o);
    else if (r.layout == "onwafer")
        LayoutOnWafer(plan, o);
    else
        LayoutCsv(plan, o, r.defaults.dataType);
    return StatusOk();
}

// The lot file, its companion and truth.json, each into its ".part" first;
// all are given their names only when every one is complete.
Result<SimulateOutput> WriteFiles(Proc& p, Request& r, const SimulateOptions& o, const LotPlan& plan) {
    SpecialRows special;
    if (Status s = PickSpecialRows(p, plan.rows(), r.outliers, r.failed, kChecks, o.seed, special); !s)
        return s.failure();
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::create_directories(o.outDir, ec);
    if (ec || !fs::is_directory(o.outDir, ec)) return p.fail("Cannot create folder: " + o.outDir);
    const fs::path dir(o.outDir);
    OutFile lotFile;
    if (!lotFile.open((dir / r.base).string(), o.eol)) return p.fail("Cannot write file: " + (dir / r.base).string());
    StreamNotes notes;
    if (Status s = WriteLotFile(p, plan, special, o.seed, lotFile, notes); !s) return s.failure();

    const char* description = r.layout == "kla"      ? kKlaDescription
                              : r.layout == "archer"  ? kArcherDescription
                              : r.layout == "onwafer" ? kOnWaferDescription
                                                      : kDelimitedDescription;
    TruthFiles files{description, r.base, {}};
    OutFile companion;
    std::vector<OutFile*> all = {&lotFile};
    if (r.kind->hasCompanion()) {
        files.reticleFile = r.base.substr(0, r.base.rfind('.')) + "_mask.csv";
        if (!companion.open((dir / files.reticleFile).string(), o.eol))
            return p.fail("Cannot write file: " + (dir / files.reticleFile).string());
        if (Status s = r.kind->writeCompanion(p, plan, companion); !s) return s.failure();
        all.push_back(&companion);
    }

    p.chk = 5;
    OutFile truth;
    if (!truth.open((dir / "truth.json").string(), LineEnd::Lf))
        return p.fail("Cannot write file: " + (dir / "truth.json").string());
    truth.put(TruthText(r.kindName, *r.kind, plan, r.coefs, o, files, notes));
    all.push_back(&truth);

    p.chk = 6;
    for (OutFile* f : all)
        if (!f->finish()) return p.fail("Cannot write file: " + f->path());
    for (size_t i = 0; i < all.size(); ++i) {
        if (!all[i]->publish()) {
            for (size_t k = 0; k < i; ++k) all[k]->unpublish();
            return p.fail("Cannot write file: " + all[i]->path());
        }
    }

    SimulateOutput out;
    out.kind = r.kindName;
    out.format = files.format;
    out.file = lotFile.path();
    if (r.kind->hasCompanion()) out.reticleFile = companion.path();
    out.truth = truth.path();
    out.rows = notes.rows;
    return out;
}

}  // namespace

const std::vector<std::string>& SimulateKinds() {
    static const std::vector<std::string> kinds = {"fem", "overlay", "psfm", "reticle", "thermal"};
    return kinds;
}

Result<SimulateOutput> Simulate(const std::string& kindText, const SimulateOptions& o) {
    Proc p("Import(Simulate): ");
    p.chk = 1;
    Request req;
    if (Status s = ResolveRequest(p, kindText, o, req); !s) return s.failure();
    p.chk = 2;
    if (Status s = ChooseShape(p, o, req.defaults, req.shape); !s) return s.failure();
    p.chk = 3;
    LotPlan plan;
    if (Status s = BuildPlan(p, req, o, plan); !s) return s.failure();
    p.chk = 4;
    return WriteFiles(p, req, o, plan);
}

}  // namespace zorv
