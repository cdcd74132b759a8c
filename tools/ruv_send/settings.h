/**
 * What the command line asks of ruv_send. Filled once on the main thread, read-only afterwards.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/ruv_send/fields.h"

namespace sender {

/** Where the records come from. */
enum class input { options, lines, json };

/** A data source as the command line or an input line names it; kind 0 is none. */
struct source_choice {
    int kind = 0; /**< 1 IPv4, 2 IPv6, 3 HostID */
    std::string text;
};

struct settings {
    std::string host = "127.0.0.1";
    int64_t port = 0;
    int ip_mode = 0;    /**< as RUVAllocConn takes it */
    int tls = 0;        /**< as RUVAllocConn takes it */
    int generation = 0; /**< as RUVAllocConn takes it */
    bool modern_tls = false;
    std::string tls_min, tls_ca, tls_name, tls_cert, tls_key;
    int type = 3;
    int64_t version = 0, subversion = 0;
    source_choice source;
    std::vector<field_value> fields;
    input from = input::options;
    int64_t count = 1;
    int64_t rate = 0;  /**< records a second, 0 is as fast as possible */
    int64_t group = 0; /**< records per confirmed group, 0 sends each alone */
    uint64_t logging = 0;
    bool receiver_version = false, is_known = false, print_conn = false, auto_learn = false;
    bool no_send = false, verbose = false;
};

/** Reads the command line; ends the process on --help and on a usage error. */
settings read_command_line(int argc, char **argv);

/** Reads an address or host id; false when `text` is none of that kind. */
bool valid_source(const source_choice &source);

}  // namespace sender
