#include "core/family.h"

#include <iterator>

namespace {

using ds = data_step;

// Echo off may fail: a module that keeps echoing still dials, the echo is
// dropped. The EC200 modules bring the network device up on the activated context.
constexpr dial_step EC200_DIAL[] = {
    {ds::echo_off, false},  {ds::context_down, true},      {ds::context_config, true},
    {ds::context_up, true}, {ds::network_device_up, true},
};
// A call left up from before would refuse the new one; stopping it may fail.
constexpr dial_step EC20_DIAL[] = {
    {ds::echo_off, false},      {ds::data_call_down, false}, {ds::context_down, true},
    {ds::context_config, true}, {ds::context_up, true},      {ds::data_call_up, true},
};

} // namespace

// Each row in the order of module_family: name, USB ids, interfaces (net,
// AT), dial, logged, external program, re-assertion, hang-up, update, codes.
// clang-format off
const module_family MODULE_FAMILIES[MODULE_FAMILY_COUNT] = {
    {"EC200T", "2c7c", "6026", 0, 3, EC200_DIAL, std::size(EC200_DIAL), true, false,
     link_reassert::network_device, ds::network_device_down,
     // Its update's lines come on the port that stays open.
     {true, "", fota_after_download::nothing, 10000, 0, 320, 8000},
     {360, 551}},
    {"EC200S", "2c7c", "6002", 0, 3, EC200_DIAL, std::size(EC200_DIAL), true, false,
     link_reassert::network_device, ds::network_device_down,
     // It reboots after the download and again into the new firmware, with
     // long silences while it writes it.
     {true, ",1", fota_after_download::reopen_watch, 1200000, 0, 240, 8000},
     {360, 551}},
    {"EC20", "2c7c", "0125", 4, 2, EC20_DIAL, std::size(EC20_DIAL), false, true,
     link_reassert::data_call, ds::data_call_down,
     // URLs only, so its pace is never used; it reboots after the download
     // and installs its firmware for 40 s beyond an ordinary boot.
     {false, "", fota_after_download::reopen, 120000, 40000, 320, 8000},
     {190, 191, 235, 310, 362}},
};
// clang-format on

// Before discovery nothing needs a family; this is the row the daemon has
// always assumed until then.
const module_family *const FAMILY_AT_START = &MODULE_FAMILIES[2];

namespace {

bool lists(const module_family &f, uint16_t code) {
    for (uint16_t c : f.codes) {
        if (c == 0)
            break;
        if (c == code)
            return true;
    }
    return false;
}

} // namespace

bool family_serves(const module_family &f, uint16_t code) {
    if (lists(f, code))
        return true;
    for (const module_family &other : MODULE_FAMILIES) {
        if (lists(other, code))
            return false;
    }
    return true;
}
