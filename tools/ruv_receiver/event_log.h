/**
 * Where events go: standard output as JSON lines, a file with the raw bytes, and the totals.
 *
 * Everything is collected and written by flush(), which the server calls before it sends any
 * answer: a client may take an answer as the word that all it sent before has been processed.
 * Used by one thread.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "tools/ruv_receiver/decode.h"
#include "tools/ruv_receiver/settings.h"

namespace receiver {

struct totals {
    uint64_t records = 0;
    uint64_t bytes = 0; /**< all bytes received, requests included */
    uint64_t requests = 0;
    uint64_t connections = 0;
    uint64_t garbage_bytes = 0;
    uint64_t by_type[5] = {};
};

class event_log {
  public:
    explicit event_log(const settings &chosen) : quiet_(chosen.quiet), verbose_(chosen.verbose) {}
    ~event_log();
    event_log(const event_log &) = delete;
    event_log &operator=(const event_log &) = delete;

    /** Opens the file for the raw bytes. False with errno set. */
    bool open_save(const std::string &path);

    /** Counts a record and, unless only counting, adds its line. */
    void record(const unit &u, const uint8_t *bytes, const record_origin &origin);

    /** True when connections, requests and skipped bytes are wanted; their lines go to text(). */
    bool verbose() const { return verbose_ && !quiet_; }
    bool quiet() const { return quiet_; }
    std::string &text() { return text_; }

    /** Keeps `length` processed bytes in the file, if there is one. */
    void save(const uint8_t *bytes, size_t length);

    /** Stamps the time of a batch that began at `start` with `records_before` counted. */
    void end_batch(uint64_t records_before, std::chrono::steady_clock::time_point start);

    /** Writes the collected lines. Ends the process with status 1 when that is impossible. */
    void flush();

    /** One JSON line with everything counted: on standard output when only counting, otherwise
     * on standard error, so that standard output holds nothing but events. */
    void print_totals();

    /** One plain line of counts on standard error. */
    void print_progress();

    totals counts;

  private:
    double seconds() const;

    std::string text_;
    int save_fd_ = -1;
    bool quiet_, verbose_;
    std::chrono::steady_clock::time_point first_{}, last_{};
    uint64_t reported_ = 0;
};

}  // namespace receiver
