#include "core/siemcollector_log.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>

#include "core/utils.h"

extern char **environ;

namespace {

constexpr const wchar_t *kDefaultLogPath = L"/var/log/velmor/siem_collector.log";
constexpr off_t kLargestLogBytes = 10'485'759;
constexpr size_t kCommandBytes = 512;
constexpr size_t kUsualLineBytes = 2048;
constexpr size_t kStampBytes = 25;

struct level_word {
    const wchar_t *upper, *lower;
    uint64_t mask, library_level;
};

constexpr level_word kLevelWords[] = {
    {L"ERROR", L"error", 1, 0},  {L"INFO", L"info", 3, 0},   {L"WARN", L"warn", 7, 1},
    {L"DEBUG", L"debug", 15, 1}, {L"DIAG", L"diag", 31, 15},
};

std::atomic<uint16_t> set_level{0};
std::atomic<int32_t> log_to_file{0};

std::mutex line_lock;  // held while one line is written

// What the trimming needs. `path_set` mirrors mbs_log_path, for messages to the console.
std::mutex path_lock;
wchar_t *log_path;
char *mbs_log_path;
bool reopen_failed;
std::atomic<bool> path_set{false};

const level_word *find_level_word(const wchar_t *word) {
    if (!word) return nullptr;
    for (const level_word &row : kLevelWords) {
        if (wcscmp(word, row.upper) == 0 || wcscmp(word, row.lower) == 0) return &row;
    }
    return nullptr;
}

const char *level_name(uint64_t level) {
    switch (level) {
        case kLogError:
            return "ERROR";
        case kLogInfo:
            return "INFO";
        case kLogWarn:
            return "WARN";
        case kLogDebug:
            return "DEBUG";
        case kLogDiag:
            return "DIAG";
        default:
            return "UNKNOWN";
    }
}

// The stamp of this moment. A thread makes a new text only when the second has changed.
const char *current_stamp() {
    thread_local time_t made_at = -1;
    thread_local char stamp[kStampBytes] = "";
    const time_t now = time(nullptr);
    tm local;
    if (now == made_at || !localtime_r(&now, &local)) return stamp;
    if (strftime(stamp, sizeof stamp, "%b %d %H:%M:%S %Y", &local) > 0) made_at = now;
    return stamp;
}

void write_whole(int fd, const char *bytes, size_t size) {
    std::lock_guard<std::mutex> whole_line(line_lock);
    while (size > 0) {
        const ssize_t written = write(fd, bytes, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;  // nobody could be told
        bytes += written;
        size -= static_cast<size_t>(written);
    }
}

// vsnprintf() for a locale that cannot express a wide argument: such a message is written in UTF-8
// rather than lost.
int format_in_utf8(char *to, size_t size, const char *format, va_list arguments) {
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (!utf8) return -1;
    const locale_t before = uselocale(utf8);
    const int length = vsnprintf(to, size, format, arguments);
    uselocale(before);
    return length;
}

// Formats the message; *wide tells whether there was wide text in it, which may carry bytes.
int format_text(char *to, size_t size, const char *format, va_list arguments, bool *wide) {
    va_list again;
    va_copy(again, arguments);
    int length = vsnprintf(to, size, format, arguments);
    *wide = length < 0 || strstr(format, "%ls") || strstr(format, "%S");
    if (length < 0) length = format_in_utf8(to, size, format, again);
    if (length < 0) length = snprintf(to, size, "%s", format);
    va_end(again);
    return length;
}

// Turns the private characters that carry undecodable bytes (core/utils.h), as UTF-8 has them, into
// these bytes again. Returns the new length.
size_t restore_raw_bytes(char *text, size_t length) {
    size_t kept = 0;
    for (size_t at = 0; at < length; ++kept) {
        const auto *byte = reinterpret_cast<unsigned char *>(text + at);
        const bool raw = length - at >= 3 && byte[0] == 0xEF && byte[1] >= 0x9C && byte[1] <= 0x9F;
        text[kept] = raw ? static_cast<char>((byte[1] & 3) << 6 | (byte[2] & 0x3F)) : text[at];
        at += raw ? 3 : 1;
    }
    return kept;
}

// Formats the line in one piece and writes it; out of memory, a long line is cut short.
void write_line(uint64_t level, const char *format, va_list arguments) {
    char usual[kUsualLineBytes];
    const auto head = static_cast<size_t>(
        snprintf(usual, sizeof usual, "%s:(%s) ", current_stamp(), level_name(level)));

    va_list again;
    va_copy(again, arguments);
    const size_t room = sizeof usual - head;
    bool wide = false;
    auto length = static_cast<size_t>(format_text(usual + head, room, format, arguments, &wide));
    char *line = usual;
    if (length >= room) {
        auto *large = static_cast<char *>(malloc(head + length + 1));
        if (large) {
            memcpy(large, usual, head);
            format_text(large + head, length + 1, format, again, &wide);
            line = large;
        } else {
            length = room - 1;
        }
    }
    va_end(again);
    if (wide) length = restore_raw_bytes(line + head, length);
    line[head + length] = '\n';
    write_whole(log_to_file.load(std::memory_order_relaxed) ? STDERR_FILENO : STDOUT_FILENO, line,
                head + length + 1);
    if (line != usual) free(line);
}

// Points descriptor 2 at an empty log file. The descriptor is exchanged in one step, so it is never
// closed, whatever fails. A link is not followed and a FIFO does not block.
bool reopen_log(const char *path) {
    const int fd = open(
        path,
        O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
        0644);
    if (fd < 0) return false;
    fcntl(fd, F_SETFL, O_APPEND);
    const bool exchanged = dup2(fd, STDERR_FILENO) == STDERR_FILENO;
    if (fd != STDERR_FILENO) close(fd);
    return exchanged;
}

// Only a plain file gives way to the new log, or a link that leads to one or nowhere: then the link
// goes, and not its target.
void delete_old_log(const char *path) {
    struct stat info, target;
    if (lstat(path, &info) != 0) return;
    const bool link = S_ISLNK(info.st_mode) &&
                      (stat(path, &target) != 0 ? errno == ENOENT : S_ISREG(target.st_mode));
    if (S_ISREG(info.st_mode) || link) unlink(path);
}

// True for "/dev/stderr" and its like, which lead into /proc: the link is the host's own, also
// while it leads to a plain file.
bool names_a_stream(const char *path) {
    constexpr std::string_view kDescriptors = "/proc/";
    char target[kDescriptors.size()];
    const ssize_t size = readlink(path, target, sizeof target);
    return size > 0 && std::string_view(target, static_cast<size_t>(size)) == kDescriptors;
}

bool safe_in_shell(std::string_view path) {
    constexpr std::string_view kPlain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+,:@%=";
    return !path.empty() && path[0] != '-' && path.find_first_not_of(kPlain) == path.npos;
}

// What system() does, but for the masks: the stop signals stay away from this thread only as they
// were, and the shell starts with none blocked and the broken pipe not ignored.
void run_in_shell(const char *command) {
    posix_spawnattr_t attributes;
    if (posix_spawnattr_init(&attributes) != 0) return;
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    char shell[] = "sh", option[] = "-c";
    char *line = strdup(command);
    char *const arguments[] = {shell, option, line, nullptr};
    pid_t child = 0;
    if (line && posix_spawn(&child, "/bin/sh", nullptr, &attributes, arguments, environ) == 0) {
        while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    free(line);
    posix_spawnattr_destroy(&attributes);
}

// The shell writes through whatever stands there: a link would lead it to another file, and a FIFO
// would never let it end.
bool safe_to_overwrite(const std::string &path) {
    struct stat info;
    if (lstat(path.c_str(), &info) != 0) return errno == ENOENT;
    return S_ISREG(info.st_mode) && info.st_nlink == 1;
}

// Kept: the first 1000 lines are dropped and then the file is emptied by opening it anew, so the
// shell's work is lost; the sequence is what reaching the limit has always meant.
void trim(const char *path) {
    char command[kCommandBytes];
    const int length = snprintf(command, sizeof command, "sed '1,1000d' %s > %s.tmp; mv %s.tmp %s",
                                path, path, path, path);
    if (length < static_cast<int>(sizeof command) && safe_in_shell(path) &&
        safe_to_overwrite(std::string(path) + ".tmp")) {
        run_in_shell(command);
    }
    reopen_failed = !reopen_log(path);
}

void forget_path() {
    path_set.store(false, std::memory_order_relaxed);
    free(log_path);
    free(mbs_log_path);
    log_path = nullptr;
    mbs_log_path = nullptr;
    reopen_failed = false;
}

void create_directory_of(const char *path) {
    const char *slash = strrchr(path, '/');
    if (!slash || slash == path) return;
    char *directory = strndup(path, static_cast<size_t>(slash - path));
    if (directory) create_dirx(directory);
    free(directory);
}

}  // namespace

void logger_init(uint64_t level, const wchar_t *log, int log_file) {
    set_log_level(level);
    log_to_file.store(log_file, std::memory_order_relaxed);
    std::lock_guard<std::mutex> guard(path_lock);
    forget_path();
    if (!log_file) return;
    log_path = wcsdup(log ? log : kDefaultLogPath);
    mbs_log_path = wstrtostr(log_path);
    if (!mbs_log_path) return;
    setvbuf(stderr, nullptr, _IOLBF, 0);
    if (names_a_stream(mbs_log_path)) return;
    create_directory_of(mbs_log_path);
    delete_old_log(mbs_log_path);
    reopen_failed = !reopen_log(mbs_log_path);
    path_set.store(true, std::memory_order_relaxed);
}

void logger(uint64_t level, const char *format, ...) {
    if (!log_enabled(level)) {
        check_file_size();
        return;
    }
    const int saved_errno = errno;
    va_list arguments;
    va_start(arguments, format);
    write_line(level, format, arguments);
    va_end(arguments);
    check_file_size();
    errno = saved_errno;
}

bool log_enabled(uint64_t level) {
    return (set_level.load(std::memory_order_relaxed) & level) != 0;
}

void set_log_level(uint64_t level) {
    set_level.store(static_cast<uint16_t>(level), std::memory_order_relaxed);
}

uint64_t translate_level(const wchar_t *word) {
    const level_word *row = find_level_word(word);
    return row ? row->mask : 0;
}

uint64_t translate_lib_level(const wchar_t *word) {
    const level_word *row = find_level_word(word);
    return row ? row->library_level : 0;
}

void lpc_log(int logLevel, const wchar_t *pmessage) {
    constexpr uint64_t kLevels[] = {kLogDebug, kLogInfo, kLogWarn, kLogError};
    const uint64_t level = logLevel >= 1 && logLevel <= 3 ? kLevels[logLevel] : uint64_t{kLogDebug};
    logger(level, "%S", pmessage ? pmessage : L"");
}

char *get_time() {
    auto *copy = static_cast<char *>(calloc(1, kStampBytes));
    if (copy) strcpy(copy, current_stamp());
    return copy;
}

void check_file_size() {
    if (!path_set.load(std::memory_order_relaxed)) return;
    // A thread that finds the lock taken leaves the check to its holder.
    std::unique_lock<std::mutex> guard(path_lock, std::try_to_lock);
    if (!guard.owns_lock() || !mbs_log_path) return;
    struct stat info;
    const int saved_errno = errno;
    if (reopen_failed) {
        reopen_failed = !reopen_log(mbs_log_path);
    } else if (stat(mbs_log_path, &info) == 0 && S_ISREG(info.st_mode) &&
               info.st_size > kLargestLogBytes) {
        trim(mbs_log_path);
    }
    errno = saved_errno;
}

void logger_teardown() {
    fflush(stderr);
    std::lock_guard<std::mutex> guard(path_lock);
    forget_path();
}
