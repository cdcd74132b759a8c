#include "ruv/tls_reason.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace ruv {
namespace {

constexpr size_t kShownPath = 110;  // of a longer path the end is shown, which tells more

// A path as it is shown: on one line, and not longer than the reason has room for.
struct shown_path {
    char text[kShownPath + 1] = {};
    explicit shown_path(const char *path) {
        const size_t length = strlen(path);
        const bool cut = length > kShownPath;
        snprintf(text, sizeof text, "%s%s", cut ? "..." : "",
                 cut ? path + length - (kShownPath - 3) : path);
        for (char &c : text)
            if (c && iscntrl(static_cast<unsigned char>(c))) c = '?';
    }
};

// What an open of the file says: null when it can be read and holds something.
const char *problem_of(const char *path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        switch (errno) {
            case ENOENT:
            case ENOTDIR:
                return "there is no such file; correct the path or put the file there";
            case EACCES:
            case EPERM:
                return "this process may not read it; give its user the right to read the file "
                       "and to enter its directories";
            case ENAMETOOLONG:
            case ELOOP:
                return "the path leads nowhere; correct it";
            default:
                return "it cannot be opened; see whether other programs can read it";
        }
    }
    struct stat found = {};
    const int known = fstat(fd, &found);
    close(fd);
    if (known == 0 && S_ISDIR(found.st_mode))
        return "this is a directory; give the path of one file";
    if (known == 0 && S_ISREG(found.st_mode) && found.st_size == 0)
        return "the file is empty; put it there anew";
    return nullptr;
}

}  // namespace

void tls_note(RUVConn *conn, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(conn->tls_reason, sizeof conn->tls_reason, format, arguments);
    va_end(arguments);
}

void tls_note_file(RUVConn *conn, const tls_file &file, const char *detail) {
    const int saved = errno;
    const shown_path shown(file.path);
    if (const char *problem = problem_of(file.path))
        tls_note(conn, "%s %s: %s", file.role, shown.text, problem);
    else
        tls_note(conn, "%s %s: it holds no usable %s in PEM form (%s); convert or replace it",
                 file.role, shown.text, file.wanted, detail);
    errno = saved;
}

void tls_note_locked(RUVConn *conn, const tls_file &key) {
    tls_note(conn,
             "%s %s: it is protected by a pass phrase, which nobody is here to type; store the key "
             "without one, readable by this process's user only",
             key.role, shown_path(key.path).text);
}

void tls_note_mismatch(RUVConn *conn, const tls_file &key, const char *cert_path,
                       const char *detail) {
    tls_note(conn,
             "%s %s: it does not belong to the certificate %s (%s); give the two that were made "
             "together",
             key.role, shown_path(key.path).text, shown_path(cert_path).text, detail);
}

void tls_append_foreign(char *out, size_t size, const void *bytes, size_t length) {
    size_t used = strlen(out);
    const auto *from = static_cast<const unsigned char *>(bytes);
    for (size_t i = 0; i < length && used + 1 < size; ++i)
        out[used++] = from[i] >= ' ' && from[i] <= '~' ? static_cast<char>(from[i]) : '?';
    out[used] = 0;
}

}  // namespace ruv
