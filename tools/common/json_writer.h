/**
 * Writes one JSON object as one line at the end of a string.
 *
 * Text is kept without loss: valid UTF-8 stands as it is, quotes, backslashes and control
 * characters are escaped. A byte that belongs to no valid UTF-8 sequence becomes \u00XX, and since
 * that could also be a character of that number, a member "<name>_base64" with the exact bytes
 * follows whenever a text holds such a byte.
 *
 * One object belongs to one thread; the string outlives it.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tools {

class json_object {
  public:
    /** Opens the object. `nested` leaves out the line end when the object closes. */
    explicit json_object(std::string &out, bool nested = false) : out_(out), nested_(nested) {
        out_ += '{';
    }
    ~json_object() { out_ += nested_ ? "}" : "}\n"; }
    json_object(const json_object &) = delete;
    json_object &operator=(const json_object &) = delete;

    void number(std::string_view name, uint64_t value);
    void signed_number(std::string_view name, int64_t value);
    /** `digits` significant digits; what JSON cannot say (infinities, no number) becomes text. */
    void real(std::string_view name, double value, int digits);
    void boolean(std::string_view name, bool value);
    void text(std::string_view name, std::string_view value);
    /** Bytes as hexadecimal digits. */
    void hex(std::string_view name, const uint8_t *bytes, size_t length);
    /** Writes the name of a member whose value the caller appends to the string. Names stand in
     * the text as they are given. */
    void name(std::string_view name);

  private:
    std::string &out_;
    bool first_ = true;
    bool nested_;
};

/** Appends a quoted JSON text; true when every byte was valid UTF-8. */
bool append_json_text(std::string &out, std::string_view text);

/** Appends base64 with padding. */
void append_base64(std::string &out, std::string_view bytes);

/** Appends an unsigned number in decimal. */
void append_number(std::string &out, uint64_t value);

}  // namespace tools
