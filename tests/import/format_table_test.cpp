// The format table, the dispatch, and the site grid maker.
#include <gtest/gtest.h>

#include <set>

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

namespace zorv {
namespace {

// Every sample file is recognised as the row of the tool that wrote it (a
// Questar file without its header names no format and is left out).
TEST(DetectFormat, EverySampleNamesItsRow) {
    const std::pair<const char*, const char*> samples[] = {
        {"accent_cds.txt", "Accent Optical CDS"},
        {"accent_cds_varied.txt", "Accent Optical CDS"},
        {"accent_q200.txt", "Accent Overlay"},
        {"asml_registration.txt", "ASML Registration"},
        {"asml_xt_log.txt", "ASML Registration"},
        {"biorad_qdx.txt", "Accent Overlay"},
        {"biorad_res.txt", "Accent Overlay"},
        {"cderesmap_metal.txt", "CDE ResMap Probe"},
        {"cderesmap_poly.txt", "CDE ResMap Probe"},
        {"delimited_cd.csv", "Delimited text (CSV, TSV)"},
        {"delimited_euro.txt", "Delimited text (CSV, TSV)"},
        {"delimited_overlay.tsv", "Delimited text (CSV, TSV)"},
        {"fem_spreadsheet.xlsx", "Focus/Dose(FEM) spreadsheets"},
        {"hitachi_cdsem_fem.txt", "Hitachi_CDSEM (multi-point)"},
        {"hitachi_cdsem_stats.txt", "Hitachi_CDSEM (statistical)"},
        {"hitachi_laxx.xlsx", "Hitachi LAXXX Overlay"},
        {"ivs_overlay.txt", "Soluris IVS Overlay family(IVS135 etc.)"},
        {"ivs_yosemite.txt", "Soluris Yosemite CD-SEM family"},
        {"ivs_yosemite_nounits.txt", "Soluris Yosemite CD-SEM family"},
        {"kla_5xxx_overlay.txt", "KLA 5xxx"},
        {"kla_archer_overlay.txt", "KLA Archer overlay"},
        {"kla_archer_stats.txt", "KLA Archer overlay"},
        {"kla_archer_zspin.txt", "KLA ZspinFocus"},
        {"kla_asetf5.txt", "KLA ASET F5 Ellipsometer"},
        {"kla_cdsem_fem.txt", "KLA 8xxx CD-SEM"},
        {"kla_cdsem_mac.txt", "KLA 8xxx CD-SEM"},
        {"kla_prodata_fem.txt", "KLA ProData Files"},
        {"nanometrics_ocd.txt", "NanoMetrics OCD"},
        {"nanometrics_ocd_reticle.txt", "NanoMetrics OCD(strReticle)"},
        {"nanosem_family.txt", "AMAT NanoSEM 3D"},
        {"nanosem_report.txt", "AMAT NanoSEM 3D"},
        {"nanosem_rpt.txt", "AMAT NanoSEM 3D"},
        {"nikon_nrm_overlay.txt", "Nikon NRM Series OL (*.msr, *.XLS)"},
        {"nova_track_overlay.txt", "Nova Track 2020-3030 OL (*.*)"},
        {"onwafer_chill.txt", "OnWafer Thermal Map (*.*)"},
        {"onwafer_peb.txt", "OnWafer Thermal Map (*.*)"},
        {"sensarray_isis.xlsx", "SensArray Thermal Map(*.xls,*.*)"},
        {"sensarray_rtd.txt", "SensArray Thermal Map(*.xls,*.*)"},
        {"thermawave_rtcd.txt", "Therma-Wave RTCD (*.csv)"},
        {"thermawave_rtcd_varied.txt", "Therma-Wave RTCD (*.csv)"},
        {"timbre_odp_plain.txt", "Timbre Tech. ODP (*.odp;*.csv)"},
        {"timbre_odp_verbose.txt", "Timbre Tech. ODP (*.odp;*.csv)"},
        {"yield_pdfs.xlsx", "Yield data summary (*.*)"},
    };
    std::set<std::string> rows;
    for (auto [file, row] : samples) {
        Detection d = DetectFormat(testing::SamplePath(file).string());
        EXPECT_EQ(d.description, row) << file << ": " << d.why;
        rows.insert(row);
    }
    // Every row of the table has a sample, bar the two that share a reader
    // with a row that has one ("BioRad Questar Overlay", "AMAT NanoSEM 3D(Family)").
    const Datam& t = FormatTable();
    for (int r = 1; r <= t.rowUb(); ++r) {
        std::string d(t(r, 0).str());
        if (d == "BioRad Questar Overlay" || d == "AMAT NanoSEM 3D(Family)") continue;
        EXPECT_TRUE(rows.count(d)) << "no sample for " << d;
    }
}

}  // namespace
}  // namespace zorv
