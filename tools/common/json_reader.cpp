#include "tools/common/json_reader.h"

#include <cstdint>
#include <cstdlib>

namespace tools {
namespace {

/** Where the reading stands. */
struct cursor {
    std::string_view text;
    size_t at = 0;
    std::string error = {};
};

bool fail(cursor &c, const char *what) {
    if (c.error.empty()) c.error = std::string(what) + " at byte " + std::to_string(c.at);
    return false;
}

void skip_blanks(cursor &c) {
    while (c.at < c.text.size() && std::string_view(" \t\r\n").find(c.text[c.at]) != c.text.npos)
        c.at++;
}

bool take(cursor &c, char wanted) {
    skip_blanks(c);
    if (c.at == c.text.size() || c.text[c.at] != wanted) return false;
    c.at++;
    return true;
}

bool at_end(cursor &c) {
    skip_blanks(c);
    return c.at == c.text.size() || fail(c, "nothing more expected");
}

void append_utf8(uint32_t code, std::string *out) {
    auto put = [out](uint32_t byte) { *out += static_cast<char>(byte); };
    if (code < 0x80) return put(code);
    if (code < 0x800) {
        put(0xC0 | code >> 6);
    } else if (code < 0x10000) {
        put(0xE0 | code >> 12);
        put(0x80 | (code >> 6 & 63));
    } else {
        put(0xF0 | code >> 18);
        put(0x80 | (code >> 12 & 63));
        put(0x80 | (code >> 6 & 63));
    }
    put(0x80 | (code & 63));
}

bool hex4(cursor &c, uint32_t *number) {
    *number = 0;
    for (int i = 0; i < 4; i++, c.at++) {
        size_t digit = c.at < c.text.size()
                           ? std::string_view("0123456789abcdef").find(c.text[c.at] | 0x20)
                           : c.text.npos;
        if (digit == c.text.npos) return fail(c, "four hexadecimal digits expected");
        *number = *number << 4 | static_cast<uint32_t>(digit);
    }
    return true;
}

bool unicode(cursor &c, std::string *out) {
    uint32_t code, low;
    if (!hex4(c, &code)) return false;
    if (code >= 0xD800 && code < 0xDC00) {
        if (c.text.substr(c.at, 2) != "\\u") return fail(c, "second half of a pair expected");
        c.at += 2;
        if (!hex4(c, &low) || low < 0xDC00 || low > 0xDFFF) return fail(c, "broken pair");
        code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
    }
    append_utf8(code, out);
    return true;
}

bool escape(cursor &c, std::string *out) {
    static constexpr std::string_view kLetters = "\"\\/bfnrt", kMeanings = "\"\\/\b\f\n\r\t";
    if (++c.at == c.text.size()) return false;
    char letter = c.text[c.at++];
    if (letter == 'u') return unicode(c, out);
    size_t which = kLetters.find(letter);
    if (which == kLetters.npos) return fail(c, "unknown escape");
    *out += kMeanings[which];
    return true;
}

bool quoted(cursor &c, std::string *out) {
    if (!take(c, '"')) return false;
    while (c.at < c.text.size() && c.text[c.at] != '"') {
        if (c.text[c.at] != '\\') {
            *out += c.text[c.at++];
        } else if (!escape(c, out)) {
            return false;
        }
    }
    return take(c, '"');
}

bool value(cursor &c, std::vector<std::string> *values) {
    std::string one;
    skip_blanks(c);
    if (c.at < c.text.size() && c.text[c.at] == '"') {
        if (!quoted(c, &one)) return false;
        values->push_back(std::move(one));
        return true;
    }
    while (c.at < c.text.size() &&
           std::string_view(",]} \t\r\n\"{[:").find(c.text[c.at]) == c.text.npos)
        one += c.text[c.at++];
    if (one == "null") return true;
    if (one == "true" || one == "false") {
        values->push_back(one == "true" ? "1" : "0");
        return true;
    }
    char *end;
    strtod(one.c_str(), &end);
    if (one.empty() || *end != '\0') return false;
    values->push_back(std::move(one));
    return true;
}

bool member_value(cursor &c, std::vector<std::string> *values) {
    if (!take(c, '[')) return value(c, values);
    if (take(c, ']')) return true;
    do {
        if (!value(c, values)) return false;
    } while (take(c, ','));
    return take(c, ']');
}

bool object(cursor &c, std::vector<json_member> *members) {
    if (!take(c, '{')) return fail(c, "'{' expected");
    if (take(c, '}')) return at_end(c);
    do {
        json_member member;
        if (!quoted(c, &member.name)) return fail(c, "a member's name expected");
        if (!take(c, ':')) return fail(c, "':' expected");
        if (!member_value(c, &member.values)) return fail(c, "a plain value or a list expected");
        members->push_back(std::move(member));
    } while (take(c, ','));
    return take(c, '}') ? at_end(c) : fail(c, "',' or '}' expected");
}

}  // namespace

bool read_json_object(std::string_view text, std::vector<json_member> *members,
                      std::string *error) {
    cursor c = {text};
    if (object(c, members)) return true;
    *error = c.error.empty() ? "an object expected" : c.error;
    return false;
}

}  // namespace tools
