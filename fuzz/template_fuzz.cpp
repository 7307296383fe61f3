// libFuzzer target of the calibration template library reader (the bytes of
// a ZORVpsfm.tpl), and of a write and re-read of what it read.
//
// The input is the file as it stands: UTF-16 with or without a mark, or 8-bit
// text. Whatever reads must be written again and read back to the same
// templates.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "calib/template_library.h"

using namespace zorv;

namespace {

void WriteSeed(const std::string& dir, const std::string& name, const std::vector<std::string>& lines) {
    std::ofstream f(std::filesystem::path(dir) / name, std::ios::binary);
    const std::string bytes = EncodeTemplateFile(lines);
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Version 1: no version line, no dose lines, no higher orders; one best
// focus set with a row.
std::vector<std::string> VersionOne() {
    return {"TemplatesTotal: 1", "Old", "CommentLines: 2", "first", "second", "DS1", "1/2/2003", "2/3/2004",
            "Ret", "0", "SitesTotal: 1", "BestFocusSets: 1", "0.6", "0.3", "0.7", "100", "-200",
            "5_0_0.6_0.3_0.7", "0.1", "0.01", "0.2", "0.02", "-3", "0.03", "4", "0.04", "0_0.6_0.3_0.7", "0.6",
            "0.3", "0.7", "Rows: 1", "Columns: 0", "r1", "1.5", "0.25", "0.05", "3", "0.3", "-1", "0.1", "0.02"};
}

// Version 2: dose lines, no higher orders; a best focus set with a column.
std::vector<std::string> VersionTwo() {
    std::vector<std::string> L = {"Version: 2", "TemplatesTotal: 1", "Mid", "CommentLines: 1", "", "DS2",
                                  "2010-05-06 07:08:09", "2010-05-07", "", "1", "SitesTotal: 2",
                                  "BestFocusSets: 1"};
    for (int k = 0; k < 2; ++k) {
        const std::vector<std::string> site = {k ? "22" : "21", "0.8", "0", "0", k ? "10" : "0", "0",
                                               k ? "2_22_0.8_0_0" : "1_21_0.8_0_0", "0.5", "0.05", "-0.5", "0.05",
                                               "1.5", "0.1", "-1.5", "0.1"};
        L.insert(L.end(), site.begin(), site.end());
    }
    const std::vector<std::string> bf = {"21_0.8_0_0", "21", "0.8", "0", "0", "Rows: 0", "Columns: 1",
                                         "c1", "-2", "1", "0.1", "2", "0.2", "3", "0.3", "0.4"};
    L.insert(L.end(), bf.begin(), bf.end());
    return L;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // ZORV_FUZZ_SEEDS=dir writes seed inputs there and stops.
    if (const char* dir = std::getenv("ZORV_FUZZ_SEEDS")) {
        std::filesystem::create_directories(dir);
        WriteSeed(dir, "sample.tpl", SampleTemplateLines(TemplateNow()));
        WriteSeed(dir, "version1.tpl", VersionOne());
        WriteSeed(dir, "version2.tpl", VersionTwo());
        std::exit(0);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    // A folder that is never made: nothing here touches the disk.
    cTemplateLibrary lib("/nonexistent/zorv-fuzz");
    if (!lib.ReadLibraryBytes(bytes, "fuzz.tpl")) return 0;
    const std::vector<std::string> lines = lib.FileLines();
    cTemplateLibrary again("/nonexistent/zorv-fuzz");
    const Status st = again.ReadLibraryBytes(EncodeTemplateFile(lines), "again.tpl");
    if (!st) {
        std::fprintf(stderr, "a written library does not read back: %s\n", st.failure().message().c_str());
        std::abort();
    }
    // Same templates, names, sites and best focus sets. Rows and columns may
    // merge: a row that took another's place by its location keeps that
    // one's key in the collection, and a later row of its own key replaces it.
    bool same = again.Count() == lib.Count();
    for (int i = 0; same && i < lib.Count(); ++i) {
        const cTemplate& a = *lib.Templates()[i];
        const cTemplate& b = *again.Templates()[i];
        same = a.NameTemplate == b.NameTemplate && a.sites.Count() == b.sites.Count() &&
               a.BestFocusSets.Count() == b.BestFocusSets.Count() && a.Comment == b.Comment &&
               TemplateDateText(a.DateCreated) == TemplateDateText(b.DateCreated) &&
               TemplateDateText(a.DateModified) == TemplateDateText(b.DateModified);
    }
    if (!same) {
        std::fprintf(stderr, "a written library reads back otherwise (%d templates, then %d)\n", lib.Count(),
                     again.Count());
        const std::vector<std::string> back = again.FileLines();
        for (size_t i = 0; i < lines.size() && i < back.size(); ++i)
            if (lines[i] != back[i]) {
                std::fprintf(stderr, "line %zu: '%s' then '%s'\n", i + 1, lines[i].c_str(), back[i].c_str());
                break;
            }
        std::abort();
    }
    return 0;
}
