/* Sends every line of standard input as one event, on behalf of the host 192.0.2.7.
 *
 *     cc -std=c99 send_lines.c -lruv -o send_lines
 *     ./send_lines 127.0.0.1 8082 < /var/log/dpkg.log
 */
#include <ruv/ruvlib.h>
#include <ruv/ruvlibsetters.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static int complain(RUVConn *conn, const char *what) {
    char text[512];
    RUVStrError(conn, ruverrno, text);
    fprintf(stderr, "%s: %s\n", what, text);
    return 1;
}

static int send_lines(RUVConn *conn, void *record, RUVDSInfo *source) {
    char line[4096];
    int count = 0;
    while (fgets(line, sizeof line, stdin)) {
        line[strcspn(line, "\n")] = 0;
        /* The record only points at the line, which therefore stays as it is until it is sent. */
        RUVResetData(record);
        if (RUVSyslogSet_message(record, line, 0) < 0 ||
            RUVSyslogSet_collect_time(record, (uint32_t)time(NULL)) < 0)
            return complain(conn, "record");
        if (line[0] && RUVSendData(conn, record, source) < 0) return complain(conn, "send");
        count += line[0] != 0;
    }
    printf("%d events sent\n", count);
    return 0;
}

int main(int argc, char **argv) {
    const uint32_t address = 0xC0000207; /* 192.0.2.7 in host order */
    RUVConn *conn;
    RUVDSInfo *source;
    void *record;
    int result;

    if (argc != 3) {
        fprintf(stderr, "usage: %s HOST PORT\n", argv[0]);
        return 2;
    }
    conn = RUVAllocConn(argv[1], atoi(argv[2]), 0, 0, 0);
    if (conn == NULL || RUVOpen(conn) != 0) return complain(conn, "connect");
    /* Type 3 is Syslog; version and sub-version are chosen to suit the Receiver. */
    record = RUVAllocData(conn, 3, 0, 0);
    source = RUVAllocDSInfo(1, &address);
    if (record == NULL || source == NULL) return complain(conn, "allocate");
    result = send_lines(conn, record, source);
    RUVFreeDSInfo(source);
    RUVFreeData(record);
    RUVFreeConn(conn);
    return result;
}
