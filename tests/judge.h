// Runs the Python scripts of this folder, which check results with other programs.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vestrel {

/// Runs a script of this folder. @return what it prints: empty when all is well, "no judge: ..."
/// when a program that it needs is missing here
std::string Verdict(const std::string& script, const std::vector<std::string>& arguments);

/// Whether a skipped test counts as a fault: true in CI, where everything must be installed.
bool SkippingIsAFault();

}  // namespace vestrel

/// Skips a test that lacks something on this machine, or fails it where nothing may be missing.
#define SKIP_OR_FAIL(reason)                               \
    do {                                                   \
        if (vestrel::SkippingIsAFault()) FAIL() << reason; \
        GTEST_SKIP() << reason;                            \
    } while (false)

/// Expects that a script has no complaint: EXPECT_JUDGED("judgeFits.py", {"saved", folder})
#define EXPECT_JUDGED(...)                                          \
    do {                                                            \
        const std::string verdict = vestrel::Verdict(__VA_ARGS__);  \
        if (verdict.starts_with("no judge")) SKIP_OR_FAIL(verdict); \
        EXPECT_EQ(verdict, "");                                     \
    } while (false)
