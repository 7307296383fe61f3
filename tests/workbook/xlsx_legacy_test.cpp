// Legacy .xls workbooks read through FreeXL. No spreadsheet program is at
// hand to make one, so the test writes a small BIFF8 workbook in an OLE2
// container itself, after the published layouts of both.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "workbook/store.h"

namespace fs = std::filesystem;
using namespace zorv;

namespace {

void P16(std::string& s, uint16_t v) {
    s += char(v & 0xFF);
    s += char(v >> 8);
}
void P32(std::string& s, uint32_t v) {
    for (int i = 0; i < 4; ++i) s += char((v >> (8 * i)) & 0xFF);
}
void PDouble(std::string& s, double d) {
    uint64_t u;
    std::memcpy(&u, &d, 8);
    for (int i = 0; i < 8; ++i) s += char((u >> (8 * i)) & 0xFF);
}
void Record(std::string& s, uint16_t type, const std::string& body) {
    P16(s, type);
    P16(s, static_cast<uint16_t>(body.size()));
    s += body;
}
std::string Bof(uint16_t dt) {
    std::string b;
    P16(b, 0x0600);
    P16(b, dt);
    P16(b, 0x0DBB);
    P16(b, 0x07CC);
    P32(b, 0);
    P32(b, 6);
    return b;
}

struct Cell {
    int row, col;
    bool text;
    double num;
    std::string str;
};

// The Workbook stream: globals with a string table and the sheet list, then
// each sheet with its cells.
std::string Biff(const std::vector<std::pair<std::string, std::vector<Cell>>>& sheets) {
    std::vector<std::string> sst;
    for (auto& [n, cells] : sheets)
        for (auto& c : cells)
            if (c.text && std::find(sst.begin(), sst.end(), c.str) == sst.end()) sst.push_back(c.str);
    std::string globals;
    Record(globals, 0x0809, Bof(0x0005));
    {
        std::string b;
        P16(b, 1252);
        Record(globals, 0x0042, b);  // CODEPAGE
    }
    {
        std::string b;
        P16(b, 0);
        Record(globals, 0x0022, b);  // DATEMODE 1900
    }
    {
        std::string b;
        P32(b, static_cast<uint32_t>(sst.size()));
        P32(b, static_cast<uint32_t>(sst.size()));
        for (auto& s : sst) {
            P16(b, static_cast<uint16_t>(s.size()));
            b += char(0);  // 8-bit characters
            b += s;
        }
        Record(globals, 0x00FC, b);  // SST
    }
    // Filler so that the stream is not kept in the container's mini stream.
    for (int i = 0; i < 6; ++i) Record(globals, 0x00EF, std::string(800, '\0'));
    std::vector<size_t> boundPos;
    for (auto& [name, cells] : sheets) {
        boundPos.push_back(globals.size() + 4);
        std::string b;
        P32(b, 0);  // patched below
        b += char(0);
        b += char(0);
        b += char(name.size());
        b += char(0);
        b += name;
        Record(globals, 0x0085, b);  // BOUNDSHEET
    }
    Record(globals, 0x000A, "");
    std::string stream = globals;
    for (size_t i = 0; i < sheets.size(); ++i) {
        uint32_t off = static_cast<uint32_t>(stream.size());
        for (int k = 0; k < 4; ++k) stream[boundPos[i] + static_cast<size_t>(k)] = char((off >> (8 * k)) & 0xFF);
        Record(stream, 0x0809, Bof(0x0010));
        int rows = 0, cols = 0;
        for (auto& c : sheets[i].second) {
            rows = std::max(rows, c.row + 1);
            cols = std::max(cols, c.col + 1);
        }
        std::string d;
        P32(d, 0);
        P32(d, static_cast<uint32_t>(rows));
        P16(d, 0);
        P16(d, static_cast<uint16_t>(cols));
        P16(d, 0);
        Record(stream, 0x0200, d);  // DIMENSIONS
        for (auto& c : sheets[i].second) {
            std::string b;
            P16(b, static_cast<uint16_t>(c.row));
            P16(b, static_cast<uint16_t>(c.col));
            P16(b, 15);
            if (c.text) {
                P32(b, static_cast<uint32_t>(std::find(sst.begin(), sst.end(), c.str) - sst.begin()));
                Record(stream, 0x00FD, b);  // LABELSST
            } else {
                PDouble(b, c.num);
                Record(stream, 0x0203, b);  // NUMBER
            }
        }
        Record(stream, 0x000A, "");
    }
    return stream;
}

// An OLE2 compound file holding one stream, "Workbook": sector 0 the FAT,
// then the stream, then the directory.
std::string Ole(std::string stream) {
    const uint32_t kEnd = 0xFFFFFFFE, kFree = 0xFFFFFFFF, kFat = 0xFFFFFFFD;
    size_t size = stream.size();
    stream.resize((size + 511) / 512 * 512, '\0');
    uint32_t n = static_cast<uint32_t>(stream.size() / 512);
    std::string h("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8);
    h += std::string(16, '\0');
    P16(h, 0x003E);
    P16(h, 0x0003);
    P16(h, 0xFFFE);
    P16(h, 9);
    P16(h, 6);
    h += std::string(6, '\0');
    P32(h, 0);      // directory sectors (v3: 0)
    P32(h, 1);      // FAT sectors
    P32(h, n + 1);  // first directory sector
    P32(h, 0);
    P32(h, 4096);  // mini stream cut-off
    P32(h, kEnd);
    P32(h, 0);
    P32(h, kEnd);
    P32(h, 0);
    P32(h, 0);  // DIFAT[0]: the FAT is sector 0
    while (h.size() < 512) P32(h, kFree);
    std::string fat;
    P32(fat, kFat);
    for (uint32_t i = 1; i <= n; ++i) P32(fat, i == n ? kEnd : i + 1);
    P32(fat, kEnd);  // directory
    while (fat.size() < 512) P32(fat, kFree);
    auto entry = [&](const std::string& name, uint8_t type, uint32_t child, uint32_t start, uint32_t sz) {
        std::string e;
        for (char c : name) {
            e += c;
            e += char(0);
        }
        e.resize(64, '\0');
        P16(e, name.empty() ? 0 : static_cast<uint16_t>((name.size() + 1) * 2));
        e += char(type);
        e += char(1);
        P32(e, kFree);
        P32(e, kFree);
        P32(e, child);
        e += std::string(16 + 4 + 16, '\0');
        P32(e, start);
        P32(e, sz);
        P32(e, 0);
        return e;
    };
    std::string dir = entry("Root Entry", 5, 1, kEnd, 0) + entry("Workbook", 2, kFree, 1, static_cast<uint32_t>(size)) +
                      entry("", 0, kFree, 0, 0) + entry("", 0, kFree, 0, 0);
    return h + fat + stream + dir;
}

}  // namespace

TEST(XlsLegacy, ReadsValuesOfAnXlsWorkbook) {
    fs::path dir = fs::path(ZORV_TEST_TMP) / "workbook_legacy";
    fs::create_directories(dir);
    std::string path = (dir / "old data.xls").string();
    std::string bytes = Ole(Biff({{"Sites", {{0, 0, true, 0, "Sites"}, {0, 1, true, 0, "X_DIE_SIZE"}, {1, 1, false, 20.5, ""}}},
                                  {"lot1", {{0, 1, true, 0, "Wafer"}, {1, 1, true, 0, "W01"}, {1, 2, false, 3, ""},
                                            {2, 5, false, -0.125, ""}}}}));
    std::ofstream(path, std::ios::binary) << bytes;

    auto r = Workbook::open(path);
    ASSERT_TRUE(r) << r.failure().message();
    Workbook& wb = **r;
    EXPECT_TRUE(wb.readOnly());
    EXPECT_TRUE(wb.saved());
    EXPECT_EQ(wb.sheetNames(), (std::vector<std::string>{"Sites", "lot1"}));
    EXPECT_EQ(wb.sheet("Sites")->cell(1, 2).str(), "X_DIE_SIZE");
    EXPECT_DOUBLE_EQ(wb.sheet("Sites")->cell(2, 2).toDouble(), 20.5);
    Worksheet& d = *wb.sheet("lot1");
    EXPECT_EQ(d.cell(2, 2).str(), "W01");
    EXPECT_DOUBLE_EQ(d.cell(2, 3).toDouble(), 3);
    EXPECT_DOUBLE_EQ(d.cell(3, 6).toDouble(), -0.125);
    Datam u = d.usedRange();
    EXPECT_EQ(u.rowUb(), 3);
    EXPECT_EQ(u.colUb(), 5);

    // Read-only: a save in place is refused and the file stays; a save as
    // .xlsx writes every sheet.
    auto st = wb.save();
    EXPECT_FALSE(st);
    std::ifstream in(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), bytes);
    std::string xlsx = (dir / "old data.xlsx").string();
    fs::remove(xlsx);
    ASSERT_TRUE(wb.saveAs(xlsx));
    EXPECT_FALSE(wb.readOnly());
    auto x = Workbook::open(xlsx);
    ASSERT_TRUE(x) << x.failure().message();
    EXPECT_EQ((*x)->sheet("lot1")->cell(2, 2).str(), "W01");
    EXPECT_DOUBLE_EQ((*x)->sheet("Sites")->cell(2, 2).toDouble(), 20.5);
}
