#include "sms/common.h"

#include "at/at.h"
#include "core/log.h"

void *common_thread(void *) {
    char line[RING_LINE_SIZE];
    for (;;) {
        while (ring_pop(urc_ring_view(), line, sizeof line)) {
        }
        sleep_for(0, 1000);
    }
    return nullptr;
}
