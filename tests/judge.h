// The Python scripts of this folder, which look at results with other programs.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vestrel {

/// What a judge has to say: nothing when all is well, "no judge: ..." when it cannot be had here.
/// Given a script of this folder and its arguments.
std::string Verdict(const std::string& script, const std::vector<std::string>& arguments);

/// Whether a test that cannot run is a fault: where everything was to be set up.
bool SkippingIsAFault();

}  // namespace vestrel

/// Ends a test that lacks something here, or fails it where nothing may be lacking.
#define SKIP_OR_FAIL(reason)                               \
    do {                                                   \
        if (vestrel::SkippingIsAFault()) FAIL() << reason; \
        GTEST_SKIP() << reason;                            \
    } while (false)

/// Ends a test with the verdict of a script: EXPECT_JUDGED("judgeFits.py", {"saved", folder})
#define EXPECT_JUDGED(...)                                          \
    do {                                                            \
        const std::string verdict = vestrel::Verdict(__VA_ARGS__);  \
        if (verdict.starts_with("no judge")) SKIP_OR_FAIL(verdict); \
        EXPECT_EQ(verdict, "");                                     \
    } while (false)
