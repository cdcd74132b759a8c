/* Sends one record of each type, an alert and a flow with custom fields among them, and prints
 * what is sent. fields.ini describes the custom fields.
 *
 *     cc -std=c99 send_types.c -lruv -o send_types
 *     ruv_receiver --port 8082 --catalogue fields.ini
 *     ./send_types 127.0.0.1 8082
 */
#include <ruv/ruvlib.h>
#include <ruv/ruvlibsetters.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { ALERT = 1, FLOW = 2, SYSLOG = 3, WINDOWS = 4 };

static int failures;

/* Every call of the library answers with something negative when it fails. */
static void check(RUVConn *conn, int result, const char *what) {
    char text[512];
    if (result >= 0) return;
    RUVStrError(conn, ruverrno, text);
    fprintf(stderr, "%s: error %d: %s\n", what, ruverrno, text);
    failures++;
}

static void fill_alert(RUVConn *conn, void *record, uint32_t now) {
    const uint16_t position = 17;    /* as large as the field's type says: uint16 */
    const int32_t temperature = -40; /* int32 */
    check(conn, RUVAlertSet_message(record, "the rack is open", 0), "message");
    check(conn, RUVAlertSet_severity(record, 50), "severity");
    check(conn, RUVAlertSet_src_ipv4(record, 0xC0000207), "src_ipv4"); /* 192.0.2.7 */
    check(conn, RUVAlertSet_first_time(record, now), "first_time");
    check(conn, RUVAlertSet_custom_field(conn, record, "Rack.Position", &position, sizeof position),
          "Rack.Position");
    check(conn,
          RUVAlertSet_custom_field(conn, record, "Rack.Temperature", &temperature,
                                   sizeof temperature),
          "Rack.Temperature");
    check(conn, RUVAlertSet_custom_field(conn, record, "Ticket.Number", "T-4711", 0), "Ticket");
}

/* Fields that share a row are set together: one that is left out would read as zero bits, which are
 * the smallest number of a signed type. */
static void fill_flow(RUVConn *conn, void *record, uint32_t now) {
    const uint16_t position = 18;
    const int32_t temperature = 21;
    check(conn, RUVFlowSet_src_ipv4(record, 0xC0000207), "src_ipv4");
    check(conn, RUVFlowSet_dst_ipv4(record, 0xC6336402), "dst_ipv4"); /* 198.51.100.2 */
    check(conn, RUVFlowSet_dst_port(record, 443), "dst_port");
    check(conn, RUVFlowSet_protocol(record, 6), "protocol");
    check(conn, RUVFlowSet_src_bytes(record, 1234), "src_bytes");
    check(conn, RUVFlowSet_first_time(record, now), "first_time");
    check(conn, RUVFlowSet_custom_field(conn, record, "Rack.Position", &position, sizeof position),
          "Rack.Position");
    check(
        conn,
        RUVFlowSet_custom_field(conn, record, "Rack.Temperature", &temperature, sizeof temperature),
        "Rack.Temperature");
    check(conn, RUVFlowSet_custom_field(conn, record, "Ticket.Number", "T-4712", 0), "Ticket");
}

static void fill_syslog(RUVConn *conn, void *record, uint32_t now) {
    check(conn, RUVSyslogSet_message(record, "<13>hello", 0), "message");
    check(conn, RUVSyslogSet_collect_time(record, now), "collect_time");
}

/* A Windows event, like a syslog record, has no custom fields: its own data travels in the
 * insertion strings. */
static void fill_windows(RUVConn *conn, void *record, uint32_t now) {
    check(conn, RUVWinEventLogSet_log_file(record, "Security", 0), "log_file");
    check(conn, RUVWinEventLogSet_source_name(record, "Auditing", 0), "source_name");
    check(conn, RUVWinEventLogSet_event_id(record, 4624), "event_id");
    check(conn, RUVWinEventLogSet_windows_ver(record, 6, 1), "windows_ver");
    check(conn, RUVWinEventLogSet_event_type(record, 4), "event_type");
    check(conn, RUVWinEventLogSet_gen_time(record, now), "gen_time");
    check(conn, RUVWinEventLogSet_hostname(record, "dc01", 0), "hostname");
    check(conn, RUVWinEventLogSet_insertion_string(record, "S-1-5-18", 0), "insertion_string");
    check(conn, RUVWinEventLogSet_message(record, "Logged on", 0), "message");
}

static void send_one(RUVConn *conn, RUVDSInfo *source, int type,
                     void (*fill)(RUVConn *, void *, uint32_t)) {
    /* Version 6, sub-version 3: the one in which a flow has room for strings of custom fields. */
    void *record = RUVAllocData(conn, type, 6, type == FLOW ? 3 : 2);
    check(conn, record ? 0 : -1, "RUVAllocData");
    if (record == NULL) return;
    fill(conn, record, (uint32_t)time(NULL));
    check(conn, RUVSendData(conn, record, source), "RUVSendData");
    RUVFreeData(record);
}

int main(int argc, char **argv) {
    RUVConn *conn;
    RUVDSInfo *source;

    if (argc != 3) {
        fprintf(stderr, "usage: %s HOST PORT\n", argv[0]);
        return 2;
    }
    conn = RUVAllocConn(argv[1], atoi(argv[2]), 0, 0, 0);
    if (conn == NULL || RUVOpen(conn) != 0) {
        check(conn, -1, "connect");
        return 1;
    }
    RUVSetLogging(0x10); /* from here on, records are printed on standard error as they are sent */
    source = RUVAllocDSInfo(3, "my-program");
    send_one(conn, source, ALERT, fill_alert);
    send_one(conn, source, FLOW, fill_flow);
    send_one(conn, source, SYSLOG, fill_syslog);
    send_one(conn, source, WINDOWS, fill_windows);
    RUVFreeDSInfo(source);
    RUVFreeConn(conn);
    return failures != 0;
}
