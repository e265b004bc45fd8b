#include "core/daemon_state.h"
#include "daemon/startup.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

namespace {

TEST(CommandLineTest, WordsCountOnlyAtTheirOwnPosition) {
    struct {
        std::vector<const char *> args;
        int debug, atprint;
    } cases[] = {
        {{"zolvin_4g"}, 0, 0},
        {{"zolvin_4g", "atprint"}, 0, 0},
        {{"zolvin_4g", "x", "atprint"}, 0, 1},
        {{"zolvin_4g", "debug"}, 1, 0},
        {{"zolvin_4g", "debug", "atprint", "more"}, 1, 1},
        {{"zolvin_4g", "DEBUG", "ATPRINT"}, 0, 0},
        {{"zolvin_4g", "atprint", "debug"}, 0, 0},
    };
    for (auto &c : cases) {
        daemon_state_reset();
        parse_command_line(static_cast<int>(c.args.size()), const_cast<char **>(c.args.data()));
        EXPECT_EQ(state().debug, c.debug) << c.args.size();
        EXPECT_EQ(state().atprint, c.atprint) << c.args.size();
    }
    daemon_state_reset();
}

TEST(AppRunningTest, MatchesOnlyTheFirstWordWithinFortyNineBytes) {
    temp_dir proc;
    proc.write("101/cmdline", std::string("/usr/bin/dialer\0-s\0apn\0", 23));
    proc.write("102/cmdline", std::string("sh\0-c\0dialer\0", 13));
    proc.write("self/cmdline", std::string("/opt/other\0", 11)); // non-numeric names count too
    proc.mkdir("103");                                            // no cmdline: skipped
    proc.write("104", "a plain file named like a pid");
    EXPECT_EQ(app_running_in(proc.path().c_str(), "dialer"), 0);
    EXPECT_EQ(app_running_in(proc.path().c_str(), "other"), 0);
    EXPECT_EQ(app_running_in(proc.path().c_str(), "-c"), -1);
    EXPECT_EQ(app_running_in(proc.path().c_str(), "/missing/proc"), -1);

    temp_dir deep;
    deep.write("1/cmdline", std::string(45, 'p') + "abcdefg");
    EXPECT_EQ(app_running_in(deep.path().c_str(), "abcd"), 0);  // bytes 45..48 are searched
    EXPECT_EQ(app_running_in(deep.path().c_str(), "abcde"), -1); // byte 49 is not
    EXPECT_EQ(app_running_in("/nonexistent_proc", "x"), -1);
}

} // namespace
