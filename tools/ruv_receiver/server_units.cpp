// The half of the server that reads connections and deals with the units in their bytes.

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/ruv_receiver/server.h"

namespace receiver {
namespace {

constexpr uint8_t kTlsHandshakeRecord = 0x16; /**< first byte of every TLS stream */

}  // namespace

/** Reads once, so that a client that never pauses leaves time for the others. */
void server::read_available(connection &c) {
    if (c.sniffing && !sniff(c)) return;
    bool progress = false;
    if (c.cut_short && c.takes_units()) {
        std::vector<uint8_t> kept = std::move(c.carry);
        c.carry.clear();
        process(c, kept.data(), kept.size());
        progress = true;
    } else if (c.open_for_reading()) {
        progress = read_once(c);
    }
    // Decrypted bytes and units that were put off are nothing that the kernel knows of.
    if (progress && !c.queued && (c.cut_short || (c.tls && tls_pending(c.tls.get())))) {
        c.queued = true;
        again_.push_back(c.fd);
    }
}

/** Serves the connections that still had something to do after their turn. */
void server::serve_again() {
    std::vector<int> turn = std::move(again_);
    again_.clear();
    for (int fd : turn) {
        auto found = clients_.find(fd);
        if (found == clients_.end() || !found->second->queued) continue;
        found->second->queued = false;
        if (!stop_ && !found->second->dead) service(*found->second);
    }
}

/** In the mode "any": looks at the first byte. False when it is not there yet, or TLS began. */
bool server::sniff(connection &c) {
    uint8_t first;
    ssize_t got = recv(c.fd, &first, 1, MSG_PEEK);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return false;
    c.sniffing = false;
    if (got != 1 || first != kTlsHandshakeRecord) return true;
    c.tls = tls_open(tls_, c.fd);
    c.handshaking = true;
    advance_handshake(c);
    return !c.dead && !c.handshaking;
}

/** One read and what follows from it; false when nothing more is there for now. */
bool server::read_once(connection &c) {
    size_t had = c.carry.size();
    if (c.needed > kSharedUnit) {
        // The buffer grows by what has really arrived, not by what was claimed.
        size_t room = std::min<uint64_t>(c.needed - had, kReadSize);
        c.carry.resize(had + room);
        size_t got = read_into(c, c.carry.data() + had, room);
        c.carry.resize(had + got);
        if (got == 0) return false;
        if (c.carry.size() < c.needed) return true;
        std::vector<uint8_t> whole = std::move(c.carry);
        c.carry.clear();
        process(c, whole.data(), whole.size());
        return true;
    }
    if (had > 0) memcpy(buffer_.data(), c.carry.data(), had);
    size_t got = read_into(c, buffer_.data() + had, buffer_.size() - had);
    if (got == 0) return false;
    c.carry.clear();
    process(c, buffer_.data(), had + got);
    return true;
}

/** Fills a buffer as far as the stream has bytes for it; notes the end of the stream. */
size_t server::read_into(connection &c, uint8_t *buffer, size_t length) {
    bool slow = chosen_.faults.slow > 0 && c.faulty;
    if (slow)
        length = std::min<size_t>(length, static_cast<size_t>(std::max<int64_t>(0, c.allowance)));
    size_t filled = 0;
    while (filled < length) {
        io_result result = c.read_some(buffer + filled, length - filled);
        if (result.state == io_state::closed || result.state == io_state::failed) {
            c.ended = true;
            c.reason = result.state == io_state::closed ? "closed by the client" : "read failed";
            break;
        }
        if (result.state != io_state::done) break;
        filled += result.bytes;
        // A TLS record is at most 16 KiB; gathering several keeps the parsing in long runs.
        if (!c.tls) break;
    }
    if (slow) c.allowance -= static_cast<int64_t>(filled);
    log_.counts.bytes += filled;
    return filled;
}

/** Deals with all complete units and keeps the rest for the next read. */
void server::process(connection &c, const uint8_t *bytes, size_t have) {
    uint64_t records_before = log_.counts.records;
    size_t taken = take_units(c, bytes, have);
    log_.end_batch(records_before, now_);
    log_.save(bytes, taken);
    c.carry.assign(bytes + taken, bytes + have);
}

size_t server::take_units(connection &c, const uint8_t *bytes, size_t have) {
    size_t at = 0;
    c.needed = 0;
    c.cut_short = false;
    while (at < have && !stop_ && c.takes_units()) {
        unit u = next_unit(bytes + at, have - at);
        switch (u.kind) {
            case unit_kind::incomplete:
                c.needed = u.size;
                if (u.size > kLargestUnit) fail(c, "a unit is too long");
                return at;
            case unit_kind::garbage:
                note_garbage(c, u.size);
                break;
            case unit_kind::request:
                take_request(c, u, bytes + at);
                break;
            case unit_kind::record:
                take_record(c, u, bytes + at);
                break;
        }
        at += u.size;
    }
    // A request is much shorter than its answer may be: what cannot be sent must not pile up.
    c.cut_short = at < have && !c.has_room();
    return at;
}

void server::take_record(connection &c, const unit &u, const uint8_t *bytes) {
    // To the older generation a version-6 record is as strange as any other noise.
    if (chosen_.generation == 5 && u.version == 6) return note_garbage(c, u.size);
    record_origin origin = {c.number, {}, {}, custom_.fields.empty() ? nullptr : &custom_};
    if (u.version == 6 && !log_.quiet()) {
        if (const data_source *source = responder_.source_of(u.channel)) {
            origin.source = source->text;
            origin.source_kind = source_kind_name(source->kind);
        }
    }
    log_.record(u, bytes, origin);
    c.events++;
    apply_event_limits(c);
    if (chosen_.count > 0 && log_.counts.records >= static_cast<uint64_t>(chosen_.count))
        stop_ = true;
}

void server::apply_event_limits(connection &c) {
    const fault_settings &f = chosen_.faults;
    if (!c.faulty) return;
    auto reached = [&](int64_t limit) {
        return limit >= 0 && c.events >= static_cast<uint64_t>(limit);
    };
    if (reached(f.stall_after)) c.stalled = true;
    if (!reached(f.close_after) && !reached(f.reset_after)) return;
    c.resetting = reached(f.reset_after);
    c.closing = true;
    c.reason = c.resetting ? "reset as told" : "closed as told";
}

void server::take_request(connection &c, const unit &u, const uint8_t *bytes) {
    log_.counts.requests++;
    answer given = responder_.respond(u, bytes, c.faulty, c.tls != nullptr);
    if (log_.verbose()) describe_request(c, u, given);
    if (given.close) {
        c.closing = true;
        c.reason = "closed by request";
    }
    c.start_tls = given.start_tls;
    if (given.bytes.empty()) return;
    if (chosen_.faults.delay > 0 && c.faulty) {
        c.delayed.push_back({now_ + std::chrono::milliseconds(chosen_.faults.delay), given.bytes});
    } else {
        c.unsent += given.bytes;
    }
}

void server::describe_request(connection &c, const unit &u, const answer &given) {
    json_object line(log_.text());
    std::string name = "Unknown[" + std::to_string(u.subversion) + "]";
    line.text("request",
              u.subversion < wire::kRequestCount ? wire::kRequestNames[u.subversion] : name);
    line.number("connection", c.number);
    line.number("dsidchanid", u.channel);
    line.number("third_party_type", u.third_party);
    if (given.source != nullptr) {
        line.text("source_kind", source_kind_name(given.source->kind));
        line.text("source", given.source->text);
        line.signed_number("channel_id", given.source->channel);
    }
    std::string_view result = std::string_view(given.bytes).substr(0, wire::kResultSize);
    line.text("result", result.substr(0, result.find('\0')));
    line.number("answer_bytes", given.bytes.size());
}

void server::note_garbage(connection &c, uint64_t length) {
    log_.counts.garbage_bytes += length;
    if (!log_.verbose()) return;
    json_object line(log_.text());
    line.number("garbage", length);
    line.number("connection", c.number);
}

void server::note_connection(const connection &c, const char *what, const std::string &detail) {
    json_object line(log_.text());
    line.number(what, c.number);
    line.text("detail", detail);
}

}  // namespace receiver
