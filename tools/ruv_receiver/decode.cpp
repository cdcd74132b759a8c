#include "tools/ruv_receiver/decode.h"

#include <arpa/inet.h>

#include "tools/common/wire_layout.h"

namespace receiver {
namespace {

constexpr const char *kRecordNames[5] = {"", "alert", "flow", "syslog", "windows"};

std::string mac_text(const uint8_t *b) {
    char text[18];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4],
             b[5]);
    return text;
}

bool all_zero(const uint8_t *bytes, size_t length) {
    for (size_t i = 0; i < length; i++) {
        if (bytes[i] != 0) return false;
    }
    return true;
}

void describe_numbers(std::string &out, const field &f, const uint8_t *bytes) {
    unsigned width = f.size / f.count;
    out += '[';
    for (unsigned i = 0; i < f.count; i++) {
        if (i > 0) out += ',';
        append_number(out, wire::read_uint(bytes + i * width, width));
    }
    out += ']';
}

void describe_field(std::string &out, json_object &line, const field &f, const uint8_t *bytes) {
    switch (f.kind) {
        case shape::number:
            return line.number(f.name, wire::read_uint(bytes, f.size));
        case shape::mac:
            return line.text(f.name, mac_text(bytes));
        case shape::ipv4:
            return line.text(f.name, ipv4_text(bytes));
        case shape::ipv6:
            return line.text(f.name, ipv6_text(bytes));
        case shape::either:
            return line.text(f.name,
                             all_zero(bytes, 12) ? ipv4_text(bytes + 12) : ipv6_text(bytes));
        case shape::source:
            return line.text(f.name,
                             all_zero(bytes, 12) ? ipv4_text(bytes + 12) : source_ipv6_text(bytes));
        case shape::hex:
            return line.hex(f.name, bytes, f.size);
        case shape::numbers:
            line.name(f.name);
            return describe_numbers(out, f, bytes);
        case shape::win_ver:
            line.number(f.name, wire::read32(bytes));
            line.number("win_ver_major", bytes[0]);
            return line.number("win_ver_minor", bytes[1] & 15);
    }
}

/** The rows of custom fields: what they hold, and what the catalogue makes of it. */
const uint8_t *describe_rows(std::string &out, json_object &line, const unit &u,
                             const uint8_t *block, const uint8_t *next,
                             const record_origin &origin) {
    const layout &body = *u.body;
    std::string custom;
    line.name("userdata");
    out += '[';
    {
        json_object named(custom, true);
        for (unsigned row = 0; row < body.rows; row++) {
            size_t length = block[body.row_lengths + row];
            custom_row content = {row,
                                  wire::read16(block + body.row_ids + 2 * row),
                                  wire::read64(block + body.row_bins + 8 * row),
                                  {reinterpret_cast<const char *>(next), length}};
            next += length;
            if (row > 0) out += ',';
            json_object item(out, true);
            item.text("text", content.text);
            if (origin.custom == nullptr || content.id == 0) continue;
            describe_row(*origin.custom, content, u.type == wire::kAlert, named);
        }
    }
    out += ']';
    line.name("custom");
    out += custom;
    return next;
}

std::string_view next_token(std::string_view &text) {
    size_t end = text.find("||");
    std::string_view token = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 2);
    return token;
}

/** Splits the text of a Windows event; a text with separators of its own shifts what follows. */
void describe_windows_text(std::string &out, json_object &line, std::string_view text) {
    static constexpr const char *kTokens[] = {"address",  "log_file", "rec_num",  "source_name",
                                              "eventid",  "win_ver",  "colltime", "eventtype",
                                              "hostname", "user",     "category", "num_istrings"};
    std::string_view count;
    for (const char *name : kTokens) {
        count = next_token(text);
        line.text(name, count);
    }
    line.name("istrings");
    out += '[';
    unsigned long strings = strtoul(std::string(count).c_str(), nullptr, 10);
    for (unsigned long i = 0; i < strings && text.data() != nullptr; i++) {
        if (i > 0) out += ',';
        json_object item(out, true);
        item.text("text", next_token(text));
    }
    out += ']';
    line.text("message", text);
}

void describe_parts(std::string &out, json_object &line, const unit &u, const uint8_t *block,
                    const record_origin &origin) {
    const uint8_t *next = block + u.body->size;
    for (const part &p : u.body->parts) {
        if (u.version < p.since) continue;
        // With rows the packet comes last, behind the strings of the rows.
        if (p.binary && u.body->rows > 0) next = describe_rows(out, line, u, block, next, origin);
        size_t length = wire::read_uint(block + u.body->at(p.length_offset), p.length_width);
        std::string_view text(reinterpret_cast<const char *>(next), length);
        if (p.binary) {
            line.hex(p.name, next, length);
        } else {
            line.text(p.name, text);
        }
        if (u.type == wire::kWindows && u.version == 6) describe_windows_text(out, line, text);
        next += length;
    }
    if (u.body->rows > 0 && u.body->parts.empty()) {
        describe_rows(out, line, u, block, next, origin);
    }
}

}  // namespace

std::string ipv4_text(const uint8_t *bytes) {
    char text[INET_ADDRSTRLEN];
    uint32_t address = htonl(wire::read32(bytes));
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

std::string ipv6_text(const uint8_t *bytes) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, bytes, text, sizeof text);
}

std::string source_ipv6_text(const uint8_t *bytes) {
    uint32_t address[4];
    for (int i = 0; i < 4; i++) address[i] = htonl(wire::read32(bytes + 4 * i));
    return ipv6_text(reinterpret_cast<const uint8_t *>(address));
}

void describe_record(std::string &out, const unit &u, const uint8_t *bytes,
                     const record_origin &origin) {
    json_object line(out);
    line.text("record", kRecordNames[u.type]);
    line.number("version", u.version);
    line.number("connection", origin.connection);
    if (u.version == 6) {
        line.number("subversion", u.subversion + 1u);
        line.number("ruv_pver", u.version);
        line.number("ruv_data_type", u.type);
        line.number("ruv_data_ver", u.subversion);
        line.number("third_party_type", u.third_party);
        line.number("dsidchanid", u.channel);
        if (!origin.source_kind.empty()) {
            line.text("source_kind", origin.source_kind);
            line.text("source", origin.source);
        }
    }
    if (u.body == nullptr) return;
    const uint8_t *block = bytes + u.body_offset;
    line.text("body", u.body->name);
    for (const field &f : u.body->fields) {
        if (u.version < f.since) continue;
        describe_field(out, line, f, block + u.body->at(f.offset));
    }
    describe_parts(out, line, u, block, origin);
}

}  // namespace receiver
