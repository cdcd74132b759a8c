/**
 * The setters of the event library by name: which text sets which field of which record type.
 *
 * Names are those of the setters behind RUVAlertSet_ and so on. Values are texts: numbers in
 * decimal or with 0x, addresses in their usual form, MAC addresses as aa:bb:cc:dd:ee:ff, a Windows
 * version as MAJOR.MINOR. A name with "_hex" or "_base64" behind it takes the bytes in that form.
 */
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "ruv/ruvlib.h"
#include "ruv/ruvlibsetters.h"

namespace sender {

/** One field and its value as text. Custom fields are named "custom:NAME:TYPE". */
struct field_value {
    std::string name;
    std::string value;
    bool optional = false; /**< a record version that lacks the field goes without it */
};

enum class set_result {
    done,
    cut,      /**< done, but the library keeps fewer bytes than were given */
    refused,  /**< the setter returned -1; the library's error words tell why */
    unknown,  /**< the record type has no such field */
    bad_value /**< the text is no value of that field */
};

/** A record under construction: the library keeps pointers, this keeps what they point at. */
struct record_memory {
    std::deque<std::string> texts;
};

/** Number of a record type: alert, flow, syslog, windows or 1 to 4; 0 for anything else. */
int type_of_name(const std::string &name);

/** Sets one field of a record of `type`. `*call` gets the name of the setter, if there is one. */
set_result set_field(RUVConn *conn, void *record, int type, const field_value &field,
                     record_memory *memory, std::string *call);

/** The names of all fields of a type, for the usage text. */
std::string field_names(int type);

/** Decodes hexadecimal digits or base64 with padding; false when the text is neither whole. */
bool decode_hex(const std::string &text, std::string *bytes);
bool decode_base64(const std::string &text, std::string *bytes);

}  // namespace sender
