/**
 * One run of ruv_send: a connection, its data sources, and the records that go through it. Every
 * answer of the library becomes a JSON line on standard output.
 *
 * Owns the library's handles and frees them. Used by one thread.
 */
#pragma once

#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tools/ruv_send/settings.h"

namespace sender {

/** One record to be sent. */
struct job {
    int type;
    int version;
    int subversion;
    source_choice source;
    std::vector<field_value> fields;
};

class session {
  public:
    explicit session(const settings &chosen) : chosen_(chosen) {}
    ~session();
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    /** Allocates and opens the connection and asks what the settings want to know. */
    bool open();

    /** Builds and sends one record. False when the connection cannot be used any more. */
    bool send(const job &wanted);

    /** Confirms what is left of a group. */
    bool finish();

    /** Counts a piece of input that is no record, and says why. */
    void reject(const std::string &why);

    /** Prints the counts; the exit status of the run. */
    int summarise(double seconds);

  private:
    using record_key = std::tuple<int, int, int>; /**< type, version, sub-version */

    bool report(const char *call, int result, bool always = true);
    bool ask();
    bool confirm_group();
    void note(const std::string &what);
    void *record_for(const job &wanted);
    RUVDSInfo *source_for(const source_choice &source);
    bool fill(void *record, const job &wanted, record_memory *memory);

    const settings &chosen_;
    RUVConn *conn_ = nullptr;
    std::map<record_key, void *> records_;
    std::set<record_key> third_party_; /**< whose record holds a third-party type */
    std::map<std::pair<int, std::string>, RUVDSInfo *> sources_;
    int64_t in_group_ = 0;
    uint64_t sent_ = 0, failed_ = 0, bytes_ = 0;
};

}  // namespace sender
