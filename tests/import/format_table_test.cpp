// The format table, the dispatch, and the site grid maker.
#include <gtest/gtest.h>

#include "app/shutdown.h"
#include "import/import.h"
#include "import/sites.h"
#include "import_test_util.h"

namespace zorv {
namespace {

TEST(FormatTable, RowsInTheirOrder) {
    const Datam& t = FormatTable();
    ASSERT_EQ(t.rowUb(), kToolFormatCount + 1);
    EXPECT_EQ(t(0, 0).str(), "Description");
    EXPECT_EQ(t(0, 1).str(), "Filter");
    EXPECT_EQ(t(0, 2).str(), "Procedure");
    EXPECT_EQ(t(1, 0).str(), "Accent Optical CDS");
    EXPECT_EQ(t(8, 0).str(), "Focus/Dose(FEM) spreadsheets");
    EXPECT_EQ(t(8, 1).str(), "*.XLS");
    EXPECT_EQ(t(16, 0).str(), "KLA 8xxx CD-SEM");
    EXPECT_EQ(t(20, 1).str(), "*.msr; *.XLS");
    EXPECT_EQ(t(28, 0).str(), "Timbre Tech. ODP (*.odp;*.csv)");
    EXPECT_EQ(t(29, 0).str(), kDelimitedDescription);
    // Two descriptions, one reader.
    EXPECT_EQ(t(2, 2).str(), "ImportBioRadQ6res");
    EXPECT_EQ(t(6, 2).str(), "ImportBioRadQ6res");
    // The Zspin files go through the Archer reader.
    EXPECT_EQ(ReaderOfProcedure("ImportKLAZspin"), ReaderOfProcedure("ImportKLAarcher"));
    // No row of the table leaves a user with "Data import format not available.".
    for (int row = 1; row <= t.rowUb(); ++row) EXPECT_NE(ReaderOfProcedure(t(row, 2).str()), nullptr) << row;
}

TEST(FormatTable, DispatchMessages) {
    auto dir = testing::FreshDir("dispatch");
    testing::WriteBytes(dir / "a.txt", "x\r\n");
    ImportRequest req{(dir / "a.txt").string(), {}, {}, "No Such Tool", {}};
    Result<std::string> r = ImportCall(req);
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.failure().text, "Import format not found.");
    EXPECT_EQ(r.failure().tag, "Import(ImportRawData): ");
    // Every row whose reader is not built says so and nothing else.
    const Datam& t = FormatTable();
    for (int row = 1; row <= t.rowUb(); ++row) {
        if (ReaderOfProcedure(t(row, 2).str())) continue;
        req.description = std::string(t(row, 0).str());
        r = ImportCall(req);
        ASSERT_FALSE(r.ok());
        EXPECT_EQ(r.failure().text, "Data import format not available.") << req.description;
    }
    EXPECT_EQ(testing::WorkbooksIn(dir), 0);
    EXPECT_FALSE(Exiting());
}

TEST(MakeSites, CentredGridRowByRowFromTheTop) {
    Datam s;
    ASSERT_EQ(MakeSites(s, 26, 33, 3, 2, 2, 4, false), 1);
    ASSERT_GE(s.rowUb(), 6);
    // Row 1 of the grid at Y = +2, X from -2 to +2; row 2 at Y = -2.
    const double want[6][2] = {{-2, 2}, {0, 2}, {2, 2}, {-2, -2}, {0, -2}, {2, -2}};
    for (int i = 0; i < 6; ++i) {
        EXPECT_DOUBLE_EQ(s(i + 1, 4).toDouble(), want[i][0]) << i;
        EXPECT_DOUBLE_EQ(s(i + 1, 5).toDouble(), want[i][1]) << i;
        EXPECT_EQ(s(i + 1, 3).toDouble(), i + 1);
        EXPECT_EQ(s(i + 1, 1).toDouble(), 26);
    }
    // Meander: the second row runs back.
    ASSERT_EQ(MakeSites(s, 26, 33, 3, 2, 2, 4, true), 1);
    EXPECT_DOUBLE_EQ(s(4, 4).toDouble(), 2);
    EXPECT_DOUBLE_EQ(s(6, 4).toDouble(), -2);
    // Micrometres and the default die.
    ASSERT_EQ(MakeSites(s, 26000, 33000, 2, 1, 1000, 1000, false), 1);
    EXPECT_DOUBLE_EQ(s(1, 1).toDouble(), 26);
    EXPECT_DOUBLE_EQ(s(1, 4).toDouble(), -0.5);
    EXPECT_DOUBLE_EQ(s(2, 4).toDouble(), 0.5);
    ASSERT_EQ(MakeSites(s, 0, 0, 0, 0, -3, 3, false), 1);
    EXPECT_DOUBLE_EQ(s(1, 1).toDouble(), 24);
    EXPECT_DOUBLE_EQ(s(1, 2).toDouble(), 32);
    EXPECT_DOUBLE_EQ(s(1, 4).toDouble(), 0);
}

TEST(FindDieSize, MostCommonSpacing) {
    double x = 0, y = 0;
    // A wafer map with a missing column: the pitch is still 26.
    EXPECT_TRUE(FindDieSize({-52, -26, 26, 52, 78, -52}, {-33, 0, 33, 33, 0, 66}, x, y));
    EXPECT_DOUBLE_EQ(x, 26);
    EXPECT_DOUBLE_EQ(y, 33);
    EXPECT_FALSE(FindDieSize({5, 5}, {1, 2}, x, y));
}

}  // namespace
}  // namespace zorv
