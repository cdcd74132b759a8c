#include "tools/ruv_receiver/catalogue.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace receiver {
namespace {

enum field_type {
    kString = 1,
    kBoolean,
    kInt8,
    kUint8,
    kInt16,
    kUint16,
    kInt32,
    kUint32,
    kInt64,
    kUint64,
    kIpv4,
    kProto,
    kPort,
    kFloat,
    kDouble
};

struct type_row {
    const char *word;
    int type;
    unsigned bits;
};

// Kept: the file's "float" is the 8-byte type and "float4" the 4-byte one, clients rely on it.
constexpr type_row kTypes[] = {
    {"string", kString, 0},  {"boolean", kBoolean, 1}, {"int8", kInt8, 8},
    {"uint8", kUint8, 8},    {"int16", kInt16, 16},    {"uint16", kUint16, 16},
    {"int32", kInt32, 32},   {"uint32", kUint32, 32},  {"int64", kInt64, 64},
    {"uint64", kUint64, 64}, {"ipv4", kIpv4, 32},      {"protocol", kProto, 8},
    {"port", kPort, 16},     {"float4", kFloat, 32},   {"float", kDouble, 64},
};

int row_number(const std::string &value, int last) {
    int row = atoi(value.c_str()) - 1;
    return row >= 0 && row <= last ? row : -1;
}

void take_line(custom_field &entry, const std::string &line) {
    size_t equals = line.find('=');
    if (equals == std::string::npos) return;
    std::string value = line.substr(equals + 1);
    auto names = [&](const char *key) { return line.find(key) != std::string::npos; };
    if (names("UserField.ID")) {
        entry.id = atoi(value.c_str());
    } else if (names("UserField.Name")) {
        entry.name = value;
    } else if (names("UserField.UDFldE")) {
        entry.alert_row = row_number(value, 9);
    } else if (names("UserField.UDFldF")) {
        entry.flow_row = row_number(value, 6);
    } else if (names("UserFieldUse.Offset")) {
        entry.offset = static_cast<unsigned>(atoi(value.c_str()));
        if (entry.offset > 63) entry.alert_row = entry.flow_row = -1;
    } else if (names("UserFieldUse.Name")) {
        entry.name += "." + value;
    } else if (names("UserFieldUse.FldType")) {
        entry.type = 0;
        for (const type_row &row : kTypes) {
            if (value == row.word) entry.type = row.type;
        }
    }
}

unsigned bits_of(int type) {
    for (const type_row &row : kTypes) {
        if (row.type == type) return row.bits;
    }
    return 0;
}

std::string dotted(uint64_t address) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        append_number(text, address >> shift & 0xFF);
        if (shift > 0) text += '.';
    }
    return text;
}

/** Undoes the packing of a float: its sign bit was flipped, and +0.0 has a pattern of its own. */
float unpack_float(uint32_t word) {
    uint32_t pattern = word == 0xFF800000u ? 0 : word ^ 0x80000000u;
    float value;
    memcpy(&value, &pattern, sizeof value);
    return value;
}

double unpack_double(uint64_t word) {
    uint64_t pattern = word == 0xFFF0000000000000u ? 0 : word ^ 0x8000000000000000u;
    double value;
    memcpy(&value, &pattern, sizeof value);
    return value;
}

void describe_value(const custom_field &field, uint64_t word, json_object &object) {
    unsigned bits = bits_of(field.type);
    if (bits == 0) return;
    unsigned shift = bits == 64 || field.offset + bits > 64 ? 0 : 64 - bits - field.offset;
    uint64_t value = bits == 64 ? word : word >> shift & ((uint64_t{1} << bits) - 1);
    switch (field.type) {
        case kBoolean:
            return object.boolean(field.name, value != 0);
        case kInt8:
        case kInt16:
        case kInt32:
        case kInt64: {
            // The sign bit travels inverted so that the words compare in numeric order.
            uint64_t flipped = value ^ uint64_t { 1 } << (bits - 1);
            auto number = static_cast<int64_t>(flipped << (64 - bits)) >> (64 - bits);
            return object.signed_number(field.name, number);
        }
        case kIpv4:
            return object.text(field.name, dotted(value));
        case kFloat:
            return object.real(field.name, unpack_float(static_cast<uint32_t>(value)), 9);
        case kDouble:
            return object.real(field.name, unpack_double(value), 17);
        default:
            return object.number(field.name, value);
    }
}

}  // namespace

catalogue parse_catalogue(std::string text) {
    catalogue result;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line[0] == '[') {
            result.fields.emplace_back();
        } else if (!result.fields.empty()) {
            take_line(result.fields.back(), line);
        }
    }
    for (custom_field &field : result.fields) {
        std::string quoted;
        tools::append_json_text(quoted, field.name);
        field.name = quoted.substr(1, quoted.size() - 2);
    }
    result.text = std::move(text);
    return result;
}

void describe_row(const catalogue &known, const custom_row &row, bool alert, json_object &object) {
    for (const custom_field &field : known.fields) {
        int own_row = alert ? field.alert_row : field.flow_row;
        if (static_cast<unsigned>(field.id & 0xFFFF) != row.id ||
            own_row != static_cast<int>(row.row))
            continue;
        if (field.type == kString) {
            object.text(field.name, row.text);
        } else {
            describe_value(field, row.word, object);
        }
    }
}

}  // namespace receiver
