#include "core/config.h"
#include "core/daemon_state.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class ConfigTest : public testing::Test {
protected:
    void SetUp() override { daemon_state_reset(); }
    void TearDown() override { daemon_state_reset(); }

    // Reads `content` as the configuration file and returns what was printed.
    std::string read_config(const std::string &content) {
        std::string path = dir.write("zolvin_4g.conf", content);
        testing::internal::CaptureStdout();
        config_read(path.c_str());
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }

    temp_dir dir;
};

TEST_F(ConfigTest, MissingFileKeepsDefaults) {
    testing::internal::CaptureStdout();
    config_read("/nonexistent/zolvin_4g.conf");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Could not open configuration file '/nonexistent/zolvin_4g.conf' for reading.\n");
    EXPECT_EQ(state().apn_auth, 1u);
    EXPECT_EQ(state().check_timeS, 600u);
    EXPECT_EQ(state().auto_dial, 0);
    EXPECT_STREQ(state().apn_name, "");
}

TEST_F(ConfigTest, ReadsEveryKeyWithoutTrimming) {
    std::string out = read_config("# comment=ignored\n"
                                  "app_name=dialer\r\n"
                                  "apn_name= cmnet \n"
                                  "apn_user=u\n"
                                  "apn_passwd=p=q\n"
                                  "apn_auth=2\n"
                                  "auto_dial=1\n"
                                  "auto_check=5\n"
                                  "ping_address1=8.8.8.8\n"
                                  "ping_address6=example.org\n"
                                  "check_timeS=30x\n"
                                  "down_script=/bin/down.sh\n"
                                  "apn_name = other\n"
                                  " #not a comment=1\n");
    EXPECT_EQ(out, "");
    daemon_state &s = state();
    EXPECT_STREQ(s.app_name, "dialer");
    EXPECT_STREQ(s.apn_name, " cmnet ");
    EXPECT_STREQ(s.apn_user, "u");
    EXPECT_STREQ(s.apn_passwd, "p=q");
    EXPECT_EQ(s.apn_auth, 2u);
    EXPECT_EQ(s.auto_dial, 1);
    EXPECT_EQ(s.auto_check, 1);
    EXPECT_STREQ(s.ping_address[0], "8.8.8.8");
    EXPECT_STREQ(s.ping_address[5], "example.org");
    EXPECT_EQ(s.check_timeS, 30u);
    EXPECT_STREQ(s.down_script, "/bin/down.sh");
}

TEST_F(ConfigTest, DebugLinesEchoWhatWasStored) {
    std::string out = read_config("debug=1\n"
                                  "auto_dial=yes\n"
                                  "apn_auth=7\n"
                                  "apn_auth=-1\n"
                                  "apn_auth=3\n"
                                  "apn_passwd=secret\n"
                                  "check_timeS=abc\n"
                                  "=abc\n"
                                  "apn_name=\n"
                                  "unknown=1\n");
    // Each log line carries a 22-character time stamp; compare what follows it.
    std::string messages;
    size_t pos = 0;
    while (pos < out.size()) {
        size_t nl = out.find('\n', pos);
        std::string line = out.substr(pos, nl - pos);
        ASSERT_EQ(line[0], '[') << line;
        messages += line.substr(22) + "\n";
        pos = nl + 1;
    }
    EXPECT_EQ(messages, "Set debug log out!\n"
                        "auto_dial=yes\n"
                        "wrong apn_auth value,set default value 1\n"
                        "wrong apn_auth value,set default value 1\n"
                        "apn_auth=3\n"
                        "apn_passwd=secret\n"
                        "check_timeS=0\n"
                        "apn_name=\n");
    EXPECT_EQ(state().auto_dial, 0);
    EXPECT_EQ(state().apn_auth, 3u);
    EXPECT_EQ(state().check_timeS, 0u);
}

TEST_F(ConfigTest, FileCannotTurnDebugOff) {
    state().debug = 1;
    read_config("debug=0\n");
    EXPECT_EQ(state().debug, 1);
    daemon_state_reset();
    read_config("debug=2\n");
    EXPECT_EQ(state().debug, 0);
}

TEST_F(ConfigTest, BadLinesAreNamedAndSkipped) {
    std::string out = read_config("#x\n\nno equals here\r\napn_name=ok\nalso bad\n");
    EXPECT_EQ(out, "Line 3: invalid line 'no equals here'\n"
                   "Line 5: invalid line 'also bad'\n");
    EXPECT_STREQ(state().apn_name, "ok");
}

TEST_F(ConfigTest, LongAndBinaryInputStaysBounded) {
    std::string value60(60, 'v');
    std::string long_line = "apn_user=" + std::string(5000, 'u') + "\n";
    std::string binary = std::string("apn_passwd=a\x01\xff\x7f", 16) + "b\n";
    std::string out = read_config("apn_name=" + value60 + "\n" + long_line + binary +
                                  std::string(3000, 'x') + "\n");
    EXPECT_EQ(std::string(state().apn_name), value60.substr(0, 50));
    EXPECT_EQ(std::string(state().apn_user), std::string(50, 'u'));
    EXPECT_EQ(state().apn_name[50], '\0');
    EXPECT_EQ(state().apn_name[51], '\0');
    // The 5000-character line is read in 1023-byte pieces, each a line of its own:
    // the first piece sets the user, the rest has no '=' and is reported.
    EXPECT_NE(out.find("Line 3: invalid line '" + std::string(1023, 'u') + "'\n"), std::string::npos);
    EXPECT_NE(out.find("Line 6: invalid line '" + std::string(5000 - 1014 - 3 * 1023, 'u') + "'\n"),
              std::string::npos);
    EXPECT_EQ(out.find("Line 2:"), std::string::npos);
    EXPECT_NE(out.find("Line 10: invalid line '" + std::string(3000 - 2 * 1023, 'x') + "'\n"),
              std::string::npos);
    EXPECT_STREQ(state().apn_passwd, "a\x01\xff\x7f"); // a NUL byte ends the text value
}

TEST_F(ConfigTest, RepeatedKeyTakesTheLastValidValue) {
    read_config("apn_auth=2\napn_auth=9\ncheck_timeS=5\ncheck_timeS=7\n");
    EXPECT_EQ(state().apn_auth, 2u);
    EXPECT_EQ(state().check_timeS, 7u);
}

struct app_cmd_case {
    const char *app, *apn, *user, *pass;
    uint32_t auth;
    const char *expected;
};

TEST_F(ConfigTest, AppCmdCombinations) {
    const app_cmd_case cases[] = {
        {"", "cmnet", "u", "p", 1, ""},
        {"dialer", "", "u", "p", 1, "dialer"},
        {"dialer", "cmnet", "", "", 1, "dialer -s cmnet &"},
        {"dialer", "cmnet", "u", "", 1, "dialer -s cmnet u &"},
        {"dialer", "cmnet", "", "p", 1, "dialer -s cmnet &"},
        {"dialer", "cmnet", "u", "p", 2, "dialer -s cmnet u p 2 &"},
    };
    for (const app_cmd_case &c : cases) {
        daemon_state_reset();
        config_apply("app_name", c.app);
        config_apply("apn_name", c.apn);
        config_apply("apn_user", c.user);
        config_apply("apn_passwd", c.pass);
        state().apn_auth = c.auth;
        app_cmd_build();
        EXPECT_STREQ(state().app_cmd, c.expected) << c.app << "|" << c.apn << "|" << c.user;
    }
}

TEST_F(ConfigTest, AppCmdThatDoesNotFitStaysEmptyAndSaysSo) {
    config_apply("app_name", std::string(50, 'a').c_str());
    config_apply("apn_name", std::string(50, 'n').c_str());
    config_apply("apn_user", "u");
    config_apply("apn_passwd", "p");
    testing::internal::CaptureStdout();
    app_cmd_build();
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_STREQ(state().app_cmd, "");
    EXPECT_NE(out.find("app_cmd too long"), std::string::npos);

    // 99 characters still fit, 100 do not.
    config_apply("apn_user", "");
    config_apply("app_name", std::string(43, 'a').c_str());
    app_cmd_build();
    EXPECT_EQ(std::string(state().app_cmd).size(), 99u);
    config_apply("app_name", std::string(44, 'a').c_str());
    testing::internal::CaptureStdout();
    app_cmd_build();
    fflush(stdout);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("app_cmd too long"), std::string::npos);
    EXPECT_STREQ(state().app_cmd, "");
}

} // namespace
