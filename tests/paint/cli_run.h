// zorv-cli run as a user runs it: its exit code and what it printed.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

struct CliRun {
    int rc = -1;
    std::string out;  // stdout and stderr
};

inline CliRun Cli(const std::string& args) {
    CliRun r;
    FILE* p = popen((std::string(ZORV_CLI_PATH) + " " + args + " 2>&1").c_str(), "r");
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    const int st = pclose(p);
    r.rc = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}
