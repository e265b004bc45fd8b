#include "core/config.h"
#include "core/daemon_state.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <functional>
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

TEST_F(ConfigTest, EachKeyTakesItsValue) {
    daemon_state &s = state();
    auto text = [](const char *field) { return [field] { return std::string(field); }; };
    auto num = [](const auto &field) { return [&field] { return std::to_string(field.load()); }; };
    const struct {
        std::string content;
        std::function<std::string()> got;
        std::string expected;
    } cases[] = {
        {"app_name=dialer\r\n", text(s.app_name), "dialer"},
        {"apn_name= cmnet \n", text(s.apn_name), " cmnet "}, // not trimmed
        {"apn_user=u\n", text(s.apn_user), "u"},
        {"apn_passwd=p=q\n", text(s.apn_passwd), "p=q"},
        {std::string("apn_passwd=a\x01\xff\x7f\0b\n", 17), text(s.apn_passwd), "a\x01\xff\x7f"},
        {"ping_address1=8.8.8.8\n", text(s.ping_address[0]), "8.8.8.8"},
        {"ping_address6=example.org\n", text(s.ping_address[5]), "example.org"},
        {"down_script=/bin/down.sh\n", text(s.down_script), "/bin/down.sh"},
        // Keys are exact and only a '#' at the start makes a comment.
        {"apn_name = a\n #apn_name=b\n#apn_name=c\n=d\n", text(s.apn_name), ""},
        {"apn_auth=2\napn_auth=9\n", num(s.apn_auth), "2"}, // out of range keeps the last valid
        {"apn_auth=-1\n", num(s.apn_auth), "1"},
        {"auto_dial=1\n", num(s.auto_dial), "1"},
        {"auto_dial=yes\n", num(s.auto_dial), "0"},
        {"auto_check=5\n", num(s.auto_check), "1"},
        {"check_timeS=5\ncheck_timeS=30x\n", num(s.check_timeS), "30"},
        {"check_timeS=abc\n", num(s.check_timeS), "0"},
        {"debug=1\ndebug=0\n", num(s.debug), "1"}, // the file turns debugging on, never off
        {"debug=2\n", num(s.debug), "0"},
    };
    for (const auto &c : cases) {
        daemon_state_reset();
        std::string out = read_config(c.content);
        EXPECT_EQ(c.got(), c.expected) << c.content;
        EXPECT_EQ(out.empty(), s.debug == 0) << out; // only debugging prints the values
    }
}

TEST_F(ConfigTest, BadAndOverlongLinesAreNamedAndSkipped) {
    // A line is read in pieces of 1023 bytes, each a line of its own.
    std::string out = read_config("#x\n\nno equals\r\napn_name=" + std::string(3000, 'n') + "\n" +
                                  std::string(1500, 'x') + "\n");
    EXPECT_EQ(out, "Line 3: invalid line 'no equals'\n"
                   "Line 5: invalid line '" + std::string(1023, 'n') + "'\n"
                   "Line 6: invalid line '" + std::string(3000 - 1014 - 1023, 'n') + "'\n"
                   "Line 7: invalid line '" + std::string(1023, 'x') + "'\n"
                   "Line 8: invalid line '" + std::string(1500 - 1023, 'x') + "'\n");
    EXPECT_EQ(std::string(state().apn_name), std::string(50, 'n'));
}

TEST_F(ConfigTest, AppCmdFromTheApnSettings) {
    const struct {
        std::string app, apn, user, pass;
        uint32_t auth;
        std::string expected; // "" with an app named: too long, and said so
    } cases[] = {
        {"", "cmnet", "u", "p", 1, ""},
        {"dialer", "", "u", "p", 1, "dialer"},
        {"dialer", "cmnet", "", "", 1, "dialer -s cmnet &"},
        {"dialer", "cmnet", "u", "", 1, "dialer -s cmnet u &"},
        {"dialer", "cmnet", "", "p", 1, "dialer -s cmnet &"},
        {"dialer", "cmnet", "u", "p", 2, "dialer -s cmnet u p 2 &"},
        {std::string(43, 'a'), std::string(50, 'n'), "", "", 1,
         std::string(43, 'a') + " -s " + std::string(50, 'n') + " &"}, // 99 characters fit
        {std::string(44, 'a'), std::string(50, 'n'), "", "", 1, ""},
    };
    for (const auto &c : cases) {
        daemon_state_reset();
        config_apply("app_name", c.app.c_str());
        config_apply("apn_name", c.apn.c_str());
        config_apply("apn_user", c.user.c_str());
        config_apply("apn_passwd", c.pass.c_str());
        state().apn_auth = c.auth;
        testing::internal::CaptureStdout();
        app_cmd_build();
        fflush(stdout);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(std::string(state().app_cmd), c.expected) << c.app << "|" << c.apn;
        bool refused = !c.app.empty() && c.expected.empty();
        EXPECT_EQ(out.find("app_cmd too long") != std::string::npos, refused) << out;
    }
}

} // namespace
