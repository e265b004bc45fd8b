#include "core/daemon_state.h"
#include "daemon/startup.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

namespace {

TEST(CommandLineTest, WordsCountOnlyAtTheirOwnPosition) {
    const struct {
        std::vector<const char *> args;
        int debug, atprint;
    } cases[] = {
        {{"zolvin_4g"}, 0, 0}, {{"zolvin_4g", "atprint"}, 0, 0}, {{"zolvin_4g", "x", "atprint"}, 0, 1},
        {{"zolvin_4g", "debug", "atprint", "more"}, 1, 1}, {{"zolvin_4g", "DEBUG", "ATPRINT"}, 0, 0},
    };
    for (const auto &c : cases) {
        daemon_state_reset();
        parse_command_line(static_cast<int>(c.args.size()), const_cast<char **>(c.args.data()));
        EXPECT_EQ(state().debug, c.debug) << c.args.size();
        EXPECT_EQ(state().atprint, c.atprint) << c.args.size();
    }
    daemon_state_reset();
}

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
