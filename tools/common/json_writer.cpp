#include "tools/common/json_writer.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace tools {
namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

void append_escape(std::string &out, unsigned char byte) {
    out += "\\u00";
    out += kHexDigits[byte >> 4];
    out += kHexDigits[byte & 15];
}

/** Length of the valid UTF-8 sequence at the start of `text`; 0 when there is none. */
size_t utf8_length(std::string_view text) {
    auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char lead = byte(0);
    size_t length = lead < 0x80 ? 1 : lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (lead > 0xF4 || length == 0 || length > text.size()) return 0;
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
    }
    // Overlong forms, surrogates and numbers above 10FFFF show in the second byte.
    if ((lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xED && byte(1) > 0x9F)) return 0;
    if ((lead == 0xF0 && byte(1) < 0x90) || (lead == 0xF4 && byte(1) > 0x8F)) return 0;
    return length;
}

bool plain(unsigned char c) {
    return c >= 0x20 && c < 0x7F && c != '"' && c != '\\';
}

}  // namespace

bool append_json_text(std::string &out, std::string_view text) {
    bool valid = true;
    out += '"';
    size_t i = 0;
    while (i < text.size()) {
        size_t run = i;
        while (run < text.size() && plain(static_cast<unsigned char>(text[run]))) run++;
        out.append(text, i, run - i);
        i = run;
        if (i == text.size()) break;
        auto c = static_cast<unsigned char>(text[i]);
        size_t length = utf8_length(text.substr(i));
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7F || length == 0) {
            append_escape(out, c);
            valid = valid && length != 0;
        } else {
            out.append(text, i, length);
        }
        i += length == 0 ? 1 : length;
    }
    out += '"';
    return valid;
}

void append_base64(std::string &out, std::string_view bytes) {
    static constexpr char kDigits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t group = 0;
        for (size_t k = 0; k < 3; k++) {
            group = group << 8 | (i + k < bytes.size() ? static_cast<uint8_t>(bytes[i + k]) : 0);
        }
        for (size_t k = 0; k < 4; k++) {
            bool present = i + k <= bytes.size();
            out += present ? kDigits[group >> (18 - 6 * k) & 63] : '=';
        }
    }
}

void append_number(std::string &out, uint64_t value) {
    char digits[24];
    auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    out.append(digits, static_cast<size_t>(end - digits));
}

void json_object::name(std::string_view name) {
    if (!first_) out_ += ',';
    first_ = false;
    out_ += '"';
    out_ += name;
    out_ += "\":";
}

void json_object::number(std::string_view field, uint64_t value) {
    name(field);
    append_number(out_, value);
}

void json_object::signed_number(std::string_view field, int64_t value) {
    name(field);
    out_ += std::to_string(value);
}

void json_object::real(std::string_view field, double value, int digits) {
    char number[40];
    snprintf(number, sizeof number, "%.*g", digits, value);
    if (!std::isfinite(value)) return text(field, number);
    name(field);
    out_ += number;
}

void json_object::boolean(std::string_view field, bool value) {
    name(field);
    out_ += value ? "true" : "false";
}

void json_object::text(std::string_view field, std::string_view value) {
    name(field);
    if (append_json_text(out_, value)) return;
    name(std::string(field) + "_base64");
    out_ += '"';
    append_base64(out_, value);
    out_ += '"';
}

void json_object::hex(std::string_view field, const uint8_t *bytes, size_t length) {
    name(field);
    out_ += '"';
    for (size_t i = 0; i < length; i++) {
        out_ += kHexDigits[bytes[i] >> 4];
        out_ += kHexDigits[bytes[i] & 15];
    }
    out_ += '"';
}

}  // namespace tools
