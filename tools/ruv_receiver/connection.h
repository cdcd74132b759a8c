/**
 * One client: its socket, what has been read and not yet understood, what waits to be sent.
 *
 * Data and transfers only; what the bytes mean is the server's affair. Owned by the server and used
 * on its thread. Nothing blocks.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "tools/ruv_receiver/tls.h"

namespace receiver {

using clock_time = std::chrono::steady_clock::time_point;

/** Bytes read at once. */
inline constexpr size_t kReadSize = 1 << 20;
/** A longer unit gathers in a buffer of its own, so that its beginning is not copied again and
 * again while it arrives. */
inline constexpr uint64_t kSharedUnit = 128 << 10;
/** A unit that claims to be longer ends its connection. */
inline constexpr uint64_t kLargestUnit = 64u << 20;
/** With so many bytes of answers unsent a client is not read any further. */
inline constexpr size_t kMostUnsent = 1 << 20;
/** The same for answers that wait for their time. */
inline constexpr size_t kMostDelayed = 1024;

/** An answer that waits for its time. */
struct delayed_answer {
    clock_time due;
    std::string bytes;
};

struct connection {
    int fd = -1;
    uint64_t number = 0; /**< from 1, in order of arrival */
    bool faulty = false;
    tls_stream tls;
    bool handshaking = false;
    bool tls_wants_write = false;

    std::vector<uint8_t> carry; /**< the beginning of a unit that is not complete yet */
    uint64_t needed = 0;        /**< bytes from the start of `carry` that complete it, 0 unknown */
    bool cut_short = false;     /**< `carry` holds whole units that wait for room for answers */
    bool queued = false;        /**< to be served again although no readiness will announce it */

    std::string unsent;
    std::deque<delayed_answer> delayed;

    uint64_t events = 0;
    bool stalled = false;
    bool ended = false;     /**< the client sends nothing any more */
    bool closing = false;   /**< reads no more; ends once everything is sent */
    bool resetting = false; /**< ends with a reset */
    bool start_tls = false; /**< the handshake begins once everything is sent */
    bool sniffing = false;  /**< the first byte decides between TLS and plain */
    bool dead = false;      /**< to be removed */
    uint32_t interest = 0;  /**< epoll events that are registered */
    int64_t allowance = 0;  /**< bytes that a slow reader may still take */
    std::string reason;     /**< why it ended, in words */

    /** Reads once; `done` with its bytes, or why there are none. */
    io_result read_some(void *buffer, size_t length);

    /** Sends what it can of `unsent`. False when the stream has failed. */
    bool send_unsent();

    /** True while there is room for the answers to further units. */
    bool has_room() const { return unsent.size() < kMostUnsent && delayed.size() < kMostDelayed; }

    /** True while bytes that have arrived may be dealt with. */
    bool takes_units() const { return !closing && !stalled && !start_tls && !dead && has_room(); }

    /** True while bytes may be read. */
    bool open_for_reading() const { return !ended && !cut_short && takes_units(); }

    /** True when every answer is on its way. */
    bool drained() const { return unsent.empty() && delayed.empty(); }

    /** Ends the stream, with a reset or in order. */
    void end();
};

}  // namespace receiver
