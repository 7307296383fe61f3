// zorv-cli templates: the calibration template library from the command
// line, as the template maintenance window keeps it: list, show, rename,
// delete, and moving templates between libraries as library files.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "base/text.h"
#include "base/value.h"
#include "calib/template_library.h"
#include "json.h"
#include "tables.h"
#include "verbs.h"

namespace zorv::cli {

const char kTemplatesHelp[] =
    "Usage: zorv-cli templates list [options]\n"
    "       zorv-cli templates show NAME [options]\n"
    "       zorv-cli templates rename OLD NEW [options]\n"
    "       zorv-cli templates delete NAME [--yes] [options]\n"
    "       zorv-cli templates export NAME FILE [options]\n"
    "       zorv-cli templates import FILE [--replace] [options]\n\n"
    "The focus calibration template library, ZORVpsfm.tpl in the Templates folder\n"
    "(see README). Names are matched without regard to case.\n\n"
    "  list     every template: name, data set, dates, sites, best focus sets\n"
    "  show     one template's fields and the table of its sites (number, key,\n"
    "           exposure, location in um, offsets, slopes, 2nd to 4th orders)\n"
    "  rename   gives a template a new name and saves the library\n"
    "  delete   removes a template and saves the library; without --yes it only\n"
    "           prints what would be removed and exits with 2\n"
    "  export   writes a library file that holds only that template\n"
    "  import   adds the templates of a library file; a name already held is\n"
    "           refused (nothing is imported) unless --replace\n\n"
    "Options:\n"
    "  --folder DIR   the library's folder (default: the Templates folder)\n"
    "  --yes          delete without asking\n"
    "  --replace      import over templates of the same name\n"
    "  --json         the output as JSON\n\n"
    "Exit: 0 done, 1 failed (a missing template, an unreadable library; message on\n"
    "stderr, the library unchanged), 2 bad arguments or a delete without --yes.\n";

namespace {

constexpr const char* kTag = "zorv-cli(templates): ";

int Usage() {
    std::fprintf(stderr,
                 "Usage: zorv-cli templates list|show NAME|rename OLD NEW|delete NAME|export NAME FILE|import FILE\n"
                 "       [--folder DIR] [--yes] [--replace] [--json]   (zorv-cli templates --help)\n");
    return kExitUsage;
}

Failure Fail(const std::string& text) { return Proc(kTag).fail(text); }

// Case-insensitive, without GetTemplate's renaming of the found one to the
// case asked.
std::shared_ptr<cTemplate> Find(const cTemplateLibrary& lib, const std::string& name) {
    for (const auto& t : lib.Templates())
        if (IEquals(t->NameTemplate, name)) return t;
    return nullptr;
}

Failure NotFound(const cTemplateLibrary& lib, const std::string& name) {
    std::string text = "Template not found: ";
    text.append(name).append("\r\nLibrary: ").append(lib.FilePath());
    return Fail(text);
}

std::string Number(float v) { return TemplateNumberText(v); }

void TemplateJson(Json& j, const cTemplate& t) {
    j.field("name", t.NameTemplate).field("dataSet", t.DataSetName).field("reticle", t.ReticleName);
    j.field("comment", t.Comment);
    j.field("created", TemplateDateText(t.DateCreated)).field("modified", TemplateDateText(t.DateModified));
    j.field("type", static_cast<long long>(t.TemplateType)).field("version", t.Version);
    j.field("sites", t.sites.Count()).field("bestFocusSets", t.BestFocusSets.Count());
}

void SiteJson(Json& j, const cSiteCal& s) {
    j.beginObject().field("number", static_cast<long long>(s.Number)).field("key", s.NumberKey);
    j.field("dose", s.Dose).field("na", s.NA).field("pcInner", s.PCinner).field("pcOuter", s.PCouter);
    j.field("x", s.LocationX).field("y", s.LocationY);
    j.field("offsetX", s.OffsetX).field("offsetXse", s.OffsetXse).field("offsetY", s.OffsetY);
    j.field("offsetYse", s.OffsetYse);
    j.field("slopeX", s.SlopeX).field("slopeXse", s.SlopeXse).field("slopeY", s.SlopeY).field("slopeYse", s.SlopeYse);
    auto arr = [&j](const char* key, std::initializer_list<float> v) {
        j.key(key).beginArray();
        for (float x : v) j.value(x);
        j.endArray();
    };
    // 2nd, 3rd and 4th order: what the library file keeps.
    arr("higherX", {s.X2nd, s.X3rd, s.X4th});
    arr("higherXse", {s.X2ndSE, s.X3rdSE, s.X4thSE});
    arr("higherY", {s.Y2nd, s.Y3rd, s.Y4th});
    arr("higherYse", {s.Y2ndSE, s.Y3rdSE, s.Y4thSE});
    j.endObject();
}

// The sites as a table: a row per site, its number as the label.
Datam SiteTable(const cTemplate& t) {
    static const char* heads[] = {"Number", "Key",  "Dose",    "NA",   "PCinner", "PCouter", "X (um)", "Y (um)",
                                  "OffsetX", "OffsetY", "SlopeX", "SlopeY", "X2nd", "Y2nd",  "X3rd",   "Y3rd",
                                  "X4th",    "Y4th"};
    constexpr int kCols = static_cast<int>(sizeof heads / sizeof heads[0]) - 1;
    Datam d(t.sites.Count(), kCols);
    for (int c = 0; c <= kCols; ++c) d(0, c) = heads[c];
    int r = 0;
    for (const cSiteCal* s : t.sites) {
        ++r;
        d(r, 0) = static_cast<int32_t>(s->Number);
        d(r, 1) = s->NumberKey;
        const float v[] = {s->Dose,    s->NA,      s->PCinner, s->PCouter, s->LocationX, s->LocationY,
                           s->OffsetX, s->OffsetY, s->SlopeX,  s->SlopeY,  s->X2nd,      s->Y2nd,
                           s->X3rd,    s->Y3rd,    s->X4th,    s->Y4th};
        for (int c = 0; c < 16; ++c) d(r, c + 2) = v[c];
    }
    return d;
}

[[nodiscard]] Status ReadFileBytes(const std::string& path, std::string& out) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) return Fail("File not found: " + path);
    std::ifstream in(path, std::ios::binary);
    if (!in) return Fail("Path/File access error: " + path);
    std::ostringstream ss;
    ss << in.rdbuf();
    out = ss.str();
    return StatusOk();
}

int List(cTemplateLibrary& lib, const Status& read, bool json) {
    if (json) {
        if (!read) return ShowFailure(read.failure(), true);
        Json j;
        j.beginObject().field("file", lib.FilePath()).key("templates").beginArray();
        for (const auto& t : lib.Templates()) {
            j.beginObject();
            TemplateJson(j, *t);
            j.endObject();
        }
        j.endArray().endObject();
        std::printf("%s\n", j.str().c_str());
        return kExitOk;
    }
    // A damaged library still shows what was read before the bad line.
    std::printf("Library %s: %d template%s\n", lib.FilePath().c_str(), lib.Count(), lib.Count() == 1 ? "" : "s");
    if (lib.Count() > 0) {
        Datam d(lib.Count(), 5);
        const char* heads[] = {"Name", "Data set", "Created", "Modified", "Sites", "Best focus"};
        for (int c = 0; c <= 5; ++c) d(0, c) = heads[c];
        int r = 0;
        for (const auto& t : lib.Templates()) {
            ++r;
            d(r, 0) = t->NameTemplate;
            d(r, 1) = t->DataSetName;
            d(r, 2) = TemplateDateText(t->DateCreated);
            d(r, 3) = TemplateDateText(t->DateModified);
            d(r, 4) = static_cast<int32_t>(t->sites.Count());
            d(r, 5) = static_cast<int32_t>(t->BestFocusSets.Count());
        }
        PrintTable(d);
    }
    return read ? kExitOk : ShowFailure(read.failure(), false);
}

int Show(const cTemplate& t, bool json) {
    if (json) {
        Json j;
        j.beginObject();
        TemplateJson(j, t);
        j.key("siteTable").beginArray();
        for (const cSiteCal* s : t.sites) SiteJson(j, *s);
        j.endArray();
        j.key("bestFocus").beginArray();
        for (const cBestFocus* b : t.BestFocusSets) {
            j.beginObject().field("key", b->KeyName).field("dose", b->Dose).field("na", b->NA);
            j.field("pcInner", b->PCinner).field("pcOuter", b->PCouter);
            j.field("rows", b->CalRows.Count()).field("columns", b->CalColumns.Count()).endObject();
        }
        j.endArray().endObject();
        std::printf("%s\n", j.str().c_str());
        return kExitOk;
    }
    std::printf("Template:       %s\n", t.NameTemplate.c_str());
    std::printf("Data set:       %s\n", t.DataSetName.c_str());
    std::printf("Reticle:        %s\n", t.ReticleName.c_str());
    std::printf("Created:        %s\n", TemplateDateText(t.DateCreated).c_str());
    std::printf("Modified:       %s\n", TemplateDateText(t.DateModified).c_str());
    std::printf("Type:           %ld\n", t.TemplateType);
    std::printf("Version:        %s\n", Number(t.Version).c_str());
    std::string comment = t.Comment;
    for (size_t at; (at = comment.find("\r\n")) != std::string::npos;) comment.replace(at, 2, "\n                ");
    std::printf("Comment:        %s\n", comment.c_str());
    std::printf("Sites:          %d\n", t.sites.Count());
    std::printf("Best focus:     %d set%s", t.BestFocusSets.Count(), t.BestFocusSets.Count() == 1 ? "" : "s");
    for (const cBestFocus* b : t.BestFocusSets)
        std::printf("\n                %s: %d rows, %d columns", b->KeyName.c_str(), b->CalRows.Count(),
                    b->CalColumns.Count());
    std::printf("\n");
    if (t.sites.Count() > 0) {
        std::printf("\n");
        PrintTable(SiteTable(t));
    }
    return kExitOk;
}

// Writes a library file holding only `t`; the template stays in `lib`.
[[nodiscard]] Status Export(const std::shared_ptr<cTemplate>& t, const std::string& file) {
    cTemplateLibrary one("/nonexistent");
    cTemplateLibrary* owner = t->parent;
    one.AddTemplate(t);
    const std::string bytes = EncodeTemplateFile(one.FileLines());
    one.Clear();
    t->parent = owner;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    if (out) out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        Failure f = Fail("Path/File access error: " + file);
        f.file = file;
        return f;
    }
    return StatusOk();
}

}  // namespace

int RunTemplates(const Args& args) {
    const Args pos = Positional(args, {"--folder"});
    const bool json = HasFlag(args, "--json");
    if (pos.empty()) return Usage();
    const std::string& action = pos[0];
    const size_t want = action == "list"                           ? 1
                        : action == "show" || action == "delete"   ? 2
                        : action == "import"                       ? 2
                        : action == "rename" || action == "export" ? 3
                                                                   : 0;
    if (want == 0 || pos.size() != want) return Usage();

    cTemplateLibrary lib(TemplateFolder(OptionValue(args, "--folder")));
    const Status read = lib.FileGet();
    if (action == "list") return List(lib, read, json);
    // A library that did not read whole is never saved over.
    if (!read) return ShowFailure(read.failure(), json);

    if (action == "show" || action == "export" || action == "delete" || action == "rename") {
        const std::shared_ptr<cTemplate> t = Find(lib, pos[1]);
        if (!t) return ShowFailure(NotFound(lib, pos[1]), json);
        if (action == "show") return Show(*t, json);
        if (action == "export") {
            if (Status st = Export(t, pos[2]); !st) return ShowFailure(st.failure(), json);
            if (json) {
                Json j;
                j.beginObject().field("exported", t->NameTemplate).field("file", pos[2]).endObject();
                std::printf("%s\n", j.str().c_str());
            } else {
                std::printf("Template '%s' written to %s\n", t->NameTemplate.c_str(), pos[2].c_str());
            }
            return kExitOk;
        }
        if (action == "delete") {
            if (!HasFlag(args, "--yes")) {
                if (json) {
                    Json j;
                    j.beginObject().key("wouldDelete").beginObject();
                    TemplateJson(j, *t);
                    j.endObject().field("file", lib.FilePath()).endObject();
                    std::printf("%s\n", j.str().c_str());
                } else {
                    std::printf("Would remove template '%s' (data set %s, %d sites, %d best focus sets) from %s.\n"
                                "Nothing removed: give --yes to remove it.\n",
                                t->NameTemplate.c_str(), t->DataSetName.c_str(), t->sites.Count(),
                                t->BestFocusSets.Count(), lib.FilePath().c_str());
                }
                return kExitUsage;
            }
            const std::string name = t->NameTemplate;
            if (lib.Remove(name, true) != 1) return ShowFailure(NotFound(lib, name), json);
            if (Status st = lib.FileSave(); !st) return ShowFailure(st.failure(), json);
            if (json) {
                Json j;
                j.beginObject().field("deleted", name).field("file", lib.FilePath()).endObject();
                std::printf("%s\n", j.str().c_str());
            } else {
                std::printf("Template '%s' removed; %d left in %s\n", name.c_str(), lib.Count(),
                            lib.FilePath().c_str());
            }
            return kExitOk;
        }
        // rename
        const std::string& to = pos[2];
        if (to.size() < 2) return ShowFailure(Fail("Improper template name: " + to), json);
        if (auto other = Find(lib, to); other && other != t)
            return ShowFailure(Fail("A template of that name is in the library: " + other->NameTemplate), json);
        const std::string from = t->NameTemplate;
        t->NameTemplate = to;
        t->DateModified = TemplateNow();
        if (Status st = lib.FileSave(); !st) return ShowFailure(st.failure(), json);
        if (json) {
            Json j;
            j.beginObject().field("renamed", from).field("to", to).field("file", lib.FilePath()).endObject();
            std::printf("%s\n", j.str().c_str());
        } else {
            std::printf("Template '%s' renamed to '%s'\n", from.c_str(), to.c_str());
        }
        return kExitOk;
    }

    // import: all or nothing.
    const std::string& file = pos[1];
    std::string bytes;
    if (Status st = ReadFileBytes(file, bytes); !st) return ShowFailure(st.failure(), json);
    cTemplateLibrary incoming("/nonexistent");
    if (Status st = incoming.ReadLibraryBytes(bytes, file); !st) return ShowFailure(st.failure(), json);
    const bool replace = HasFlag(args, "--replace");
    std::vector<std::string> held;
    for (const auto& t : incoming.Templates())
        if (Find(lib, t->NameTemplate)) held.push_back(t->NameTemplate);
    if (!held.empty() && !replace) {
        std::string text = "Template already in the library: ";
        for (size_t i = 0; i < held.size(); ++i) text.append(i ? ", " : "").append(held[i]);
        text += "\r\nNothing imported; give --replace to import over them.";
        return ShowFailure(Fail(text), json);
    }
    std::vector<std::string> added;
    const std::vector<std::shared_ptr<cTemplate>> list = incoming.Templates();
    incoming.Clear();
    for (const auto& t : list) {
        if (auto old = Find(lib, t->NameTemplate)) lib.Remove(old->NameTemplate, true);
        lib.AddTemplate(t);
        added.push_back(t->NameTemplate);
    }
    if (Status st = lib.FileSave(); !st) return ShowFailure(st.failure(), json);
    if (json) {
        Json j;
        j.beginObject().field("file", lib.FilePath()).key("imported").beginArray();
        for (const std::string& n : added) j.value(n);
        j.endArray().key("replaced").beginArray();
        for (const std::string& n : held) j.value(n);
        j.endArray().endObject();
        std::printf("%s\n", j.str().c_str());
    } else {
        std::printf("%zu template%s imported from %s", added.size(), added.size() == 1 ? "" : "s", file.c_str());
        for (size_t i = 0; i < added.size(); ++i) std::printf("%s%s", i ? ", " : ": ", added[i].c_str());
        std::printf("\n");
        if (!held.empty()) std::printf("%zu replaced\n", held.size());
    }
    return kExitOk;
}

}  // namespace zorv::cli
