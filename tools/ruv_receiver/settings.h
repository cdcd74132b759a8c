/**
 * What the command line asks of the Receiver. Filled once on the main thread, read-only afterwards.
 */
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/common/wire_layout.h"

namespace receiver {

enum class tls_mode : uint8_t {
    none,    /**< plain only: ReqSSL is refused */
    always,  /**< TLS from the first byte */
    request, /**< plain at first, TLS once ReqSSL was granted */
    any      /**< TLS or plain by the first byte; ReqSSL is granted on plain streams */
};

/** One row of the version list. */
struct offered_version {
    uint16_t ruv_ver;
    uint16_t ruv_type;
    uint16_t ruv_type_ver;
};

/** The Receiver's own version. */
struct receiver_version {
    uint16_t major = 9, minor = 4, dot = 2;
    char patch[2] = {'a', '1'};
    uint64_t buildstamp = 20240131120000ull;
};

/** Faults; all off at the start. The counts of events are -1 when off. */
struct fault_settings {
    uint32_t refuse = 0;   /**< mask of request codes answered with a refusal */
    uint32_t silent = 0;   /**< mask of request codes that get no answer */
    uint32_t truncate = 0; /**< mask of request codes whose answer ends half way in a close */
    std::array<uint8_t, 8> result_word{}; /**< stands for "OKAY" when `bad_result` is set */
    bool bad_result = false;
    int64_t close_after = -1;
    int64_t reset_after = -1;
    int64_t stall_after = -1;
    int64_t slow = 0;  /**< bytes per second and connection, 0 is unlimited */
    int64_t delay = 0; /**< milliseconds ahead of every answer */
    bool hostile_count = false;
    bool hostile_size = false;
    int64_t count = 0; /**< stands for the true count of the version list */
    int64_t size = 0;  /**< stands for the true size of the custom-field file */
};

struct settings {
    std::string listen = "127.0.0.1";
    int64_t port = 0;
    bool print_port = false;
    int64_t generation = 6;
    tls_mode tls = tls_mode::none;
    std::string cert, key, client_ca, ciphers;
    std::string tls_min = "1.0";
    int64_t count = 0;       /**< events after which the Receiver ends, 0 is never */
    int64_t connections = 0; /**< closed connections after which it ends, 0 is never */
    std::string save, read;
    bool quiet = false, verbose = false, progress = false;
    std::string catalogue;
    bool offers_catalogue = false;
    std::vector<offered_version> versions;
    bool own_versions = false; /**< the command line named the versions one by one */
    bool knows_all = true;
    int64_t cid_base = 1;
    receiver_version version;
    int64_t receive_buffer = 0; /**< SO_RCVBUF in bytes, 0 leaves the system's choice */
    fault_settings faults;
    int64_t accept_faulty = INT64_MAX; /**< connections that the faults strike */
};

/** Reads the command line; ends the process on --help and on a usage error. */
settings read_command_line(int argc, char **argv);

}  // namespace receiver
