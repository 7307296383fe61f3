// libFuzzer target of the .xlsx reader (and of a save of what it read).
//
// An input that starts like a zip is taken as a whole package. Any other
// input replaces one part of a small valid workbook (the first byte picks
// which), so that the mutations reach the XML readers instead of dying at
// the zip's checksums.
#include <unistd.h>
#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "workbook/store.h"
#include "workbook/zipio.h"

using namespace zorv;

namespace {

std::vector<std::pair<std::string, std::string>> g_parts;  // the template package
std::string g_tmp;                                          // where saves go

void Put16(std::string& s, uint16_t v) {
    s += char(v & 0xFF);
    s += char(v >> 8);
}
void Put32(std::string& s, uint32_t v) {
    for (int i = 0; i < 4; ++i) s += char((v >> (8 * i)) & 0xFF);
}

// A zip with every part stored uncompressed.
std::string StoredZip(const std::vector<std::pair<std::string, std::string>>& parts) {
    std::string out, dir;
    for (auto& [name, data] : parts) {
        uint32_t crc = static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
        uint32_t off = static_cast<uint32_t>(out.size());
        Put32(out, 0x04034b50);
        Put16(out, 20);
        Put16(out, 0);
        Put16(out, 0);  // stored
        Put16(out, 0);
        Put16(out, 0);
        Put32(out, crc);
        Put32(out, static_cast<uint32_t>(data.size()));
        Put32(out, static_cast<uint32_t>(data.size()));
        Put16(out, static_cast<uint16_t>(name.size()));
        Put16(out, 0);
        out += name;
        out += data;
        Put32(dir, 0x02014b50);
        Put16(dir, 20);
        Put16(dir, 20);
        Put16(dir, 0);
        Put16(dir, 0);
        Put16(dir, 0);
        Put16(dir, 0);
        Put32(dir, crc);
        Put32(dir, static_cast<uint32_t>(data.size()));
        Put32(dir, static_cast<uint32_t>(data.size()));
        Put16(dir, static_cast<uint16_t>(name.size()));
        Put16(dir, 0);
        Put16(dir, 0);
        Put16(dir, 0);
        Put16(dir, 0);
        Put32(dir, 0);
        Put32(dir, off);
        dir += name;
    }
    uint32_t dirOff = static_cast<uint32_t>(out.size());
    out += dir;
    Put32(out, 0x06054b50);
    Put16(out, 0);
    Put16(out, 0);
    Put16(out, static_cast<uint16_t>(parts.size()));
    Put16(out, static_cast<uint16_t>(parts.size()));
    Put32(out, static_cast<uint32_t>(dir.size()));
    Put32(out, dirOff);
    Put16(out, 0);
    return out;
}

void MakeTemplate() {
    g_tmp = "/tmp/zorv_xlsx_fuzz_" + std::to_string(getpid()) + ".xlsx";
    std::string seed = g_tmp + ".seed.xlsx";
    auto wb = Workbook::create(seed, "Information");
    Worksheet* d = wb->addSheet("Data");
    d->setRange(1, 1, Datam::fromRows({{"Wafer", "Test", "X"}, {"W1", 1, 0.5}, {"W2", 2, Value::date(45000.5)}}, 1, 1));
    d->setCell(4, 1, Value(true));
    d->setCell(4, 2, Value::error(xlErrNA));
    d->setComment(1, 1, "DATASHEET");
    d->setComment(2, 1, "shown", true);
    d->setNumberFormat(Area{2, 3, 3, 3}, "0.0000");
    d->setBold(Area{1, 1, 1, 3});
    wb->sheet(1)->addHyperlink(1, 1, "#Data!A1");
    wb->addName("Measure", "=Data!$C$2:$C$3");
    wb->setProperty("Author", "fuzz");
    if (!wb->save()) std::abort();
    auto z = xlsx::ZipReader::openFile(seed, "seed.xlsx");
    if (!z) std::abort();
    for (auto& n : (*z)->names()) {
        std::string data;
        if (!(*z)->readAll(n, data)) std::abort();
        g_parts.emplace_back(n, data);
    }
    std::filesystem::remove(seed);
}

void Exercise(Workbook& wb) {
    size_t cells = 0;
    bool allRead = true;
    for (int i = 1; i <= wb.sheetCount(); ++i) {
        Worksheet* ws = wb.sheet(i);
        // The streamed read first, while the sheet is not loaded, then the load.
        (void)ws->declaredArea();
        long streamed = 0;
        (void)ws->forEachRow([&](int, const Value* cells, int count) {
            for (int c = 0; c < count && c < 50; ++c) (void)cells[c].toString();
            return ++streamed < 100000;
        });
        allRead &= static_cast<bool>(ws->load());
        Area a = ws->usedArea();
        if (!a.empty() && static_cast<double>(a.rows()) * a.cols() < 2e6) {
            Datam d = ws->usedRange();
            cells += static_cast<size_t>(d.rowCount()) * static_cast<size_t>(d.colCount());
            for (int r = 1; r <= d.rowUb() && r <= 50; ++r)
                for (int c = 1; c <= d.colUb() && c <= 50; ++c) (void)d(r, c).toString();
        }
        for (auto& c : ws->comments()) (void)c.text.size();
        for (auto& h : ws->hyperlinks()) (void)ParseRangeRef(h.location);
        (void)ws->numberFormat(1, 1);
    }
    for (auto& n : wb.names()) (void)wb.nameRange(n.name);
    // What was read can be written again and read back.
    if (cells < 20000 && !wb.readOnly()) {
        if (wb.saveAs(g_tmp)) {
            auto again = Workbook::open(g_tmp);
            if (!again && allRead) {
                std::fprintf(stderr, "a saved workbook does not read back: %s\n", again.failure().message().c_str());
                std::abort();
            }
            if (again && (*again)->sheetCount() != wb.sheetCount()) std::abort();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    MakeTemplate();
    // ZORV_FUZZ_SEEDS=dir writes seed inputs there and stops.
    if (const char* dir = std::getenv("ZORV_FUZZ_SEEDS")) {
        std::filesystem::create_directories(dir);
        for (size_t i = 0; i < g_parts.size(); ++i) {
            std::ofstream f(std::string(dir) + "/part" + std::to_string(i), std::ios::binary);
            f << char(i) << g_parts[i].second;
        }
        std::ofstream f(std::string(dir) + "/package.xlsx", std::ios::binary);
        f << StoredZip(g_parts);
        std::exit(0);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view in(reinterpret_cast<const char*>(data), size);
    std::string bytes;
    if (in.size() >= 4 && in.substr(0, 4) == std::string_view("PK\x03\x04", 4)) {
        bytes.assign(in);
    } else if (!in.empty()) {
        auto parts = g_parts;
        parts[static_cast<unsigned char>(in[0]) % parts.size()].second.assign(in.substr(1));
        bytes = StoredZip(parts);
    } else {
        return 0;
    }
    auto r = Workbook::openMemory(bytes, "fuzz.xlsx", Workbook::Load::Lazy);
    if (r) Exercise(**r);
    return 0;
}
