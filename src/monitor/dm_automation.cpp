// The monitor's automation: the host's command line, the result files and
// the size control of the run log.
#include "monitor/dm_automation.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/format.h"
#include "base/regional.h"
#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"

namespace fs = std::filesystem;

namespace zorv {

namespace {

constexpr const char* kFault = "Fault in data ouput or computation";

// A file as given, else beneath the folder.
std::string Locate(const std::string& path, const std::string& folder) {
    std::error_code ec;
    if (fs::is_regular_file(path, ec)) return path;
    if (!folder.empty() && fs::is_regular_file(fs::path(folder) / path, ec)) return (fs::path(folder) / path).string();
    return {};
}

std::string MadeFolder(const std::string& f) {
    std::error_code ec;
    fs::create_directories(f, ec);
    const fs::path abs = fs::absolute(f, ec);
    return ec ? f : abs.lexically_normal().string();
}

std::string Cell(const Value& v) {
    if (v.textLength() == 0) return {};
    return v.isString() ? std::string(v.str()) : v.toString();
}

std::string JsonText(const std::string& s) {
    std::string o = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') o += '\\', o += c;
        else if (c == '\n') o += "\\n";
        else if (c == '\r') o += "\\r";
        else if (static_cast<unsigned char>(c) < 0x20) o += ' ';
        else o += c;
    }
    return o + "\"";
}

// A cell of the text file, quoted only when it holds a separator, a quote or
// a line break, so that plain rows stay as the hosts have always read them.
std::string CsvCell(const std::string& s) {
    if (s.find_first_of(",\"\r\n") == std::string::npos) return s;
    std::string o = "\"";
    for (char c : s) {
        if (c == '"') o += '"';
        o += c;
    }
    return o + "\"";
}

std::string Html(const std::string& s) {
    std::string o;
    for (char c : s) {
        if (c == '<') o += "&lt;";
        else if (c == '>') o += "&gt;";
        else if (c == '&') o += "&amp;";
        else o += c;
    }
    return o;
}

// The rows of a result; when the run left too few, the fault lines replace
// them (the text file) or follow them (the workbook).
std::vector<std::pair<std::string, Value>> Rows(const DMOutput& out, size_t minRows, bool append = false) {
    std::vector<std::pair<std::string, Value>> rows;
    const Datam& t = out.table;
    for (int r = 1; t.isArray() && r <= t.rowUb(); ++r)
        rows.emplace_back(Cell(t(r, 1)), t.colUb() >= 2 ? t(r, 2) : Value());
    if (rows.size() < minRows) {
        const double now = NowSerial();
        if (!append) rows.clear();
        rows.emplace_back(FormatDate(now, "Short Date"), Value(FormatDate(now, "Long Time")));
        rows.emplace_back(kFault, Value());
        std::string see = "Please see 'RemoteCall.log' file.";
        if (!out.checkpoint.empty()) see.append(" chk: ").append(out.checkpoint);
        rows.emplace_back(see, Value());
    }
    return rows;
}

Status WriteText(Proc& p, const std::string& path, const std::string& text) {
    std::error_code ec;
    fs::remove(path, ec);
    const std::string tmp = path + ".tmp";
    {
        std::ofstream f(tmp, std::ios::binary);
        f << text;
        if (!f) return p.fail("Could not write '" + path + "'.");
    }
    fs::rename(tmp, path, ec);
    if (ec) return p.fail("Could not write '" + path + "'.");
    return StatusOk();
}

}  // namespace

Result<DMCommandLine> ParseDMCommandLine(const std::string& line, const std::string& templateFolder,
                                         const std::string& dataFolder) {
    Proc p("frmDM(cmdLineParse): ");
    DMCommandLine out;
    if (line.size() < 3) return p.fail("No command line.");
    std::string low = line;
    std::transform(low.begin(), low.end(), low.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    struct Hit {
        char sw;
        size_t start;
    };
    std::vector<Hit> hits;
    for (size_t i = 0; i + 1 < low.size(); ++i) {
        if (low[i] != '-' || (i > 0 && !std::isspace(static_cast<unsigned char>(low[i - 1])))) continue;
        if (i + 2 < low.size() && !std::isspace(static_cast<unsigned char>(low[i + 2])) && low[i + 2] != '"') continue;
        char c = low[i + 1];
        if (c == '0') c = 'o';
        if (c == 'd') c = 'f';
        if (c == 'h') c = 'w';
        if (std::string("ftoxw").find(c) == std::string::npos) continue;
        hits.push_back({c, i});
    }
    if (hits.empty()) return p.fail("No switches in the command line.");
    std::vector<std::string> text{"   ===== Command Line Parse ====="};
    for (size_t k = 0; k < hits.size(); ++k) {
        const size_t from = hits[k].start + 2, to = k + 1 < hits.size() ? hits[k + 1].start : line.size();
        std::string v = line.substr(from, to - from);
        v.erase(std::remove(v.begin(), v.end(), '"'), v.end());
        v = Trim(v);
        switch (hits[k].sw) {
            case 'o':
                out.asciiFolder = MadeFolder(v);
                text.push_back("     ...OutputAscii:  " + out.asciiFolder);
                break;
            case 'x':
                out.xlsFolder = MadeFolder(v);
                text.push_back("     ...Output:       " + out.xlsFolder);
                break;
            case 'w':
                out.htmlFolder = MadeFolder(v);
                text.push_back("     ...Output HTML:       " + out.htmlFolder);
                break;
            case 't': {
                const std::string f = Locate(v, templateFolder);
                if (f.empty()) {
                    std::string m = "Template file '" + v;
                    return p.fail(m.append("' does not exist."));
                }
                out.templatePath = f;
                out.templateName = fs::path(f).filename().string();
                text.push_back("     ...MACRO:        " + f);
                break;
            }
            case 'f': {
                const std::string f = Locate(v, dataFolder);
                if (f.empty()) {
                    std::string m = "File file '" + v;
                    return p.fail(m.append("' does not exist."));
                }
                out.dataPath = f;
                out.dataName = fs::path(f).filename().string();
                text.push_back("     ...DataFile:     " + f);
                break;
            }
        }
    }
    text.push_back("   ===== Commands End =====");
    out.log = std::move(text);
    return out;
}

void LogLineLimits(long& minLines, long& maxLines) {
    // The maximum is judged against the minimum as given (100 and 100 make
    // 250), before the minimum is raised; a maximum still below the raised
    // minimum would cut more than it keeps.
    if (maxLines <= minLines) maxLines = minLines + 150;
    minLines = std::max(minLines, 150L);
    if (maxLines <= minLines) maxLines = minLines + 150;
}

Result<bool> LogFileSizeControl(const std::string& file, long minLines, long maxLines) {
    Proc p("DMAcommon(LogFileSizeControl): ");
    LogLineLimits(minLines, maxLines);
    std::error_code ec;
    if (!fs::is_regular_file(file, ec)) {
        std::string m = "File '" + fs::path(file).filename().string();
        return p.fail(m.append("' does not exist."));
    }
    std::vector<std::string> lines;
    {
        std::ifstream in(file, std::ios::binary);
        for (std::string l; std::getline(in, l);) {
            if (!l.empty() && l.back() == '\r') l.pop_back();
            lines.push_back(std::move(l));
        }
    }
    if (static_cast<long>(lines.size()) <= maxLines) return false;
    SetStatusText("Truncating RemoteCall.log file size ...");
    const fs::path f(file);
    const std::string name = f.filename().string();
    const fs::path bak = f.parent_path() / (name.substr(0, name.find('.')) + ".BAK");
    const size_t keepFrom = lines.size() - static_cast<size_t>(minLines);
    std::string old;
    for (size_t i = 0; i <= keepFrom && i < lines.size(); ++i) old.append(lines[i]).append("\r\n");
    if (Status s = WriteText(p, bak.string(), old); !s) return s.failure();
    const double now = NowSerial();
    std::string log = "____ Backup____: DMAcommon(LogFileSizeControl): \r\nDate: ";
    log.append(FormatDate(now, "Short Date")).append(" ").append(FormatDate(now, "Long Time")).append("\r\n_____\r\n");
    for (size_t i = keepFrom; i < lines.size(); ++i) log.append(lines[i]).append("\r\n");
    if (Status s = WriteText(p, file, log); !s) return s.failure();
    return true;
}

Result<DMResultFiles> WriteDMOutput(const DMOutput& out, const std::string& dataName, const std::string& asciiFolder,
                                    const std::string& xlsFolder, const std::string& htmlFolder) {
    Proc p("frmDM(runDM): ");
    DMResultFiles files;
    const std::string base = fs::path(dataName).stem().string() + "_ZorvDMA";
    if (!asciiFolder.empty()) {
        const auto rows = Rows(out, 3);
        std::string csv, json = "{\"results\": [";
        for (size_t i = 0; i < rows.size(); ++i) {
            csv.append(CsvCell(rows[i].first)).append(",").append(CsvCell(Cell(rows[i].second))).append("\r\n");
            json.append(i ? ", " : "").append("[").append(JsonText(rows[i].first)).append(", ");
            json.append(rows[i].second.isNumberType() ? Cell(rows[i].second) : JsonText(Cell(rows[i].second))).append("]");
        }
        json.append("]}\n");
        files.csv = (fs::path(asciiFolder) / (base + ".csv")).string();
        files.json = (fs::path(asciiFolder) / (base + ".json")).string();
        if (Status s = WriteText(p, files.csv, csv); !s) return s.failure();
        if (Status s = WriteText(p, files.json, json); !s) return s.failure();
    }
    // The workbook: the lot's data and "Results", nothing else.
    auto results = [&](size_t minRows) {
        const auto rows = Rows(out, minRows, true);
        Datam t(static_cast<int>(rows.size()), 2, 1, 1);
        for (size_t i = 0; i < rows.size(); ++i) {
            t(static_cast<int>(i) + 1, 1) = Value(rows[i].first);
            t(static_cast<int>(i) + 1, 2) = rows[i].second;
        }
        return t;
    };
    if (!xlsFolder.empty()) {
        files.xls = (fs::path(xlsFolder) / (base + ".xls")).string();
        std::error_code ec;
        fs::remove(files.xls, ec);
        WorkbookPtr wb = Workbook::create(files.xls, "Results");
        SaveArrayOptions o;
        o.save = false;
        if (out.lotData.isArray()) {
            std::string sheet = out.lotName.substr(0, 31);
            for (char& c : sheet)
                if (std::string("[]:*?/\\,").find(c) != std::string::npos) c = '_';
            if (Status s = SaveArray(out.lotData, sheet, wb.get(), o); !s) return s.failure();
        }
        if (Status s = SaveArray(results(5), "Results", wb.get(), o); !s) return s.failure();
        if (Status s = wb->save(); !s) return s.failure();
    }
    if (!htmlFolder.empty()) {
        files.html = (fs::path(htmlFolder) / (base + ".html")).string();
        std::string h = "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>" + Html(base);
        h.append("</title></head><body>\n<h1>Results</h1>\n<table border=\"1\">\n");
        const Datam t = results(5);
        for (int r = 1; r <= t.rowUb(); ++r)
            h.append("<tr><td>").append(Html(Cell(t(r, 1)))).append("</td><td>").append(Html(Cell(t(r, 2)))).append("</td></tr>\n");
        h.append("</table>\n");
        if (out.lotData.isArray()) {
            h.append("<h1>").append(Html(out.lotName)).append("</h1>\n<table border=\"1\">\n");
            for (int r = out.lotData.rowLb(); r <= out.lotData.rowUb(); ++r) {
                h.append("<tr>");
                for (int c = std::max(1, out.lotData.colLb()); c <= out.lotData.colUb(); ++c)
                    h.append(r == out.lotData.rowLb() ? "<th>" : "<td>").append(Html(Cell(out.lotData(r, c))))
                        .append(r == out.lotData.rowLb() ? "</th>" : "</td>");
                h.append("</tr>\n");
            }
            h.append("</table>\n");
        }
        h.append("</body></html>\n");
        if (Status s = WriteText(p, files.html, h); !s) return s.failure();
    }
    return files;
}

}  // namespace zorv

namespace zorv {

namespace {

std::string Upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}
bool IsTrue(const std::string& v) {
    const std::string u = Upper(Trim(v));
    return u == "TRUE" || u == "1" || u == "-1" || u == "YES";
}
std::string NoBlanks(std::string s) {
    s.erase(std::remove(s.begin(), s.end(), ' '), s.end());
    return s;
}

}  // namespace

Result<Datam> BuildDMResultTable(const DMRunInfo& info, const Datam& header, const Datam& stats) {
    Proc p("frmDM(runDMoutput): ");
    if (!header.isArray() || header.rowUb() < 1) return p.fail("Header table for analysis not found.");
    std::vector<std::pair<std::string, Value>> rows;
    auto add = [&](std::string k, std::string v = {}) { rows.emplace_back(std::move(k), Value(std::move(v))); };
    add("[Data]");
    add("Program:", "Zorv DMA");
    add(""), add("");
    add("DataFile:", info.dataFile);
    add("DataFolder:", info.dataFolder);
    add("Template:", info.templateName);
    add("TemplateFolder:", info.templateFolder);
    add("AnalysisDate:", FormatDate(info.when, "Short Date"));
    add("AnalysisTime:", FormatDate(info.when, "Long Time"));
    add("Tool:", info.tool);
    add("Wafers:", std::to_string(info.wafers));
    add("");
    add("[Header]");
    const int n = header.rowUb();
    auto key = [&](int r) { return Cell(header(r, 1)); };
    auto val = [&](int r) { return header.colUb() >= 2 ? Cell(header(r, 2)) : std::string(); };
    for (int r = 1; r <= n; ++r) {
        const std::string k = Upper(Trim(key(r)));
        if (k.empty() || k == "TEMPLATE" || k == "FOLDER" || k == "DATAFOLDER") continue;
        if (k == "DATESAVED") {
            double d = 0;
            add("DateTemplateSaved:", ParseDateText(val(r), d) ? FormatDate(d, "Short Date") : val(r));
        } else if (k == "REMOVERETICLE") {
            if (!IsTrue(val(r))) continue;
            add("RemoveReticle:", "True");
            for (int j = r + 1; j <= std::min(n, r + 2); ++j) add(NoBlanks(key(j)).append("."), val(j));
            r += 2;
        } else if (k == "REMOVECOMPONENT") {
            if (!IsTrue(val(r))) continue;
            for (int j = r + 1; j <= n; ++j)
                if (Upper(Trim(key(j))) == "COMPONENTREMOVAL") add("ComponentRemoval:", val(j));
        } else if (k == "COMPONENTREMOVAL") {
            continue;  // only through REMOVECOMPONENT
        } else if (k == "MODELDATA") {
            if (!IsTrue(val(r))) continue;
            add("ModelData:", "True");
            for (int j = r + 1; j <= n; ++j) {
                std::string kk = Replace(key(j), "\r\n", "_");
                add(NoBlanks(kk).append("."), Replace(val(j), "\r\n", "_"));
            }
            break;
        } else {
            add(key(r), val(r));
        }
    }
    add("[EndHeader]");
    add(""), add("");
    add("[Results]");
    for (int c = 1; stats.isArray() && c <= stats.colUb(); ++c) {
        add("");
        std::string head = "[";
        add(head.append(Cell(stats(stats.rowLb(), c))).append("]"));
        for (int r = stats.rowLb() + 1; r <= stats.rowUb(); ++r) {
            const Value& v = stats(r, c);
            if (!v.isNumberType() && !(v.isString() && v.isNumericPlain())) continue;
            // Numbers stay numbers for the workbook; fractions at the six
            // digits single precision data hold, counts whole.
            double d = 0;
            if (!ParseNumber(Cell(v), d)) continue;
            if (d != std::floor(d)) ParseNumber(CStrNumber(d, 6), d);
            rows.emplace_back(Cell(stats(r, stats.colLb())).append("."), Value(d));
        }
    }
    add("[EndResults]");
    add("[END]");
    Datam t(static_cast<int>(rows.size()), 2, 1, 1);
    for (size_t i = 0; i < rows.size(); ++i) {
        t(static_cast<int>(i) + 1, 1) = Value(rows[i].first);
        t(static_cast<int>(i) + 1, 2) = rows[i].second;
    }
    return t;
}

}  // namespace zorv
