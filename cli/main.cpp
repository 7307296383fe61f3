// zorv-cli: the headless verbs of Zorv.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/identity.h"
#include "base/report.h"
#include "json.h"
#include "verbs.h"

namespace zorv::cli {

namespace {
std::vector<Verb>& registry() {
    static std::vector<Verb> v;
    return v;
}

void printUsage() {
    std::printf("%s %s\n\nUsage: zorv-cli VERB [ARGS...]\n       zorv-cli VERB --help\n\nVerbs:\n",
                kProductName, VersionString().c_str());
    for (const Verb& v : Verbs()) std::printf("  %-12s %s\n", v.name, v.summary);
    std::printf("\nOptions:\n  --version    print the version line\n  --help       this text\n");
}

int runVersion(const std::vector<std::string>& args) {
    if (HasFlag(args, "--json")) {
        Json j;
        j.beginObject()
            .field("product", kProductName)
            .field("company", kCompanyName)
            .field("version", VersionString())
            .field("versionLine", VersionLine())
            .endObject();
        std::printf("%s\n", j.str().c_str());
    } else {
        std::printf("%s\n", VersionLine().c_str());
    }
    return 0;
}

ZORV_VERB(Verb{"version", "print the product and version", "Usage: zorv-cli version [--json]\n",
               runVersion});
}  // namespace

bool RegisterVerb(const Verb& v) {
    registry().push_back(v);
    return true;
}

const std::vector<Verb>& Verbs() { return registry(); }

bool HasFlag(const std::vector<std::string>& args, const std::string& flag) {
    for (const auto& a : args)
        if (a == flag) return true;
    return false;
}

std::string OptionValue(const std::vector<std::string>& args, const std::string& name) {
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == name && i + 1 < args.size()) return args[i + 1];
        if (args[i].rfind(name + "=", 0) == 0) return args[i].substr(name.size() + 1);
    }
    return {};
}

std::vector<std::string> Positional(const std::vector<std::string>& args,
                                    const std::vector<std::string>& valueOptions) {
    std::vector<std::string> out;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        bool takesValue = false;
        for (const auto& o : valueOptions)
            if (a == o) takesValue = true;
        if (takesValue) {
            ++i;
            continue;
        }
        if (a.size() > 1 && a[0] == '-' && a[1] == '-') continue;
        out.push_back(a);
    }
    return out;
}

}  // namespace zorv::cli

int main(int argc, char** argv) {
    using namespace zorv;
    using namespace zorv::cli;
    StreamReporter reporter(stderr, false);
    SetReporter(&reporter);
    std::error_code ec;
    const auto exe = std::filesystem::canonical("/proc/self/exe", ec);
    if (!ec) SetProgramFolder(exe.parent_path().string());

    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        if (args.size() >= 2) args = {args[1], "--help"};
        else {
            printUsage();
            return args.empty() ? 2 : 0;
        }
    }
    if (args[0] == "--version") return runVersion({args.begin() + 1, args.end()});
    for (const Verb& v : Verbs()) {
        if (args[0] != v.name) continue;
        std::vector<std::string> rest(args.begin() + 1, args.end());
        if (HasFlag(rest, "--help") || HasFlag(rest, "-h")) {
            std::printf("%s", v.usage);
            return 0;
        }
        try {
            return v.run(rest);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "zorv-cli %s: %s\n", v.name, e.what());
            return 1;
        }
    }
    std::fprintf(stderr, "zorv-cli: unknown verb '%s'. Try 'zorv-cli --help'.\n", args[0].c_str());
    return 2;
}
