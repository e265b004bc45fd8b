#include "defaults.h"

#include <cctype>

namespace {

enum family_bits : unsigned {
    EC20 = 1u << 0,
    EC200T = 1u << 1,
    EC200S = 1u << 2,
    EC200 = EC200T | EC200S,
    ALL = EC20 | EC200,
};

unsigned family_bit(modem_family family) {
    switch (family) {
    case modem_family::ec20:
        return EC20;
    case modem_family::ec200t:
        return EC200T;
    case modem_family::ec200s:
        return EC200S;
    }
    return 0;
}

// `argument` is what follows the row's match in the command.
using answer_fn = void (*)(const std::string &argument, modem_family family,
                           module_session &session, answer_plan &out);

struct answer_row {
    const char *match;
    modem_match how;
    unsigned families;
    std::vector<std::string> lines; // the answer, when there is no function
    answer_fn fn = nullptr;
    // When not empty, the only arguments the module takes; others get ERROR.
    std::vector<std::string> accept = {};
};

void error_answer(answer_plan &out) { out.lines = {"ERROR"}; }

bool all_digits(const std::string &s) {
    if (s.empty())
        return false;
    for (char c : s)
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return false;
    return true;
}

void set_echo_off(const std::string &, modem_family, module_session &s, answer_plan &out) {
    s.echo = false;
    out.lines = {"OK"};
}

void set_echo_on(const std::string &, modem_family, module_session &s, answer_plan &out) {
    s.echo = true;
    out.lines = {"OK"};
}

void set_cmgf(const std::string &arg, modem_family, module_session &s, answer_plan &out) {
    s.text_mode = arg == "1";
    out.lines = {"OK"};
}

void set_creg(const std::string &arg, modem_family, module_session &s, answer_plan &out) {
    s.creg_mode = arg[0] - '0';
    out.lines = {"OK"};
}

void query_creg(const std::string &, modem_family, module_session &s, answer_plan &out) {
    // Mode 2 adds the location area and cell the daemon reports to its client.
    if (s.creg_mode == 2)
        out.lines = {"+CREG: 2,1,\"1A2B\",\"01C3D4E\",7", "OK"};
    else
        out.lines = {"+CREG: " + std::to_string(s.creg_mode) + ",1", "OK"};
}

// PDU mode takes the TPDU length, text mode the quoted destination.
void message_prompt(const std::string &arg, modem_family, module_session &s, answer_plan &out) {
    bool fits = s.text_mode ? arg.size() > 2 && arg.front() == '"' && arg.back() == '"'
                            : all_digits(arg);
    if (!fits) {
        error_answer(out);
        return;
    }
    out.next = answer_plan::then::message_body;
}

void speak(const std::string &arg, modem_family, module_session &, answer_plan &out) {
    if (arg == "0,0,0") {
        out.lines = {"OK"};
    } else if (arg.compare(0, 7, "1,1,1,\"") == 0 && arg.size() > 8 && arg.back() == '"') {
        out.lines = {"OK"};
        out.later = {{TTS_PLAY_MS, "+QWTTS: 0"}};
    } else {
        error_answer(out);
    }
}

const char *const LBS_KEYS[] = {"asynch", "timeout", "server", "token", "timeUpdate", "withTime"};

// AT+QLBSCFG="key" reads a setting, AT+QLBSCFG="key",value sets it.
void lbs_config(const std::string &arg, modem_family, module_session &s, answer_plan &out) {
    size_t close = arg.find('"', 1);
    if (arg.empty() || arg[0] != '"' || close == std::string::npos) {
        error_answer(out);
        return;
    }
    std::string key = arg.substr(1, close - 1);
    bool known = false;
    for (const char *k : LBS_KEYS)
        known = known || key == k;
    if (!known) {
        error_answer(out);
        return;
    }
    std::string rest = arg.substr(close + 1);
    if (rest.empty()) {
        out.lines = {"+QLBSCFG: \"" + key + "\"," + s.lbs[key], "OK"};
    } else if (rest[0] == ',' && rest.size() > 1) {
        s.lbs[key] = rest.substr(1);
        out.lines = {"OK"};
    } else {
        error_answer(out);
    }
}

// "<op>,<cid>": 1 brings the network device up, 0 down.
void net_device_control(const std::string &arg, modem_family, module_session &s,
                        answer_plan &out) {
    if (arg.size() < 3 || (arg[0] != '0' && arg[0] != '1') || arg[1] != ',') {
        error_answer(out);
        return;
    }
    s.data_call = arg[0] == '1';
    out.lines = {"OK"};
}

void data_call(const std::string &arg, modem_family, module_session &s, answer_plan &out) {
    if (arg.size() < 3 || (arg[0] != '0' && arg[0] != '1') || arg[1] != ',') {
        error_answer(out);
        return;
    }
    s.data_call = arg[0] == '1';
    if (s.data_call)
        out.lines = {"$QCRMCALL: 1,V4", "OK"};
    else
        out.lines = {"OK"};
}

void net_device_status(const std::string &, modem_family, module_session &s, answer_plan &out) {
    out.lines = {s.data_call ? "+QNETDEVSTATUS: 1,1" : "+QNETDEVSTATUS: 0,0", "OK"};
}

std::string fota_line(const std::string &what) { return "+QIND: \"FOTA\"," + what; }

// The EC20 and EC200S reboot after the download and write the firmware from
// the new boot; every family reboots into the new firmware after END.
void fota_update_lines(modem_family family, answer_plan &out) {
    if (family != modem_family::ec200t)
        out.later.push_back({FOTA_STEP_MS, FOTA_REBOOT});
    out.later.push_back({FOTA_STEP_MS, fota_line("\"START\"")});
    out.later.push_back({FOTA_STEP_MS, fota_line("\"UPDATING\",50")});
    out.later.push_back({FOTA_STEP_MS, fota_line("\"UPDATING\",100")});
    out.later.push_back({FOTA_STEP_MS, fota_line("\"END\",0")});
    out.later.push_back({FOTA_STEP_MS, FOTA_REBOOT});
}

// "FILE:<size>" (the EC200S adds ",1") takes an upload of that many bytes;
// an http:// or ftp:// URL is fetched by the module itself.
void fota_download(const std::string &arg, modem_family family, module_session &,
                   answer_plan &out) {
    if (arg.size() < 3 || arg[0] != '"') {
        error_answer(out);
        return;
    }
    if (arg.compare(0, 6, "\"FILE:") == 0) {
        size_t close = arg.find('"', 6);
        std::string size = close == std::string::npos ? "" : arg.substr(6, close - 6);
        std::string tail = close == std::string::npos ? "" : arg.substr(close + 1);
        if (family == modem_family::ec20 || !all_digits(size) || size.size() > 9 ||
            (!tail.empty() && tail != ",1") || std::stoul(size) == 0) {
            error_answer(out);
            return;
        }
        out.lines = {"OK"};
        out.later.push_back({0, fota_line("\"FILESTART\"")});
        out.next = answer_plan::then::upload;
        out.upload_size = std::stoul(size);
        return;
    }
    const char *kind = nullptr;
    if (arg.compare(0, 8, "\"http://") == 0 || arg.compare(0, 9, "\"https://") == 0)
        kind = "HTTP";
    else if (arg.compare(0, 7, "\"ftp://") == 0)
        kind = "FTP";
    if (kind == nullptr || arg.back() != '"') {
        error_answer(out);
        return;
    }
    out.lines = {"OK"};
    out.later.push_back({FOTA_STEP_MS, fota_line("\"" + std::string(kind) + "START\"")});
    out.later.push_back({FOTA_STEP_MS, fota_line("\"" + std::string(kind) + "END\",0")});
    fota_update_lines(family, out);
}

const std::vector<answer_row> &answer_table() {
    using m = modem_match;
    static const std::vector<answer_row> rows = {
        {"AT", m::exact, ALL, {"OK"}},
        {"ATI", m::exact, EC20, {"MAKER", "EC20F", "Revision: EMU-EC20F-R01", "OK"}},
        {"ATI", m::exact, EC200T, {"MAKER", "EC200T", "Revision: EMU-EC200T-R01", "OK"}},
        {"ATI", m::exact, EC200S, {"MAKER", "EC200S", "Revision: EMU-EC200S-R01", "OK"}},
        {"AT+GSN", m::exact, ALL, {"861234567890123", "OK"}},
        {"AT+CIMI", m::exact, ALL, {"001010123456789", "OK"}},
        {"AT+CSQ", m::exact, ALL, {"+CSQ: 20,99", "OK"}},
        {"AT+COPS?", m::exact, ALL, {"+COPS: 0,0,\"NETWORK\",7", "OK"}},
        {"AT+CSCA?", m::exact, ALL, {"+CSCA: \"+12345678901\",145", "OK"}},
        {"AT+CREG=", m::prefix, ALL, {}, set_creg, {"0", "1", "2"}},
        {"AT+CREG?", m::exact, ALL, {}, query_creg},
        {"ATE0", m::exact, ALL, {}, set_echo_off},
        {"ATE1", m::exact, ALL, {}, set_echo_on},
        {"AT+CSCS=", m::prefix, ALL, {"OK"}, nullptr, {"\"GSM\"", "\"IRA\"", "\"UCS2\""}},
        {"AT+CMGF=", m::prefix, ALL, {}, set_cmgf, {"0", "1"}},
        {"AT+CSMS=", m::prefix, ALL, {"+CSMS: 1,1,1", "OK"}, nullptr, {"0", "1"}},
        {"AT+CNMI=",
         m::prefix,
         ALL,
         {"OK"},
         nullptr,
         {"2,0,0,1,0", "2,1,0,1,0", "2,2,0,1,0", "2,3,0,1,0"}},
        {"AT+CMGS=", m::prefix, ALL, {}, message_prompt},
        {"AT+COLP=", m::prefix, ALL, {"OK"}, nullptr, {"0", "1"}},
        {"AT+CLIP=", m::prefix, ALL, {"OK"}, nullptr, {"0", "1"}},
        {"ATA", m::exact, ALL, {"OK"}},
        {"ATH", m::exact, ALL, {"OK"}},
        {"ATD", m::prefix, ALL, {"OK"}},
        {"AT+QWTTS=", m::prefix, EC20, {}, speak},
        {"AT+QTONEDET=", m::prefix, EC20, {"OK"}, nullptr, {"0", "1"}},
        {"AT+QLBSCFG=", m::prefix, ALL, {}, lbs_config},
        {"AT+QLBS", m::exact, ALL, {"+QLBS: 0,31.123456,121.123456", "OK"}},
        {"AT+QIDEACT=", m::prefix, ALL, {"OK"}},
        {"AT+QICSGP=", m::prefix, ALL, {"OK"}},
        {"AT+QIACT=", m::prefix, ALL, {"OK"}},
        {"AT+QNETDEVCTL=", m::prefix, EC200, {}, net_device_control},
        {"AT+QCFG=\"USBIFC\"", m::prefix, EC200, {"OK"}, nullptr, {",0,0", ",2,2"}},
        {"AT$QCRMCALL=", m::prefix, EC20, {}, data_call},
        {"AT+QNETDEVSTATUS=", m::prefix, EC20, {"OK"}, nullptr, {"0", "1"}},
        {"AT+QNETDEVSTATUS?", m::exact, EC20, {}, net_device_status},
        {"AT+QFOTADL=", m::prefix, ALL, {}, fota_download},
    };
    return rows;
}

bool row_matches(const answer_row &row, const std::string &command) {
    if (row.how == modem_match::exact)
        return command == row.match;
    return command.compare(0, std::char_traits<char>::length(row.match), row.match) == 0;
}

} // namespace

module_session::module_session() {
    lbs = {{"asynch", "0"},
           {"timeout", "10"},
           {"server", "\"lbs.example.net:80\""},
           {"token", "\"0123456789ABCDEF\""},
           {"timeUpdate", "1"},
           {"withTime", "0"}};
}

answer_plan standard_answer(modem_family family, const std::string &command,
                            module_session &session) {
    answer_plan out;
    for (const answer_row &row : answer_table()) {
        if (!(row.families & family_bit(family)) || !row_matches(row, command))
            continue;
        std::string argument = command.substr(std::char_traits<char>::length(row.match));
        if (!row.accept.empty()) {
            bool taken = false;
            for (const std::string &a : row.accept)
                taken = taken || argument == a;
            if (!taken)
                break;
        }
        if (row.fn != nullptr)
            row.fn(argument, family, session, out);
        else
            out.lines = row.lines;
        return out;
    }
    error_answer(out);
    return out;
}

answer_plan standard_body_answer(modem_family family, const std::string &command, bool aborted,
                                 module_session &session) {
    answer_plan out;
    if (command.compare(0, 11, "AT+QFOTADL=") == 0) {
        out.later.push_back({0, fota_line("\"FILEEND\",0")});
        fota_update_lines(family, out);
        return out;
    }
    if (aborted) {
        out.lines = {"OK"};
        return out;
    }
    int ref = session.next_message_ref;
    session.next_message_ref = ref % 255 + 1;
    out.lines = {"+CMGS: " + std::to_string(ref), "OK"};
    return out;
}
