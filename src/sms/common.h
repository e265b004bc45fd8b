// The common thread: the only reader of urc_ring, where every unsolicited
// line of the module ends up.
#pragma once

// Thread entry; runs until cancelled. For now it only takes the lines out of
// the ring, so that a transaction's leftovers never pile up there.
void *common_thread(void *arg);
