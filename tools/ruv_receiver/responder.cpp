#include "tools/ruv_receiver/responder.h"

#include <climits>

#include "tools/ruv_receiver/decode.h"

namespace receiver {
namespace {

/** A client that invents data sources without end must not exhaust the memory. */
constexpr size_t kMostSources = 1 << 20;
constexpr size_t kMostSourceBytes = 64 << 20; /**< of their texts */

void add_uint(std::string *out, uint64_t value, unsigned width) {
    uint8_t bytes[8];
    wire::write_uint(bytes, value, width);
    out->append(reinterpret_cast<char *>(bytes), width);
}

std::string word(const uint8_t *bytes) {
    return std::string(reinterpret_cast<const char *>(bytes), wire::kResultSize);
}

}  // namespace

const char *source_kind_name(unsigned kind) {
    static constexpr const char *kNames[] = {"", "IPv4", "IPv6", "HostID"};
    return kind <= 3 ? kNames[kind] : "";
}

responder::responder(const settings &chosen, const catalogue &custom)
    : chosen_(chosen), custom_(custom), by_channel_(65536) {
}

answer responder::respond(const unit &request, const uint8_t *bytes, bool faulty, bool tls_active) {
    answer result;
    unsigned code = request.subversion;
    // The older generation does not know any of these messages.
    if (chosen_.generation == 5) return result;
    if (code == wire::kCloseConn) {
        result.close = true;
        return result;
    }
    const fault_settings &faults = chosen_.faults;
    auto struck = [&](uint32_t mask) { return faulty && code < 32 && (mask >> code & 1) != 0; };
    if (struck(faults.silent)) return result;
    if (faulty && faults.bad_result) {
        result.bytes = word(faults.result_word.data());
        return result;
    }
    result.bytes = word(wire::kOkay);
    if (struck(faults.refuse) || !grant(request, bytes, tls_active, faulty, &result)) {
        result = answer();
        result.bytes = word(wire::kNotOkay);
    }
    if (struck(faults.truncate)) {
        result.bytes.resize(result.bytes.size() / 2);
        result.close = true;
        result.start_tls = false;
    }
    return result;
}

/** Appends what follows the result word; false refuses the request. */
bool responder::grant(const unit &request, const uint8_t *bytes, bool tls_active, bool faulty,
                      answer *out) {
    const uint8_t *body = bytes + request.body_offset;
    switch (request.subversion) {
        case wire::kNop:
            return true;
        case wire::kReqSsl:
            return out->start_tls = !tls_active && (chosen_.tls == tls_mode::request ||
                                                    chosen_.tls == tls_mode::any);
        case wire::kReqDataVers:
            add_versions(faulty, &out->bytes);
            return true;
        case wire::kGetChanId:
            return assign_channel(body, out);
        case wire::kAmKnown:
        case wire::kAmKnown2:
            return chosen_.knows_all;
        case wire::kGetRcvrVer:
            add_receiver_version(&out->bytes);
            return true;
        case wire::kGetCustomFieldFile:
            add_catalogue(faulty, &out->bytes);
            return true;
        default:
            return false;
    }
}

bool responder::assign_channel(const uint8_t *body, answer *out) {
    unsigned kind = wire::read16(body);
    size_t length = wire::read16(body + 2);
    const uint8_t *data = body + wire::kChannelRequestSize;
    std::string text;
    if (kind == 1 && length == 4) {
        text = ipv4_text(data);
    } else if (kind == 2 && length == 16) {
        text = source_ipv6_text(data);
    } else if (kind == 3) {
        text.assign(reinterpret_cast<const char *>(data), length);
    } else {
        return false;
    }
    auto found = sources_.find({kind, text});
    if (found == sources_.end()) {
        if (sources_.size() >= kMostSources || source_bytes_ + length > kMostSourceBytes)
            return false;
        source_bytes_ += length;
        // Wraps like the signed 32-bit number that travels.
        auto channel = static_cast<int32_t>(static_cast<uint32_t>(chosen_.cid_base) +
                                            static_cast<uint32_t>(sources_.size()));
        data_source source = {kind, text, channel};
        found = sources_.emplace(std::make_pair(kind, text), source).first;
        by_channel_[static_cast<uint16_t>(channel)] = &found->second;
    }
    out->source = &found->second;
    add_uint(&out->bytes, static_cast<uint32_t>(found->second.channel), 4);
    return true;
}

void responder::add_versions(bool faulty, std::string *out) const {
    bool lie = faulty && chosen_.faults.hostile_count;
    uint64_t count = lie ? static_cast<uint64_t>(chosen_.faults.count) : chosen_.versions.size();
    add_uint(out, count, 4);
    for (const offered_version &entry : chosen_.versions) {
        add_uint(out, entry.ruv_ver, 2);
        add_uint(out, entry.ruv_type, 2);
        add_uint(out, entry.ruv_type_ver, 2);
        out->append(wire::kVersionEntrySize - 6, '\0');
    }
}

void responder::add_receiver_version(std::string *out) const {
    const receiver_version &v = chosen_.version;
    add_uint(out, v.major, 2);
    add_uint(out, v.minor, 2);
    add_uint(out, v.dot, 2);
    out->append(v.patch, sizeof v.patch);
    add_uint(out, v.buildstamp, 8);
}

void responder::add_catalogue(bool faulty, std::string *out) const {
    bool lie = faulty && chosen_.faults.hostile_size;
    add_uint(out, lie ? static_cast<uint64_t>(chosen_.faults.size) : custom_.text.size(), 4);
    *out += custom_.text;
}

}  // namespace receiver
