#include "tools/ruv_receiver/event_log.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace receiver {
namespace {

constexpr size_t kFlushSize = 1 << 20; /**< bytes of text that are written without waiting */

void write_all(int fd, const char *bytes, size_t length, const char *what) {
    while (length > 0) {
        ssize_t written = write(fd, bytes, length);
        if (written >= 0) {
            bytes += written;
            length -= static_cast<size_t>(written);
        } else if (errno == EAGAIN) {
            pollfd wait = {fd, POLLOUT, 0};
            poll(&wait, 1, -1);
        } else if (errno != EINTR) {
            // Answering on would confirm events that are lost.
            fprintf(stderr, "ruv_receiver: cannot write %s: %s\n", what, strerror(errno));
            _exit(1);
        }
    }
}

}  // namespace

event_log::~event_log() {
    if (save_fd_ >= 0) close(save_fd_);
}

bool event_log::open_save(const std::string &path) {
    save_fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    return save_fd_ >= 0;
}

void event_log::record(const unit &u, const uint8_t *bytes, const record_origin &origin) {
    counts.records++;
    counts.by_type[u.type]++;
    if (quiet_) return;
    describe_record(text_, u, bytes, origin);
    if (text_.size() >= kFlushSize) flush();
}

void event_log::save(const uint8_t *bytes, size_t length) {
    if (save_fd_ < 0) return;
    write_all(save_fd_, reinterpret_cast<const char *>(bytes), length, "the saved stream");
}

void event_log::end_batch(uint64_t records_before, std::chrono::steady_clock::time_point start) {
    if (counts.records == records_before) return;
    if (records_before == 0) first_ = start;
    last_ = std::chrono::steady_clock::now();
}

void event_log::flush() {
    if (text_.empty()) return;
    write_all(STDOUT_FILENO, text_.data(), text_.size(), "standard output");
    text_.clear();
}

double event_log::seconds() const {
    return std::chrono::duration<double>(last_ - first_).count();
}

void event_log::print_totals() {
    std::string line;
    {
        json_object object(line);
        double elapsed = seconds();
        object.name("totals");
        line += "true";
        object.number("records", counts.records);
        object.number("bytes", counts.bytes);
        object.real("seconds", elapsed, 6);
        object.real("records_per_second", elapsed > 0 ? counts.records / elapsed : 0, 9);
        object.real("bytes_per_second", elapsed > 0 ? counts.bytes / elapsed : 0, 12);
        object.number("alert", counts.by_type[1]);
        object.number("flow", counts.by_type[2]);
        object.number("syslog", counts.by_type[3]);
        object.number("windows", counts.by_type[4]);
        object.number("requests", counts.requests);
        object.number("connections", counts.connections);
        object.number("garbage_bytes", counts.garbage_bytes);
    }
    flush();
    write_all(quiet_ ? STDOUT_FILENO : STDERR_FILENO, line.data(), line.size(), "the totals");
}

void event_log::print_progress() {
    fprintf(stderr, "ruv_receiver: %llu events, %llu bytes, %llu events in the last second\n",
            static_cast<unsigned long long>(counts.records),
            static_cast<unsigned long long>(counts.bytes),
            static_cast<unsigned long long>(counts.records - reported_));
    reported_ = counts.records;
}

}  // namespace receiver
