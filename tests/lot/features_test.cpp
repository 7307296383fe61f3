#include <gtest/gtest.h>

#include <cmath>

#include "lot/lot.h"
#include "lot_fixture.h"

using namespace zorv;
using zorv::testing::ScopedCapture;
using zorv::testing::MakeLot;

TEST(Units, WordListCodesAndNumbers) {
    EXPECT_EQ(ParseUnitCode("um"), 0);
    EXPECT_EQ(ParseUnitCode("UM"), 0);
    EXPECT_EQ(ParseUnitCode("\xC2\xB5m"), 0);  // micro sign and m
    EXPECT_EQ(ParseUnitCode("M"), 5);
    EXPECT_EQ(ParseUnitCode("MM"), 3);
    EXPECT_EQ(ParseUnitCode("millemeters"), 3);  // the misspelt word is on the list
    EXPECT_EQ(ParseUnitCode("R"), 7);
    EXPECT_EQ(ParseUnitCode("A"), 1);
    EXPECT_EQ(ParseUnitCode("\xC3\x85"), 1);  // Angstrom sign
    EXPECT_EQ(ParseUnitCode("\xC2\xB0"), 6);  // degree sign
    EXPECT_EQ(ParseUnitCode("O/SEC"), 14);    // before "O" of the degrees
    EXPECT_EQ(ParseUnitCode("ms"), 11);
    EXPECT_EQ(ParseUnitCode("mj"), 16);
    EXPECT_EQ(ParseUnitCode("14"), 14);
    EXPECT_EQ(ParseUnitCode("16"), -1);  // above 15 a number is text, and unknown
    EXPECT_EQ(ParseUnitCode("furlongs"), -1);

    EXPECT_EQ(UnitName(0), "\xC2\xB5m");
    EXPECT_EQ(UnitName(1), "\xC3\x85");
    EXPECT_EQ(UnitName(12), "\xC2\xB0" "C");
    EXPECT_EQ(UnitName(19), "Deg*Sec");
    EXPECT_DOUBLE_EQ(UnitFactor(2), 1e-9);
    EXPECT_DOUBLE_EQ(UnitFactor(7), 1);
}

TEST(Units, PlotFeatureUnitsStringSetsSelectedFeature) {
    auto lot = MakeLot(1, 1, 1, 1);
    lot->PlotFeature(2);
    long code = -5;
    EXPECT_EQ(lot->PlotFeatureUnitsString("nm", true, &code), "nm");
    EXPECT_EQ(code, 2);
    EXPECT_EQ(lot->PlotFeatureUnits(), 2);
    EXPECT_EQ(lot->ValueH_units, 2);
    EXPECT_EQ(lot->ValueV_Units, 0);
    // unknown or "16": the code stays and its text is answered
    EXPECT_EQ(lot->PlotFeatureUnitsString("16", true, &code), "nm");
    EXPECT_EQ(lot->ValueH_units, 2);
    // without set, nothing changes
    EXPECT_EQ(lot->PlotFeatureUnitsString("mm", false), "mm");
    EXPECT_EQ(lot->ValueH_units, 2);

    std::string text;
    EXPECT_TRUE(lot->GetPlotFeatureUnits(2, text, code));
    EXPECT_EQ(text, "nm");
    EXPECT_FALSE(lot->GetPlotFeatureUnits(9, text, code));
}

TEST(Units, UpdateUnitsFromSitesTable) {
    auto lot = MakeLot(1, 1, 1, 1);
    lot->PlotFeature(1);
    Datam t = Datam::fromRows({{"Variable", "Units", "PlotFeature"},
                               {"y", "mm", ""},
                               {"Length", "\xC2\xB5m", ""},
                               {"Unknown", "nm", ""}});
    lot->UpdateUnits(t);
    EXPECT_EQ(lot->ValueH_units, 3);
    EXPECT_EQ(lot->ValueZ_units, 0);
    EXPECT_EQ(lot->ValueV_Units, 0);
    EXPECT_EQ(lot->PlotFeature(), 1);  // the selection is kept
    lot->ValueZ_units = 4;
    Datam t2 = Datam::fromRows({{"Variable", "Units"}, {"Length", "nm"}});
    lot->UpdateUnits(t2, false);
    EXPECT_EQ(lot->ValueZ_units, 4);  // not replaced
    lot->UpdateUnits(t2, true);
    EXPECT_EQ(lot->ValueZ_units, 2);
}

TEST(Units, ExtractAndHook) {
    ScopedCapture rep;
    EXPECT_EQ(ExtractUnitsOfMeasure("CD (nm) mean"), "nm");
    EXPECT_EQ(ExtractUnitsOfMeasure("CD [um]", "[", "]"), "um");
    EXPECT_EQ(ExtractUnitsOfMeasure("CD"), "");
    EXPECT_EQ(ExtractUnitsOfMeasure(""), "");
    EXPECT_TRUE(rep.saw("An input string was not provided."));
    std::string name, unit;
    EXPECT_TRUE(UnitsExtract("Overlay X (nm)", name, unit));
    EXPECT_EQ(name, "Overlay X");
    EXPECT_EQ(unit, "nm");
    EXPECT_FALSE(UnitsExtract("Height", name, unit));
    EXPECT_EQ(name, "Height");

    auto lot = MakeLot(1, 1, 1, 1);
    EXPECT_EQ(lot->UpdateUnits2Workbook(), -1);  // no workbook layer yet
    int calls = 0;
    cLot::UpdateUnits2WorkbookHook() = [&](cLot& l) { ++calls; return l.LotName == "T" ? 1 : 0; };
    EXPECT_EQ(lot->UpdateUnits2Workbook(), 1);
    EXPECT_EQ(calls, 1);
    cLot::UpdateUnits2WorkbookHook() = nullptr;
}

TEST(Features, NamesTypesAndSelection) {
    auto lot = MakeLot(1, 1, 1, 1);
    EXPECT_EQ(lot->GetPlotFeatureName(-1), "None");
    EXPECT_EQ(lot->GetPlotFeatureName(0), "Vector");
    EXPECT_EQ(lot->GetPlotFeatureName(9), "Astigmatism");
    EXPECT_EQ(lot->GetPlotFeatureName(2), "Y");
    EXPECT_EQ(lot->GetPlotFeature("length"), 3);
    lot->SetModified(false);
    lot->setPlotFeatureName("Y");
    EXPECT_EQ(lot->PlotFeature(), 2);
    EXPECT_EQ(lot->PlotFeatureName, "Y");
    EXPECT_TRUE(lot->Modified());
    EXPECT_EQ(lot->PlotFeatureMin, -1e9f);
    // a name that is no feature keeps the selection
    lot->setPlotFeatureName("Overlay");
    EXPECT_EQ(lot->PlotFeature(), 2);
    EXPECT_EQ(lot->PlotFeatureName, "Overlay");
    lot->setPlotFeatureName("none");
    EXPECT_EQ(lot->PlotFeature(), -1);
    EXPECT_EQ(lot->PlotFeatureName, "None");
    lot->setPlotFeatureName("Y");

    lot->PLotDataType = 2;
    EXPECT_EQ(lot->GetPlotFeatureTypeName(), "Residuals");

    Datam ft = lot->GetFeatureTypes();  // V and H hold data: 0, 1, 2 and 9
    ASSERT_EQ(ft.rowUb(), 4);
    EXPECT_EQ(ft(1, 1).toString(), "ePlotFeature0");
    EXPECT_EQ(ft(2, 2).toString(), "X");
    EXPECT_EQ(ft(4, 0).toLong(), 9);

    lot->DataSource(eDataSourceCDSEM);
    EXPECT_TRUE(lot->LineWidthType);
    EXPECT_FALSE(lot->PlotWaferSites);
    lot->DataSource(eDataSourceWaferSite);
    EXPECT_TRUE(lot->PlotWaferSites);
    lot->DataSource(eDataSourceFocus);
    EXPECT_FALSE(lot->LineWidthType);

    lot->Notch = 3.14159f;
    EXPECT_EQ(lot->GetNotchString(), "Left");
    lot->Notch = 0.7f;
    EXPECT_EQ(lot->GetNotchString(), "Down");
}

TEST(Features, JumpTableAstigmatismAndDataKinds) {
    auto lot = MakeLot(1, 1, 1, 1);
    cPoint* p = lot->Wafers().At(1)->Fields().At(1)->sites().Item(1)->Points().Item(1);
    float* fields[] = {&p->ValueV, &p->ValueH, &p->ValueZ, &p->Slope, &p->Pitch, &p->ValueA, &p->ValueB, &p->ValueC};
    for (int f = 1; f <= 8; ++f) *fields[f - 1] = 100.0f * f;
    float a, b, c;
    for (int f = 1; f <= 8; ++f) {
        lot->PlotFeature(f);
        EXPECT_EQ(p->GetPlotFeatureValue(a, b, c), 100.0f * f) << f;
        EXPECT_EQ(a, 100.0f * f);
    }

    // astigmatism: filled from V and H when all three are exactly 0
    p->ValueV = 5;
    p->ValueH = 2;
    p->ValueV_fit = 1;
    p->ValueH_fit = 0.5f;
    p->ValueAstig = p->ValueAstig_fit = p->ValueAstig_Res = 0;
    lot->PlotFeature(9);
    for (int dt : {0, 3}) {
        lot->PLotDataType = dt;
        EXPECT_FLOAT_EQ(p->GetPlotFeatureValue(a, b, c), 3.0f);
    }
    lot->PLotDataType = 4;
    EXPECT_FLOAT_EQ(p->GetPlotFeatureValue(a, b, c), 0.5f);
    lot->PLotDataType = 5;
    EXPECT_FLOAT_EQ(p->GetPlotFeatureValue(a, b, c), 2.5f);
    // no fill while the fields hold -999.9
    cPoint q;
    q.ValueV = 5;
    EXPECT_EQ(q.GetPlotFeatureValue(a, b, c, 9, 0), -999.9f);

    // put and set: set also moves the value into the raw slot
    lot->PlotFeature(4);
    lot->PLotDataType = 1;
    p->PutPlotFeatureValue(7, 0, 0);
    EXPECT_EQ(p->Slope_fit, 7);
    EXPECT_EQ(p->Slope, 400);
    p->SetPlotFeatureValue(8, 0, 0);
    EXPECT_EQ(p->Slope_fit, 8);
    EXPECT_EQ(p->Slope, 8);
    p->PutPlotFeatureValue(1, 2, 3, 0, 2);
    EXPECT_EQ(p->ValueV_Res, 1);
    EXPECT_EQ(p->ValueH_Res, 2);
    EXPECT_EQ(p->ValueZ_Res, 3);
}

TEST(Features, VectorAngleAndFoldBack) {
    cPoint p;
    float l, fl, rl;
    EXPECT_FALSE(p.CalcVector(l, fl, rl, true));
    p.ValueV = 3;
    p.ValueH = 4;
    p.ValueV_fit = 0;
    p.ValueH_fit = 1;
    ASSERT_TRUE(p.CalcVector(l, fl, rl, true));
    EXPECT_FLOAT_EQ(p.ValueZ, 5);
    EXPECT_FLOAT_EQ(p.ValueZ_fit, 1);
    EXPECT_EQ(p.ValueZ_Res, -999.9f);  // no residual pair
    EXPECT_NEAR(p.CalcAngle(), std::atan2(3.0, 4.0), 1e-12);
    p.ValueH = -4;
    EXPECT_NEAR(p.CalcAngle(), std::atan2(3.0, -4.0), 1e-9);
    p.ValueH = 0;
    EXPECT_NEAR(p.CalcAngle(), 3.14159265358979 / 2, 1e-9);  // x 0 taken as 1e-27

    cPoint q;
    q.ValueV = 10;
    q.ValueV_fit = 4;
    q.ValueV_Res = 6;
    q.FoldBack(2, true);
    EXPECT_EQ(q.ValueV, 6);
    EXPECT_EQ(q.ValueV_fit, 0);
    EXPECT_EQ(q.ValueV_Res, 0);
    EXPECT_EQ(q.ValueH, -999.9f);  // a missing residual leaves the raw value
}

// A number not above 15 is the code as a Long takes it: rounded, ties to
// even, negatives included; above 15 it is text like any other.
TEST(Units, NumbersAreTakenAsCodesAsALongTakesThem) {
    EXPECT_EQ(UnitCodeOf("2.7"), 3L);
    EXPECT_EQ(UnitCodeOf("2.5"), 2L);  // ties to even
    EXPECT_EQ(UnitCodeOf("3.5"), 4L);
    EXPECT_EQ(UnitCodeOf("14.6"), 15L);
    EXPECT_EQ(UnitCodeOf(" 7 "), 7L);
    EXPECT_EQ(UnitCodeOf("-3"), -3L);
    EXPECT_EQ(UnitCodeOf("-1"), -1L);  // a code, not "unknown"
    EXPECT_EQ(UnitCodeOf("-0.4"), 0L);
    EXPECT_EQ(UnitCodeOf("15.2"), std::nullopt);
    EXPECT_EQ(UnitCodeOf("furlongs"), std::nullopt);
    EXPECT_EQ(UnitCodeOf(""), std::nullopt);
    EXPECT_EQ(UnitCodeOf("nm"), 2L);

    auto lot = MakeLot(1, 1, 1, 1);
    lot->PlotFeature(2);
    long code = 0;
    EXPECT_EQ(lot->PlotFeatureUnitsString("2.7", true, &code), "mm");
    EXPECT_EQ(code, 3);
    EXPECT_EQ(lot->ValueH_units, 3);
    // a negative number is stored as it stands; it has no text
    EXPECT_EQ(lot->PlotFeatureUnitsString("-3", true, &code), "");
    EXPECT_EQ(code, -3);
    EXPECT_EQ(lot->ValueH_units, -3);
    EXPECT_EQ(lot->PlotFeatureUnitsString("-1", true, &code), "");
    EXPECT_EQ(lot->ValueH_units, -1);
    EXPECT_EQ(lot->PlotFeatureUnitsString("15.2", true, &code), "");  // unknown: the code stays
    EXPECT_EQ(code, -1);
    EXPECT_EQ(lot->ValueH_units, -1);
}

TEST(Features, DataSourceKindsAndWhatTheySet) {
    // the workbook's numbering
    EXPECT_EQ(eDataSourceRegistration, 0);
    EXPECT_EQ(eDataSourceOverlay, 1);
    EXPECT_EQ(eDataSourceCDSEM, 2);
    EXPECT_EQ(eDataSourceScatterometry, 3);
    EXPECT_EQ(eDataSourceFocus, 4);
    EXPECT_EQ(eDataSourceThermal, 5);
    EXPECT_EQ(eDataSourceWaferSite, 6);
    EXPECT_EQ(eDataSourceResistivity, 7);
    // one scalar per site for all but 0, 1 and 4; a wafer site map for 5, 6, 7
    const bool scalar[] = {false, false, true, true, false, true, true, true};
    const bool waferSites[] = {false, false, false, false, false, true, true, true};
    for (long n = 0; n <= 7; ++n) {
        auto lot = cLot::create();
        lot->DataSource(n);  // a number, as the workbook holds it
        EXPECT_EQ(lot->DataSource(), static_cast<eDataSource>(n));
        EXPECT_EQ(lot->LineWidthType, scalar[n]) << n;
        EXPECT_EQ(lot->PlotWaferSites, waferSites[n]) << n;
    }
    auto lot = cLot::create();
    lot->DataSource(eDataSourceThermal);
    lot->DataSource(eDataSourceFocus);
    EXPECT_FALSE(lot->LineWidthType);
    EXPECT_TRUE(lot->PlotWaferSites);  // once set, a wafer site map stays
    const long asNumber = lot->DataSource();
    EXPECT_EQ(asNumber, 4);
}

TEST(Features, FeatureTypesFindAFeatureHeldByALaterPointOnly) {
    auto lot = MakeLot(1, 1, 1, 2);
    lot->DataSource(eDataSourceCDSEM);
    lot->ValueC_Name = "Height";
    lot->Wafers().At(1)->Fields().At(1)->sites().Item(4)->Points().Item(1)->ValueC = 5;
    Datam ft = lot->GetFeatureTypes();
    ASSERT_EQ(ft.rowUb(), 3);  // V, H and C; no vector on scalar data
    EXPECT_EQ(ft(3, 0).toLong(), 8);
    EXPECT_EQ(ft(3, 2).toString(), "Height");
    lot->Wafers().At(1)->Fields().At(1)->sites().Item(4)->setCull(true);
    EXPECT_EQ(lot->GetFeatureTypes().rowUb(), 2);  // culled data holds no feature
}
