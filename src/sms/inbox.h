// Received messages on their way to the client: an SMS-DELIVER PDU line is
// taken apart, the parts of a long message are joined in the process's store,
// and each message that leaves it becomes one record; a status report becomes
// event 1032.
#pragma once

#include "sms/reassembly.h"

#include <cstddef>
#include <cstdint>

// The store of parts in assembly. It lives as long as the process, not as the
// common thread: a restart of the thread (the module left the bus and came
// back) keeps the parts that came before.
extern sms_assembly sms_inbox;

// One SMS-DELIVER PDU line taken at `now_ms` into `a`; every message that
// leaves the store is reported. A PDU that does not add up reports nothing.
void sms_inbox_deliver(sms_assembly *a, const char *pdu, int64_t now_ms);
// Reports the messages of `a` whose time ran out by `now_ms`; returns when the
// next one runs out, or NO_DEADLINE.
int64_t sms_inbox_expire(sms_assembly *a, int64_t now_ms);
// One status report PDU line: event 1032 with its status octet and message
// reference; a PDU that does not add up reports nothing.
void sms_status_decode(const char *pdu);

// A record that fits one frame goes out as one 1031; a longer one as 1033
// frames whose statuses count the frames still to come down to 0 and whose
// texts joined are the record. Counted once in sms_in.
void sms_record_report(const char *record, size_t len);

// The frame texts of a record: ends[i] is where piece i stops. Each piece is
// at most `piece_max` bytes and ends on a whole UTF-8 character when the
// record's bytes let it (raw 8-bit data may not be UTF-8). Returns the number
// of pieces, or 0 when they would be more than `max`.
size_t record_pieces(const char *record, size_t len, size_t piece_max, size_t *ends, size_t max);
