#include "tools/common/json_reader.h"

#include <cstdint>
#include <cstdlib>

namespace tools {
namespace {

class reader {
  public:
    explicit reader(std::string_view text) : text_(text) {}

    bool object(std::vector<json_member> *members) {
        if (!take('{')) return fail("'{' expected");
        if (take('}')) return at_end();
        do {
            json_member member;
            if (!quoted(&member.name)) return fail("a member's name expected");
            if (!take(':')) return fail("':' expected");
            if (!member_value(&member.values)) return fail("a plain value or a list expected");
            members->push_back(std::move(member));
        } while (take(','));
        return take('}') ? at_end() : fail("',' or '}' expected");
    }

    std::string error() const { return error_; }

  private:
    bool fail(const char *what) {
        if (error_.empty()) error_ = std::string(what) + " at byte " + std::to_string(at_);
        return false;
    }

    void skip_blanks() {
        while (at_ < text_.size() && std::string_view(" \t\r\n").find(text_[at_]) != text_.npos)
            at_++;
    }

    bool take(char wanted) {
        skip_blanks();
        if (at_ == text_.size() || text_[at_] != wanted) return false;
        at_++;
        return true;
    }

    bool at_end() {
        skip_blanks();
        return at_ == text_.size() || fail("nothing more expected");
    }

    bool member_value(std::vector<std::string> *values) {
        if (!take('[')) return value(values);
        if (take(']')) return true;
        do {
            if (!value(values)) return false;
        } while (take(','));
        return take(']');
    }

    bool value(std::vector<std::string> *values) {
        std::string one;
        skip_blanks();
        if (at_ < text_.size() && text_[at_] == '"') {
            if (!quoted(&one)) return false;
            values->push_back(std::move(one));
            return true;
        }
        while (at_ < text_.size() &&
               std::string_view(",]} \t\r\n\"{[:").find(text_[at_]) == text_.npos)
            one += text_[at_++];
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

    bool quoted(std::string *out) {
        if (!take('"')) return false;
        while (at_ < text_.size() && text_[at_] != '"') {
            if (text_[at_] != '\\') {
                *out += text_[at_++];
            } else if (!escape(out)) {
                return false;
            }
        }
        return take('"');
    }

    bool escape(std::string *out) {
        static constexpr std::string_view kLetters = "\"\\/bfnrt", kMeanings = "\"\\/\b\f\n\r\t";
        if (++at_ == text_.size()) return false;
        char letter = text_[at_++];
        if (letter == 'u') return unicode(out);
        size_t which = kLetters.find(letter);
        if (which == kLetters.npos) return fail("unknown escape");
        *out += kMeanings[which];
        return true;
    }

    bool hex4(uint32_t *number) {
        *number = 0;
        for (int i = 0; i < 4; i++, at_++) {
            size_t digit = at_ < text_.size()
                               ? std::string_view("0123456789abcdef").find(text_[at_] | 0x20)
                               : text_.npos;
            if (digit == text_.npos) return fail("four hexadecimal digits expected");
            *number = *number << 4 | static_cast<uint32_t>(digit);
        }
        return true;
    }

    bool unicode(std::string *out) {
        uint32_t code, low;
        if (!hex4(&code)) return false;
        if (code >= 0xD800 && code < 0xDC00) {
            if (text_.substr(at_, 2) != "\\u") return fail("second half of a pair expected");
            at_ += 2;
            if (!hex4(&low) || low < 0xDC00 || low > 0xDFFF) return fail("broken pair");
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
        }
        append_utf8(code, out);
        return true;
    }

    static void append_utf8(uint32_t code, std::string *out) {
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

    std::string_view text_;
    size_t at_ = 0;
    std::string error_;
};

}  // namespace

bool read_json_object(std::string_view text, std::vector<json_member> *members,
                      std::string *error) {
    reader r(text);
    if (r.object(members)) return true;
    *error = r.error();
    return false;
}

}  // namespace tools
