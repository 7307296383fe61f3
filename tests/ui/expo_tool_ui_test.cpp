// The main window's exposure tool tab as a user works it: the library brought
// in on the tab, a tool saved from the fields and loaded back, the question at
// unload, and a name the library lacks.
#include <QComboBox>
#include <QLineEdit>
#include <QPushButton>
#include <QTabWidget>
#include <filesystem>

#include "app/preferences.h"
#include "app/settings.h"
#include "app/strings.h"
#include "layout/tool_library.h"
#include "ui_fixture.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;
namespace fs = std::filesystem;

class ExpoToolUi : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        dir = FreshTestDir("expo-tool-ui");
        oldFolder = ProgramFolder();
        SetProgramFolder(dir.string());
    }
    void TearDown() override {
        UiTest::TearDown();
        SetProgramFolder(oldFolder);
        fs::remove_all(dir);
    }
    fs::path dir;
    std::string oldFolder;
};

TEST_F(ExpoToolUi, ToolSavedFromTheFieldsLoadsBackAndTheLibraryIsSavedOnYes) {
    auto* f = new frmMain;
    f->Load();
    auto* tabs = f->findChild<QTabWidget*>("tabServer");
    ASSERT_NE(tabs, nullptr);
    QWidget* page = f->findChild<QWidget*>("kExposureTool");
    ASSERT_NE(page, nullptr);
    tabs->setCurrentWidget(page);
    const fs::path lib = dir / "Reticles" / kToolLibraryFile;
    ASSERT_TRUE(fs::exists(lib));  // made on first use, from the settings

    auto* cmbTool = f->findChild<QComboBox*>("cmbExpoTool");
    auto* txtNA = f->findChild<QLineEdit*>("txtNA");
    auto* cmbSubstrate = f->findChild<QComboBox*>("cmbSubstrate");
    ASSERT_TRUE(cmbTool && txtNA && cmbSubstrate);
    EXPECT_EQ(cmbTool->findText("ASM 700"), 0);
    EXPECT_EQ(cmbSubstrate->findText("300"), 8);  // the listed wafer sizes

    cmbTool->setEditText("Scanner 4");
    txtNA->setText("0.75");
    cmbSubstrate->setEditText("300");
    f->findChild<QPushButton*>("cmdSaveTool")->click();
    EXPECT_TRUE(rec.boxes.empty()) << (rec.boxes.empty() ? "" : rec.boxes.back().text);
    EXPECT_EQ(GetSetting(PreferenceApplication("ToolSettings"), "ToolSettings", "NA"), "0.75");
    EXPECT_GE(cmbTool->findText("Scanner 4"), 0);

    // Another tool's values, then back to Scanner 4 from the library.
    txtNA->setText("0.5");
    cmbTool->setEditText("Scanner 4");
    f->findChild<QPushButton*>("cmdLoadTool")->click();
    EXPECT_EQ(txtNA->text(), "0.75");
    EXPECT_EQ(cmbSubstrate->currentText(), "300");

    // A picture of the tab for a look by eye (frmMain-tool.png in the test folder).
    f->resize(960, 640);
    f->show();
    QCoreApplication::processEvents();
    EXPECT_TRUE(f->grab().save(QString::fromUtf8(ZORV_TEST_TMP) + "/frmMain-tool.png"));

    // A name the library lacks: the message, and the fields stay.
    cmbTool->setEditText("Stepper 9");
    f->findChild<QPushButton*>("cmdLoadTool")->click();
    ASSERT_FALSE(rec.boxes.empty());
    EXPECT_NE(rec.boxes.back().text.find("Could not locate exposure tool 'Stepper 9' in the library."), std::string::npos);
    EXPECT_EQ(txtNA->text(), "0.75");

    // The unload asks, and Yes writes the library.
    rec.boxes.clear();
    rec.answers = {vbYes};
    f->Unload();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    bool asked = false;
    for (const auto& b : rec.boxes) asked = asked || b.text.find(LoadResString(2074)) != std::string::npos;
    EXPECT_TRUE(asked);
    EXPECT_EQ(HeldToolLibraryWorkbook(), nullptr);
    WorkbookPtr wb;
    auto sheet = GetExpoToolLibrary(wb, lib.string());
    ASSERT_TRUE(sheet.ok());
    auto s4 = UpdateExpoToolFromLibrary(*sheet, "Scanner 4");
    ASSERT_TRUE(s4.ok()) << s4.failure().message();
    EXPECT_EQ(s4->get("NA"), "0.75");
    Workbooks::CloseAll();
}
