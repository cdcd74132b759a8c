/* A user's program in C99: connects to the port it is given and sends one event. */
#include <ruv/ruvlib.h>
#include <ruv/ruvlibsetters.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int complain(RUVConn *conn, const char *what) {
    char text[512];
    RUVStrError(conn, ruverrno, text);
    fprintf(stderr, "%s: %s\n", what, text);
    return 1;
}

int main(int argc, char **argv) {
    const char *message = "sent by the consumer";
    RUVConn *conn;
    void *record;

    if (argc != 2) return 2;
    conn = RUVAllocConn("127.0.0.1", atoi(argv[1]), 1, 0, 2);
    if (conn == NULL || RUVOpen(conn) != 0) return complain(conn, "open");
    record = RUVAllocData(conn, 3, 0, 0);
    if (record == NULL) return complain(conn, "record");
    RUVSyslogSet_message(record, message, 0);
    RUVSyslogSet_collect_time(record, 1700000000);
    if (RUVSendData(conn, record, NULL) != 24 + (int)strlen(message)) return complain(conn, "send");
    RUVFreeData(record);
    RUVFreeConn(conn);
    return 0;
}
