// Reading .xlsx packages: expat for the small parts, and for the cells of
// the sheets a pull scanner of our own that walks the inflated XML in large
// pieces while a second thread inflates the next ones.
#include <expat.h>

#include <algorithm>
#include <charconv>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "xlsx_internal.h"

namespace zorv {

using namespace xlsx;

namespace {

Failure ReadFail(std::string text) {
    Failure f;
    f.tag = "Workbook(Open): ";
    f.text = std::move(text);
    return f;
}

std::string_view LocalName(std::string_view n) {
    size_t c = n.rfind(':');
    return c == std::string_view::npos ? n : n.substr(c + 1);
}

// ------------------------------------------------------------ expat parts

struct XmlHandler {
    std::function<void(std::string_view name, const char** attrs)> start;
    std::function<void(std::string_view name)> end;
    std::function<void(const char* s, int len)> text;
};

struct ExpatCtx {
    XmlHandler* h;
};

void XMLCALL OnStart(void* ud, const XML_Char* name, const XML_Char** attrs) {
    auto* h = static_cast<ExpatCtx*>(ud)->h;
    if (h->start) h->start(LocalName(name), attrs);
}
void XMLCALL OnEnd(void* ud, const XML_Char* name) {
    auto* h = static_cast<ExpatCtx*>(ud)->h;
    if (h->end) h->end(LocalName(name));
}
void XMLCALL OnText(void* ud, const XML_Char* s, int len) {
    auto* h = static_cast<ExpatCtx*>(ud)->h;
    if (h->text) h->text(s, len);
}

// Parses a part of the archive; a part that is missing is an error when
// required, otherwise nothing happens.
Status ParsePart(const ZipReader& zip, const std::string& part, XmlHandler& h, bool required,
                 uint64_t maxBytes = 256ull << 20) {
    if (zip.find(part) < 0) {
        if (required) return ReadFail(zip.displayName() + ": the part '" + part + "' is missing; not an .xlsx workbook.");
        return StatusOk();
    }
    auto s = zip.openStream(part, maxBytes);
    if (!s) return ReadFail(s.failure().text);
    XML_Parser p = XML_ParserCreate(nullptr);
    if (!p) return ReadFail("out of memory");
    ExpatCtx ctx{&h};
    XML_SetUserData(p, &ctx);
    XML_SetElementHandler(p, OnStart, OnEnd);
    XML_SetCharacterDataHandler(p, OnText);
    std::vector<char> buf(1 << 16);
    Status result = StatusOk();
    for (;;) {
        int64_t n = (*s)->read(buf.data(), buf.size());
        if (n < 0) {
            result = ReadFail((*s)->error());
            break;
        }
        if (XML_Parse(p, buf.data(), static_cast<int>(n), n == 0) == XML_STATUS_ERROR) {
            result = ReadFail(zip.displayName() + ": malformed XML in part '" + part + "' at line " +
                              std::to_string(XML_GetCurrentLineNumber(p)) + ": " +
                              XML_ErrorString(XML_GetErrorCode(p)) + ".");
            break;
        }
        if (n == 0) break;
    }
    XML_ParserFree(p);
    return result;
}

const char* Attr(const char** a, std::string_view name) {
    for (; a && a[0]; a += 2)
        if (LocalName(a[0]) == name && (std::string_view(a[0]) == name || name == "id")) return a[1];
    return nullptr;
}
std::string AttrS(const char** a, std::string_view name) {
    const char* v = Attr(a, name);
    return v ? v : "";
}
int AttrI(const char** a, std::string_view name, int def = 0) {
    const char* v = Attr(a, name);
    if (!v) return def;
    int x = def;
    auto r = std::from_chars(v, v + std::strlen(v), x);
    return r.ec == std::errc() ? x : def;
}
bool AttrB(const char** a, std::string_view name) {
    const char* v = Attr(a, name);
    return v && (std::strcmp(v, "1") == 0 || std::strcmp(v, "true") == 0);
}

Status ReadRels(const ZipReader& zip, const std::string& sourcePart, std::vector<Rel>& out) {
    out.clear();
    XmlHandler h;
    h.start = [&](std::string_view n, const char** a) {
        if (n != "Relationship") return;
        Rel r;
        r.id = AttrS(a, "Id");
        r.type = AttrS(a, "Type");
        r.external = AttrS(a, "TargetMode") == "External";
        std::string t = AttrS(a, "Target");
        r.target = r.external ? t : ResolveTarget(sourcePart, t);
        out.push_back(std::move(r));
    };
    return ParsePart(zip, RelsPartOf(sourcePart), h, false);
}

// Text of an <si> or comment <text>: the <t> runs, without phonetic runs.
struct RichText {
    int depthRPh = 0;
    bool inT = false;
    std::string text;
    void start(std::string_view n) {
        if (n == "rPh") ++depthRPh;
        else if (n == "t" && depthRPh == 0) inT = true;
    }
    void end(std::string_view n) {
        if (n == "rPh") --depthRPh;
        else if (n == "t") inT = false;
    }
    void chars(const char* s, int len) {
        if (inT) text.append(s, static_cast<size_t>(len));
    }
};

}  // namespace

// ------------------------------------------------------------- the package

Status WorkbookImpl::readStyles(WorkbookImpl& im, bool resetTable) {
    const ZipReader& zip = *im.zip;
    im.numFmtIds.clear();
    im.maxNumFmtId = 163;
    im.fontCount = 0;
    im.boldFont = -1;
    if (!im.stylesPart.empty()) {
        std::map<int, std::string> fmts;
        std::vector<bool> fontBold;
        std::vector<Style> xfs;
        std::vector<int> xfFmt;
        int section = 0;  // 1 fonts, 2 cellXfs
        XmlHandler h;
        h.start = [&](std::string_view n, const char** a) {
            if (n == "numFmt") {
                int id = AttrI(a, "numFmtId", -1);
                if (id >= 0) fmts[id] = AttrS(a, "formatCode");
                if (id >= 164) im.numFmtIds[AttrS(a, "formatCode")] = id;
                im.maxNumFmtId = std::max(im.maxNumFmtId, id);
            } else if (n == "fonts") {
                section = 1;
            } else if (n == "cellXfs") {
                section = 2;
            } else if (section == 1 && n == "font") {
                fontBold.push_back(false);
            } else if (section == 1 && n == "b" && !fontBold.empty()) {
                const char* v = Attr(a, "val");
                fontBold.back() = !v || (std::strcmp(v, "0") != 0 && std::strcmp(v, "false") != 0);
            } else if (section == 2 && n == "xf") {
                Style s;
                int f = AttrI(a, "numFmtId", 0);
                xfFmt.push_back(f);
                int font = AttrI(a, "fontId", 0);
                s.bold = font >= 0 && static_cast<size_t>(font) < fontBold.size() && fontBold[static_cast<size_t>(font)];
                xfs.push_back(s);
            } else if (section == 2 && n == "alignment" && !xfs.empty()) {
                std::string hz = AttrS(a, "horizontal");
                static const std::pair<const char*, HAlign> map[] = {
                    {"left", HAlign::Left}, {"center", HAlign::Center}, {"right", HAlign::Right},
                    {"fill", HAlign::Fill}, {"justify", HAlign::Justify},
                    {"centerContinuous", HAlign::CenterAcross}, {"distributed", HAlign::Distributed}};
                for (auto& [k, v] : map)
                    if (hz == k) xfs.back().align = v;
            }
        };
        h.end = [&](std::string_view n) {
            if (n == "fonts" || n == "cellXfs") section = 0;
        };
        if (auto st = ParsePart(zip, im.stylesPart, h, false); !st) return st;
        for (size_t i = 0; i < xfs.size(); ++i) {
            int id = xfFmt[i];
            auto it = fmts.find(id);
            if (it != fmts.end()) xfs[i].numFmt = it->second == "General" ? "" : it->second;
            else if (id > 0) {
                std::string_view b = BuiltinFormat(id);
                // locale-dependent built-in dates without a fixed code
                xfs[i].numFmt = !b.empty() ? std::string(b) : IsBuiltinDateId(id) ? "m/d/yyyy" : "";
            }
        }
        im.fontCount = static_cast<int>(fontBold.size());
        for (size_t i = 0; i < fontBold.size(); ++i)
            if (fontBold[i]) { im.boldFont = static_cast<int>(i); break; }
        if (xfs.size() > 65000) xfs.resize(65000);
        if (resetTable) im.styles.reset(std::move(xfs));
    }
    return StatusOk();
}



Status WorkbookImpl::readPackage(Workbook& wb, Workbook::Load load) {
    WorkbookImpl& im = *wb.impl_;
    const ZipReader& zip = *im.zip;
    const std::string& file = zip.displayName();

    // Content types
    {
        XmlHandler h;
        h.start = [&](std::string_view n, const char** a) {
            if (n == "Default") im.ctDefaults[Lower(AttrS(a, "Extension"))] = AttrS(a, "ContentType");
            else if (n == "Override") {
                std::string p = AttrS(a, "PartName");
                if (!p.empty() && p[0] == '/') p.erase(0, 1);
                im.ctOverrides[Lower(p)] = AttrS(a, "ContentType");
            }
        };
        if (zip.find("[Content_Types].xml") < 0)
            return ReadFail(file + " is not an .xlsx workbook (it has no [Content_Types].xml).");
        if (auto st = ParsePart(zip, "[Content_Types].xml", h, true); !st) return st;
    }

    // Package relationships: the workbook and the properties
    std::vector<Rel> rels;
    if (auto st = ReadRels(zip, "", rels); !st) return st;
    bool haveWorkbook = false;
    for (auto& r : rels) {
        if (RelIs(r, "officeDocument") && !r.external) {
            im.workbookPart = r.target;
            haveWorkbook = true;
        } else if (RelIs(r, "core-properties") || r.type.ends_with("/metadata/core-properties")) {
            im.corePart = r.target;
        } else if (RelIs(r, "extended-properties")) {
            im.appPart = r.target;
        } else {
            im.keepRootRels.push_back(r);
        }
    }
    if (!haveWorkbook) {
        if (zip.find("xl/workbook.xml") < 0)
            return ReadFail(file + " is not an .xlsx workbook (no workbook part).");
        im.workbookPart = "xl/workbook.xml";
    }

    // Workbook relationships
    std::vector<Rel> wbRels;
    if (auto st = ReadRels(zip, im.workbookPart, wbRels); !st) return st;
    for (auto& r : wbRels) {
        if (RelIs(r, "styles")) im.stylesPart = r.target;
        else if (RelIs(r, "sharedStrings")) im.sstPart = r.target;
        else if (RelIs(r, "calcChain")) im.sheetParts.push_back(Lower(r.target));
        else if (RelIs(r, "worksheet") || RelIs(r, "chartsheet") || RelIs(r, "dialogsheet") ||
                 RelIs(r, "xlMacrosheet")) {
        } else {
            im.keepWorkbookRels.push_back(r);
        }
    }

    // The workbook: sheets, names, date system, active sheet
    struct SheetEntry {
        std::string name, rid;
        int sheetId;
    };
    std::vector<SheetEntry> entries;
    {
        DefinedName* cur = nullptr;
        std::string text;
        XmlHandler h;
        h.start = [&](std::string_view n, const char** a) {
            if (n == "sheet") {
                entries.push_back(SheetEntry{AttrS(a, "name"), AttrS(a, "id"), AttrI(a, "sheetId")});
            } else if (n == "workbookPr") {
                im.date1904 = AttrB(a, "date1904");
            } else if (n == "workbookView") {
                wb.active_ = AttrI(a, "activeTab", 0);
            } else if (n == "definedName") {
                wb.names_.push_back(DefinedName{AttrS(a, "name"), "", AttrI(a, "localSheetId", -1), AttrB(a, "hidden")});
                cur = &wb.names_.back();
                text.clear();
            }
        };
        h.end = [&](std::string_view n) {
            if (n == "definedName" && cur) {
                cur->refersTo = "=" + text;
                cur = nullptr;
            }
        };
        h.text = [&](const char* s, int len) {
            if (cur) text.append(s, static_cast<size_t>(len));
        };
        if (auto st = ParsePart(zip, im.workbookPart, h, true); !st) return st;
    }

    if (auto st = readStyles(im, true); !st) return st;

    // Shared strings
    if (!im.sstPart.empty()) {
        RichText rt;
        bool inSi = false;
        XmlHandler h;
        h.start = [&](std::string_view n, const char**) {
            if (n == "si") {
                inSi = true;
                rt = RichText{};
            } else if (inSi) {
                rt.start(n);
            }
        };
        h.end = [&](std::string_view n) {
            if (n == "si") {
                inSi = false;
                im.sst.emplace_back(rt.text.find("_x") != std::string::npos ? Unescape(rt.text, false) : rt.text);
            } else if (inSi) {
                rt.end(n);
            }
        };
        h.text = [&](const char* s, int len) {
            if (inSi) rt.chars(s, len);
        };
        if (auto st = ParsePart(zip, im.sstPart, h, false, 2ull << 30); !st) return st;
    }

    // Document properties
    if (!im.corePart.empty()) {
        std::string text;
        XmlHandler h;
        h.start = [&](std::string_view, const char**) { text.clear(); };
        h.end = [&](std::string_view n) {
            static const std::pair<const char*, const char*> keys[] = {
                {"creator", "Author"}, {"lastModifiedBy", "Last author"}, {"subject", "Subject"},
                {"title", "Title"}, {"description", "Comments"}, {"keywords", "Keywords"},
                {"category", "Category"}, {"created", "Creation date"}, {"modified", "Last save time"}};
            for (auto& [k, v] : keys)
                if (n == k) wb.props_[v] = text;
        };
        h.text = [&](const char* s, int len) { text.append(s, static_cast<size_t>(len)); };
        if (auto st = ParsePart(zip, im.corePart, h, false); !st) return st;
    }
    if (!im.appPart.empty()) {
        std::string text;
        XmlHandler h;
        h.start = [&](std::string_view, const char**) { text.clear(); };
        h.end = [&](std::string_view n) {
            if (n == "Company") wb.props_["Company"] = text;
            else if (n == "Manager") wb.props_["Manager"] = text;
        };
        h.text = [&](const char* s, int len) { text.append(s, static_cast<size_t>(len)); };
        if (auto st = ParsePart(zip, im.appPart, h, false); !st) return st;
    }

    // Sheets, in workbook order; chart and macro sheets are not modelled.
    for (auto& e : entries) {
        auto rel = std::find_if(wbRels.begin(), wbRels.end(), [&](const Rel& r) { return r.id == e.rid; });
        if (rel == wbRels.end() || !RelIs(*rel, "worksheet") || rel->external) continue;
        if (!Workbook::validSheetName(e.name) || wb.sheet(e.name)) {
            return ReadFail(file + ": the workbook part lists an invalid or repeated sheet name '" + e.name + "'.");
        }
        if (zip.find(rel->target) < 0)
            return ReadFail(file + ": the part '" + rel->target + "' of sheet '" + e.name + "' is missing.");
        Worksheet* ws = newSheet(wb, e.name, -1);
        ws->src_ = std::make_unique<SheetSource>();
        ws->src_->part = rel->target;
        ws->src_->rels = RelsPartOf(rel->target);
        ws->src_->sheetId = e.sheetId;
        std::vector<Rel> srels;
        if (auto st = ReadRels(zip, rel->target, srels); !st) return st;
        for (auto& r : srels) {
            if (r.external) continue;
            if (RelIs(r, "comments")) ws->src_->comments = r.target;
            else if (RelIs(r, "vmlDrawing")) ws->src_->vml = r.target;
        }
        for (const std::string* p : {&ws->src_->part, &ws->src_->rels, &ws->src_->comments, &ws->src_->vml})
            if (!p->empty()) im.sheetParts.push_back(Lower(*p));
        ws->loaded_ = false;
        ws->dirty_ = false;
    }
    if (wb.sheets_.empty()) return ReadFail(file + " holds no worksheet.");
    wb.active_ = std::clamp(wb.active_, 0, wb.sheetCount() - 1);
    for (auto& n : wb.names_)
        if (n.localSheet >= wb.sheetCount()) n.localSheet = -1;

    if (load == Workbook::Load::Full) {
        for (auto& s : wb.sheets_) {
            if (auto st = s->load(); !st) return ReadFail(st.failure().text);
        }
    }
    wb.structDirty_ = false;
    return StatusOk();
}

// ------------------------------------------------------- the cell scanner

namespace {

// Inflates a part on a second thread, handing over pieces of 1 MB; larger
// ones only added to the peak and to the pages the kernel had to clear.
class Inflater {
public:
    Inflater(std::unique_ptr<ZipReader::Stream> s, bool threaded) : s_(std::move(s)), threaded_(threaded) {
        if (threaded_) th_ = std::thread([this] { run(); });
    }
    ~Inflater() {
        if (threaded_) {
            {
                std::lock_guard<std::mutex> l(mu_);
                stop_ = true;
            }
            cv_.notify_all();
            th_.join();
        }
    }
    // Next piece; empty at the end. False on failure (error()).
    bool next(std::string& piece) {
        if (!threaded_) return readPiece(piece);
        std::unique_lock<std::mutex> l(mu_);
        cv_.wait(l, [&] { return !q_.empty() || done_; });
        if (q_.empty()) {
            piece.clear();
            return err_.empty();
        }
        piece.swap(q_.front());
        // the used buffer goes back to the inflater: no fresh pages per piece
        if (free_.size() < 3) free_.push_back(std::move(q_.front()));
        q_.pop_front();
        cv_.notify_all();
        return true;
    }
    const std::string& error() const { return err_; }

private:
    static constexpr size_t kPiece = 1 << 20;
    bool readPiece(std::string& out) {
        out.resize(kPiece);
        size_t got = 0;
        while (got < kPiece) {
            int64_t n = s_->read(out.data() + got, kPiece - got);
            if (n < 0) {
                err_ = s_->error();
                out.clear();
                return false;
            }
            if (n == 0) break;
            got += static_cast<size_t>(n);
        }
        out.resize(got);
        return true;
    }
    void run() {
        for (;;) {
            std::string piece;
            {
                std::lock_guard<std::mutex> l(mu_);
                if (!free_.empty()) {
                    piece.swap(free_.back());
                    free_.pop_back();
                }
            }
            bool ok = readPiece(piece);
            std::unique_lock<std::mutex> l(mu_);
            if (!ok || piece.empty() || stop_) {
                done_ = true;
                cv_.notify_all();
                return;
            }
            cv_.wait(l, [&] { return q_.size() < 2 || stop_; });
            if (stop_) {
                done_ = true;
                cv_.notify_all();
                return;
            }
            q_.push_back(std::move(piece));
            cv_.notify_all();
        }
    }

    std::unique_ptr<ZipReader::Stream> s_;
    bool threaded_;
    std::thread th_;
    std::mutex mu_;
    std::condition_variable cv_;
    std::deque<std::string> q_;
    std::vector<std::string> free_;
    bool done_ = false, stop_ = false;
    std::string err_;
};

constexpr size_t kMaxSlots = 32u << 20;  // cells a sparse sheet may allocate beyond its content

struct AttrList {
    struct A {
        std::string_view name, value;
    };
    A a[16];
    int n = 0;
    std::string_view get(std::string_view name) const {
        for (int i = 0; i < n; ++i)
            if (a[i].name == name) return a[i].value;
        return {};
    }
    bool has(std::string_view name) const {
        for (int i = 0; i < n; ++i)
            if (a[i].name == name) return true;
        return false;
    }
};

class SheetScanner {
public:
    SheetScanner(WorkbookImpl& im, Worksheet::Data& d, uint64_t partSize) : im_(im), d_(d), partSize_(partSize) {}
    // Hands each row to f as it completes instead of keeping it in d.
    void streamTo(const Worksheet::RowVisitor& f) { sink_ = &f; }
    void setPartSize(uint64_t n) { partSize_ = n; }
    // The row still being collected goes out (at the end of the part).
    bool flushRow();

    // Walks [p, end); returns how far it got (an incomplete construct at the
    // end waits for more input unless last). Sets error_ on failure.
    size_t feed(const char* begin, const char* end, bool last);
    const std::string& error() const { return error_; }
    bool done() const { return done_; }
    int row() const { return row_; }
    int col() const { return col_; }

private:
    bool tag(const char*& p, const char* end, bool last);
    int fastCell(const char*& p, const char* end);
    void fastValue(const char*& p, const char* end);
    bool startCell(std::string_view r, std::string_view s, std::string_view t, bool selfClosing);
    bool startTag(std::string_view name, const AttrList& at, bool selfClosing);
    // The text of <v> where it lies whole in the input: no copy.
    void keepView() {
        if (viewActive_) {
            text_.assign(view_);
            viewActive_ = false;
        }
    }
    void endTag(std::string_view name);
    bool commitCell();
    bool place(int row, int col, Value v, uint16_t style);
    bool stream(int row, int col, Value v);
    bool fail(std::string msg) {
        error_ = std::move(msg);
        return false;
    }

    WorkbookImpl& im_;
    Worksheet::Data& d_;
    uint64_t partSize_;
    std::string error_;
    bool done_ = false;
    bool inSheetData_ = false, inCell_ = false, inIs_ = false, hasV_ = false;
    int rph_ = 0;
    int textTarget_ = 0;  // 1 <v>, 2 <t> inside <is>
    int row_ = 0, col_ = 0, nextCol_ = 1, rowWidth_ = 0;
    char type_ = 'n';
    uint16_t style_ = 0;
    std::string text_;
    std::string_view view_;
    bool viewActive_ = false;
    size_t cells_ = 0;
    // Streaming: the row being collected, reused from row to row.
    const Worksheet::RowVisitor* sink_ = nullptr;
    std::vector<Value> rowBuf_;
    int sinkRow_ = 0;
    size_t width_ = 0;
};

inline bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

size_t SheetScanner::feed(const char* begin, const char* end, bool last) {
    const char* p = begin;
    auto stop = [&](const char* at) {
        keepView();
        return static_cast<size_t>(at - begin);
    };
    while (p < end && !done_) {
        if (*p != '<') {
            const char* q = static_cast<const char*>(std::memchr(p, '<', static_cast<size_t>(end - p)));
            if (!q) q = end;
            if (textTarget_) {
                if (textTarget_ == 1 && text_.empty() && !viewActive_ && q != end) {
                    view_ = std::string_view(p, static_cast<size_t>(q - p));
                    viewActive_ = true;
                } else {
                    keepView();
                    text_.append(p, static_cast<size_t>(q - p));
                }
            }
            p = q;
            continue;
        }
        // The common tags of the cell table, unprefixed, take a short road.
        if (inSheetData_ && !inIs_ && end - p >= 4) {
            char c1 = p[1];
            if (c1 == 'v' && p[2] == '>') {
                if (inCell_) {
                    textTarget_ = 1;
                    text_.clear();
                    viewActive_ = false;
                }
                p += 3;
                continue;
            }
            if (c1 == '/' && p[3] == '>') {
                if (p[2] == 'v') {
                    if (textTarget_ == 1) hasV_ = true;
                    textTarget_ = 0;
                    p += 4;
                    continue;
                }
                if (p[2] == 'c') {
                    p += 4;
                    if (inCell_) {
                        inCell_ = false;
                        if (!commitCell()) done_ = true;
                    }
                    viewActive_ = false;
                    continue;
                }
            }
            if (c1 == 'c' && p[2] == ' ') {
                const char* save = p;
                int k = fastCell(p, end);
                if (k > 0) continue;
                if (k == 0) {
                    if (error_.empty() && last) error_ = "the XML ends inside a tag";
                    return stop(save);
                }
            }
        }
        const char* save = p;
        if (!tag(p, end, last)) {
            // incomplete: wait for more, unless this was all
            if (error_.empty() && last) error_ = "the XML ends inside a tag";
            return stop(save);
        }
    }
    return stop(p);
}

// Right after a cell's start tag: "<v>text</v></c>" whole in the input is
// the cell, taken in one step. Anything else is left to the general road.
void SheetScanner::fastValue(const char*& p, const char* end) {
    if (end - p < 11 || p[0] != '<' || p[1] != 'v' || p[2] != '>') return;
    const char* v0 = p + 3;
    const char* q = v0;
    while (q < end && *q != '<') ++q;
    if (end - q < 8 || std::memcmp(q, "</v></c>", 8) != 0) return;
    view_ = std::string_view(v0, static_cast<size_t>(q - v0));
    viewActive_ = true;
    hasV_ = true;
    inCell_ = false;
    p = q + 8;
    if (!commitCell()) done_ = true;
    viewActive_ = false;
}

// <c r=".." s=".." t=".."> with plain attributes: 1 done, 0 incomplete or
// failed (error_), -1 for the general road.
int SheetScanner::fastCell(const char*& p, const char* end) {
    const char* s = p + 3;
    std::string_view r, st, t;
    for (;;) {
        while (s < end && IsSpace(*s)) ++s;
        if (s >= end) return 0;
        if (*s == '>') {
            p = s + 1;
            if (!startCell(r, st, t, false)) return 0;
            fastValue(p, end);
            return 1;
        }
        if (*s == '/') {
            if (s + 1 >= end) return 0;
            if (s[1] != '>') return -1;
            p = s + 2;
            return startCell(r, st, t, true) ? 1 : 0;
        }
        const char* a0 = s;
        while (s < end && *s != '=' && !IsSpace(*s) && *s != '>' && *s != '/') ++s;
        if (s >= end) return 0;
        if (*s != '=' || s + 1 >= end) return -1;
        size_t alen = static_cast<size_t>(s - a0);
        char q = *++s;
        if (q != '"' && q != '\'') return -1;
        const char* v0 = ++s;
        const char* qe = static_cast<const char*>(std::memchr(s, q, static_cast<size_t>(end - s)));
        if (!qe) return 0;
        if (alen == 1) {
            std::string_view v(v0, static_cast<size_t>(qe - v0));
            if (*a0 == 'r') r = v;
            else if (*a0 == 's') st = v;
            else if (*a0 == 't') t = v;
        }
        s = qe + 1;
    }
}

bool SheetScanner::tag(const char*& p, const char* end, bool last) {
    (void)last;
    const char* s = p + 1;
    if (s >= end) return false;
    if (*s == '!' || *s == '?') {
        // comment, CDATA, declaration or processing instruction
        std::string_view rest(s, static_cast<size_t>(end - s));
        if (rest.starts_with("!--")) {
            size_t k = rest.find("-->", 3);
            if (k == std::string_view::npos) return false;
            p = s + k + 3;
        } else if (rest.starts_with("![CDATA[")) {
            size_t k = rest.find("]]>", 8);
            if (k == std::string_view::npos) return false;
            if (textTarget_) text_.append(s + 8, k - 8);  // taken as is: no entities inside
            p = s + k + 3;
        } else if (rest.size() >= 8 || *s == '?') {
            const char* q = static_cast<const char*>(std::memchr(s, '>', static_cast<size_t>(end - s)));
            if (!q) return false;
            if (*s == '!' && !rest.starts_with("!DOCTYPE")) return fail("unexpected '<!'");
            p = q + 1;
        } else {
            return false;
        }
        return true;
    }
    bool closing = *s == '/';
    if (closing) ++s;
    const char* n0 = s;
    while (s < end && !IsSpace(*s) && *s != '>' && *s != '/') ++s;
    if (s >= end) return false;
    std::string_view name(n0, static_cast<size_t>(s - n0));
    if (name.empty()) return fail("a tag without a name");
    size_t colon = name.rfind(':');
    std::string_view local = colon == std::string_view::npos ? name : name.substr(colon + 1);
    if (closing) {
        while (s < end && IsSpace(*s)) ++s;
        if (s >= end) return false;
        if (*s != '>') return fail("bad end tag </" + std::string(name) + ">");
        p = s + 1;
        endTag(local);
        return true;
    }
    AttrList at;
    for (;;) {
        while (s < end && IsSpace(*s)) ++s;
        if (s >= end) return false;
        if (*s == '>') {
            p = s + 1;
            return startTag(local, at, false);
        }
        if (*s == '/') {
            if (s + 1 >= end) return false;
            if (s[1] != '>') return fail("bad tag <" + std::string(name) + ">");
            p = s + 2;
            if (!startTag(local, at, true)) return false;
            endTag(local);
            return true;
        }
        const char* a0 = s;
        while (s < end && *s != '=' && !IsSpace(*s) && *s != '>' && *s != '/') ++s;
        std::string_view an(a0, static_cast<size_t>(s - a0));
        while (s < end && IsSpace(*s)) ++s;
        if (s >= end) return false;
        if (*s != '=' || an.empty()) return fail("bad attribute in <" + std::string(name) + ">");
        ++s;
        while (s < end && IsSpace(*s)) ++s;
        if (s >= end) return false;
        char quote = *s;
        if (quote != '"' && quote != '\'') return fail("unquoted attribute in <" + std::string(name) + ">");
        const char* v0 = ++s;
        const char* q = static_cast<const char*>(std::memchr(s, quote, static_cast<size_t>(end - s)));
        if (!q) return false;
        if (at.n < 16) at.a[at.n++] = {an, std::string_view(v0, static_cast<size_t>(q - v0))};
        s = q + 1;
    }
}

// Digits only, at most nine of them (every row, column and style number fits).
bool SmallNumber(const char* b, const char* e, int& out) {
    if (b == e || e - b > 9) return false;
    int v = 0;
    for (; b < e; ++b) {
        const unsigned d = static_cast<unsigned>(*b - '0');
        if (d > 9) return false;
        v = v * 10 + static_cast<int>(d);
    }
    out = v;
    return true;
}

// "B7" -> row 7, column 2; a bare column gives row 0.
bool ParseRef(std::string_view r, int& row, int& col) {
    size_t i = 0;
    int c = 0;
    while (i < r.size() && r[i] >= 'A' && r[i] <= 'Z') {
        c = c * 26 + (r[i] - 'A' + 1);
        if (++i > 3) return false;
    }
    int rr = 0;
    if (i == 0 || !SmallNumber(r.data() + i, r.data() + r.size(), rr)) return false;
    row = rr;
    col = c;
    return c >= 1 && c <= kMaxCols && rr >= 1 && rr <= kMaxRows;
}

// The usual cell value is a short plain decimal ("1.161", "-4"). With its
// digits below 2^53 and at most 22 of them after the point, both the digits
// and the power of ten are exact doubles, so one division rounds as a full
// conversion would. Anything else (exponent, more digits) is left to
// from_chars.
bool ShortDecimal(const char* b, const char* e, double& out) {
    static constexpr double kPow10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                        1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    const bool neg = b < e && *b == '-';
    if (neg) ++b;
    uint64_t m = 0;
    int frac = -1;  // digits after the point; -1 before one
    bool any = false;
    for (; b < e; ++b) {
        const unsigned d = static_cast<unsigned>(*b - '0');
        if (d <= 9) {
            m = m * 10 + d;
            if (m > (uint64_t{1} << 53)) return false;
            any = true;
            if (frac >= 0) ++frac;
        } else if (*b == '.' && frac < 0) {
            frac = 0;
        } else {
            return false;
        }
    }
    if (!any || frac > 22) return false;
    const double v = static_cast<double>(m) / kPow10[frac < 0 ? 0 : frac];
    out = neg ? -v : v;
    return true;
}

bool SheetScanner::startCell(std::string_view r, std::string_view s, std::string_view t, bool selfClosing) {
    if (inCell_) return fail("a cell inside a cell");
    int rr = row_, cc = nextCol_;
    if (!r.empty() && !ParseRef(r, rr, cc)) return fail("bad cell reference '" + std::string(r) + "'");
    if (rr < 1) return fail("a cell outside a row");
    if (cc > kMaxCols) return fail("a cell beyond column XFD");
    row_ = rr;
    col_ = cc;
    nextCol_ = cc + 1;
    style_ = 0;
    if (int v = 0; !s.empty() && SmallNumber(s.data(), s.data() + s.size(), v) &&
                   static_cast<size_t>(v) < im_.styles.size())
        style_ = static_cast<uint16_t>(v);
    type_ = t.empty() ? 'n' : t == "s" ? 's' : t == "str" ? 'r' : t == "inlineStr" ? 'i' : t == "b" ? 'b'
          : t == "e" ? 'e' : t == "d" ? 'd' : 'n';
    text_.clear();
    viewActive_ = false;
    hasV_ = false;
    if (selfClosing) return style_ == 0 || place(row_, col_, Value(), style_);
    inCell_ = true;
    return true;
}

bool SheetScanner::startTag(
std::string_view name, const AttrList& at, bool selfClosing) {
    if (inSheetData_) {
        if (name == "c") return startCell(at.get("r"), at.get("s"), at.get("t"), selfClosing);
        if (name == "v" && inCell_) {
            textTarget_ = 1;
            text_.clear();
            return true;
        }
        if (name == "row") {
            std::string_view r = at.get("r");
            if (!r.empty()) {
                int v = 0;
                if (!SmallNumber(r.data(), r.data() + r.size(), v) || v < 1 || v > kMaxRows)
                    return fail("bad row number '" + std::string(r) + "'");
                row_ = v;
            } else {
                ++row_;
                if (row_ > kMaxRows) return fail("too many rows");
            }
            nextCol_ = 1;
            if (sink_) return true;
            int width = rowWidth_;
            std::string_view spans = at.get("spans");
            if (size_t colon = spans.find(':'); colon != std::string_view::npos) {
                int w = 0;
                std::from_chars(spans.data() + colon + 1, spans.data() + spans.size(), w);
                if (w > 0 && w <= kMaxCols) width = w;
            }
            if (width > 0 && width <= 1024 && static_cast<size_t>(row_) > d_.rows.size()) {
                d_.slots += static_cast<size_t>(row_) - d_.rows.size() + static_cast<size_t>(width);
                if (d_.slots > kMaxSlots + 8 * cells_) return fail("the sheet is too sparse to load (cells far apart)");
                d_.rows.resize(static_cast<size_t>(row_));
                d_.rows.back().v.reserve(static_cast<size_t>(width));
            }
            return true;
        }
        if (name == "is" && inCell_) {
            inIs_ = true;
            text_.clear();
            return true;
        }
        if (inIs_) {
            if (name == "rPh") ++rph_;
            else if (name == "t" && rph_ == 0) textTarget_ = 2;
        }
        return true;
    }
    if (name == "sheetData") {
        if (!selfClosing) inSheetData_ = true;
        return true;
    }
    if (name == "dimension") {
        std::string_view ref = at.get("ref");
        size_t colon = ref.find(':');
        int r = 0, c = 0;
        if (!sink_ && colon != std::string_view::npos && ParseRef(ref.substr(colon + 1), r, c)) {
            // trust the claim only as far as the part could hold it
            size_t cap = static_cast<size_t>(partSize_ / 16);
            d_.rows.reserve(std::min<size_t>(static_cast<size_t>(r), cap));
        }
        return true;
    }
    if (name == "hyperlink") {
        std::string_view loc = at.get("location");
        std::string_view ref = at.get("ref");
        int r = 0, c = 0;
        size_t colon = ref.find(':');
        if (!loc.empty() && ParseRef(ref.substr(0, colon), r, c)) {
            d_.links.push_back(Hyperlink{r, c, Unescape(loc), Unescape(at.get("tooltip"))});
        }
        return true;
    }
    return true;
}

void SheetScanner::endTag(std::string_view name) {
    if (!inSheetData_) return;
    if (name == "v") {
        if (textTarget_ == 1) hasV_ = true;
        textTarget_ = 0;
    } else if (name == "c") {
        if (inCell_) {
            inCell_ = false;
            if (!commitCell()) done_ = true;
        }
    } else if (name == "t") {
        if (textTarget_ == 2) textTarget_ = 0;
    } else if (name == "rPh") {
        if (rph_ > 0) --rph_;
    } else if (name == "is") {
        inIs_ = false;
        hasV_ = true;
        textTarget_ = 0;
    } else if (name == "row") {
        if (sink_) {
            if (!flushRow()) done_ = true;
            return;
        }
        if (row_ >= 1 && static_cast<size_t>(row_) <= d_.rows.size()) {
            rowWidth_ = static_cast<int>(d_.rows[static_cast<size_t>(row_) - 1].v.size());
        }
    } else if (name == "sheetData") {
        inSheetData_ = false;
    }
}

bool SheetScanner::place(int row, int col, Value v, uint16_t style) {
    if (sink_) return stream(row, col, std::move(v));
    auto& rows = d_.rows;
    if (rows.size() < static_cast<size_t>(row)) {
        d_.slots += static_cast<size_t>(row) - rows.size();
        if (d_.slots > kMaxSlots + 8 * cells_) return fail("the sheet is too sparse to load (cells far apart)");
        rows.resize(static_cast<size_t>(row));
    }
    Row& r = rows[static_cast<size_t>(row) - 1];
    size_t c = static_cast<size_t>(col);
    if (r.v.size() < c) {
        d_.slots += c - r.v.size();
        if (d_.slots > kMaxSlots + 8 * cells_) return fail("the sheet is too sparse to load (cells far apart)");
        r.v.resize(c);
        if (!r.s.empty()) r.s.resize(c, 0);
    }
    ++cells_;
    r.v[c - 1] = std::move(v);
    if (style) {
        if (r.s.empty()) r.s.assign(r.v.size(), 0);
        r.s[c - 1] = style;
    }
    return true;
}

// A style alone does not make a row worth handing over: only values count.
bool SheetScanner::stream(int row, int col, Value v) {
    if (v.isEmpty()) return true;
    if (row != sinkRow_) {
        if (!flushRow()) return false;
        sinkRow_ = row;
    }
    size_t c = static_cast<size_t>(col);
    if (rowBuf_.size() < c) rowBuf_.resize(c);
    rowBuf_[c - 1] = std::move(v);
    width_ = std::max(width_, c);
    ++cells_;
    return true;
}

bool SheetScanner::flushRow() {
    if (width_ == 0) return true;
    const bool go = (*sink_)(sinkRow_, rowBuf_.data(), static_cast<int>(width_));
    for (size_t i = 0; i < width_; ++i) rowBuf_[i] = Value();
    width_ = 0;
    return go;
}

bool SheetScanner::commitCell() {
    Value v;
    std::string_view text = viewActive_ ? view_ : std::string_view(text_);
    viewActive_ = false;
    auto txt = [&]() {
        return text.find_first_of("&_\r") == std::string_view::npos ? Value(text) : Value(Unescape(text));
    };
    switch (type_) {
    case 'n':
        if (hasV_) {
            const char* b = text.data();
            const char* e = b + text.size();
            while (b < e && IsSpace(*b)) ++b;
            while (e > b && IsSpace(e[-1])) --e;
            if (b == e) break;
            double d = 0;
            bool ok = ShortDecimal(b, e, d);
            if (!ok) {
                auto res = std::from_chars(b, e, d);
                ok = res.ec == std::errc() && res.ptr == e;
            }
            if (ok) {
                v = im_.styles.isDate(style_) ? Value::date(im_.date1904 ? d + 1462 : d) : Value(d);
            } else {
                v = txt();  // not a number: keep what the file says
            }
        }
        break;
    case 's':
        if (hasV_) {
            size_t idx = 0;
            auto res = std::from_chars(text.data(), text.data() + text.size(), idx);
            if (res.ec != std::errc() || idx >= im_.sst.size())
                return fail("cell " + CellAddress(row_, col_) + " refers to shared string " + std::string(text) + " of " +
                            std::to_string(im_.sst.size()));
            v = im_.sst[idx];
        }
        break;
    case 'r':
    case 'i':
        if (hasV_) v = txt();
        break;
    case 'b':
        if (hasV_) v = Value(text == "1" || text == "true");
        break;
    case 'e':
        if (hasV_) {
            int32_t code = ErrorCode(text);
            v = Value::error(code ? code : xlErrNA);
        }
        break;
    case 'd':
        if (hasV_) {
            double serial = 0;
            if (ParseIsoDate(text, serial)) v = Value::date(serial);
            else v = txt();
        }
        break;
    }
    if (v.isEmpty() && style_ == 0) return true;
    return place(row_, col_, std::move(v), style_);
}

// Comment visibility lives in the VML drawing, which Excel does not always
// write as well-formed XML: a plain text search is what works.
void ReadVmlVisibility(const std::string& vml, std::map<std::pair<int, int>, Comment>& comments) {
    size_t pos = 0;
    while ((pos = vml.find(":ClientData", pos)) != std::string::npos) {
        size_t end = vml.find(":ClientData>", pos + 11);
        if (end == std::string::npos) end = vml.size();
        std::string_view block(vml.data() + pos, end - pos);
        auto num = [&](std::string_view tag) -> int {
            size_t k = block.find(tag);
            if (k == std::string_view::npos) return -1;
            k += tag.size();
            while (k < block.size() && IsSpace(block[k])) ++k;
            int v = -1;
            std::from_chars(block.data() + k, block.data() + block.size(), v);
            return v;
        };
        int r = num(":Row>"), c = num(":Column>");
        bool visible = block.find(":Visible") != std::string_view::npos;
        if (r >= 0 && c >= 0) {
            auto it = comments.find({r + 1, c + 1});
            if (it != comments.end()) it->second.visible = visible;
        }
        pos = end + 1;
    }
}

// Feeds the sheet part through the scanner, the inflate running a piece
// ahead on the second core when the part is large.
Status ScanSheet(const ZipReader& zip, const std::string& sheetName, const std::string& part, SheetScanner& sc) {
    auto fail = [&](const std::string& what) {
        return ReadFail(zip.displayName() + ": sheet '" + sheetName + "' (part '" + part + "'): " + what);
    };
    auto st = zip.openStream(part);
    if (!st) return ReadFail(st.failure().text);
    uint64_t size = (*st)->declaredSize();
    sc.setPartSize(size);
    Inflater inf(std::move(*st), size > (8u << 20));
    std::string buf, piece;
    size_t line = 1;
    for (;;) {
        if (!inf.next(piece)) return ReadFail(inf.error());
        bool last = piece.empty();
        buf += piece;
        size_t upto = buf.size();
        if (!last) {
            size_t gt = buf.rfind('>');
            if (gt == std::string::npos) continue;
            upto = gt + 1;
        }
        size_t used = sc.feed(buf.data(), buf.data() + upto, last);
        auto lines = [&](size_t n) {
            for (const char* q = buf.data(); (q = static_cast<const char*>(std::memchr(q, '\n', static_cast<size_t>(buf.data() + n - q)))); ++q)
                ++line;
        };
        if (!sc.error().empty()) {
            lines(used);
            return fail("malformed XML at line " + std::to_string(line) + " near cell " +
                        CellAddress(std::max(1, sc.row()), std::max(1, sc.col())) + ": " + sc.error() + ".");
        }
        lines(used);
        buf.erase(0, used);
        if (last || sc.done()) {
            if (!buf.empty() && buf.find_first_not_of(" \t\r\n") != std::string::npos && !sc.done())
                return fail("malformed XML at line " + std::to_string(line) + ": the part ends early.");
            break;
        }
        if (buf.size() > (64u << 20))
            return fail("malformed XML at line " + std::to_string(line) + ": a tag or text longer than 64 MB.");
    }
    return StatusOk();
}

}  // namespace

namespace {

// Rows parsed on a thread of their own reach the caller's thread in batches,
// so that what the caller does with a row overlaps the parse of the next ones
// (the inflate runs on a third thread). Batches are reused: their vectors
// keep their room from one batch to the next.
class RowPipe {
public:
    struct Batch {
        struct Row {
            int row, at, count;
        };
        std::vector<Value> cells;
        std::vector<Row> rows;
    };

    // The parsing side. False once the reader has stopped.
    bool put(int row, const Value* cells, int count) {
        if (!fill_) fill_ = fresh();
        fill_->rows.push_back({row, static_cast<int>(fill_->cells.size()), count});
        fill_->cells.insert(fill_->cells.end(), cells, cells + count);
        return fill_->rows.size() < kRows || ship();
    }
    void finish(Status st) {
        if (fill_ && !fill_->rows.empty()) (void)ship();
        std::lock_guard<std::mutex> l(mu_);
        status_ = std::move(st);
        done_ = true;
        cv_.notify_all();
    }

    // The reading side: the next batch, nullptr at the end.
    std::unique_ptr<Batch> next() {
        std::unique_lock<std::mutex> l(mu_);
        cv_.wait(l, [&] { return !q_.empty() || done_; });
        if (q_.empty()) return nullptr;
        std::unique_ptr<Batch> b = std::move(q_.front());
        q_.pop_front();
        cv_.notify_all();
        return b;
    }
    // The batch is emptied on the parsing side, off the reader's path.
    void recycle(std::unique_ptr<Batch> b) {
        std::lock_guard<std::mutex> l(mu_);
        free_.push_back(std::move(b));
    }
    void stop() {
        std::lock_guard<std::mutex> l(mu_);
        stop_ = true;
        cv_.notify_all();
    }
    Status status() {
        std::lock_guard<std::mutex> l(mu_);
        return status_;
    }

private:
    static constexpr size_t kRows = 4096, kQueued = 4;
    std::unique_ptr<Batch> fresh() {
        std::unique_ptr<Batch> b;
        {
            std::lock_guard<std::mutex> l(mu_);
            if (free_.empty()) return std::make_unique<Batch>();
            b = std::move(free_.back());
            free_.pop_back();
        }
        b->cells.clear();
        b->rows.clear();
        return b;
    }
    bool ship() {
        std::unique_lock<std::mutex> l(mu_);
        cv_.wait(l, [&] { return q_.size() < kQueued || stop_; });
        if (stop_) return false;
        q_.push_back(std::move(fill_));
        cv_.notify_all();
        return true;
    }

    std::unique_ptr<Batch> fill_;  // parsing side only
    std::mutex mu_;
    std::condition_variable cv_;
    std::deque<std::unique_ptr<Batch>> q_;
    std::vector<std::unique_ptr<Batch>> free_;
    bool done_ = false, stop_ = false;
    Status status_ = StatusOk();
};

}  // namespace

Status WorkbookImpl::streamSheet(Workbook& wb, Worksheet& ws, const Worksheet::RowVisitor& f) {
    WorkbookImpl& im = *wb.impl_;
    const ZipReader& zip = *im.zip;
    const std::string& part = ws.src_->part;
    uint64_t size = 0;
    {
        auto probe = zip.openStream(part);
        if (!probe) return ReadFail(probe.failure().text);
        size = (*probe)->declaredSize();
    }
    Worksheet::Data scratch;  // hyperlinks and the like land here, unused
    SheetScanner sc(im, scratch, 0);
    if (size <= (8u << 20)) {
        sc.streamTo(f);
        if (Status st = ScanSheet(zip, ws.name(), part, sc); !st) return st;
        (void)sc.flushRow();
        return StatusOk();
    }
    // A large part: the parse moves to its own thread; f stays on this one.
    RowPipe pipe;
    const Worksheet::RowVisitor put = [&pipe](int row, const Value* cells, int count) {
        return pipe.put(row, cells, count);
    };
    sc.streamTo(put);
    std::thread scan([&] {
        Status st = StatusOk();
        try {
            st = ScanSheet(zip, ws.name(), part, sc);
            if (st) (void)sc.flushRow();
        } catch (const std::exception& e) {
            st = ReadFail(zip.displayName() + ": sheet '" + ws.name() + "': " + e.what());
        }
        pipe.finish(std::move(st));
    });
    // Whatever way this returns (f may throw), the parse stops first.
    struct Join {
        RowPipe& pipe;
        std::thread& th;
        ~Join() {
            pipe.stop();
            th.join();
        }
    } join{pipe, scan};
    while (std::unique_ptr<RowPipe::Batch> b = pipe.next()) {
        for (const auto& r : b->rows)
            if (!f(r.row, b->cells.data() + r.at, r.count)) return StatusOk();
        pipe.recycle(std::move(b));
    }
    return pipe.status();
}

std::optional<Area> WorkbookImpl::declaredArea(Workbook& wb, Worksheet& ws) {
    // The element comes before the cells: the head of the part holds it.
    auto st = wb.impl_->zip->openStream(ws.src_->part);
    if (!st) return std::nullopt;
    std::string head;
    constexpr size_t kHead = 64u << 10;
    size_t at = std::string::npos;
    while (head.size() < kHead) {
        char buf[8192];
        int64_t n = (*st)->read(buf, sizeof buf);
        if (n <= 0) break;
        head.append(buf, static_cast<size_t>(n));
        if (head.find("sheetData") != std::string::npos) break;
    }
    for (size_t k = 0; (k = head.find("dimension", k)) != std::string::npos; k += 9) {
        if (k > 0 && (head[k - 1] == '<' || head[k - 1] == ':')) {
            at = k;
            break;
        }
    }
    size_t sheetData = head.find("sheetData");
    if (at == std::string::npos || (sheetData != std::string::npos && at > sheetData)) return std::nullopt;
    size_t close = head.find('>', at);
    if (close == std::string::npos) return std::nullopt;
    std::string_view tag(head.data() + at, close - at);
    size_t ref = tag.find("ref=");
    if (ref == std::string_view::npos || ref + 5 > tag.size()) return std::nullopt;
    const char quote = tag[ref + 4];
    size_t end = tag.find(quote, ref + 5);
    if ((quote != '"' && quote != '\'') || end == std::string_view::npos) return std::nullopt;
    std::string_view v = tag.substr(ref + 5, end - ref - 5);
    size_t colon = v.find(':');
    Area a;
    if (!ParseRef(v.substr(0, colon), a.row1, a.col1)) return std::nullopt;
    if (colon == std::string_view::npos) {
        // "A1" is what writers put for an empty sheet as well as for one cell.
        if (a.row1 == 1 && a.col1 == 1) return std::nullopt;
        a.row2 = a.row1;
        a.col2 = a.col1;
    } else if (!ParseRef(v.substr(colon + 1), a.row2, a.col2)) {
        return std::nullopt;
    }
    if (a.empty()) return std::nullopt;
    return a;
}

Status WorkbookImpl::loadSheet(Workbook& wb, Worksheet& ws) {
    WorkbookImpl& im = *wb.impl_;
    const ZipReader& zip = *im.zip;
    const std::string& part = ws.src_->part;
    auto data = std::make_unique<Worksheet::Data>();
    {
        SheetScanner sc(im, *data, 0);
        if (Status st = ScanSheet(zip, ws.name(), part, sc); !st) return st;
    }
    // Comments and their visibility
    if (!ws.src_->comments.empty() && zip.find(ws.src_->comments) >= 0) {
        std::vector<std::string> authors;
        std::string author;
        bool inAuthor = false, inComment = false;
        RichText rt;
        Comment cur;
        XmlHandler h;
        h.start = [&](std::string_view n, const char** a) {
            if (n == "author") {
                inAuthor = true;
                author.clear();
            } else if (n == "comment") {
                int r = 0, c = 0;
                if (ParseCellRef(AttrS(a, "ref"), r, c)) {
                    inComment = true;
                    rt = RichText{};
                    cur = Comment{};
                    cur.row = r;
                    cur.col = c;
                    size_t id = static_cast<size_t>(AttrI(a, "authorId", 0));
                    if (id < authors.size()) cur.author = authors[id];
                }
            } else if (inComment) {
                rt.start(n);
            }
        };
        h.end = [&](std::string_view n) {
            if (n == "author") {
                inAuthor = false;
                authors.push_back(author);
            } else if (n == "comment" && inComment) {
                inComment = false;
                cur.text = rt.text.find("_x") != std::string::npos ? Unescape(rt.text, false) : rt.text;
                data->comments[{cur.row, cur.col}] = cur;
            } else if (inComment) {
                rt.end(n);
            }
        };
        h.text = [&](const char* s, int len) {
            if (inAuthor) author.append(s, static_cast<size_t>(len));
            else if (inComment) rt.chars(s, len);
        };
        if (auto st = ParsePart(zip, ws.src_->comments, h, false); !st) return st;
        if (!ws.src_->vml.empty() && zip.find(ws.src_->vml) >= 0) {
            std::string vml;
            if (auto st = zip.readAll(ws.src_->vml, vml, 256ull << 20); !st) return ReadFail(st.failure().text);
            ReadVmlVisibility(vml, data->comments);
        }
    }
    ws.d_ = std::move(data);
    return StatusOk();
}

}  // namespace zorv
