// Cells a sheet refers to in a caller's table (referRows) against the same
// table copied in with setRange: the saved workbooks read back alike, cell by
// cell, with their formats and comments.
#include <gtest/gtest.h>

#include <filesystem>

#include "workbook/store.h"

namespace fs = std::filesystem;
using namespace zorv;

namespace {

std::string Tmp(const std::string& name) {
    fs::path p = fs::path(ZORV_TEST_TMP) / "workbook_refer";
    fs::create_directories(p);
    return (p / name).string();
}

// Every kind of value a sheet holds, an empty row and an empty column among
// them; rows 0 (header) to n, columns 0 to 7.
Datam MixedTable(int n) {
    Datam t(n, 7, 0, 0);
    for (int c = 0; c <= 6; ++c) t(0, c) = std::string("H").append(std::to_string(c));
    for (int r = 1; r <= n; ++r) {
        if (r == 4) continue;
        t(r, 0) = std::string("W").append(std::to_string(r % 3));
        t(r, 1) = static_cast<int32_t>(r);
        t(r, 2) = r * 0.125 - 1.0 / 3;
        t(r, 3) = static_cast<float>(r) / 7;
        t(r, 4) = Value::date(45000 + r + (r % 2 ? 0.25 : 0));
        t(r, 5) = r % 5 == 0 ? Value(r % 2 == 0) : Value::error(xlErrDiv0);
        if (r % 3) t(r, 6) = std::string(" pad ").append(std::to_string(r));
    }
    return t;
}

// The formats, comments and a side column both sheets get.
void Dress(Worksheet& ws, int n, bool partial) {
    ws.setBold(Area{1, 1, 1, 8});
    ws.setNumberFormat(Area{2, 3, n + 1, 3}, "##0.000");
    ws.setNumberFormat(Area{1, 2, kMaxRows, 2}, "0.00");
    ws.setAlignment(Area{2, 4, n + 1, 5}, HAlign::Right);
    ws.setBold(Area{1, 10, kMaxRows, 10});  // a styled column right of the table
    if (partial) ws.setNumberFormat(Area{3, 4, 5, 4}, "0%");
    ws.setComment(1, 1, "DATASHEET");
    ws.setComment(3, 2, "second\r\nline", true);
}

void ExpectSame(Workbook& a, Workbook& b) {
    Worksheet* sa = a.sheet("Data");
    Worksheet* sb = b.sheet("Data");
    ASSERT_TRUE(sa && sb);
    Area ua = sa->usedArea(), ub = sb->usedArea();
    ASSERT_EQ(ua.row1, ub.row1);
    ASSERT_EQ(ua.col1, ub.col1);
    ASSERT_EQ(ua.row2, ub.row2);
    ASSERT_EQ(ua.col2, ub.col2);
    for (int r = ua.row1; r <= ua.row2; ++r)
        for (int c = ua.col1; c <= ua.col2; ++c) {
            const Value& va = sa->cell(r, c);
            const Value& vb = sb->cell(r, c);
            EXPECT_TRUE(va.identical(vb)) << CellAddress(r, c) << " " << va.toString() << " / " << vb.toString();
            EXPECT_EQ(sa->numberFormat(r, c), sb->numberFormat(r, c)) << CellAddress(r, c);
            EXPECT_EQ(sa->bold(r, c), sb->bold(r, c)) << CellAddress(r, c);
            EXPECT_EQ(sa->alignment(r, c), sb->alignment(r, c)) << CellAddress(r, c);
        }
    auto ca = sa->comments(), cb = sb->comments();
    ASSERT_EQ(ca.size(), cb.size());
    for (size_t i = 0; i < ca.size(); ++i) {
        EXPECT_EQ(ca[i].row, cb[i].row);
        EXPECT_EQ(ca[i].col, cb[i].col);
        EXPECT_EQ(ca[i].text, cb[i].text);
        EXPECT_EQ(ca[i].visible, cb[i].visible);
    }
}

void RunCase(bool partial) {
    const int n = 40;
    Datam t = MixedTable(n);
    const std::string tag = partial ? "partial" : "columns";
    std::string copied = Tmp("copied_" + tag + ".xlsx"), referred = Tmp("referred_" + tag + ".xlsx");
    {
        WorkbookPtr wb = Workbook::create(copied, "Data");
        Worksheet* ws = wb->sheet("Data");
        ws->setRange(1, 1, t);
        Dress(*ws, n, partial);
        ASSERT_TRUE(wb->save().ok());
    }
    {
        WorkbookPtr wb = Workbook::create(referred, "Data");
        Worksheet* ws = wb->sheet("Data");
        Datam header(0, 7, 0, 0);
        for (int c = 0; c <= 7; ++c) header(0, c) = t(0, c);
        ws->setRange(1, 1, header);
        ws->referRows(2, 1, t, 1, n);
        Dress(*ws, n, partial);
        // Formats read through the reference without copying it in.
        EXPECT_EQ(ws->numberFormat(5, 3), "##0.000");
        EXPECT_EQ(ws->numberFormat(5, 2), "0.00");
        EXPECT_EQ(ws->alignment(5, 4), HAlign::Right);
        ASSERT_TRUE(wb->save().ok());
        // A sheet that still held its reference lets go of it once saved;
        // the cells come back from the file.
        EXPECT_EQ(ws->loaded(), partial);
        EXPECT_EQ(ws->cell(2, 2).toDouble(), 1.0);
    }
    auto a = Workbook::open(copied);
    auto b = Workbook::open(referred);
    ASSERT_TRUE(a.ok() && b.ok());
    ExpectSame(**a, **b);
    // The written values against the table itself.
    Worksheet* s = (*b)->sheet("Data");
    for (int r = 0; r <= n; ++r)
        for (int c = 0; c <= 7; ++c) {
            const Value& v = t(r, c);
            const Value& w = s->cell(r + 1, c + 1);
            if (v.isString()) EXPECT_EQ(w.str(), v.str());
            else if (v.isNumberType() && !v.isBool()) EXPECT_EQ(w.toDouble(), v.toDouble());
            else EXPECT_EQ(w.type(), v.type()) << CellAddress(r + 1, c + 1);
        }
}

}  // namespace

TEST(WorkbookRefer, ReferredRowsSaveAsCopiedOnes) { RunCase(false); }

TEST(WorkbookRefer, AFormatOverPartOfTheRowsCopiesThemIn) { RunCase(true); }

TEST(WorkbookRefer, CellAccessAndClearLetGoOfTheTable) {
    Datam t = MixedTable(6);
    WorkbookPtr wb = Workbook::create(Tmp("access.xlsx"), "Data");
    Worksheet* ws = wb->sheet("Data");
    ws->referRows(3, 2, t, 1, 6);
    {
        Datam scratch = MixedTable(6);
        ws->referRows(3, 2, scratch, 1, 6);
        ws->holdCells();
    }  // the sheet keeps its copy after the table is gone
    EXPECT_EQ(ws->cell(3, 2).str(), "W1");
    EXPECT_EQ(ws->usedArea().row2, 8);
    ws->referRows(1, 1, t, 1, 2);
    ws->setCell(1, 1, "set");  // copies in, then writes over
    EXPECT_EQ(ws->cell(1, 1).str(), "set");
    EXPECT_EQ(ws->cell(2, 1).str(), "W2");
    ws->referRows(1, 1, t, 1, 6);
    ws->clear();
    EXPECT_TRUE(ws->usedArea().empty());
}
