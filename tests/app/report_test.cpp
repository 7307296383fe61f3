#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/identity.h"
#include "app/proc.h"
#include "app/report.h"

using namespace zorv;

namespace {
struct Capture : Reporter {
    std::vector<std::pair<std::string, int>> boxes;
    std::string statusText;
    int answer = vbNo;
    int showBox(const std::string& m, int f, const std::string&) override {
        boxes.emplace_back(m, f);
        return answer;
    }
    void status(const std::string& t) override { statusText = t; }
    std::string currentStatus() const override { return statusText; }
};
}  // namespace

TEST(Report, ProcExitBlockComposesTagMessageAndCheckpoint) {
    Capture c;
    SetReporter(&c);
    {
        Proc p("cLot(ModelFit): ");
        p.chk = 2.5f;
        p.msg = "No data.";
    }
    ASSERT_EQ(c.boxes.size(), 1u);
    EXPECT_EQ(c.boxes[0].first, "cLot(ModelFit): \r\nNo data. chk: 2.5");
    EXPECT_EQ(c.boxes[0].second, vbInformation);
    {
        Proc p("Import(SaveData):  ");
        p.chk = 3;
        Guarded(p, [] { throw std::runtime_error("Disk full"); });
    }
    ASSERT_EQ(c.boxes.size(), 2u);
    // Run-time errors offer the e-mail: flags 20 and the question appended.
    EXPECT_EQ(c.boxes[1].second, vbYesNo | vbCritical);
    EXPECT_NE(c.boxes[1].first.find("Disk full chk: 3\r\n\r\nDo you wish to Email"), std::string::npos);
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
    EXPECT_EQ(c.statusText, "Remote Call: second");
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    const std::string text = ss.str();
    EXPECT_EQ(text.rfind("Log File: " + path + "\r\nCreated: ", 0), 0u);
    EXPECT_NE(text.find("___________________\r\nfirst\r\nsecond\r\n"), std::string::npos);
    SetReporter(nullptr);
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
