// The module families' rows, walked as a new row would be: each one complete
// enough for every layer that reads it, none that discovery could take for
// another, and each one playable by the emulator that the end-to-end tests use.
#include "core/family.h"
#include "support/test_support.h"

#include <cctype>
#include <set>
#include <string>

namespace {

std::string lower(std::string s) {
    for (char &c : s)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

bool usb_id(const char (&id)[5]) {
    for (size_t i = 0; i < 4; ++i) {
        if (!isxdigit(static_cast<unsigned char>(id[i])))
            return false;
    }
    return id[4] == '\0';
}

TEST(FamilyTest, EveryRowIsCompleteAndTellsItsModuleApart) {
    std::set<std::string> ids;
    for (const module_family &f : MODULE_FAMILIES) {
        SCOPED_TRACE(f.name);
        // Discovery matches the first row with these ids: a second would never be found.
        EXPECT_TRUE(usb_id(f.vendor_id) && usb_id(f.product_id));
        const std::string id = lower(std::string(f.vendor_id) + ":" + f.product_id);
        EXPECT_TRUE(ids.insert(id).second) << id;
        EXPECT_NE(f.at_if_num, f.net_if_num);

        // A dial whose last step may fail would report a link it never checked.
        ASSERT_GT(f.dial_steps, 0u);
        EXPECT_TRUE(f.dial[f.dial_steps - 1].must_succeed);

        // The update refuses a pace below one byte even for a URL, which
        // carries none: a row without a file still needs a usable one.
        EXPECT_GE(f.fota.chunk_size, 1);
        EXPECT_GE(f.fota.chunk_pause_us, 0);
        EXPECT_GT(f.fota.update_silence_ms, 0);
        EXPECT_TRUE(f.fota.file_suffix != nullptr);

        modem_family emulated;
        EXPECT_TRUE(modem_family_parse(lower(f.name), &emulated)) << "no emulated module";
    }
    EXPECT_TRUE(FAMILY_AT_START >= MODULE_FAMILIES &&
                FAMILY_AT_START < MODULE_FAMILIES + MODULE_FAMILY_COUNT);
}

} // namespace
