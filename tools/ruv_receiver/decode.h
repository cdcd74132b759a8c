/**
 * Turns one complete event record into one JSON line with every field under its documented name.
 * Pure: reads the bytes of the unit and appends to a string. Never looks outside the unit.
 */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/ruv_receiver/catalogue.h"
#include "tools/ruv_receiver/frame.h"

namespace receiver {

/** What the Receiver knows beside the bytes. */
struct record_origin {
    uint64_t connection;          /**< number of the connection, from 1 */
    std::string_view source;      /**< data source of the channel as text, empty when unknown */
    std::string_view source_kind; /**< "IPv4", "IPv6" or "HostID" */
    const catalogue *custom;      /**< null without custom fields */
};

/** Appends the line of a record. `bytes` is the unit from its magic on, complete. */
void describe_record(std::string &out, const unit &u, const uint8_t *bytes,
                     const record_origin &origin);

/** Address texts. IPv4 addresses and the IPv6 addresses of data sources travel as host-order words,
 * a record's own IPv6 addresses in network order. */
std::string ipv4_text(const uint8_t *bytes);
std::string ipv6_text(const uint8_t *bytes);
std::string source_ipv6_text(const uint8_t *bytes);

}  // namespace receiver
