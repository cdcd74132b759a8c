#include "ruv/record_print.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <span>

#include "ruv/bodies_alert.h"
#include "ruv/bodies_flow.h"
#include "ruv/bodies_syslog.h"
#include "ruv/bodies_windows.h"
#include "ruv/custom_print.h"
#include "ruv/encode.h"
#include "ruv/record_print_lines.h"

namespace {

// Reads the field's bytes as a little-endian number.
uint64_t number_at(const uint8_t *bytes, size_t size) {
    uint64_t value = 0;
    memcpy(&value, bytes, size);
    return value;
}

void print_mac(const char *label, const uint8_t *mac) {
    fprintf(stderr, "\t%s = %02x:%02x:%02x:%02x:%02x:%02x\n", label, mac[0], mac[1], mac[2], mac[3],
            mac[4], mac[5]);
}

// `label` is "SIP" or "DIP"; `tail` is where an IPv4 address stands.
void print_address(const char *label, const uint8_t *address, const uint8_t *tail) {
    char text[INET6_ADDRSTRLEN];
    static constexpr uint8_t kZeros[12] = {};
    if (memcmp(address, kZeros, sizeof kZeros) != 0) {
        inet_ntop(AF_INET6, address, text, sizeof text);
        fprintf(stderr, "\t%sv6 = %s\n", label, text);
        return;
    }
    fprintf(stderr, "\tIPv6 %s[0] = 0, IPv6 %s[1] = 0, IPv6 %s[2] = 0\n", label, label, label);
    auto word = static_cast<uint32_t>(number_at(tail, 4));
    if (word == 0) word = static_cast<uint32_t>(number_at(address + 12, 4));
    const in_addr ipv4 = {htonl(word)};
    inet_ntop(AF_INET, &ipv4, text, sizeof text);
    fprintf(stderr, "\t%s = %s\n", label, text);
}

void print_lines(std::span<const field_line> lines, const void *block) {
    const auto *bytes = static_cast<const uint8_t *>(block);
    for (const field_line &line : lines) {
        const uint8_t *field = bytes + line.offset;
        switch (line.size) {
            case 16:
                print_address(line.label, field, bytes + line.tail);
                break;
            case 8:
                fprintf(stderr, "\t%s = %llu\n", line.label,
                        static_cast<unsigned long long>(number_at(field, 8)));
                break;
            case 6:
                print_mac(line.label, field);
                break;
            default:
                fprintf(stderr, "\t%s = %d\n", line.label,
                        static_cast<int>(number_at(field, line.size)));
        }
    }
}

void print_text(const char *label, const void *text, int length) {
    if (length == 0) return;
    fprintf(stderr, "\t%s = %.*s\n", label, length, static_cast<const char *>(text));
}

void print_ctl(const char *title, const RUVData_t *record) {
    fprintf(stderr, "%s Data - Ctl:\n\tVersion: %d, Subversion: %d\n", title, record->ctl.ver,
            record->ctl.sver + 1);
    fprintf(stderr, "\tThird Party Type: %d\n\tOkay to Send: %c\n", record->ctl.tpt,
            libruv_okay_to_send(record) ? 'Y' : 'N');
    fprintf(stderr, "%s Data - Data:\n", title);
}

void print_alert_row_texts(const RUVData_t *record, const void *block,
                           std::span<const text_line> texts) {
    for (const text_line &line : texts)
        print_text(line.label, record->data.cfdata.data[line.row],
                   static_cast<const uint8_t *>(block)[line.length_offset]);
}

void print_alert_with_rows(RUVConn *conn, const RUVData_t *record, const void *block) {
    const RUVDataValues &values = record->data.data;
    print_lines(kAlertV6V2Lines, block);
    print_text("Message", values.msg, values.msg_len);
    print_text("Packet", values.pkt, values.pkt_len);
    libruv_print_custom_fields(conn, record, kCustomRows);
}

template <class Body>
Body copy_of(const void *block) {
    Body body;
    memcpy(&body, block, sizeof body);
    return body;
}

void print_sized(const char *label, const void *text, int length) {
    fprintf(stderr, "\t%s (%d): %.*s\n", label, length, length,
            length != 0 ? static_cast<const char *>(text) : "");
}

}  // namespace

void libruv_print_alertv5(RUVConn *, const RUVData_t *record, const void *block, const iovec *,
                          int) {
    print_ctl("Alert", record);
    print_lines(kAlertV5Lines, block);
    print_text("Message", record->data.data.msg, record->data.data.msg_len);
    print_alert_row_texts(record, block, kAlertV5Texts);
    print_text("Packet", record->data.data.pkt, record->data.data.pkt_len);
    fprintf(stderr, "\n");
}

void libruv_print_alertv6v1(RUVConn *, const RUVData_t *record, const void *block, const iovec *,
                            int) {
    print_ctl("Alert", record);
    print_lines(kAlertV6V1Lines, block);
    print_text("Message", record->data.data.msg, record->data.data.msg_len);
    print_alert_row_texts(record, block, kAlertV6V1Texts);
    print_text("Packet", record->data.data.pkt, record->data.data.pkt_len);
    fprintf(stderr, "\n");
}

void libruv_print_alertv6v2(RUVConn *conn, const RUVData_t *record, const void *block,
                            const iovec *, int) {
    print_ctl("Alert", record);
    print_alert_with_rows(conn, record, block);
    fprintf(stderr, "\n");
}

void libruv_print_alertv6v3(RUVConn *conn, const RUVData_t *record, const void *block,
                            const iovec *, int) {
    print_ctl("Alert", record);
    print_lines(kAlertV6V3Lines, block);
    print_alert_with_rows(conn, record,
                          static_cast<const uint8_t *>(block) + offsetof(RUVv6_Alert_v3_t, v2));
    fprintf(stderr, "\n");
}

void libruv_print_flowv5(RUVConn *, const RUVData_t *record, const void *block, const iovec *,
                         int) {
    print_ctl("Flow", record);
    print_lines(kFlowV5Lines, block);
    fprintf(stderr, "\n");
}

void libruv_print_flowv6v1(RUVConn *, const RUVData_t *record, const void *block, const iovec *,
                           int) {
    print_ctl("Flow", record);
    print_lines(kFlowV6V1Lines, block);
    fprintf(stderr, "\n");
}

void libruv_print_flowv6v3(RUVConn *conn, const RUVData_t *record, const void *block, const iovec *,
                           int) {
    print_ctl("Flow", record);
    print_lines(kFlowV6V3Lines, block);
    libruv_print_custom_fields(conn, record, sizeof(RUVv6_Flow_v3_t::userdatalen));
    fprintf(stderr, "\n");
}

void libruv_print_syslogv5v1(RUVConn *, const RUVData_t *record, const void *block, const iovec *,
                             int) {
    const auto body = copy_of<RUVv5_Syslog_t>(block);
    print_ctl("Syslog", record);
    print_sized("Message", record->data.data.msg, static_cast<int>(body.message_len));
    fprintf(stderr, "\n");
}

void libruv_print_syslogv6v1(RUVConn *, const RUVData_t *record, const void *block, const iovec *,
                             int) {
    const auto body = copy_of<RUVv6_Syslog_v1_t>(block);
    print_ctl("Syslog", record);
    fprintf(stderr, "\tTime: %d\n\tData Length: %d\n", static_cast<int>(body.data_time),
            body.data_len);
    print_sized("Msg", record->data.data.msg, body.data_len);
    fprintf(stderr, "\n");
}

void libruv_print_winevntv5v1(RUVConn *, const RUVData_t *record, const void *block, const iovec *,
                              int) {
    const auto body = copy_of<RUVv5_WinEvntLog_t>(block);
    const RUVDataValues &values = record->data.data;
    const RUVCustomRows &rows = record->data.cfdata;
    print_ctl("Windows Event", record);
    fprintf(stderr, "\tWin Version: %d\n\tEvent ID: %d\n\tEvent Type: %d\n\tWrite Time: %d\n",
            static_cast<int>(body.win_ver), static_cast<int>(body.eventid), body.eventtype,
            static_cast<int>(body.write_time));
    print_sized("Source", rows.data[kWinSourceName], static_cast<int>(body.source_len));
    print_sized("Host", rows.data[kWinHostname], static_cast<int>(body.host_len));
    print_sized("Message", values.msg, static_cast<int>(body.message_len));
    fprintf(stderr, "\tString Len: %d\n", static_cast<int>(body.strings_len));
    for (int i = 0; i < values.num_istrings; ++i)
        fprintf(stderr, "\tString %d: %.*s\n", i + 1, static_cast<int>(values.istringslen[i]),
                values.istrings[i]);
    fprintf(stderr, "\n");
}

void libruv_print_winevntv6v1(RUVConn *, const RUVData_t *record, const void *block,
                              const iovec *segments, int count) {
    constexpr int kFirstText = 3;  // behind magic, header and block
    print_ctl("Windows Event", record);
    fprintf(stderr, "\tData Length: %d\n\tEvent Data: ",
            static_cast<int>(copy_of<RUVv6_WinEventLog_v1_t>(block).data_len));
    for (int i = kFirstText; i < count; ++i)
        fprintf(stderr, "%.*s", static_cast<int>(segments[i].iov_len),
                static_cast<const char *>(segments[i].iov_base));
    fprintf(stderr, "\n\n");
}

void libruv_print_record(RUVConn *conn, const RUVData_t *record, const encoded_unit &unit) {
    if (unit.form == nullptr) return;
    using printer = void (*)(RUVConn *, const RUVData_t *, const void *, const iovec *, int);
    static constexpr printer kVersion6[kDataTypes][3] = {
        {},
        {libruv_print_alertv6v1, libruv_print_alertv6v2, libruv_print_alertv6v3},
        // Kept: sub-version 2 of a Flow has no dump.
        {libruv_print_flowv6v1, nullptr, libruv_print_flowv6v3},
        {libruv_print_syslogv6v1},
        {libruv_print_winevntv6v1}};
    static constexpr printer kLegacy[kDataTypes] = {nullptr, libruv_print_alertv5,
                                                    libruv_print_flowv5, libruv_print_syslogv5v1,
                                                    libruv_print_winevntv5v1};
    const bool told_apart = record->ctl.type == kAlert || record->ctl.type == kFlow;
    const printer print = record->ctl.ver < kProtocolVersions
                              ? kLegacy[record->ctl.type]
                              : kVersion6[record->ctl.type][told_apart ? record->ctl.sver : 0];
    if (print != nullptr) print(conn, record, unit.block, unit.segments, unit.count);
}
