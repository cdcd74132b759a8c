#include "ruv/setters.h"

#include <limits>

#include "ruv/custom_rows.h"
#include "ruv/ruvlibsetters.h"
#include "ruv/trace.h"

namespace {

constexpr int kPacketMax = 8000;
constexpr int kFirstWindowsVersion = 3;
// All insertion strings together, so that the length of a unit fits the int that a send returns.
constexpr uint32_t kInsertionBytesMax = 0x7FFE0000;

// Names that the table uses: record types, and masks with one bit per version.
constexpr uint32_t kTypeOfAlert = kAlert, kTypeOfFlow = kFlow, kTypeOfSyslog = kSyslog,
                   kTypeOfWinEventLog = kWinEvent;
constexpr unsigned ALL = 0x7E;
constexpr unsigned FROM(int version) {
    return ALL >> version << version;
}
constexpr unsigned ONLY(int version) {
    return 1u << version;
}
constexpr unsigned BUT(int version) {
    return ALL & ~ONLY(version);
}
constexpr uint64_t NO_LIMIT = std::numeric_limits<uint64_t>::max();

RUVData_t *data_of(void *record) {
    return static_cast<RUVData_t *>(record);
}

int check_version(void *record, unsigned versions) {
    return (versions >> data_of(record)->ctl.ver & 1) != 0 ? 0 : ruv::fail(51);
}

bool is_no_value(const void *data, int len) {
    return len == 0 && data == nullptr;
}

template <class T>
int set_scalar(void *record, uint32_t type, T RUVDataValues::*field, uint64_t bit,
               unsigned versions, uint64_t limit, T value) {
    if (libruv_setter_helper_other(record, type) != 0) return -1;
    if (value > limit) return ruv::fail(57);
    if (check_version(record, versions) != 0) return -1;
    data_of(record)->data.data.*field = value;
    data_of(record)->data.ok_to_send |= bit;
    return 0;
}

template <class T, size_t N>
int set_bytes(void *record, uint32_t type, T (RUVDataValues::*field)[N], uint64_t bit,
              unsigned versions, const T *value) {
    if (libruv_setter_helper_other(record, type) != 0) return -1;
    if (value == nullptr) return ruv::fail(52);
    if (check_version(record, versions) != 0) return -1;
    memcpy(data_of(record)->data.data.*field, value, N * sizeof(T));
    data_of(record)->data.ok_to_send |= bit;
    return 0;
}

// What every text setter does around its own way of storing, which gets the length and returns
// what was stored.
template <class Store>
int set_text(void *record, uint32_t type, uint64_t bit, unsigned versions, const char *text,
             int len, Store store) {
    if (is_no_value(text, len)) return 0;
    if (libruv_setter_helper_str(record, type, text, len) != 0) return -1;
    len = libruv_text_length(text, len);
    if (check_version(record, versions) != 0) return -1;
    const int stored = store(data_of(record), len);
    if (stored >= 0) data_of(record)->data.ok_to_send |= bit;
    return stored;
}

// One value serves the length field and the segment, so a longer text is cut and the unit keeps
// its framing.
template <class Length>
int store_message(RUVData_t *record, Length RUVDataValues::*field, const char *text, int len) {
    len = std::min(len, static_cast<int>(std::numeric_limits<Length>::max()));
    record->data.data.msg = text;
    record->data.data.*field = static_cast<Length>(len);
    return len;
}

// Kept: the length keeps its low 8 bits where an Alert's is clamped; Windows event senders have
// always had their long strings cut this way.
int store_plain_row(RUVData_t *record, int row, const char *text, int len) {
    record->data.cfdata.data[row] = reinterpret_cast<const uint8_t *>(text);
    record->data.cfdata.len[row] = static_cast<uint8_t>(len);
    return record->data.cfdata.len[row];
}

int set_third_party_type(void *record, uint32_t type, unsigned versions, uint16_t value) {
    if (libruv_setter_helper_other(record, type) != 0) return -1;
    if (check_version(record, versions) != 0) return -1;
    data_of(record)->ctl.tpt = value;
    return 0;
}

int set_packet(void *record, const void *bytes, int len) {
    if (is_no_value(bytes, len)) return 0;
    if (libruv_setter_helper_str(record, kAlert, bytes, len) != 0) return -1;
    // Kept: length 0 is measured like a text's, although packets may hold zero bytes; callers know
    // one rule for every pointer with a length. The search ends where the packet would be cut.
    len = len == 0 ? static_cast<int>(strnlen(static_cast<const char *>(bytes), kPacketMax))
                   : std::min(len, kPacketMax);
    data_of(record)->data.data.pkt = static_cast<const uint8_t *>(bytes);
    data_of(record)->data.data.pkt_len = static_cast<uint16_t>(len);
    data_of(record)->data.ok_to_send |= 0x20000000;
    return len;
}

int set_windows_ver(void *record, int major, int minor) {
    if (libruv_setter_helper_other(record, kWinEvent) != 0) return -1;
    const int last_minor = major == 5 ? 2 : major == 6 ? 1 : -1;
    if (minor < 0 || minor > last_minor) return ruv::fail(57);
    if (check_version(record, FROM(kFirstWindowsVersion)) != 0) return -1;
    data_of(record)->data.data.win_ver = static_cast<uint8_t>(major * 10 + minor);
    data_of(record)->data.ok_to_send |= 0x20;
    return 0;
}

int set_insertion_string(void *record, const char *text, int len) {
    if (is_no_value(text, len)) return 0;
    if (libruv_setter_helper_str(record, kWinEvent, text, len) != 0) return -1;
    RUVDataValues &values = data_of(record)->data.data;
    // Kept: "more than 32" lets a 33rd string in, and the record has a slot for it.
    if (values.num_istrings > 32) return ruv::fail(58);
    len = libruv_text_length(text, len);
    if (check_version(record, FROM(kFirstWindowsVersion)) != 0) return -1;
    uint32_t room = kInsertionBytesMax;
    for (int i = 0; i < values.num_istrings; ++i) room -= values.istringslen[i];
    const uint32_t stored = std::min(static_cast<uint32_t>(len), room);
    values.istrings[values.num_istrings] = text;
    values.istringslen[values.num_istrings] = stored;
    ++values.num_istrings;
    data_of(record)->data.ok_to_send |= 0x800;
    return static_cast<int>(stored);
}

}  // namespace

extern "C" {

#define SETTER(kind, name) RUV##kind##Set_##name
#define TRACED(kind, name, body)                                            \
    {                                                                       \
        return ruv::traced("RUV" #kind "Set_" #name, [=] { return body; }); \
    }

#define SCALAR(kind, name, ctype, field, bit, versions, limit) \
    int SETTER(kind, name)(void *record, ctype value) TRACED(  \
        kind, name,                                            \
        set_scalar(record, kTypeOf##kind, &RUVDataValues::field, bit, versions, limit, value))
#define BYTES(kind, name, ctype, field, bit, versions)               \
    int SETTER(kind, name)(void *record, const ctype *value) TRACED( \
        kind, name, set_bytes(record, kTypeOf##kind, &RUVDataValues::field, bit, versions, value))
#define TEXT_SETTER(kind, name, bit, versions, store)                    \
    int SETTER(kind, name)(void *record, const char *text, int len)      \
        TRACED(kind, name,                                               \
               set_text(record, kTypeOf##kind, bit, versions, text, len, \
                        [=](RUVData_t *data, int length) { return store; }))
#define TEXT(kind, name, field, bit, versions) \
    TEXT_SETTER(kind, name, bit, versions, store_message(data, &RUVDataValues::field, text, length))
#define ROW(kind, name, row, id, bit, versions) \
    TEXT_SETTER(kind, name, bit, versions, libruv_set_custom_field_str(data, id, row, text, length))
#define PLAIN_ROW(kind, name, row, bit, versions) \
    TEXT_SETTER(kind, name, bit, versions, store_plain_row(data, row, text, length))
#define THIRD_PARTY(kind, versions)                                \
    int SETTER(kind, 3rd_party_type)(void *record, uint16_t value) \
        TRACED(kind, 3rd_party_type, set_third_party_type(record, kTypeOf##kind, versions, value))

#include "ruv/setters.def"

// Kept: no version of an Alert takes a flow id from its sender; the call is there for programs
// that were linked against it.
int RUVAlertSet_flow_id(void *record, uint64_t)
    TRACED(Alert, flow_id, libruv_setter_helper_other(record, kAlert) != 0 ? -1 : ruv::fail(51))

        int RUVAlertSet_packet(void *record, const void *bytes,
                               int len) TRACED(Alert, packet, set_packet(record, bytes, len))

            int RUVWinEventLogSet_windows_ver(void *record, int major, int minor)
                TRACED(WinEventLog, windows_ver, set_windows_ver(record, major, minor))

                    int RUVWinEventLogSet_insertion_string(void *record, const char *text, int len)
                        TRACED(WinEventLog, insertion_string,
                               set_insertion_string(record, text, len))

}  // extern "C"
