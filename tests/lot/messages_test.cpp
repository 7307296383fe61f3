// What the lot tells the user: the exact text of each message (tag, CR LF,
// text, the checkpoint word, checkpoint), that it is shown once, and which
// failures come back as values instead.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "lot/lot.h"
#include "lot_fixture.h"

using namespace zorv;
using zorv::testing::MakeLot;
using zorv::testing::ScopedCapture;

namespace {
int countBoxes(const ScopedCapture& rep, const std::string& part) {
    int n = 0;
    for (const auto& b : rep.boxes) n += b.find(part) != std::string::npos;
    return n;
}
}  // namespace

// The structural operations trap their own errors and show them with a
// capital "Chk"; the messages of the other routines keep " chk: ".
TEST(Messages, StructuralOperationsShowCapitalChk) {
    ScopedCapture rep;
    auto lot = cLot::create();
    lot->LotName = "T";
    bool isNew = true;
    cWafer* w = lot->AddWafer("A", isNew);
    ASSERT_NE(w, nullptr);

    // a second wafer under a key already taken
    EXPECT_EQ(lot->AddWafer("B", isNew, "A"), nullptr);
    EXPECT_FALSE(isNew);
    EXPECT_EQ(lot->Wafers().Count(), 1);
    ASSERT_EQ(rep.boxes.size(), 1u);
    EXPECT_EQ(rep.boxes[0], "cLot(AddWafer): \r\nWafer key A is already in use. Chk: 0");

    EXPECT_EQ(w->AddFieldObj(nullptr), nullptr);
    ASSERT_EQ(rep.boxes.size(), 2u);
    EXPECT_EQ(rep.boxes[1], "cWafer(AddFieldObj): \r\nField object is empty Chk: 0");

    ASSERT_NE(w->AddField(0, 0, isNew), nullptr);
    Ref<cSite> none;
    EXPECT_EQ(w->Fields().At(1)->AddPoint(none, std::make_unique<cPoint>()), nullptr);
    ASSERT_EQ(rep.boxes.size(), 3u);
    EXPECT_EQ(rep.boxes[2], "cField(AddPoint): \r\nSite object was not valid. Chk: 0");

    // After a Remove the next number's key "WAF2" is still held by the second
    // field: the new field is refused, and the lot's die range stays as it was.
    ASSERT_NE(w->AddField(1, 0, isNew), nullptr);
    w->Fields().Remove(1);
    EXPECT_EQ(w->AddField(5, 0, isNew, false), nullptr);
    EXPECT_FALSE(isNew);
    EXPECT_EQ(lot->DieXmax, 1);
    ASSERT_EQ(rep.boxes.size(), 4u);
    EXPECT_EQ(rep.boxes[3], "cWafer(AddField): \r\nField key WAF2 could not be added. Chk: 0");

    // not a structural operation: the ordinary exit block
    auto empty = cLot::create();
    empty->LotName = "E";
    EXPECT_EQ(empty->TotalPoints(), 0);
    ASSERT_EQ(rep.boxes.size(), 5u);
    EXPECT_EQ(rep.boxes[4], "cLot(TotalPoints): \r\nNo wafers in lot: E chk: 0");
    EXPECT_EQ(rep.flags[4], vbInformation);
}

TEST(Messages, EachShownOnceByTheRoutineThatOwnsIt) {
    ScopedCapture rep;
    auto lot = cLot::create();
    lot->LotName = "T";
    EXPECT_EQ(lot->clone(), nullptr);
    ASSERT_EQ(rep.boxes.size(), 1u) << rep.joined();
    EXPECT_EQ(rep.boxes[0], "cLot(clone): \r\nNo wafers in lot. chk: 0");

    // no wafer: TotalPoints says so once, though CollapseField asks twice
    rep.clear();
    EXPECT_EQ(lot->CollapseField(), nullptr);
    EXPECT_EQ(countBoxes(rep, "No wafers in lot: T"), 1) << rep.joined();
    EXPECT_EQ(countBoxes(rep, "cLot(CollapseField): \r\nNo data points in lot. chk: 0"), 1) << rep.joined();
    EXPECT_EQ(rep.boxes.size(), 2u);

    rep.clear();
    EXPECT_EQ(ExtractUnitsOfMeasure(""), "");
    ASSERT_EQ(rep.boxes.size(), 1u);
    EXPECT_EQ(rep.boxes[0], "Import(ExtractUnitsOfMeasure): \r\nAn input string was not provided. chk: 0");

    // a bad feature is told alone, before any clone is made
    rep.clear();
    auto full = MakeLot(1, 1, 1, 2);
    EXPECT_EQ(full->AddValue2Lot(1.0, 12), nullptr);
    ASSERT_EQ(rep.boxes.size(), 1u);
    EXPECT_EQ(rep.boxes[0], "cLot(AddValue2Lot): \r\nFeature 12 cannot take a value. chk: 0");
}

TEST(Messages, AnEmptySubFieldIsToldAloneAndNotAsAnEmptyClone) {
    ScopedCapture rep;
    auto lot = MakeLot(1, 1, 1, 3);  // sites at -1000, 0, 1000 in x
    lot->SubWidth = 1000;
    lot->SubXoffset = 5000;  // centre site 5 at x 0, so the window is 4500..5500
    EXPECT_EQ(lot->GetSubFieldLot(), nullptr);
    ASSERT_EQ(rep.boxes.size(), 1u) << rep.joined();
    EXPECT_EQ(rep.boxes[0], "Lot(GetSubFieldLot): \r\nNo sites inside the sub-field. chk: 0");
    EXPECT_EQ(lot->TotalPoints(), 9);  // the lot itself keeps its points
}

TEST(Messages, HookFailureIsShownAsARunTimeError) {
    ScopedCapture rep;
    auto lot = MakeLot(1, 1, 1, 1);
    EXPECT_EQ(lot->UpdateUnits2Workbook(), -1);
    EXPECT_TRUE(rep.boxes.empty());  // no workbook layer: nothing to say

    cLot::UpdateUnits2WorkbookHook() = [](cLot&) -> int { throw std::runtime_error("Disk full"); };
    EXPECT_EQ(lot->UpdateUnits2Workbook(), -1);
    cLot::UpdateUnits2WorkbookHook() = nullptr;
    ASSERT_EQ(rep.boxes.size(), 1u);
    // a run-time error: the box offers to mail it (Yes, No and a stop icon)
    EXPECT_EQ(rep.boxes[0].rfind("cLot(UpdateUnits2Workbook): \r\nDisk full chk: 0\r\n\r\nDo you wish", 0), 0u)
        << rep.boxes[0];
    EXPECT_EQ(rep.flags[0], vbCritical + vbYesNo);
}

// GetFamily hands its failure back; showing it is the caller's choice.
TEST(Messages, GetFamilyFailureIsAValue) {
    ScopedCapture rep;
    auto lot = MakeLot(2, 1, 1, 2);
    lot->Wafers().At(2)->Fields().At(1)->sites().Item("3")->setFamily(7);
    lot->Wafers().At(1)->Fields().At(1)->sites().Item("3")->setCull(true);
    // the first site with the key wins, culled or not
    Result<long> fam = lot->GetFamily(3);
    ASSERT_TRUE(fam.ok());
    EXPECT_EQ(*fam, 0);
    lot->Wafers().At(1)->Fields().At(1)->sites().Item("3")->setFamily(2);
    EXPECT_EQ(*lot->GetFamily(3), 2);

    Result<long> missing = lot->GetFamily(99);
    ASSERT_FALSE(missing.ok());
    EXPECT_TRUE(rep.boxes.empty());
    EXPECT_EQ(missing.failure().tag, "cLot(GetFamily): ");
    EXPECT_EQ(missing.failure().message(), "cLot(GetFamily): \r\n Input Site # 99 was not found. chk: 0");
    Report(missing.failure());
    ASSERT_EQ(rep.boxes.size(), 1u);
    EXPECT_TRUE(rep.saw(" Input Site # 99 "));
}
