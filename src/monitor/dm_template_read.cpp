// Reading a monitor template: the "TemplateHeader" sheet split into its header
// block and tables, and the header turned into the run's settings.
#include <algorithm>
#include <array>
#include <utility>

#include "base/text.h"
#include "dm_template_util.h"
#include "monitor/dm_template.h"
#include "workbook/data_workbook.h"

namespace zorv {

using namespace dmt;

namespace {

// Every head row that ends the table above it.
constexpr std::array<const char*, 8> kHeads = {"Template",
                                               "RawStatistics",
                                               "ModelStatistics",
                                               "WaferModelStatistics",
                                               "FieldModelStatistics",
                                               "ProcessWindowStatistics",
                                               "AxesDisplayed",
                                               "Feature"};

bool IsHead(const Value& v) {
    for (const char* h : kHeads)
        if (CellIs(v, h)) return true;
    return false;
}

// The row of a key in column A from `from` on; -1 when missing.
int KeyRow(const Datam& t, std::string_view key, int from) {
    int r = -1, c = -1;
    return FindFirstRow(t, r, c, key, kDefaultBound, 1, from, 1, true);
}

// The rows of a table below its head: up to the next head or blank key.
int TableEnd(const Datam& t, int head) {
    int r = head + 1;
    while (r <= t.rowUb() && !KeyOf(t(r, 1)).empty() && !IsHead(t(r, 1))) ++r;
    return r - 1;
}

DMStatTable ReadStatTable(const Datam& t, std::string_view head, int from) {
    DMStatTable out;
    int h = KeyRow(t, head, from);
    if (h < 0) return out;
    out.head = KeyOf(t(h, 1));
    for (int r = h + 1, last = TableEnd(t, h); r <= last; ++r)
        out.rows.push_back({KeyOf(t(r, 1)), CellBool(t(r, 2)), CellBool(t(r, 3))});
    return out;
}

std::vector<DMFeatureRow> ReadFeatures(const Datam& t, int from) {
    std::vector<DMFeatureRow> out;
    int h = KeyRow(t, "Feature", from);
    if (h < 0) h = KeyRow(t, "feature", from);
    if (h < 0) return out;
    for (int r = h + 1, last = TableEnd(t, h); r <= last; ++r) {
        DMFeatureRow f;
        f.key = KeyOf(t(r, 1));
        f.analyze = CellBool(t(r, 2));
        f.name = KeyOf(t(r, 3));
        f.target = CellNumber(t(r, 4), 0);
        f.max = CellNumber(t(r, 5), 0);
        f.min = CellNumber(t(r, 6), 0);
        out.push_back(std::move(f));
    }
    return out;
}

// Older templates have no "Mean Axis" row: the standard choice stands.
std::vector<DMAxisRow> DefaultAxes() {
    return {{"All (X, Y and Mean)", Value(true)},
            {"X (Slit) Axis", Value(false)},
            {"X (Slit)", Value(false)}};
}

void ReadAxes(const Datam& t, int from, DMTemplateTables& out) {
    int h = KeyRow(t, "AxesDisplayed", from);
    if (h >= 0) {
        int last = TableEnd(t, h);
        int r = -1, c = -1;
        if (FindFirstRow(t, r, c, "Mean Axis", last, 1, h + 1, 1, true) > 0) {
            for (int i = h + 1; i <= last; ++i) out.axes.push_back({KeyOf(t(i, 1)), t(i, 2)});
            return;
        }
    }
    out.axes = DefaultAxes();
    out.axesDefaulted = true;
}

Failure SheetFailure(Proc& p, std::string text, Workbook* wb) {
    Failure f = p.fail(std::move(text));
    f.file = wb->path();
    f.sheet = kTemplateSheet;
    return f;
}

}  // namespace

DMKind DMKindOfCaption(std::string_view caption) {
    std::string up = Upper(caption);
    if (up.find("FIXED") != std::string::npos) return DMKind::FixedFocus;
    if (up.find("MATRIX") != std::string::npos) return DMKind::Matrix;
    if (up.find("METROLOGY") != std::string::npos) return DMKind::Metrology;
    // "Focus/Expo" is the focus matrix by the word in it.
    if (up.find("FOCUS/EXPO") != std::string::npos) return DMKind::Matrix;
    return DMKind::None;
}

Result<DMTemplateTables> GetDMtemplateTables(Workbook* workbook) {
    Proc p("DMcommon(GetDMtemplateTables): ");
    p.chk = 1;
    if (!workbook) return p.fail("Workbook for template is not loaded. Please reselect template.");
    if (!workbook->sheet("Information"))
        return SheetFailure(
            p,
            "This is not a proper Zorv DM template. The 'Information' spreadsheet is not present.",
            workbook);
    Worksheet* ws = workbook->sheet(kTemplateSheet);
    if (!ws)
        return SheetFailure(
            p, "Could not find WorkSheet 'TemplateHeader' in workbook: " + workbook->name(),
            workbook);
    if (Status s = ws->load(); !s) return SheetFailure(p, s.failure().text, workbook);

    // 2. The whole sheet, so that table rows are sheet rows.
    p.chk = 2;
    int lastRow = ws->lastRow();
    Datam sheet;
    if (lastRow > 0) sheet = ws->range(Area{1, 1, lastRow, std::max(6, ws->lastCol())});
    int start = sheet.isArray() ? KeyRow(sheet, "Template", 1) : -1;
    if (start < 0)
        return SheetFailure(
            p,
            "No template header ('Template' row) in WorkSheet 'TemplateHeader' of workbook: " +
                workbook->name(),
            workbook);

    DMTemplateTables out;
    out.header = Datam(lastRow - start + 1, 3, 1, 1);
    for (int r = start; r <= lastRow; ++r)
        for (int c = 1; c <= 3; ++c) out.header(r - start + 1, c) = sheet(r, c);

    // 3. Rows the setup display goes to directly.
    p.chk = 3;
    out.passwordRow = KeyRow(out.header, "Password:", 1);
    out.focusMinRow = KeyRow(out.header, "FocusMin:", 1);
    out.commentsRow = KeyRow(out.header, "Comments", 1);
    out.analysisTypeRow = KeyRow(out.header, "AnalysisType", 1);

    // 4. The statistics tables, each ending at the next head.
    p.chk = 4;
    out.raw = ReadStatTable(sheet, "RawStatistics", start);
    out.model = ReadStatTable(sheet, "ModelStatistics", start);
    out.waferModel = ReadStatTable(sheet, "WaferModelStatistics", start);
    out.fieldModel = ReadStatTable(sheet, "FieldModelStatistics", start);
    out.processWindow = ReadStatTable(sheet, "ProcessWindowStatistics", start);

    // 5. Features and axes.
    p.chk = 5;
    out.features = ReadFeatures(sheet, start);
    ReadAxes(sheet, start, out);
    return out;
}

namespace {

// The header rows looked up by key; every read leaves the default when the
// key is missing.
struct HeaderReader {
    const Datam& t;
    std::vector<std::pair<std::string, std::string>> rows;  // the summary

    int row(std::string_view key) const { return t.isArray() ? KeyRow(t, key, t.rowLb()) : -1; }
    bool has(std::string_view key) const { return row(key) > 0; }
    const Value& b(std::string_view key) const {
        static const Value empty;
        int r = row(key);
        return r > 0 ? t(r, 2) : empty;
    }
    const Value& c(std::string_view key) const {
        static const Value empty;
        int r = row(key);
        return r > 0 ? t(r, 3) : empty;
    }
    void text(std::string_view key, std::string& out) const {
        if (has(key)) out = CellText(b(key));
    }
    void flag(std::string_view key, bool& out) const {
        if (has(key)) out = CellBool(b(key));
    }
    // Only a numeric value counts.
    void number(std::string_view key, float& out) const {
        if (has(key) && IsNumericValue(b(key))) out = static_cast<float>(CellNumber(b(key), out));
    }
    void number(std::string_view key, int& out) const {
        if (has(key) && IsNumericValue(b(key))) out = static_cast<int>(CellNumber(b(key), out));
    }
    // An option: index in B and caption in C; a text in B is the caption.
    void choice(std::string_view key, DMChoice& out) const {
        if (!has(key)) return;
        const Value& v = b(key);
        if (IsNumericValue(v) && !v.isBool()) {
            out.index = static_cast<int>(CellNumber(v, -1));
            out.caption = CellText(c(key));
        } else {
            out.caption = CellText(v);
        }
    }
    void add(std::string_view name, const std::string& value) { rows.emplace_back(name, value); }
    Datam summary() const {
        if (rows.empty()) return Datam();
        Datam s(static_cast<int>(rows.size()), 2, 1, 1);
        for (size_t i = 0; i < rows.size(); ++i) {
            s(static_cast<int>(i) + 1, 1) = Value(rows[i].first);
            s(static_cast<int>(i) + 1, 2) = Value(rows[i].second);
        }
        return s;
    }
};

void ReadKind(HeaderReader& h, DMAnalysis& a) {
    // 1. "Analysis" of older templates holds the caption in B; "AnalysisType"
    // holds the index there and the caption in C.
    std::string_view key = h.has("Analysis") ? "Analysis" : "AnalysisType";
    const Value& v = h.b(key);
    a.caption = IsNumericValue(v) && !v.isEmpty() && !v.isBool() ? CellText(h.c(key)) : CellText(v);
    // 2.
    a.kind = DMKindOfCaption(a.caption);
    if (a.kind == DMKind::FixedFocus) a.caption = "Fixed Focus";
    if (h.has(key)) h.add("Analysis:", a.caption);
}

void ReadLotSteps(HeaderReader& h, DMAnalysis& a) {
    // 3.
    h.flag("Statistics", a.statistics);
    h.flag("Graphic", a.graphic);
    h.flag("RemoveReticle", a.removeReticle);
    if (int r = h.row("ReticleName"); r > 0) {
        a.reticleName = CellText(h.t(r, 2));
        if (r + 1 <= h.t.rowUb()) a.reticlePath = CellText(h.t(r + 1, 2));
    }
    if (h.has("RemoveReticle")) h.add("ReticleRemove:", a.removeReticle ? a.reticleName : "False");
    h.flag("RemoveComponent", a.removeComponent);
    h.flag("ModelData", a.modelData);
    h.flag("CombineWafers", a.combineWafers);
    if (h.has("CombineWafers")) h.add("Combine Wafers:", a.combineWafers ? "True" : "False");
    h.number("Die_x_array", a.dieXArray);
    h.number("Die_y_array", a.dieYArray);

    // 4. Focus conversion of the fixed focus kind.
    if (a.kind == DMKind::FixedFocus) {
        h.text("ConversionMethod", a.conversionMethod);
        h.text("FocusTemplate", a.focusTemplate);
        a.focusConversion =
            !a.focusTemplate.empty() && Upper(a.focusTemplate).find("NONE") == std::string::npos;
        h.add("FocusConversion:", a.focusConversion ? a.focusTemplate : "None");
        h.add("ConversionMethod:", a.conversionMethod);
    }
}

void ReadCullsAndWindow(HeaderReader& h, DMAnalysis& a) {
    // 5. The run looks for "CullRange:" ..., not for the names the setup writes.
    h.number("FocusMax:", a.focusMax);
    h.number("FocusMin:", a.focusMin);
    h.number("CullRange:", a.cullRange);
    h.number("CullSigma:", a.cullSigma);
    h.number("CullAstig:", a.cullAstig);
    h.choice("ComponentRemoval", a.component);
    if (h.has("ComponentRemoval")) h.add("ComponentRemoval:", a.component.caption);
    h.choice("PWanalysis", a.pwAnalysis);
    if (h.has("PWanalysis")) h.add("PWanalysis:", a.pwAnalysis.caption);
    h.flag("pwShowLimits", a.pwShowLimits);
    h.text("pwSites", a.pwSites);
    if (h.has("pwSites")) h.add("PWsites:", a.pwSites);
    h.choice("pwSiteID", a.pwSiteID);
    h.number("pwPrecision", a.pwPrecision);
    h.choice("pwFeatureCull", a.pwFeatureCull);
    if (h.has("pwFeatureCull")) h.add("PW Feature Cull:", a.pwFeatureCull.caption);
    h.number("pwFeatureCullMax", a.pwFeatureCullMax);
    h.number("pwFeatureCullMin", a.pwFeatureCullMin);
    h.choice("PWpwGraph", a.pwGraph);
    if (h.has("PWpwGraph")) h.add("PW Graph:", a.pwGraph.caption);
    h.choice("pwModel", a.pwModel);
    h.flag("pwEllipse", a.pwEllipse);
    h.flag("pwRectangle", a.pwRectangle);
    h.choice("pwGraphData", a.pwGraphData);
    if (h.has("pwGraphData")) h.add("PW GraphData:", a.pwGraphData.caption);
    h.choice("pwGraphType", a.pwGraphType);
    if (h.has("pwGraphType")) h.add("PW GraphType:", a.pwGraphType.caption);
}

void ReadModelsAndGraphics(HeaderReader& h, DMAnalysis& a) {
    // 6.
    h.flag("DoWaferModel", a.doWaferModel);
    h.text("WaferTerms", a.waferTerms);
    if (a.doWaferModel) h.add("WaferModel:", a.waferTerms + " order");
    h.choice("FieldModel", a.fieldModel);
    if (h.has("FieldModel")) {
        std::string up = Upper(a.fieldModel.caption);
        a.fieldModelOn = !up.empty() && up != "NO MODEL";
        h.add("FieldModel:", a.fieldModel.caption);
    }
    // 7.
    h.text("GraphicDataFormat", a.graphicDataFormat);
    if (h.has("GraphicDataFormat")) h.add("GraphicDataFormat:", a.graphicDataFormat);
    h.choice("GraphicData", a.graphicData);
    if (h.has("GraphicData")) h.add("Graph:", a.graphicData.caption);
    h.text("WaferFieldGraphic", a.waferFieldGraphic);
    h.text("GraphicPlot", a.graphicPlot);
    if (h.has("GraphicPlot")) h.add("GraphType:", a.graphicPlot);
}

}  // namespace

DMAnalysis LoadAnalysisSequence(const Datam& header, Datam& summary) {
    DMAnalysis a;
    HeaderReader h{header, {}};
    if (header.isArray() && header.dims() == 2 && header.rowCount() > 0) {
        ReadKind(h, a);
        ReadLotSteps(h, a);
        ReadCullsAndWindow(h, a);
        ReadModelsAndGraphics(h, a);
        h.text("Comments", a.comments);
        h.text("Summary", a.summary);
        if (h.has("Password:")) a.password = UnscramblePassword(CellText(h.b("Password:")));
    }
    summary = h.summary();
    return a;
}

Result<DMTemplate> ReadDMTemplate(Workbook* workbook) {
    DMTemplate out;
    Result<DMTemplateTables> t = GetDMtemplateTables(workbook);
    if (!t) return t.failure();
    out.tables = std::move(*t);
    out.analysis = LoadAnalysisSequence(out.tables.header, out.summary);
    return out;
}

Result<DMTemplate> ReadDMTemplate(const std::string& path) {
    Result<WorkbookPtr> wb = Workbook::open(path, Workbook::Load::Lazy);
    if (!wb) return wb.failure();
    return ReadDMTemplate(wb->get());
}

}  // namespace zorv
