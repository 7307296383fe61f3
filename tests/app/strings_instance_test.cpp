// String table numbers and the single-instance lock.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "app/instance.h"
#include "app/strings.h"

using namespace zorv;

TEST(Strings, NumbersTheModulesQuote) {
    EXPECT_STREQ(LoadResString(1642), "Close all workbooks?");
    EXPECT_STREQ(LoadResString(1668), "No data rows were imported.");
    EXPECT_STREQ(LoadResString(1686), "Zorv Wavefront Engineering");
    EXPECT_STREQ(LoadResString(2022),
                 "No process variables have been selected for analysis. Please access the \"Setup\" tab.");
    EXPECT_STREQ(LoadResString(2023), "There is only one focus value for this data set.");
    EXPECT_STREQ(LoadResString(2024), "The is only one Dose value for this data set.");
    EXPECT_STREQ(LoadResString(2025),
                 "There is not enough Exposure and/or Focus variation to calculate a process window.");
    EXPECT_STREQ(LoadResString(2074), "The Exposure Tool Library has changed!");
    EXPECT_STREQ(LoadResString(2075), "Save the current library?");
    EXPECT_STREQ(LoadResString(2196), "Composite surface collection ...");
    EXPECT_STREQ(LoadResString(2200), "The workbook does not contain a 'Sites' worksheet.");
    EXPECT_STREQ(LoadResString(6053), "Use the focus-dose surface algorithm for a smoother process fit.");
    EXPECT_STREQ(LoadResString(6055), "Focus polynomial");
    EXPECT_STREQ(LoadResString(6057), "Dose polynomial");
    EXPECT_TRUE(HasResString(2199));
    EXPECT_STREQ(LoadResString(resMenuFile), "&File");
    EXPECT_STREQ(LoadResString(resMenuExit), "E&xit");
    EXPECT_STREQ(LoadResString(resMenuHelp), "&Help");
    // Unknown numbers give an empty text, never a null pointer.
    for (int id : {-1, 0, 999, 1689, 5000, 99999}) {
        ASSERT_NE(LoadResString(id), nullptr);
        EXPECT_STREQ(LoadResString(id), "") << id;
        EXPECT_FALSE(HasResString(id)) << id;
    }
    // Every caption number from 1000 up resolves through the sorted look-up.
    int found = 0;
    for (int id = 1000; id < 7000; ++id)
        if (HasResString(id)) {
            EXPECT_GT(std::strlen(LoadResString(id)), 0u) << id;
            ++found;
        }
    EXPECT_GE(found, 80);
}

TEST(InstanceLock, SecondHolderIsRefusedUntilRelease) {
    const std::string name = "zorv-test-" + std::to_string(::getpid());
    InstanceLock first, second, other;
    ASSERT_TRUE(first.acquire(name));
    EXPECT_TRUE(first.held());
    EXPECT_FALSE(second.acquire(name));  // same process, second object
    EXPECT_FALSE(second.held());
    EXPECT_TRUE(other.acquire(name + "-other"));  // another name is free
    // Another process is refused too.
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        InstanceLock l;
        ::_exit(l.acquire(name) ? 1 : 0);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    first.release();
    EXPECT_TRUE(second.acquire(name));
    second.release();
    ::unlink(first.path().c_str());
}

TEST(InstanceLock, ProcessExitFreesTheLock) {
    const std::string name = "zorv-test-exit-" + std::to_string(::getpid());
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        static InstanceLock held;  // never released by hand
        ::_exit(held.acquire(name) ? 0 : 1);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    InstanceLock l;
    EXPECT_TRUE(l.acquire(name));
    ::unlink(l.path().c_str());
}
