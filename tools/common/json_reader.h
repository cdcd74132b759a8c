/**
 * Reads one JSON object whose members are texts, numbers, booleans, null or lists of these: the
 * form in which a tool takes records from its standard input. Nested objects are refused.
 *
 * Pure; any thread. A text may hold any bytes: "\u00e9" and the like become UTF-8.
 */
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tools {

/** One member. A number or boolean stands in `values` as it was written; null has no value. */
struct json_member {
    std::string name;
    std::vector<std::string> values; /**< one, or those of a list */
};

/**
 * Reads the object that `text` consists of. False with `*error` set to what is wrong and where
 * (bytes from the start).
 */
bool read_json_object(std::string_view text, std::vector<json_member> *members, std::string *error);

}  // namespace tools
