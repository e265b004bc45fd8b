#include "sms/common.h"

#include "at/at.h"

void *common_thread(void *) {
    pthread_setname_np(pthread_self(), "zolvin_common");
    char line[RING_LINE_SIZE];
    for (;;) {
        // Sleeps until the module has something to say.
        urc_pop(line, sizeof line, NO_DEADLINE);
    }
    return nullptr;
}
