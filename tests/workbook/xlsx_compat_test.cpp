// Our .xlsx files against other spreadsheet software: openpyxl reads what we
// write, we read what openpyxl writes, and the package we write agrees in
// structure with what libxlsxwriter (whose files Excel opens) writes for the
// same workbook.
#include <dlfcn.h>
#include <expat.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <xlsxwriter.h>
#include <zip.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "workbook/store.h"

namespace fs = std::filesystem;
using namespace zorv;

namespace {

const char* kPython = "/usr/bin/python3";

std::string Tmp(const std::string& name) {
    fs::path p = fs::path(ZORV_TEST_TMP) / "workbook_compat";
    fs::create_directories(p);
    return (p / name).string();
}

bool HaveOpenpyxl() {
    std::string cmd = std::string(kPython) + " -c 'import openpyxl' 2>/dev/null";
    return fs::exists(kPython) && std::system(cmd.c_str()) == 0;
}

// Runs a python script; returns its output lines as key=value pairs.
std::map<std::string, std::string> RunPython(const std::string& script, const std::string& arg) {
    // Tests run as parallel processes: a script file of their own.
    const std::string tag = std::to_string(getpid());
    std::string py = Tmp("script-" + tag + ".py");
    std::ofstream(py) << script;
    std::string out = Tmp("script-" + tag + ".out");
    std::string cmd = std::string(kPython) + " " + py + " '" + arg + "' > " + out + " 2>&1";
    int rc = std::system(cmd.c_str());
    std::map<std::string, std::string> kv;
    std::ifstream in(out);
    std::string line, all;
    while (std::getline(in, line)) {
        all += line + "\n";
        size_t eq = line.find('=');
        if (eq != std::string::npos) kv[line.substr(0, eq)] = line.substr(eq + 1);
    }
    EXPECT_EQ(rc, 0) << all;
    return kv;
}

// The parts of a zip and their text.
std::map<std::string, std::string> ZipParts(const std::string& path) {
    std::map<std::string, std::string> parts;
    int err = 0;
    zip_t* z = zip_open(path.c_str(), ZIP_RDONLY, &err);
    EXPECT_NE(z, nullptr) << path;
    if (!z) return parts;
    for (zip_int64_t i = 0; i < zip_get_num_entries(z, 0); ++i) {
        zip_stat_t st;
        zip_stat_index(z, static_cast<zip_uint64_t>(i), 0, &st);
        std::string data(st.size, '\0');
        zip_file_t* f = zip_fopen_index(z, static_cast<zip_uint64_t>(i), 0);
        zip_fread(f, data.data(), st.size);
        zip_fclose(f);
        parts[st.name] = data;
    }
    zip_close(z);
    return parts;
}

// Element names (local) of an XML text, in document order, with their depth.
struct Elements {
    std::vector<std::pair<int, std::string>> list;
    int depth = 0;
};
std::vector<std::pair<int, std::string>> ElementsOf(const std::string& xml) {
    Elements e;
    XML_Parser p = XML_ParserCreate(nullptr);
    XML_SetUserData(p, &e);
    XML_SetElementHandler(
        p,
        [](void* ud, const XML_Char* name, const XML_Char**) {
            auto* e = static_cast<Elements*>(ud);
            std::string n = name;
            size_t c = n.rfind(':');
            e->list.emplace_back(e->depth++, c == std::string::npos ? n : n.substr(c + 1));
        },
        [](void* ud, const XML_Char*) { --static_cast<Elements*>(ud)->depth; });
    EXPECT_EQ(XML_Parse(p, xml.data(), static_cast<int>(xml.size()), 1), XML_STATUS_OK) << xml.substr(0, 200);
    XML_ParserFree(p);
    return e.list;
}

std::vector<std::string> ChildrenOfRoot(const std::string& xml) {
    std::vector<std::string> out;
    for (auto& [d, n] : ElementsOf(xml))
        if (d == 1) out.push_back(n);
    return out;
}

// Attribute values of every element with this local name.
std::vector<std::map<std::string, std::string>> AttrsOf(const std::string& xml, const std::string& element) {
    struct Ctx {
        std::string want;
        std::vector<std::map<std::string, std::string>> out;
    } ctx{element, {}};
    XML_Parser p = XML_ParserCreate(nullptr);
    XML_SetUserData(p, &ctx);
    XML_SetElementHandler(
        p,
        [](void* ud, const XML_Char* name, const XML_Char** a) {
            auto* c = static_cast<Ctx*>(ud);
            std::string n = name;
            size_t k = n.rfind(':');
            if ((k == std::string::npos ? n : n.substr(k + 1)) != c->want) return;
            std::map<std::string, std::string> m;
            for (; a[0]; a += 2) m[a[0]] = a[1];
            c->out.push_back(m);
        },
        nullptr);
    XML_Parse(p, xml.data(), static_cast<int>(xml.size()), 1);
    XML_ParserFree(p);
    return ctx.out;
}

// The small workbook both writers make: two sheets, numbers, text, a date,
// formats, a hidden and a visible comment, names, properties, a link.
void FillOurs(Workbook& wb) {
    Worksheet& info = *wb.sheet(1);
    Worksheet& data = *wb.addSheet("My data");
    info.setCell(1, 1, "Data Type");
    info.setCell(1, 2, "Overlay");
    info.setCell(2, 1, "Date");
    info.setCell(2, 2, Value::date(45292.0));
    info.setNumberFormat(2, 2, "d-mmm-yy");
    info.setBold(Area{1, 1, 1, 2});
    info.setAlignment(Area{1, 1, 2, 1}, HAlign::Left);
    info.addHyperlink(3, 1, "#'My data'!A1");
    info.setCell(3, 1, "'My data'!A1");
    data.setCell(1, 2, "Wafer");
    data.setCell(1, 6, "X_reg");
    for (int r = 2; r <= 9; ++r) {
        data.setCell(r, 2, "W1");
        data.setCell(r, 6, r * 0.125 - 0.0001);
    }
    data.setNumberFormat(Area{2, 6, 9, 6}, "0.0000");
    data.setComment(1, 1, "DATASHEET", false);
    data.setComment(2, 1, "visible note", true);
    wb.addName("X_reg", "='My data'!$F$2:$F$9");
    wb.setProperty("Author", "Zorv Wavefront Engineering ver: 5.1.0");
    wb.setProperty("Last author", "Zorv Wavefront Engineering ver: 5.1.0");
    wb.setProperty("Company", "Zorv");
    wb.setProperty("Subject", "Zorv Wavefront Analysis Data");
}

const char* kReadScript = R"PY(
import sys, json, datetime, zipfile, xml.etree.ElementTree as ET
import openpyxl
path = sys.argv[1]
wb = openpyxl.load_workbook(path)
print("sheets=" + json.dumps(wb.sheetnames))
for ws in wb.worksheets:
    for row in ws.iter_rows():
        for c in row:
            v = c.value
            if v is None:
                continue
            if isinstance(v, datetime.datetime):
                v = "date:" + v.isoformat()
            elif isinstance(v, float):
                v = "num:" + repr(v)
            elif isinstance(v, bool):
                v = "bool:" + str(v)
            elif isinstance(v, int):
                v = "num:" + repr(float(v))
            print("cell %s!%s=%s" % (ws.title, c.coordinate, v if isinstance(v, str) and v[:4] in ("date", "num:", "bool") else json.dumps(v)))
            print("fmt %s!%s=%s" % (ws.title, c.coordinate, c.number_format))
            if c.font is not None and c.font.b:
                print("bold %s!%s=1" % (ws.title, c.coordinate))
            if c.alignment is not None and c.alignment.horizontal:
                print("align %s!%s=%s" % (ws.title, c.coordinate, c.alignment.horizontal))
            if c.hyperlink is not None:
                print("link %s!%s=%s" % (ws.title, c.coordinate, c.hyperlink.location))
        for row in ws.iter_rows():
            for c in row:
                if c.comment is not None:
                    print("comment %s!%s=%s" % (ws.title, c.coordinate, json.dumps(c.comment.text)))
names = getattr(wb.defined_names, "definedName", None)
items = [(n.name, n.attr_text) for n in names] if names is not None else [(k, v.attr_text) for k, v in wb.defined_names.items()]
for k, v in items:
    print("name %s=%s" % (k, v))
p = wb.properties
print("creator=" + str(p.creator))
print("lastModifiedBy=" + str(p.lastModifiedBy))
print("subject=" + str(p.subject))
app = ET.fromstring(zipfile.ZipFile(path).read("docProps/app.xml"))
for e in app:
    if e.tag.endswith("Company"):
        print("company=" + (e.text or ""))
)PY";

}  // namespace

TEST(XlsxCompat, OpenpyxlReadsOurFiles) {
    if (!HaveOpenpyxl()) GTEST_SKIP() << "python3-openpyxl is not installed";
    std::string path = Tmp("ours.xlsx");
    fs::remove(path);
    auto wb = Workbook::create(path, "Information");
    FillOurs(*wb);
    wb->sheet("My data")->setCell(10, 2, "two\r\nlines & <tags>");
    wb->sheet("My data")->setCell(11, 2, Value(true));
    wb->sheet("My data")->setCell(12, 6, 0.1 + 0.2);
    ASSERT_TRUE(wb->save());

    auto kv = RunPython(kReadScript, path);
    EXPECT_EQ(kv["sheets"], "[\"Information\", \"My data\"]");
    EXPECT_EQ(kv["cell Information!B1"], "\"Overlay\"");
    EXPECT_EQ(kv["cell Information!B2"], "date:2024-01-01T00:00:00");
    EXPECT_EQ(kv["fmt Information!B2"], "d-mmm-yy");
    EXPECT_EQ(kv["bold Information!A1"], "1");
    EXPECT_EQ(kv["align Information!A2"], "left");
    EXPECT_EQ(kv["link Information!A3"], "'My data'!A1");
    EXPECT_EQ(kv["cell My data!B2"], "\"W1\"");
    EXPECT_EQ(kv["cell My data!B10"], "\"two\\r\\nlines & <tags>\"");
    EXPECT_EQ(kv["cell My data!B11"], "bool:True");
    EXPECT_EQ(kv["fmt My data!F3"], "0.0000");
    for (int r = 2; r <= 9; ++r) {
        std::string v = kv["cell My data!F" + std::to_string(r)];
        ASSERT_EQ(v.substr(0, 4), "num:") << r;
        EXPECT_EQ(std::strtod(v.c_str() + 4, nullptr), r * 0.125 - 0.0001) << "exact double, row " << r;
    }
    EXPECT_EQ(std::strtod(kv["cell My data!F12"].c_str() + 4, nullptr), 0.1 + 0.2);
    EXPECT_EQ(kv["comment My data!A1"], "\"DATASHEET\"");
    EXPECT_EQ(kv["comment My data!A2"], "\"visible note\"");
    EXPECT_EQ(kv["name X_reg"], "'My data'!$F$2:$F$9");
    EXPECT_EQ(kv["creator"], "Zorv Wavefront Engineering ver: 5.1.0");
    EXPECT_EQ(kv["lastModifiedBy"], "Zorv Wavefront Engineering ver: 5.1.0");
    EXPECT_EQ(kv["subject"], "Zorv Wavefront Analysis Data");
    EXPECT_EQ(kv["company"], "Zorv");

    // After a partial save (one sheet copied, one written) openpyxl still agrees.
    auto r = Workbook::open(path, Workbook::Load::Lazy);
    ASSERT_TRUE(r);
    (*r)->addSheet("Result")->setRange(1, 1, Datam::fromRows({{"Mean", 1.5}, {"new text", 2.5}}, 1, 1));
    (*r)->sheet("Result")->setNumberFormat(Area{1, 2, 2, 2}, "0.000E+00");
    ASSERT_TRUE((*r)->save());
    kv = RunPython(kReadScript, path);
    EXPECT_EQ(kv["sheets"], "[\"Information\", \"My data\", \"Result\"]");
    EXPECT_EQ(kv["cell My data!B2"], "\"W1\"");
    EXPECT_EQ(kv["cell Result!A2"], "\"new text\"");
    EXPECT_EQ(kv["fmt Result!B2"], "0.000E+00");
    EXPECT_EQ(kv["fmt My data!F3"], "0.0000");
    EXPECT_EQ(kv["comment My data!A1"], "\"DATASHEET\"");
}

TEST(XlsxCompat, WeReadOpenpyxlFiles) {
    if (!HaveOpenpyxl()) GTEST_SKIP() << "python3-openpyxl is not installed";
    std::string path = Tmp("theirs.xlsx");
    fs::remove(path);
    const char* script = R"PY(
import sys, datetime, zipfile, shutil
import openpyxl
from openpyxl.comments import Comment
from openpyxl.workbook.defined_name import DefinedName
path = sys.argv[1]
wb = openpyxl.Workbook()
ws = wb.active
ws.title = "Sites"
ws.append(["Sites", "X_DIE_SIZE", "Y_DIE_SIZE", "TEST", "X_LOC", "Y_LOC"])
for i in range(1, 6):
    ws.append(["s%d" % i, 20.5, 30.25, i, i * 1.1, -i * 2.2])
ws["A1"].comment = Comment("DATASHEET", "someone")
ws["H2"] = datetime.datetime(2024, 3, 1, 12, 30, 0)
ws["H3"] = datetime.date(2023, 12, 31)
ws["H4"] = True
ws["H5"] = "=SUM(B2:B3)"
ws["H6"] = 0.1
ws["H6"].number_format = "0.00%"
ws2 = wb.create_sheet("Inline")
ws2["A1"] = "placeholder"
try:
    wb.defined_names["Sizes"] = DefinedName("Sizes", attr_text="Sites!$B$2:$C$6")
except (TypeError, AttributeError):
    wb.defined_names.append(DefinedName("Sizes", attr_text="Sites!$B$2:$C$6"))
wb.properties.creator = "Engineer"
wb.properties.lastModifiedBy = "Other"
wb.properties.subject = "Subject line"
tmp = path + ".tmp"
wb.save(tmp)
# The second sheet is replaced by one with inline strings and a namespace prefix.
inline = ('<?xml version="1.0" encoding="UTF-8"?>\n<x:worksheet xmlns:x="http://schemas.openxmlformats.org/spreadsheetml/2006/main">'
          '<x:sheetData><x:row r="1"><x:c r="A1" t="inlineStr"><x:is><x:t>inline text</x:t></x:is></x:c>'
          '<x:c r="B1"><x:v>3.5</x:v></x:c></x:row><x:row r="2"><x:c r="A2" t="inlineStr"><x:is><x:r><x:t>rich </x:t></x:r>'
          '<x:r><x:t>runs</x:t></x:r></x:is></x:c></x:row></x:sheetData></x:worksheet>')
zin = zipfile.ZipFile(tmp)
zout = zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED)
for item in zin.infolist():
    data = zin.read(item.filename)
    if item.filename == "xl/worksheets/sheet2.xml":
        data = inline.encode()
    zout.writestr(item, data)
zout.close()
print("ok=1")
)PY";
    auto kv = RunPython(script, path);
    ASSERT_EQ(kv["ok"], "1");
    auto r = Workbook::open(path);
    ASSERT_TRUE(r) << r.failure().message();
    Workbook& wb = **r;
    EXPECT_EQ(wb.sheetNames(), (std::vector<std::string>{"Sites", "Inline"}));
    Worksheet& s = *wb.sheet("Sites");
    EXPECT_EQ(s.cell(1, 5).str(), "X_LOC");
    EXPECT_EQ(s.cell(6, 1).str(), "s5");
    EXPECT_DOUBLE_EQ(s.cell(4, 5).toDouble(), 3 * 1.1);
    EXPECT_EQ(s.cell(3, 6).toDouble(), -2 * 2.2);
    EXPECT_EQ(s.cell(2, 8).type(), VType::Date);
    EXPECT_DOUBLE_EQ(s.cell(2, 8).toDouble(), 45352.0 + 12.5 / 24);
    EXPECT_EQ(s.cell(3, 8).type(), VType::Date);
    EXPECT_DOUBLE_EQ(s.cell(3, 8).toDouble(), 45291.0);
    EXPECT_TRUE(s.cell(4, 8).isBool());
    EXPECT_EQ(s.cell(6, 8).type(), VType::Double) << "a percentage is no date";
    EXPECT_EQ(s.numberFormat(6, 8), "0.00%");
    ASSERT_NE(s.comment(1, 1), nullptr);
    EXPECT_EQ(s.comment(1, 1)->text, "DATASHEET");
    EXPECT_EQ(*wb.nameRef("sizes"), "=Sites!$B$2:$C$6");
    EXPECT_EQ(wb.property("Author"), "Engineer");
    EXPECT_EQ(wb.property("Last author"), "Other");
    EXPECT_EQ(wb.property("Subject"), "Subject line");
    Worksheet& in = *wb.sheet("Inline");
    EXPECT_EQ(in.cell(1, 1).str(), "inline text");
    EXPECT_DOUBLE_EQ(in.cell(1, 2).toDouble(), 3.5);
    EXPECT_EQ(in.cell(2, 1).str(), "rich runs");
    Datam u = s.usedRange();
    EXPECT_EQ(u.rowUb(), 6);
    EXPECT_EQ(u.colUb(), 8);

    // Writing into their workbook keeps their parts (styles extended in place).
    s.setNumberFormat(Area{2, 2, 6, 3}, "##0.000");
    s.setBold(Area{1, 1, 1, 6});
    ASSERT_TRUE(wb.save());
    auto again = Workbook::open(path);
    ASSERT_TRUE(again) << again.failure().message();
    Worksheet& s2 = *(*again)->sheet("Sites");
    EXPECT_EQ(s2.numberFormat(3, 3), "##0.000");
    EXPECT_EQ(s2.numberFormat(6, 8), "0.00%");
    EXPECT_TRUE(s2.bold(1, 4));
    EXPECT_EQ(s2.cell(2, 8).type(), VType::Date);
    EXPECT_EQ((*again)->sheet("Inline")->cell(2, 1).str(), "rich runs");
    kv = RunPython(kReadScript, path);
    EXPECT_EQ(kv["fmt Sites!C3"], "##0.000");
    EXPECT_EQ(kv["bold Sites!D1"], "1");
    EXPECT_EQ(kv["cell Sites!H2"], "date:2024-03-01T12:30:00");
}

namespace {

// libxlsxwriter, loaded at run time (the test program does not link it).
struct Lxw {
    void* h = nullptr;
#define LXW_FN(name) decltype(&::name) name = nullptr
    LXW_FN(workbook_new);
    LXW_FN(workbook_add_worksheet);
    LXW_FN(workbook_add_format);
    LXW_FN(workbook_define_name);
    LXW_FN(workbook_set_properties);
    LXW_FN(workbook_close);
    LXW_FN(worksheet_write_number);
    LXW_FN(worksheet_write_string);
    LXW_FN(worksheet_write_datetime);
    LXW_FN(worksheet_write_url);
    LXW_FN(worksheet_write_comment_opt);
    LXW_FN(worksheet_activate);
    LXW_FN(format_set_num_format);
    LXW_FN(format_set_bold);
    LXW_FN(format_set_align);
#undef LXW_FN
    bool load() {
        h = dlopen("libxlsxwriter.so.4", RTLD_NOW);
        if (!h) h = dlopen("libxlsxwriter.so", RTLD_NOW);
        if (!h) return false;
#define LXW_GET(name) name = reinterpret_cast<decltype(name)>(dlsym(h, #name)); if (!name) return false
        LXW_GET(workbook_new);
        LXW_GET(workbook_add_worksheet);
        LXW_GET(workbook_add_format);
        LXW_GET(workbook_define_name);
        LXW_GET(workbook_set_properties);
        LXW_GET(workbook_close);
        LXW_GET(worksheet_write_number);
        LXW_GET(worksheet_write_string);
        LXW_GET(worksheet_write_datetime);
        LXW_GET(worksheet_write_url);
        LXW_GET(worksheet_write_comment_opt);
        LXW_GET(worksheet_activate);
        LXW_GET(format_set_num_format);
        LXW_GET(format_set_bold);
        LXW_GET(format_set_align);
#undef LXW_GET
        return true;
    }
};

void WriteTheirs(Lxw& x, const std::string& path) {
    lxw_workbook* wb = x.workbook_new(path.c_str());
    lxw_worksheet* info = x.workbook_add_worksheet(wb, "Information");
    lxw_worksheet* data = x.workbook_add_worksheet(wb, "My data");
    lxw_format* bold = x.workbook_add_format(wb);
    x.format_set_bold(bold);
    x.format_set_align(bold, LXW_ALIGN_LEFT);
    lxw_format* date = x.workbook_add_format(wb);
    x.format_set_num_format(date, "d-mmm-yy");
    lxw_format* num = x.workbook_add_format(wb);
    x.format_set_num_format(num, "0.0000");
    x.worksheet_write_string(info, 0, 0, "Data Type", bold);
    x.worksheet_write_string(info, 0, 1, "Overlay", bold);
    x.worksheet_write_string(info, 1, 0, "Date", nullptr);
    lxw_datetime dt = {2024, 1, 1, 0, 0, 0};
    x.worksheet_write_datetime(info, 1, 1, &dt, date);
    x.worksheet_write_url(info, 2, 0, "internal:'My data'!A1", nullptr);
    x.worksheet_write_string(data, 0, 1, "Wafer", nullptr);
    x.worksheet_write_string(data, 0, 5, "X_reg", nullptr);
    for (int r = 1; r <= 8; ++r) {
        x.worksheet_write_string(data, static_cast<lxw_row_t>(r), 1, "W1", nullptr);
        x.worksheet_write_number(data, static_cast<lxw_row_t>(r), 5, (r + 1) * 0.125 - 0.0001, num);
    }
    lxw_comment_options hidden = {};
    lxw_comment_options shown = {};
    shown.visible = LXW_COMMENT_DISPLAY_VISIBLE;
    x.worksheet_write_comment_opt(data, 0, 0, "DATASHEET", &hidden);
    x.worksheet_write_comment_opt(data, 1, 0, "visible note", &shown);
    x.worksheet_activate(data);
    x.workbook_define_name(wb, "X_reg", "='My data'!$F$2:$F$9");
    lxw_doc_properties props = {};
    props.author = const_cast<char*>("Zorv Wavefront Engineering ver: 5.1.0");
    props.company = const_cast<char*>("Zorv");
    props.subject = const_cast<char*>("Zorv Wavefront Analysis Data");
    x.workbook_set_properties(wb, &props);
    ASSERT_EQ(x.workbook_close(wb), LXW_NO_ERROR);
}

// Content type of a part from a [Content_Types].xml text.
std::string TypeOf(const std::string& ct, const std::string& part) {
    for (auto& o : AttrsOf(ct, "Override"))
        if (o["PartName"] == "/" + part) return o["ContentType"];
    std::string ext = part.substr(part.rfind('.') + 1);
    for (auto& d : AttrsOf(ct, "Default"))
        if (d["Extension"] == ext) return d["ContentType"];
    return "";
}

std::set<std::string> RelTypes(const std::string& rels) {
    std::set<std::string> out;
    for (auto& r : AttrsOf(rels, "Relationship")) out.insert(r["Type"]);
    return out;
}

// The part a relationship of this type points at, from a rels text.
std::string TargetOf(const std::string& rels, const std::string& typeEnd, const std::string& dir) {
    for (auto& r : AttrsOf(rels, "Relationship")) {
        const std::string& t = r["Type"];
        if (t.size() >= typeEnd.size() && t.compare(t.size() - typeEnd.size(), typeEnd.size(), typeEnd) == 0) {
            std::string tg = r["Target"];
            if (!tg.empty() && tg[0] == '/') return tg.substr(1);
            std::string base = dir;
            while (tg.rfind("../", 0) == 0) {
                tg = tg.substr(3);
                base = base.substr(0, base.rfind('/', base.size() - 2) + 1);
            }
            return base + tg;
        }
    }
    return "";
}

}  // namespace

TEST(XlsxCompat, PackageAgreesWithLibxlsxwriter) {
    Lxw x;
    if (!x.load()) GTEST_SKIP() << "libxlsxwriter is not installed";
    std::string theirsPath = Tmp("lxw.xlsx"), oursPath = Tmp("ours_same.xlsx");
    fs::remove(theirsPath);
    fs::remove(oursPath);
    WriteTheirs(x, theirsPath);
    {
        auto wb = Workbook::create(oursPath, "Information");
        FillOurs(*wb);
        wb->activate(wb->sheet("My data"));
        ASSERT_TRUE(wb->save());
    }
    auto theirs = ZipParts(theirsPath);
    auto ours = ZipParts(oursPath);
    const std::string& ctT = theirs["[Content_Types].xml"];
    const std::string& ctO = ours["[Content_Types].xml"];
    ASSERT_FALSE(ctO.empty());

    // Every part has a content type, and the same one as theirs for its role.
    for (auto& [name, text] : ours) {
        if (name == "[Content_Types].xml") continue;
        EXPECT_FALSE(TypeOf(ctO, name).empty()) << name << " has no content type";
        EXPECT_NO_FATAL_FAILURE(ElementsOf(text)) << name;
    }
    // Roles found through the relationships, as a consumer finds them.
    auto role = [](std::map<std::string, std::string>& parts, const std::string& typeEnd, const std::string& rels,
                   const std::string& dir) { return TargetOf(parts[rels], typeEnd, dir); };
    for (auto [typeEnd, rels, dir] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {"/officeDocument", "_rels/.rels", ""},
             {"/core-properties", "_rels/.rels", ""},
             {"/extended-properties", "_rels/.rels", ""},
             {"/styles", "xl/_rels/workbook.xml.rels", "xl/"},
             {"/sharedStrings", "xl/_rels/workbook.xml.rels", "xl/"}}) {
        std::string o = role(ours, typeEnd, rels, dir), t = role(theirs, typeEnd, rels, dir);
        ASSERT_FALSE(o.empty()) << typeEnd;
        ASSERT_FALSE(t.empty()) << typeEnd;
        EXPECT_TRUE(ours.count(o)) << o;
        EXPECT_EQ(TypeOf(ctO, o), TypeOf(ctT, t)) << typeEnd;
        // The same root element and the same children, in an order theirs allows.
        auto eo = ElementsOf(ours[o]), et = ElementsOf(theirs[t]);
        EXPECT_EQ(eo.at(0).second, et.at(0).second) << o;
    }

    // Relationship types of the package, the workbook and the data sheet
    EXPECT_EQ(RelTypes(ours["_rels/.rels"]), RelTypes(theirs["_rels/.rels"]));
    auto wbO = RelTypes(ours["xl/_rels/workbook.xml.rels"]), wbT = RelTypes(theirs["xl/_rels/workbook.xml.rels"]);
    for (auto& t : wbO) EXPECT_TRUE(wbT.count(t)) << t;
    std::string sheetO = TargetOf(ours["xl/_rels/workbook.xml.rels"], "/worksheet", "xl/");
    // the second sheet is the data sheet in both
    auto sheetsO = AttrsOf(ours["xl/workbook.xml"], "sheet"), sheetsT = AttrsOf(theirs["xl/workbook.xml"], "sheet");
    ASSERT_EQ(sheetsO.size(), 2u);
    ASSERT_EQ(sheetsT.size(), 2u);
    auto partOf = [&](std::map<std::string, std::string>& parts, const std::string& rid) {
        for (auto& r : AttrsOf(parts["xl/_rels/workbook.xml.rels"], "Relationship"))
            if (r["Id"] == rid) return "xl/" + r["Target"];
        return std::string();
    };
    std::string dataO = partOf(ours, sheetsO[1]["r:id"]), dataT = partOf(theirs, sheetsT[1]["r:id"]);
    std::string infoO = partOf(ours, sheetsO[0]["r:id"]), infoT = partOf(theirs, sheetsT[0]["r:id"]);
    ASSERT_TRUE(ours.count(dataO)) << dataO;
    ASSERT_TRUE(theirs.count(dataT)) << dataT;
    EXPECT_EQ(TypeOf(ctO, dataO), TypeOf(ctT, dataT));
    auto relsOf = [](const std::string& part) {
        size_t s = part.rfind('/');
        return part.substr(0, s + 1) + "_rels/" + part.substr(s + 1) + ".rels";
    };
    EXPECT_EQ(RelTypes(ours[relsOf(dataO)]), RelTypes(theirs[relsOf(dataT)]));
    EXPECT_EQ(ours.count(relsOf(infoO)), theirs.count(relsOf(infoT))) << "internal links need no relationship";

    // Worksheet children come in the schema order that theirs follows.
    auto order = [](const std::vector<std::string>& seq, const std::vector<std::string>& ref) {
        std::vector<size_t> pos;
        for (auto& e : seq) {
            auto it = std::find(ref.begin(), ref.end(), e);
            if (it != ref.end()) pos.push_back(static_cast<size_t>(it - ref.begin()));
        }
        return std::is_sorted(pos.begin(), pos.end());
    };
    for (auto [o, t] : {std::pair{dataO, dataT}, std::pair{infoO, infoT}}) {
        auto co = ChildrenOfRoot(ours[o]), ct = ChildrenOfRoot(theirs[t]);
        EXPECT_TRUE(order(co, ct)) << o;
        for (auto& e : ct) {
            if (e == "hyperlinks" || e == "legacyDrawing" || e == "sheetData" || e == "dimension") {
                EXPECT_NE(std::find(co.begin(), co.end(), e), co.end()) << o << " lacks " << e;
            }
        }
        for (auto& e : co) EXPECT_NE(std::find(ct.begin(), ct.end(), e), ct.end()) << o << ": " << e;
    }
    auto linkO = AttrsOf(ours[infoO], "hyperlink"), linkT = AttrsOf(theirs[infoT], "hyperlink");
    ASSERT_EQ(linkO.size(), 1u);
    ASSERT_EQ(linkT.size(), 1u);
    EXPECT_EQ(linkO[0]["ref"], linkT[0]["ref"]);
    EXPECT_EQ(linkO[0]["location"], linkT[0]["location"]);

    // Comments and their VML drawing
    std::string comO = TargetOf(ours[relsOf(dataO)], "/comments", "xl/worksheets/");
    std::string comT = TargetOf(theirs[relsOf(dataT)], "/comments", "xl/worksheets/");
    std::string vmlO = TargetOf(ours[relsOf(dataO)], "/vmlDrawing", "xl/worksheets/");
    std::string vmlT = TargetOf(theirs[relsOf(dataT)], "/vmlDrawing", "xl/worksheets/");
    ASSERT_TRUE(ours.count(comO)) << comO;
    ASSERT_TRUE(ours.count(vmlO)) << vmlO;
    EXPECT_EQ(TypeOf(ctO, comO), TypeOf(ctT, comT));
    EXPECT_EQ(TypeOf(ctO, vmlO), TypeOf(ctT, vmlT));
    auto refs = [](const std::string& xml) {
        std::vector<std::string> r;
        for (auto& c : AttrsOf(xml, "comment")) r.push_back(c["ref"]);
        return r;
    };
    EXPECT_EQ(refs(ours[comO]), refs(theirs[comT]));
    EXPECT_EQ(ChildrenOfRoot(ours[comO]), ChildrenOfRoot(theirs[comT]));
    auto vmlShape = [](const std::string& vml) {
        std::vector<std::string> s;
        for (auto& [d, n] : ElementsOf(vml))
            if (d >= 2) s.push_back(n);
        return s;
    };
    EXPECT_EQ(vmlShape(ours[vmlO]), vmlShape(theirs[vmlT])) << "the same VML shapes and client data";
    auto legacyO = AttrsOf(ours[dataO], "legacyDrawing");
    ASSERT_EQ(legacyO.size(), 1u);
    bool found = false;
    for (auto& r : AttrsOf(ours[relsOf(dataO)], "Relationship"))
        found |= r["Id"] == legacyO[0]["r:id"] && r["Type"].ends_with("/vmlDrawing");
    EXPECT_TRUE(found) << "legacyDrawing points at the VML drawing";

    // Workbook: names and sheets
    auto namesO = ElementsOf(ours["xl/workbook.xml"]);
    auto dn = AttrsOf(ours["xl/workbook.xml"], "definedName");
    ASSERT_EQ(dn.size(), 1u);
    EXPECT_NE(ours["xl/workbook.xml"].find(">'My data'!$F$2:$F$9</definedName>"), std::string::npos);
    EXPECT_NE(theirs["xl/workbook.xml"].find(">'My data'!$F$2:$F$9</definedName>"), std::string::npos);
    EXPECT_TRUE(order(ChildrenOfRoot(ours["xl/workbook.xml"]), ChildrenOfRoot(theirs["xl/workbook.xml"])));
    // Styles: the sections theirs has, in the same order
    EXPECT_TRUE(order(ChildrenOfRoot(ours["xl/styles.xml"]), ChildrenOfRoot(theirs["xl/styles.xml"])));
    // Both read back the same through our reader.
    auto a = Workbook::open(oursPath), b = Workbook::open(theirsPath);
    ASSERT_TRUE(a);
    ASSERT_TRUE(b) << b.failure().message();
    for (const char* s : {"Information", "My data"}) {
        Datam da = (*a)->sheet(s)->usedRange(), db = (*b)->sheet(s)->usedRange();
        ASSERT_EQ(da.rowCount(), db.rowCount()) << s;
        ASSERT_EQ(da.colCount(), db.colCount()) << s;
        for (int r = 1; r <= da.rowUb(); ++r)
            for (int c = 1; c <= da.colUb(); ++c) EXPECT_TRUE(da(r, c).identical(db(r, c))) << s << " " << r << "," << c;
    }
    EXPECT_TRUE((*b)->sheet("My data")->comment(2, 1)->visible);
    EXPECT_FALSE((*b)->sheet("My data")->comment(1, 1)->visible);
    EXPECT_EQ((*b)->property("Company"), "Zorv");
    EXPECT_EQ((*b)->sheet("My data")->numberFormat(3, 6), "0.0000");
    EXPECT_TRUE((*b)->sheet("Information")->bold(1, 2));
}
