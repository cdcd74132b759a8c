#include "tools/ruv_send/fields.h"

#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <variant>

#include "tools/common/options.h"

namespace sender {
namespace {

using byte_setter = int (*)(void *, uint8_t);
using short_setter = int (*)(void *, uint16_t);
using word_setter = int (*)(void *, uint32_t);
using long_setter = int (*)(void *, uint64_t);
using text_setter = int (*)(void *, const char *, int);
using packet_setter = int (*)(void *, const void *, int);
using mac_setter = int (*)(void *, const uint8_t *);
using ipv6_setter = int (*)(void *, const uint32_t *);
using version_setter = int (*)(void *, int, int);
using setter = std::variant<byte_setter, short_setter, word_setter, long_setter, text_setter,
                            packet_setter, mac_setter, ipv6_setter, version_setter>;

struct setter_row {
    int type;
    const char *name;
    setter call;
};

#define ALERT(name) \
    { 1, #name, RUVAlertSet_##name }
#define FLOW(name) \
    { 2, #name, RUVFlowSet_##name }
#define SYSLOG(name) \
    { 3, #name, RUVSyslogSet_##name }
#define WINDOWS(name) \
    { 4, #name, RUVWinEventLogSet_##name }

const setter_row kSetters[] = {
    ALERT(session_id),
    ALERT(flow_id),
    ALERT(src_mac),
    ALERT(dst_mac),
    ALERT(sigid),
    ALERT(norm_sigid),
    ALERT(event_count),
    ALERT(src_ipv4),
    ALERT(dst_ipv4),
    ALERT(src_ipv6),
    ALERT(dst_ipv6),
    ALERT(first_time),
    ALERT(last_time),
    ALERT(last_time_usec),
    ALERT(src_port),
    ALERT(dst_port),
    ALERT(vlan),
    ALERT(sequence),
    ALERT(protocol),
    ALERT(flow),
    ALERT(action),
    ALERT(severity),
    ALERT(trusted),
    ALERT(sig_generator),
    ALERT(message),
    ALERT(src_user),
    ALERT(dst_user),
    ALERT(application),
    ALERT(hostname),
    ALERT(domain),
    ALERT(command),
    ALERT(object),
    ALERT(packet),
    ALERT(3rd_party_type),
    FLOW(session_id),
    FLOW(src_mac),
    FLOW(dst_mac),
    FLOW(src_asn_geo),
    FLOW(dst_asn_geo),
    FLOW(flow_count),
    FLOW(src_ipv4),
    FLOW(dst_ipv4),
    FLOW(src_ipv6),
    FLOW(dst_ipv6),
    FLOW(first_time),
    FLOW(last_time),
    FLOW(last_time_usec),
    FLOW(src_port),
    FLOW(dst_port),
    FLOW(vlan),
    FLOW(dir),
    FLOW(protocol),
    FLOW(dst_bytes),
    FLOW(src_bytes),
    FLOW(dst_packets),
    FLOW(src_packets),
    FLOW(conn_state),
    FLOW(tcp_flags),
    FLOW(tos_src),
    FLOW(duration),
    FLOW(duration_usec),
    FLOW(iface_in),
    FLOW(iface_out),
    SYSLOG(message),
    SYSLOG(collect_time),
    SYSLOG(3rd_party_type),
    WINDOWS(log_file),
    WINDOWS(record_num),
    WINDOWS(source_name),
    WINDOWS(event_id),
    WINDOWS(windows_ver),
    WINDOWS(gen_time),
    WINDOWS(event_type),
    WINDOWS(hostname),
    WINDOWS(user),
    WINDOWS(category),
    WINDOWS(insertion_string),
    WINDOWS(message),
};

constexpr const char *kPrefixes[] = {"", "RUVAlertSet_", "RUVFlowSet_", "RUVSyslogSet_",
                                     "RUVWinEventLogSet_"};

template <typename Number>
bool number_of(const std::string &text, Number *value) {
    uint64_t number;
    if (!tools::parse_unsigned(text.c_str(), static_cast<Number>(-1), &number)) return false;
    *value = static_cast<Number>(number);
    return true;
}

bool ipv4_of(const std::string &text, uint32_t *address) {
    in_addr parsed;
    if (inet_pton(AF_INET, text.c_str(), &parsed) != 1) return false;
    *address = ntohl(parsed.s_addr);
    return true;
}

/** Turns the text into the setter's argument and calls it. */
struct caller {
    void *record;
    const std::string &name, &value;
    int *result;
    bool *cut;

    template <typename Number>
    bool operator()(int (*call)(void *, Number)) const {
        Number number;
        if (!number_of(value, &number)) return false;
        *result = call(record, number);
        return true;
    }

    bool operator()(word_setter call) const {
        uint32_t number;
        bool address = name.size() > 4 && name.compare(name.size() - 4, 4, "ipv4") == 0;
        if (!(address && ipv4_of(value, &number)) && !number_of(value, &number)) return false;
        *result = call(record, number);
        return true;
    }

    bool operator()(text_setter call) const {
        *result = call(record, value.data(), static_cast<int>(value.size()));
        *cut = *result >= 0 && static_cast<size_t>(*result) < value.size();
        return true;
    }

    bool operator()(packet_setter call) const {
        *result = call(record, value.data(), static_cast<int>(value.size()));
        *cut = *result >= 0 && static_cast<size_t>(*result) < value.size();
        return true;
    }

    bool operator()(mac_setter call) const {
        std::string digits, bytes;
        for (char c : value) {
            if (c != ':' && c != '-') digits += c;
        }
        if (!decode_hex(digits, &bytes) || bytes.size() != 6) return false;
        *result = call(record, reinterpret_cast<const uint8_t *>(bytes.data()));
        return true;
    }

    bool operator()(ipv6_setter call) const {
        uint32_t address[4];  // the bytes in network order, as the library's dump reads them
        if (inet_pton(AF_INET6, value.c_str(), address) != 1) return false;
        *result = call(record, address);
        return true;
    }

    bool operator()(version_setter call) const {
        auto numbers = tools::split(value, '.');
        int64_t major, minor;
        if (numbers.size() != 2 || !tools::parse_number(numbers[0].c_str(), 0, 255, &major) ||
            !tools::parse_number(numbers[1].c_str(), 0, 255, &minor))
            return false;
        *result = call(record, static_cast<int>(major), static_cast<int>(minor));
        return true;
    }
};

template <typename Value>
std::string raw(Value value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

/** The bytes of a custom-field value; an empty result of a type other than string is a failure. */
bool custom_bytes(const std::string &type, const std::string &text, std::string *bytes) {
    static const struct {
        const char *name;
        int64_t low, high;
        size_t size;
    } kIntegers[] = {
        {"boolean", 0, 1, 4},         {"int8", -128, 127, 1},
        {"uint8", 0, 255, 1},         {"int16", -32768, 32767, 2},
        {"uint16", 0, 65535, 2},      {"int32", INT32_MIN, INT32_MAX, 4},
        {"uint32", 0, UINT32_MAX, 4}, {"int64", INT64_MIN, INT64_MAX, 8},
        {"protocol", 0, 255, 1},      {"port", 0, 65535, 2},
    };
    int64_t number;
    uint64_t wide;
    uint32_t address;
    for (const auto &row : kIntegers) {
        if (type != row.name) continue;
        if (!tools::parse_number(text.c_str(), row.low, row.high, &number)) return false;
        *bytes = raw(number).substr(0, row.size);
        return true;
    }
    if (type == "uint64") {
        if (!tools::parse_unsigned(text.c_str(), UINT64_MAX, &wide)) return false;
        *bytes = raw(wide);
    } else if (type == "ipv4") {
        if (!ipv4_of(text, &address)) return false;
        *bytes = raw(address);
    } else if (type == "float4" || type == "float") {
        char *end;
        double value = strtod(text.c_str(), &end);
        if (text.empty() || *end != '\0') return false;
        *bytes = type == "float" ? raw(value) : raw(static_cast<float>(value));
    } else {
        *bytes = text;
        return type == "string";
    }
    return true;
}

set_result set_custom(RUVConn *conn, void *record, int type, const field_value &field,
                      record_memory *memory, std::string *call) {
    auto pieces = tools::split(field.name, ':');
    if (pieces.size() != 3 || (type != 1 && type != 2)) return set_result::unknown;
    std::string &bytes = memory->texts.emplace_back();
    if (!custom_bytes(pieces[2], field.value, &bytes)) return set_result::bad_value;
    *call = std::string(kPrefixes[type]) + "custom_field";
    auto set = type == 1 ? RUVAlertSet_custom_field : RUVFlowSet_custom_field;
    int result = set(conn, record, pieces[1].c_str(), bytes.data(), static_cast<int>(bytes.size()));
    return result < 0 ? set_result::refused : set_result::done;
}

/** Splits "_hex" or "_base64" off a name and decodes the value accordingly. */
bool decode_suffix(const field_value &field, std::string *name, std::string *value) {
    *name = field.name;
    *value = field.value;
    static constexpr struct {
        const char *suffix;
        bool (*decode)(const std::string &, std::string *);
    } kForms[] = {{"_hex", decode_hex}, {"_base64", decode_base64}};
    for (auto [suffix, decode] : kForms) {
        size_t length = strlen(suffix);
        if (name->size() <= length || name->compare(name->size() - length, length, suffix) != 0)
            continue;
        name->resize(name->size() - length);
        return decode(field.value, value);
    }
    return true;
}

}  // namespace

int type_of_name(const std::string &name) {
    static constexpr const char *kNames[] = {"", "alert", "flow", "syslog", "windows"};
    for (int type = 1; type <= 4; type++) {
        if (name == kNames[type] || name == std::to_string(type)) return type;
    }
    return 0;
}

set_result set_field(RUVConn *conn, void *record, int type, const field_value &field,
                     record_memory *memory, std::string *call) {
    if (field.name.rfind("custom:", 0) == 0)
        return set_custom(conn, record, type, field, memory, call);
    std::string name;
    std::string &value = memory->texts.emplace_back();
    if (!decode_suffix(field, &name, &value)) return set_result::bad_value;
    for (const setter_row &row : kSetters) {
        if (row.type != type || name != row.name) continue;
        *call = std::string(kPrefixes[type]) + row.name;
        int result = 0;
        bool cut = false;
        if (!std::visit(caller{record, name, value, &result, &cut}, row.call))
            return set_result::bad_value;
        if (cut) return set_result::cut;
        return result < 0 ? set_result::refused : set_result::done;
    }
    return set_result::unknown;
}

std::string field_names(int type) {
    std::string names;
    for (const setter_row &row : kSetters) {
        if (row.type == type) names += (names.empty() ? "" : " ") + std::string(row.name);
    }
    return names;
}

bool decode_hex(const std::string &text, std::string *bytes) {
    bytes->clear();
    if (text.size() % 2 != 0) return false;
    for (size_t i = 0; i < text.size(); i += 2) {
        uint64_t byte;
        std::string digits = "0x" + text.substr(i, 2);
        if (digits.find_first_not_of("0123456789abcdefABCDEF", 2) != digits.npos) return false;
        tools::parse_unsigned(digits.c_str(), 255, &byte);
        *bytes += static_cast<char>(byte);
    }
    return true;
}

bool decode_base64(const std::string &text, std::string *bytes) {
    static constexpr std::string_view kDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    bytes->clear();
    if (text.size() % 4 != 0) return false;
    size_t padding = text.size() - (text.find_last_not_of('=') + 1);
    if (padding > 2) return false;
    for (size_t i = 0; i < text.size(); i += 4) {
        uint32_t group = 0;
        for (size_t k = i; k < i + 4; k++) {
            size_t digit = kDigits.find(text[k]);
            bool pad = k >= text.size() - padding;
            if (digit == kDigits.npos && !pad) return false;
            group = group << 6 | (pad ? 0 : static_cast<uint32_t>(digit));
        }
        for (int shift = 16; shift >= 0; shift -= 8) *bytes += static_cast<char>(group >> shift);
    }
    bytes->resize(bytes->size() - padding);
    return true;
}

}  // namespace sender
