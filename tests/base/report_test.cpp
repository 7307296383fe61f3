#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/identity.h"
#include "base/proc.h"
#include "base/report.h"
#include "common/capture_reporter.h"

using namespace zorv;

namespace {
// Questions answer No unless a test says otherwise.
struct Capture : zorv::testing::CaptureReporter {
    Capture() { answer = vbNo; }
};
}  // namespace

TEST(Report, ProcExitBlockComposesTagMessageAndCheckpoint) {
    Capture c;
    SetReporter(&c);
    {
        Proc p("cLot(ModelFit): ");
        p.chk = 2.5f;
        p.msg = "No data.";
        p.report();
    }
    ASSERT_EQ(c.boxes.size(), 1u);
    EXPECT_EQ(c.boxes[0], "cLot(ModelFit): \r\nNo data. chk: 2.5");
    EXPECT_EQ(c.flags[0], vbInformation);
    {
        Proc p("Import(SaveData):  ");
        p.chk = 3;
        Guarded(p, [] { throw std::runtime_error("Disk full"); });
        p.report();
    }
    ASSERT_EQ(c.boxes.size(), 2u);
    // Run-time errors offer the e-mail: flags 20 and the question appended.
    EXPECT_EQ(c.flags[1], vbYesNo | vbCritical);
    EXPECT_NE(c.boxes[1].find("Disk full chk: 3\r\n\r\nDo you wish to Email"), std::string::npos);
    SetReporter(nullptr);
}

TEST(Report, LoggingModeWritesLogOnceAndAnswersZero) {
    Capture c;
    SetReporter(&c);
    const std::string path = std::string(ZORV_TEST_TMP) + "/RemoteCall.Log";
    std::filesystem::create_directories(ZORV_TEST_TMP);
    std::filesystem::remove(path);
    SetLogging(true);
    GetLogFile(path);
    EXPECT_EQ(MsgBox("first", vbYesNo | vbQuestion), 0);
    EXPECT_EQ(MsgBox("second", vbCritical), 0);
    SetLogging(false);
    EXPECT_TRUE(c.boxes.empty());
    EXPECT_EQ(c.statusText(), "Remote Call: second");
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    const std::string text = ss.str();
    EXPECT_EQ(text.rfind("Log File: " + path + "\r\nCreated: ", 0), 0u);
    EXPECT_NE(text.find("___________________\r\nfirst\r\nsecond\r\n"), std::string::npos);
    SetReporter(nullptr);
}

TEST(Report, InputBoxAsksTheReporterUnlessLogging) {
    struct Typist : Capture {
        std::string prompt, title;
        std::string inputBox(const std::string& p, const std::string& t, const std::string&) override {
            prompt = p, title = t;
            return "typed";
        }
    } c;
    SetReporter(&c);
    EXPECT_EQ(InputBox("Enter password: ", "Zorv: Trend Chart Entry"), "typed");
    EXPECT_EQ(c.title, "Zorv: Trend Chart Entry");
    // Nobody at the keyboard: the prompt is logged and the answer is empty.
    const std::string path = std::string(ZORV_TEST_TMP) + "/RemoteCall-input.Log";
    std::filesystem::create_directories(ZORV_TEST_TMP);
    std::filesystem::remove(path);
    GetLogFile(path);
    SetLogging(true);
    c.prompt.clear();
    EXPECT_EQ(InputBox("Enter password: "), "");
    SetLogging(false);
    EXPECT_TRUE(c.prompt.empty());
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    EXPECT_NE(ss.str().find("Enter password: \r\n"), std::string::npos);
    // The default reporter has no one to ask either.
    SetReporter(nullptr);
    StreamReporter quiet(nullptr);
    EXPECT_EQ(static_cast<Reporter&>(quiet).inputBox("x", "y", "z"), "");
}

TEST(Report, StatusAppendAndEscFlag) {
    Capture c;
    SetReporter(&c);
    SetStatusText("Loading");
    SetStatusText("wafer 1", true);
    EXPECT_EQ(StatusText(), "Loading wafer 1");
    EXPECT_FALSE(CheckEscKey());
    SetEscPressed();
    EXPECT_TRUE(CheckEscKey());
    EXPECT_FALSE(CheckEscKey());
    EXPECT_EQ(VersionLine(), "Zorv Wavefront Engineering ver: 5.1.0");
    SetReporter(nullptr);
}

TEST(Report, ErrorBoxMailOfferAndItsLink) {
    struct Mail : Capture {
        std::vector<std::string> urls;
        void openUrl(const std::string& u) override { urls.push_back(u); }
    } c;
    c.answer = vbYes;
    SetReporter(&c);
    EXPECT_EQ(MsgBox("cLot(Kill): \r\nbad chk: 1", vbCritical), vbYes);
    ASSERT_EQ(c.boxes.size(), 1u);
    EXPECT_EQ(c.boxes[0],
              "cLot(Kill): \r\nbad chk: 1\r\n\r\nDo you wish to Email this message to Palvex?");
    EXPECT_EQ(c.flags[0], 20);
    ASSERT_EQ(c.urls.size(), 1u);
    const std::string& u = c.urls[0];
    EXPECT_EQ(u.rfind("mailto:", 0), 0u);
    size_t at = 0;
    for (const char* part : {"&CC=", "&BCC=", "&Subject=", "&Body="}) {
        const size_t f = u.find(part, at);
        ASSERT_NE(f, std::string::npos) << part;
        at = f;
    }
    // An error inside the box routine itself (from position 4 on) and any other
    // flags go out plainly, without the offer.
    c.urls.clear();
    MsgBox("Utility(MsgBox): \r\nbroken", vbCritical);
    EXPECT_EQ(c.flags.back(), vbCritical);
    EXPECT_EQ(c.boxes.back(), "Utility(MsgBox): \r\nbroken");
    MsgBox("(MsgBox) at the head", vbCritical);
    EXPECT_EQ(c.flags.back(), 20);
    MsgBox("note", vbCritical | vbYesNo);
    EXPECT_EQ(c.flags.back(), vbCritical | vbYesNo);
    EXPECT_TRUE(c.urls.size() == 1u);
    SetReporter(nullptr);
}
