// Verb registry of zorv-cli. A verb file defines a run function and registers
// it with a static ZORV_VERB; main.cpp dispatches.
#pragma once

#include <string>
#include <vector>

namespace zorv::cli {

struct Verb {
    const char* name;
    const char* summary;  // one line, for the verb list
    const char* usage;    // full --help text
    int (*run)(const std::vector<std::string>& args);
};

bool RegisterVerb(const Verb& v);
const std::vector<Verb>& Verbs();

// Small argument helpers shared by the verbs.
bool HasFlag(const std::vector<std::string>& args, const std::string& flag);
// Value after "--name" or in "--name=value"; empty when absent.
std::string OptionValue(const std::vector<std::string>& args, const std::string& name);
// Arguments that are neither flags nor option values of the listed options.
std::vector<std::string> Positional(const std::vector<std::string>& args,
                                    const std::vector<std::string>& valueOptions = {});

}  // namespace zorv::cli

#define ZORV_CLI_CONCAT2(a, b) a##b
#define ZORV_CLI_CONCAT(a, b) ZORV_CLI_CONCAT2(a, b)
#define ZORV_VERB(...) \
    static const bool ZORV_CLI_CONCAT(zorv_verb_, __LINE__) = ::zorv::cli::RegisterVerb(__VA_ARGS__)
