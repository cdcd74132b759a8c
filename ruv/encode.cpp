#include "ruv/encode.h"

#include <cstring>

#include "ruv/error.h"
#include "ruv/request.h"

namespace {

// One of these bits must be set before a record of the type (the index) is sent.
constexpr uint64_t kRequired[kDataTypes] = {
    0,
    0x60168,   // Alert: sigid, event_count, source address, first time, action, severity
    0x8F9FE0,  // Flow: count, addresses, times, ports, protocol, bytes, packets, duration
    0x2,       // Syslog: message
    0xF8,      // Windows: source name, event id, Windows version, generation time, event type
};

constexpr char kSeparatorText[2] = {'|', '|'};
constexpr uint8_t kZero = 0;

// iovec has no pointer to const; the transport only reads.
void append(encoded_unit *unit, const void *bytes, size_t size) {
    unit->segments[unit->count++] = {const_cast<void *>(bytes), size};
}

void append_part(encoded_unit *unit, const void *bytes, size_t size) {
    if (size != 0) append(unit, bytes, size);
}

void append_text(encoded_unit *unit, const char *text) {
    append_part(unit, text, strlen(text));
}

void append_block(encoded_unit *unit) {
    if (unit->form->slices.empty()) return append(unit, unit->block, unit->form->size);
    for (const body_slice &slice : unit->form->slices)
        append(unit, slice.offset == kZeroByte ? &kZero : unit->block + slice.offset, slice.size);
}

void append_rows(encoded_unit *unit, const RUVCustomRows &rows, int first, int count) {
    for (int row = first; row < first + count; ++row)
        append_part(unit, rows.data[row], rows.len[row]);
}

void append_strings(encoded_unit *unit, const RUVDataValues &values, bool framed) {
    for (int i = 0; i < values.num_istrings; ++i) {
        append_part(unit, values.istrings[i], values.istringslen[i]);
        if (framed) append(unit, kSeparatorText, sizeof kSeparatorText);
    }
}

void append_variable(encoded_unit *unit, const RUVData_t &record, body_part part) {
    const RUVDataValues &values = record.data.data;
    switch (part) {
        case body_part::kMessage:
            return append_part(unit, values.msg, values.msg_len);
        case body_part::kText:
            return append_part(unit, values.msg, values.pkt_len);
        case body_part::kPacket:
            return append_part(unit, values.pkt, values.pkt_len);
        case body_part::kRows:
            return append_rows(unit, record.data.cfdata, 0, unit->form->rows);
        case body_part::kStrings:
            return append_strings(unit, values, false);
        case body_part::kFramedStrings:
            return append_strings(unit, values, true);
        case body_part::kAddressText:
            return append_text(unit, unit->texts.address);
        case body_part::kSeparator:
            return append(unit, kSeparatorText, sizeof kSeparatorText);
        case body_part::kRecordNumber:
            return append_text(unit, unit->texts.record_number);
        case body_part::kNumbers:
            return append_text(unit, unit->texts.numbers);
        case body_part::kCount:
            return append_text(unit, unit->texts.count);
        default:
            return append_rows(unit, record.data.cfdata, static_cast<int>(part), 1);
    }
}

// The Windows event text: its pieces first, then their total in front of them.
void append_windows_text(encoded_unit *unit, const RUVData_t &record, const RUVDSInfo *dsinfo,
                         const char *local_address) {
    libruv_fill_win_texts(record, dsinfo, local_address, &unit->texts);
    const int first = unit->count;
    for (const body_part part : unit->form->parts) append_variable(unit, record, part);
    RUVv6_WinEventLog_v1_t body = {0};
    for (int i = first; i < unit->count; ++i)
        body.data_len += static_cast<uint32_t>(unit->segments[i].iov_len);
    memcpy(unit->block, &body, sizeof body);
}

}  // namespace

bool libruv_okay_to_send(const RUVData_t *record) {
    return record->ctl.type < kDataTypes &&
           (record->data.ok_to_send & kRequired[record->ctl.type]) != 0;
}

int libruv_encode(const RUVData_t *record, const RUVDSInfo *dsinfo, int cid,
                  const char *local_address, encoded_unit *unit) {
    unit->count = 0;
    append(unit, &magic, sizeof magic);
    const bool has_header = record->ctl.ver == kProtocolVersions;
    if (has_header) {
        libruv_set_hdrv6(&unit->header, kProtocolVersions, static_cast<int>(record->ctl.type),
                         record->ctl.sver, record->ctl.tpt, cid);
        append(unit, &unit->header, sizeof unit->header);
    }
    if (!libruv_okay_to_send(record)) return ruv::fail(18);

    unit->form = libruv_find_body(record->ctl.type, record->ctl.ver, record->ctl.sver);
    if (unit->form == nullptr) return has_header ? 0 : ruv::fail(2);
    memset(unit->block, 0, unit->form->size);
    unit->form->fill(*record, dsinfo, unit->block);
    append_block(unit);
    if (has_header && record->ctl.type == kWinEvent) {
        append_windows_text(unit, *record, dsinfo, local_address);
        return 0;
    }
    for (const body_part part : unit->form->parts) append_variable(unit, *record, part);
    return 0;
}
