// Helpers the workbook tests share: scratch folders, hand-made zip packages,
// sample data workbooks and the stored facts of a package's parts.
#pragma once

#include <gtest/gtest.h>
#include <zip.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "base/proc.h"
#include "workbook/data_workbook.h"
#include "workbook/data_workbook_sample.h"
#include "workbook/store.h"

namespace zorv::testing {

// An empty scratch folder of its own under the test area (tests run as
// parallel processes).
inline std::filesystem::path FreshDir(const std::string& name) {
    std::filesystem::path d = std::filesystem::path(ZORV_TEST_TMP) / name;
    std::filesystem::remove_all(d);
    std::filesystem::create_directories(d);
    return d;
}

// The content types and root relationships of a hand-made package whose
// parts are all XML.
inline const char* kCT =
    "<?xml version=\"1.0\"?><Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
    "<Default Extension=\"rels\" ContentType=\"application/vnd.openxmlformats-package.relationships+xml\"/>"
    "<Default Extension=\"xml\" ContentType=\"application/xml\"/></Types>";
inline const char* kRootRels =
    "<?xml version=\"1.0\"?><Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">"
    "<Relationship Id=\"rId1\" Type=\"http://schemas.openxmlformats.org/officeDocument/2006/relationships/officeDocument\" "
    "Target=\"xl/workbook.xml\"/></Relationships>";

// A zip made of the given parts, deflated, or stored as they are.
inline void MakeZip(const std::string& path, const std::vector<std::pair<std::string, std::string>>& parts,
                    bool stored = false) {
    std::filesystem::remove(path);
    int err = 0;
    zip_t* z = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &err);
    ASSERT_NE(z, nullptr);
    for (auto& [name, data] : parts) {
        zip_source_t* s = zip_source_buffer(z, data.data(), data.size(), 0);
        const zip_int64_t i = zip_file_add(z, name.c_str(), s, 0);
        if (stored) zip_set_file_compression(z, static_cast<zip_uint64_t>(i), ZIP_CM_STORE, 0);
    }
    ASSERT_EQ(zip_close(z), 0);
}

// A one-wafer sample data workbook `name`.xlsx in `dir`, written by SaveData
// and closed again; its path, or "" (with a test failure) when it could not be.
inline std::string MakeSampleWorkbook(const std::filesystem::path& dir, const std::string& name, int dataType = 1) {
    SampleSpec shape;
    shape.wafers = 1;
    shape.dataType = dataType;
    shape.dataTable = name;
    shape.workbookPath = (dir / (name + ".xlsx")).string();
    SampleTables t = MakeSampleTables(shape);
    Result<std::string> saved = SaveData(t.data, t.excluded, t.sites, t.information);
    EXPECT_TRUE(saved.ok()) << saved.failure().message();
    Workbooks::CloseAll();
    return saved.ok() ? *saved : std::string();
}

}  // namespace zorv::testing
