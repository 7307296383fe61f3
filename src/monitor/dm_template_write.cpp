// Writing a monitor template: the header block with its "Summary", the tables
// below it, and the lock of "Password:".
#include <ctime>
#include <utility>

#include "base/format.h"
#include "base/regional.h"
#include "base/text.h"
#include "dm_template_util.h"
#include "monitor/dm_template.h"
#include "workbook/data_workbook.h"
#include "workbook/workbook_ops.h"

namespace zorv {

using namespace dmt;

namespace {

// Rows of cells built one under the other, columns from 1.
class Rows {
  public:
    void add(std::string_view key, Value b = Value(), Value c = Value()) {
        rows_.push_back({Value(key), std::move(b), std::move(c)});
    }
    void add(std::vector<Value> cells) { rows_.push_back(std::move(cells)); }
    void blank() { rows_.push_back({}); }
    void choice(std::string_view key, const DMChoice& o) {
        add(key, Value(int32_t(o.index)), Value(o.caption));
    }
    Datam done() const {
        size_t cols = 1;
        for (const auto& r : rows_) cols = std::max(cols, r.size());
        Datam t(static_cast<int>(rows_.size()), static_cast<int>(cols), 1, 1);
        for (size_t i = 0; i < rows_.size(); ++i)
            for (size_t j = 0; j < rows_[i].size(); ++j)
                t(static_cast<int>(i) + 1, static_cast<int>(j) + 1) = rows_[i][j];
        return t;
    }
    bool empty() const { return rows_.empty(); }

  private:
    std::vector<std::vector<Value>> rows_;
};

Value TrueFalse(bool b) {
    return Value(b ? "True" : "False");
}

bool FieldModelOn(const DMSetup& s) {
    return !s.fieldModel.caption.empty() && !IEquals(s.fieldModel.caption, "NO MODEL");
}

bool WindowOn(const DMSetup& s) {
    return s.pwAnalysis.index >= 0 || !s.pwAnalysis.caption.empty();
}

void IdentityRows(Rows& r, const DMSetup& s) {
    r.add("Template", Value(s.templateName));
    r.add("Folder", Value(s.templateFolder));
    r.add("DateSaved", Value::date(s.dateSaved > 0 ? s.dateSaved : NowSerial()));
}

void StatTable(Rows& r, std::string_view head, const std::vector<DMStatRow>& rows) {
    r.add(head, Value("Display"), Value("Trend"));
    for (const DMStatRow& s : rows) r.add(s.name, Value(s.display), Value(s.trend));
}

void WindowRows(Rows& r, const DMSetup& s) {
    r.choice("pwGraphData", s.pwGraphData);
    r.choice("pwGraphType", s.pwGraphType);
    r.choice("PWpwGraph", s.pwPwGraph);
    r.choice("pwFeatureCull", s.pwFeatureCull);
    r.add("pwFeatureCullMax", Value(s.pwFeatureCullMax));
    r.add("pwFeatureCullMin", Value(s.pwFeatureCullMin));
    r.add("pwSites", Value(s.pwSites));
    r.add("pwSiteID", Value(int32_t(s.pwSiteID.index)), Value(s.pwSiteID.caption));
    r.add("pwPrecision", Value(int32_t(s.pwPrecision)));
    r.add("pwShowLimits", Value(s.pwShowLimits), Value("Show UCL/LCL limits"));
}

// The tables' first row on a sheet that holds a header block: the second
// "Template" row or the first table head, else below the used rows.
int TablesRow(Worksheet* ws) {
    int last = ws->lastRow();
    bool seenTemplate = false;
    for (int r = 1; r <= last; ++r) {
        std::string key = KeyOf(ws->cell(r, 1));
        if (IEquals(key, "Template")) {
            if (seenTemplate) return r;
            seenTemplate = true;
        }
        for (const char* h :
             {"RawStatistics", "ModelStatistics", "WaferModelStatistics", "FieldModelStatistics",
              "ProcessWindowStatistics", "Feature", "AxesDisplayed"})
            if (IEquals(key, h)) return r;
    }
    return last + 2;
}

}  // namespace

std::string DMTemplateSummary(const DMSetup& s) {
    // The lines the template carries into its "Comments" property.
    std::string out = "Analysis:";
    out.append(BaseOfName(s.templateName)).append(".").append(s.analysisType.caption);
    if (DMKindOfCaption(s.analysisType.caption) == DMKind::FixedFocus)
        out.append(" (").append(s.conversionMethod).append(")");
    auto line = [&](std::string_view head, const std::string& text) {
        out.append("\r\n").append(head).append(text);
    };
    if (s.doWaferModel) {
        line("Wafer Model: ", std::to_string(s.waferTermCount));
        out.append(" terms.");
    }
    line("Field Model: ", s.fieldModel.caption);
    if (s.removeReticle) line("Reticle Removal: ", s.reticleName);
    if (s.removeComponent) line("Remove: ", s.componentRemoval.caption);
    if (s.graphic) {
        // A model picture names the model; a plot its graph; else both captions.
        if (IContains(s.waferFieldGraphic, "MODEL"))
            line(s.graphicData.caption,
                 std::string(" Graphic/ Model: ").append(s.fieldModel.caption));
        else if (!s.graphicPlot.empty())
            line(s.graphicData.caption, std::string(" Graphic/ Graph: ").append(s.graphicPlot));
        else
            line(s.graphicData.caption, std::string("/").append(s.graphicDataFormat));
    }
    return out;
}

Datam DMTemplateHeaderTable(const DMSetup& s) {
    Rows r;
    IdentityRows(r, s);
    r.add("DataImport", Value(s.dataImport));
    r.add("DataFolder", Value(s.dataFolder));
    r.choice("AnalysisType", s.analysisType);
    if (DMKindOfCaption(s.analysisType.caption) == DMKind::FixedFocus) {
        r.add("FocusTemplate",
              Value(s.focusTemplate.empty() ? std::string("None") : s.focusTemplate));
        r.add("ConversionMethod", Value(s.conversionMethod));
    }
    r.add("ModelData", Value(s.modelData));
    r.add("RemoveReticle", Value(s.removeReticle));
    if (s.removeReticle) {
        // The reader takes the path from the row after the name.
        r.add("ReticleName", Value(s.reticleName));
        r.add("ReticlePath", Value(s.reticlePath));
    }
    r.add("RemoveComponent", Value(s.removeComponent));
    r.add("CombineWafers", Value(s.combineWafers));
    if (s.combineWafers) {
        r.add("Die_x_array", Value(s.dieXArray));
        r.add("Die_y_array", Value(s.dieYArray));
    }
    r.add("DoWaferModel", Value(s.doWaferModel));
    if (s.doWaferModel) r.add("WaferTerms", Value(s.waferTerms));
    r.add("FieldModel", Value(int32_t(s.fieldModel.index)),
          Value(s.fieldModel.caption.empty() ? std::string("NO MODEL") : s.fieldModel.caption));
    if (s.removeComponent) r.choice("ComponentRemoval", s.componentRemoval);
    r.add("Statistics", Value(s.statistics));
    r.add("Graphic", Value(s.graphic));
    if (WindowOn(s)) {
        r.choice("PWanalysis", s.pwAnalysis);
        r.add("pwEllipse", TrueFalse(s.pwEllipse));
        r.add("pwRectangle", TrueFalse(s.pwRectangle));
        r.choice("PWmodel", s.pwModel);
    }
    if (s.graphic) {
        r.choice("GraphicData", s.graphicData);
        r.add("WaferFieldGraphic", Value(s.waferFieldGraphic));
        r.add("GraphicPlot", Value(s.graphicPlot));
        r.add("GraphicDataFormat", Value(s.graphicDataFormat));
    }
    r.add("Comments", Value(s.comments));
    r.add("Summary", Value(DMTemplateSummary(s)));
    r.add("FocusMax:", Value(s.focusMax));
    r.add("FocusMin:", Value(s.focusMin));
    r.add("Password:", Value(s.password.empty() ? std::string() : ScramblePassword(s.password)));
    // The setup's names; a run reads "CullRange:" ... (see the reader).
    r.add("RangeCull:", Value(s.rangeCull));
    r.add("SigmaCull:", Value(s.sigmaCull));
    r.add("AstigCull:", Value(s.astigCull));
    if (WindowOn(s)) WindowRows(r, s);
    return r.done();
}

Result<Datam> SaveTemplateHeader(Workbook* workbook, const DMSetup& setup) {
    Proc p("DMsetup(SaveTemplateHeader): ");
    p.chk = 1;
    if (!workbook) return p.fail("Workbook for template is not loaded. Please reselect template.");
    p.chk = 2;
    Datam table = DMTemplateHeaderTable(setup);
    p.chk = 3;
    Worksheet* ws = workbook->sheet(kTemplateSheet);
    if (!ws) ws = workbook->addSheet(kTemplateSheet);
    if (!ws || workbook->readOnly()) {
        Failure f = p.fail("Could not find or create the header worksheet.");
        f.file = workbook->path();
        f.sheet = kTemplateSheet;
        return f;
    }
    ws->clear();
    ws->setRange(1, 1, table);
    ws->setBold(Area{1, 1, table.rowUb(), 1});
    return table;
}

Result<Datam> SaveTemplateStats(Workbook* workbook, const DMSetup& s) {
    Proc p("DMsetup(SaveTemplateStats): ");
    p.chk = 1;
    if (!workbook) return p.fail("Template Workbook is not loaded.");
    p.chk = 2;
    Worksheet* ws = workbook->sheet(kTemplateSheet);
    if (!ws) ws = workbook->addSheet(kTemplateSheet);
    if (!ws || workbook->readOnly()) {
        Failure f =
            p.fail("Could not create 'TemplateHeader' worksheet in workbook: " + workbook->name());
        f.file = workbook->path();
        f.sheet = kTemplateSheet;
        return f;
    }

    p.chk = 3;
    Rows r;
    IdentityRows(r, s);
    StatTable(r, "RawStatistics", s.rawStats);
    if (s.doWaferModel) StatTable(r, "WaferModelStatistics", s.waferModelStats);
    if (FieldModelOn(s)) StatTable(r, "FieldModelStatistics", s.fieldModelStats);
    if (WindowOn(s)) StatTable(r, "ProcessWindowStatistics", s.processWindowStats);
    r.add({Value("Feature"), Value("Analyze"), Value("Name"), Value("Target"), Value("Max"),
           Value("Min")});
    for (const DMFeatureRow& f : s.features)
        r.add({Value(f.key), TrueFalse(f.analyze), Value(f.name), Value(f.target), Value(f.max),
               Value(f.min)});
    r.add("AxesDisplayed", Value("Display"));
    if (s.axes.empty()) {
        for (const char* name : {"All (X, Y and Mean)", "X (Slit) Axis", "X (Slit)"})
            r.add(name, Value(IEquals(name, "All (X, Y and Mean)")));
    }
    for (const DMAxisRow& a : s.axes) r.add(a.name, a.display);
    Datam table = r.done();

    // 4. Old tables go: the header block is kept and the tables written
    // again below it, one blank row between.
    p.chk = 4;
    int at = TablesRow(ws);
    Datam keep;
    if (at > 1) keep = ws->range(Area{1, 1, at - 1, std::max(3, ws->lastCol())});
    ws->clear();
    if (keep.isArray()) ws->setRange(1, 1, keep);
    int headerEnd = 0;
    for (int i = at - 1; i >= 1 && !headerEnd; --i)
        if (!KeyOf(ws->cell(i, 1)).empty()) headerEnd = i;
    ws->setRange(headerEnd + 2, 1, table);

    p.chk = 5;
    std::string when = FormatDate(NowSerial(), "yyyy-mm-dd hh:mm:ss");
    if (Status st = AddIndexItem(workbook, kTemplateSheet,
                                 "Statistics & setup for Daily Monitor. " + when, Value(), false);
        !st)
        return st.failure();
    return table;
}

std::string ScramblePassword(std::string_view plain) {
    // Each byte is mixed with a running key and written as two hex digits, so
    // the lock stays printable text in its cell.
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    out.reserve(plain.size() * 2);
    unsigned key = 0x5A;
    for (char ch : plain) {
        auto b = static_cast<unsigned char>(ch);
        unsigned x = (b ^ key) & 0xFF;
        out += hex[x >> 4];
        out += hex[x & 0xF];
        key = (key * 31 + b + 7) & 0xFF;
    }
    return out;
}

std::string UnscramblePassword(std::string_view s) {
    // Text that is no scrambled lock (typed into the sheet by hand) stands.
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    };
    if (s.size() % 2) return std::string(s);
    std::string out;
    unsigned key = 0x5A;
    for (size_t i = 0; i < s.size(); i += 2) {
        int hi = nibble(s[i]), lo = nibble(s[i + 1]);
        if (hi < 0 || lo < 0) return std::string(s);
        unsigned b = (static_cast<unsigned>(hi << 4 | lo) ^ key) & 0xFF;
        out += static_cast<char>(b);
        key = (key * 31 + b + 7) & 0xFF;
    }
    return out;
}

}  // namespace zorv
