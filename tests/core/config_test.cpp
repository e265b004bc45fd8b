#include "core/config.h"
#include "support/test_support.h"

namespace {

// What `run` printed on standard output.
template <typename F> std::string printed(F run) {
    testing::internal::CaptureStdout();
    run();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

class ConfigTest : public testing::Test {
protected:
    // Reads `content` as the configuration file and returns what was printed.
    std::string read_config(const std::string &content) {
        return printed([&] { config_read(dir.write("zolvin_4g.conf", content).c_str()); });
    }

    fresh_state fresh;
    temp_dir dir;
};

// Every setting a file can change, as "texts|... auth dial check period debug".
std::string settings() {
    const daemon_state &s = state();
    std::string out = std::string(s.app_name) + "|" + s.apn_name + "|" + s.apn_user + "|" +
                      s.apn_passwd + "|" + s.down_script + "|";
    for (const char *ping : s.ping_address)
        out += std::string(ping) + "|";
    for (uint32_t v : {s.apn_auth.load(), uint32_t{s.auto_dial}, uint32_t{s.auto_check},
                       s.check_timeS.load(), uint32_t{s.debug}})
        out += " " + std::to_string(v);
    return out;
}

TEST_F(ConfigTest, EachKeyTakesItsValue) {
    const struct {
        std::string content;
        std::string expected;
    } cases[] = {
        {"app_name=dialer\r\napn_name= cmnet \napn_user=u\napn_passwd=p=q\ndown_script=/bin/d\n"
         "ping_address1=8.8.8.8\nping_address6=example.org\napn_auth=2\napn_auth=9\nauto_dial=1\n"
         "auto_check=5\ncheck_timeS=5\ncheck_timeS=30x\n",
         "dialer| cmnet |u|p=q|/bin/d|8.8.8.8|||||example.org| 2 1 1 30 0"}, // not trimmed
        {std::string("down_script=a\x01\xff\x7f\0b\n", 18), "||||a\x01\xff\x7f||||||| 1 0 0 600 0"},
        // Keys are exact and only a '#' at the start makes a comment.
        {"apn_name = a\n #apn_name=b\n#apn_name=c\n=d\n", "||||||||||| 1 0 0 600 0"},
        {"apn_auth=-1\nauto_dial=yes\ncheck_timeS=abc\ndebug=2\n", "||||||||||| 1 0 0 0 0"},
        {"debug=1\ndebug=0\n", "||||||||||| 1 0 0 600 1"}, // on from the file, never off
    };
    for (const auto &c : cases) {
        daemon_state_reset();
        std::string out = read_config(c.content);
        EXPECT_EQ(settings(), c.expected) << c.content;
        EXPECT_EQ(out.empty(), state().debug == 0) << out; // only debugging prints the values
    }
}

// The APN texts go into the module's APN command: a value with a quote or a
// control byte is named and left out, and the value before it stays.
TEST_F(ConfigTest, ApnValuesThatWouldLeaveTheirCommandAreNamedAndSkipped) {
    const struct {
        std::string key;
        char *field;
    } keys[] = {{"apn_name", state().apn_name},
                {"apn_user", state().apn_user},
                {"apn_passwd", state().apn_passwd}};
    for (const auto &k : keys) {
        for (char b : {'"', '\x01', '\t', '\x1A', '\x1B'}) {
            SCOPED_TRACE(k.key + " " + std::to_string(b));
            daemon_state_reset();
            std::string out = read_config(k.key + "=ok\n" + k.key + "=a" + b + "b\n");
            EXPECT_EQ(out, k.key + ": value with '\"' or a control character ignored\n");
            EXPECT_STREQ(k.field, "ok");
        }
    }
}

TEST_F(ConfigTest, BadAndOverlongLinesAreNamedAndSkipped) {
    // A line is read in pieces of 1023 bytes, each a line of its own.
    std::string out = read_config("#x\n\nno equals\r\napn_name=" + std::string(3000, 'n') + "\n");
    EXPECT_EQ(out, "Line 3: invalid line 'no equals'\n"
                   "Line 5: invalid line '" + std::string(1023, 'n') + "'\n"
                   "Line 6: invalid line '" + std::string(3000 - 1014 - 1023, 'n') + "'\n");
    EXPECT_EQ(std::string(state().apn_name), std::string(50, 'n'));
}

TEST_F(ConfigTest, AppCmdFromTheApnSettings) {
    const std::string a43(43, 'a'), n50(50, 'n');
    const struct {
        std::string settings;
        std::string expected; // "" with an app named: too long, and said so
    } cases[] = {
        {"apn_name=cmnet\napn_user=u\napn_passwd=p\n", ""},
        {"app_name=dialer\napn_name=cmnet\napn_user=u\napn_auth=2\n", "dialer -s cmnet u &"},
        {"app_name=dialer\napn_name=cmnet\napn_passwd=p\n", "dialer -s cmnet &"},
        {"app_name=" + a43 + "\napn_name=" + n50 + "\n", a43 + " -s " + n50 + " &"}, // 99 fit
        {"app_name=" + a43 + "a\napn_name=" + n50 + "\n", ""},
    };
    for (const auto &c : cases) {
        daemon_state_reset();
        read_config(c.settings);
        std::string out = printed(app_cmd_build);
        EXPECT_EQ(std::string(state().app_cmd), c.expected) << c.settings;
        bool refused = state().app_name[0] != '\0' && c.expected.empty();
        EXPECT_EQ(out.find("app_cmd too long") != std::string::npos, refused) << out;
    }
}

} // namespace
