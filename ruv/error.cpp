#include "ruv/error.h"

#include <netdb.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ruv/conn.h"

__thread int ruverrno = 0;
__thread int ruverrno2 = 0;
__thread int ruverrno3 = 0;
__thread int ruverrno4 = 0;

namespace {

// What a text's placeholders are filled with.
enum text_arguments { kPlain, kArgument, kErrno, kResolver, kTls, kGeneration };

struct error_row {
    int code;
    text_arguments arguments;
    const char *text;
};

// The gaps 24 to 49 and 60 to 98 keep connection errors apart from those of the setters.
// Kept: the misspellings in these texts, which log readers already match on.
constexpr error_row kErrors[] = {
    {1, kPlain, "Failed to allocate memory"},
    {2, kArgument, "The provided arguemnt was invalid (arg #%d)"},
    {3, kErrno, "A system library call returned an error (errno = %d [%s])"},
    {4, kPlain, "Communication timed out"},
    {5, kPlain, "Error during initialization of the library"},
    {6, kTls, "SSL library error (ret = %d, SSL_get_error = %d, ERR_get_error = %d)"},
    {7, kPlain, "The detected encryption flag and the one provided do not match"},
    {8, kPlain, "The requested RUV version and the detected version do not match"},
    {9, kPlain, "The connection is already encrypted"},
    {10, kResolver, "'getaddrinfo' call returned an error (rv = %d [%s])"},
    {11, kPlain, "Windows junk is busted -- fix me"},
    {12, kGeneration, "Operation is not supported by the currently RUV protocol (protocal #%d)"},
    {13, kPlain, "Requested operation returned 'NOTOKAY'"},
    {14, kPlain, "Unknown data source"},
    {15, kArgument, "Unknown or unspported data type (%d)"},
    {16, kArgument, "Unknown or unspported data type version (%d)"},
    {17, kArgument, "Unknown or unspported data type subversion (%d)"},
    {18, kPlain, "Required piece of data missing"},
    {19, kPlain, "SSL library communication timed out"},
    {20, kPlain, "SSL library failed to allocate memory"},
    {21, kPlain, "Already connected"},
    {22, kPlain, "Not connected"},
    {23, kPlain, "Bad logging level provided"},
    {50, kPlain, "Trying to add data to the wrong data type"},
    {51, kPlain, "Data field not available for the version of the data type"},
    {52, kPlain, "Data setter called with bad argument"},
    {53, kPlain, "RUV*Set_custom_field tried to write over already written field"},
    {54, kPlain, "RUV*Set_custom_field called with invalid len (sizeof)"},
    {55, kPlain, "RUV*Set_custom_field called with bad type"},
    {56, kPlain, "RUV*Set_custom_field called with bad field name"},
    {57, kPlain, "Setter fuction called with invalid argument"},
    {58, kPlain, "Windows Eventlog -- trying to add too many insertion strings (max of 32)"},
    {59, kPlain, "Data field not available for the sub-version of the data type"},
    {99, kArgument, "Unknown error (%d)"},
};

const error_row *find_row(int code) {
    for (const error_row &row : kErrors)
        if (row.code == code) return &row;
    return nullptr;
}

// A handle that demanded TLS of its own remembers why it failed; the documented text alone would
// send the reader to a table of numbers.
void append_tls_reason(const RUVConn *conn, char *errstr) {
    if (conn && conn->tls_opted && conn->tls_reason[0])
        sprintf(errstr + strlen(errstr), ": %s", conn->tls_reason);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void format_row(const error_row &row, const RUVConn *conn, char *errstr) {
    switch (row.arguments) {
        case kPlain:
            sprintf(errstr, "%s", row.text);
            break;
        case kArgument:
            sprintf(errstr, row.text, ruverrno2);
            break;
        case kErrno: {
            char text[128];
            sprintf(errstr, row.text, ruverrno2, strerror_r(ruverrno2, text, sizeof text));
            break;
        }
        case kResolver:
            sprintf(errstr, row.text, ruverrno2, gai_strerror(ruverrno2));
            break;
        case kTls:
            sprintf(errstr, row.text, ruverrno2, ruverrno3, ruverrno4);
            append_tls_reason(conn, errstr);
            break;
        case kGeneration:
            sprintf(errstr, row.text, conn ? conn->ruv_ver : 0);
            break;
    }
}
#pragma GCC diagnostic pop

}  // namespace

namespace ruv {

bool error_text(const RUVConn *conn, int err, char *errstr) {
    const error_row *row = find_row(err);
    if (row)
        format_row(*row, conn, errstr);
    else
        sprintf(errstr, "Unknown error code (%d)", err);
    return row != nullptr;
}

int fail(int code) {
    ruverrno = code;
    return -1;
}

int fail(int code, int argument) {
    ruverrno2 = argument;
    return fail(code);
}

int fail_system(int saved_errno) {
    errno = saved_errno;
    return fail(3, saved_errno);
}

int fail_tls(int ret, int ssl_error, int err) {
    ruverrno3 = ssl_error;
    ruverrno4 = err;
    return fail(6, ret);
}

}  // namespace ruv
