/**
 * The custom fields that the Receiver offers: the text that it hands out on request, and the
 * meaning that it gives to the packed words of a record.
 *
 * Loaded once at the start, read by one thread afterwards. A Receiver must live with its own file:
 * what cannot be understood is skipped, exactly as a client does.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/common/json_writer.h"

namespace receiver {

using tools::append_number;
using tools::json_object;

/** One section of the file. */
struct custom_field {
    std::string name; /**< "Name.Use", escaped as the name of a JSON member */
    int id = 0;
    int type = 0;      /**< 0 none, 1 string, 2 boolean ... 15 double */
    int alert_row = 0; /**< as the file leaves them: 0 when never named, -1 when out of range */
    int flow_row = 0;
    unsigned offset = 0; /**< bits from the top of the row's word */
};

struct catalogue {
    std::string text; /**< the file as it is handed out */
    std::vector<custom_field> fields;
};

/** Parses a definition file. Text after the last line end is not read. */
catalogue parse_catalogue(std::string text);

/** The row's content, as a record carries it. */
struct custom_row {
    unsigned row;
    unsigned id;
    uint64_t word;         /**< the packed word */
    std::string_view text; /**< the row's string */
};

/** Adds every field that shares the row's id and row number, by name, to `object`. */
void describe_row(const catalogue &known, const custom_row &row, bool alert, json_object &object);

}  // namespace receiver
