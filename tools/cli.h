// cli.h - command-line pieces the tools share: one-line usage errors that
// name the tool, option values given as --name=value or --name value, and
// numbers checked as they are read.
#pragma once

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace kvcli {

constexpr int kUsageError = 2;

// The tool's name at the head of every message; main sets it first.
inline const char* programName = "kvane";

[[noreturn]] inline void usageError(const std::string& message) {
    std::fprintf(stderr, "%s: %s\n", programName, message.c_str());
    std::exit(kUsageError);
}

// Splits *arg = "--name=value" into name and value, or takes the value from
// the next argument (advancing *i); a missing value is a usage error.
inline std::string optionValue(std::string* arg, int argc, char** argv, int* i) {
    const size_t eq = arg->find('=');
    if (eq != std::string::npos) {
        std::string value = arg->substr(eq + 1);
        arg->resize(eq);
        return value;
    }
    if (*i + 1 >= argc) usageError(*arg + ": needs a value (see --help)");
    return argv[++*i];
}

inline double parseNumber(const std::string& option, const std::string& text) {
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(v))
        usageError(option + ": '" + text + "' is not a number");
    return v;
}

inline long long parseWhole(const std::string& option, const std::string& text, long long lo,
                            long long hi) {
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE)
        usageError(option + ": '" + text + "' is not a whole number");
    if (v < lo || v > hi)
        usageError(option + ": " + text + " is out of range (" + std::to_string(lo) + " to " +
                   std::to_string(hi) + ")");
    return v;
}

}  // namespace kvcli
