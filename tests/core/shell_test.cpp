#include "core/shell.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

namespace {

TEST(AppRunningTest, MatchesOnlyTheProgramPathWithinFortyNineBytes) {
    temp_dir proc;
    proc.write("self/cmdline", std::string("/opt/other\0-c\0", 14)); // non-numeric names count too
    proc.mkdir("103");                                               // no cmdline: passed over
    proc.write("1/cmdline", std::string(45, 'p') + "abcdefg");
    const char *dir = proc.path().c_str();
    EXPECT_EQ(app_running_in(dir, "other"), 0);
    EXPECT_EQ(app_running_in(dir, "-c"), -1);    // a later word
    EXPECT_EQ(app_running_in(dir, "abcd"), 0);   // bytes 45..48 are searched
    EXPECT_EQ(app_running_in(dir, "abcde"), -1); // byte 49 is not
    EXPECT_EQ(app_running_in("/nonexistent_proc", "x"), -1);
}

} // namespace
