// Helpers the import tests share: scratch folders, files written byte for
// byte, and a raw file taken through a reader into a loaded lot.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "base/proc.h"
#include "import/import.h"
#include "lot/lot.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

namespace zorv::testing {

inline std::filesystem::path FreshDir(const std::string& name) {
    std::filesystem::path d = std::filesystem::path(ZORV_TEST_TMP) / "import" / name;
    std::filesystem::remove_all(d);
    std::filesystem::create_directories(d);
    return d;
}

inline void WriteBytes(const std::filesystem::path& p, const std::string& bytes) {
    std::ofstream o(p, std::ios::binary | std::ios::trunc);
    o << bytes;
}

inline std::string ReadBytes(const std::filesystem::path& p) {
    std::ifstream i(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(i), {});
}

inline std::filesystem::path SamplePath(const std::string& name) {
    return std::filesystem::path(ZORV_DATA_DIR) / "samples" / name;
}

// Every workbook a test folder holds (a failed import must leave none).
inline int WorkbooksIn(const std::filesystem::path& dir) {
    int n = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        std::string ext = e.path().extension().string();
        if (ext == ".xlsx" || ext == ".xls") ++n;
    }
    return n;
}

// The raw file through the reader of `description` and the workbook back
// into a lot. The workbook is closed again so a later import may rewrite it.
struct Imported {
    std::string workbook;
    std::shared_ptr<cLot> lot;
    WBLotTables tables;
};
// The request through `read` (a reader called directly, or ImportCall) and
// the workbook it wrote loaded back from the file (not from the copy the
// save left open); every workbook is closed again afterwards.
inline Imported ReadBack(ReaderFn read, const ImportRequest& req) {
    Imported r;
    Result<std::string> w = read(req);
    EXPECT_TRUE(w.ok()) << (w.ok() ? "" : w.failure().message());
    if (!w.ok()) return r;
    r.workbook = *w;
    Workbooks::CloseAll();
    LoadOptions o;
    o.quiet = true;
    Status st = GetExcelWBLot(r.workbook, o, r.lot, &r.tables);
    EXPECT_TRUE(st.ok()) << (st.ok() ? "" : st.failure().message());
    r.tables.workbook.reset();
    if (r.lot) r.lot->xlwb.reset();
    Workbooks::CloseAll();
    return r;
}

inline Imported ImportAndLoad(const std::string& path, const std::string& description,
                              const std::string& folder = {}) {
    ImportRequest req;
    req.path = path;
    req.description = description;
    req.dataFolder = folder;
    return ReadBack(ImportCall, req);
}

}  // namespace zorv::testing
