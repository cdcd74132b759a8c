#include "ruv/custom_print.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cstdio>
#include <cstring>

#include "ruv/catalogue.h"
#include "ruv/record.h"

namespace {

constexpr size_t kNameBytes = 1024;  // room for a name and its aliases

// The `width` bits of `word` that begin `off` bits from its top; what does not fit reads as zeros.
uint64_t bits_at(uint64_t word, int off, int width) {
    if (off < 0 || off > 64 - width) return 0;
    word >>= 64 - width - off;
    return width == 64 ? word : word & ((uint64_t{1} << width) - 1);
}

template <class Signed>
long long signed_at(uint64_t word, int off) {
    constexpr int kWidth = sizeof(Signed) * 8;
    return static_cast<Signed>(bits_at(word, off, kWidth) ^ uint64_t{1} << (kWidth - 1));
}

double float_at(uint64_t word, int off) {
    auto pattern = static_cast<uint32_t>(bits_at(word, off, 32));
    pattern = pattern == 0xFF800000u ? 0 : pattern ^ 0x80000000u;
    float value;
    memcpy(&value, &pattern, sizeof value);
    return value;
}

double double_at(uint64_t word) {
    const uint64_t pattern = word == uint64_t{0xFFF00000u} << 32 ? 0 : word ^ uint64_t { 1 } << 63;
    double value;
    memcpy(&value, &pattern, sizeof value);
    return value;
}

void print_named(const char *name, unsigned value) {
    fprintf(stderr, "%s (%d)\n", name, static_cast<int>(value));
}

void print_protocol(unsigned number) {
    char names[kNameBytes];
    protoent entry;
    protoent *found = nullptr;
    getprotobynumber_r(static_cast<int>(number), &entry, names, sizeof names, &found);
    print_named(found != nullptr ? found->p_name : "unknown", number);
}

void print_port(unsigned number) {
    char names[kNameBytes];
    servent entry;
    servent *found = nullptr;
    getservbyport_r(htons(static_cast<uint16_t>(number)), nullptr, &entry, names, sizeof names,
                    &found);
    print_named(found != nullptr ? found->s_name : "unknown", number);
}

void print_ipv4(unsigned value) {
    char text[INET_ADDRSTRLEN];
    const in_addr address = {htonl(value)};
    inet_ntop(AF_INET, &address, text, sizeof text);
    print_named(text, value);
}

void print_string(const RUVCustomRows &rows, int row) {
    const int length = rows.len[row];
    fprintf(stderr, "len = %d : string : %.*s\n", length, length,
            length != 0 ? reinterpret_cast<const char *>(rows.data[row]) : "");
}

void print_value(const RUVCustomRows &rows, int row, const custom_field_info_t &field) {
    const uint64_t word = rows.bin[row];
    const int off = field.off;
    switch (field.type) {
        case kFieldString:
            return print_string(rows, row);
        case kFieldBoolean:
            return print_named(bits_at(word, off, 1) ? "true" : "false",
                               static_cast<unsigned>(bits_at(word, off, 1)));
        case kFieldInt8:
            fprintf(stderr, "%'d\n", static_cast<int>(signed_at<int8_t>(word, off)));
            return;
        case kFieldInt16:
            fprintf(stderr, "%'d\n", static_cast<int>(signed_at<int16_t>(word, off)));
            return;
        case kFieldInt32:
            fprintf(stderr, "%'d\n", static_cast<int>(signed_at<int32_t>(word, off)));
            return;
        case kFieldUint8:
            fprintf(stderr, "%'u\n", static_cast<unsigned>(bits_at(word, off, 8)));
            return;
        case kFieldUint16:
            fprintf(stderr, "%'u\n", static_cast<unsigned>(bits_at(word, off, 16)));
            return;
        case kFieldUint32:
            fprintf(stderr, "%'u\n", static_cast<unsigned>(bits_at(word, off, 32)));
            return;
        case kFieldInt64:
            fprintf(stderr, "%'lld\n", signed_at<int64_t>(word, 0));
            return;
        case kFieldUint64:
            fprintf(stderr, "%'llu\n", static_cast<unsigned long long>(word));
            return;
        case kFieldIPv4:
            return print_ipv4(static_cast<unsigned>(bits_at(word, off, 32)));
        case kFieldProto:
            return print_protocol(static_cast<unsigned>(bits_at(word, off, 8)));
        case kFieldPort:
            return print_port(static_cast<unsigned>(bits_at(word, off, 16)));
        case kFieldFloat:
            fprintf(stderr, "%'f\n", float_at(word, off));
            return;
        case kFieldDouble:
            fprintf(stderr, "%'f\n", double_at(word));
            return;
        default:
            fprintf(stderr, "\n");
    }
}

bool has_row(const custom_field_info_t *field, uint32_t type, int row) {
    return field != nullptr && (type == kAlert ? field->rowa : field->rowf) == row;
}

void print_owned_row(RUVConn *conn, const RUVData_t *record, int row) {
    const RUVCustomRows &rows = record->data.cfdata;
    const uint32_t type = record->ctl.type;
    fprintf(stderr, "\tcustom field[%d] : %d : %c%c%c%c : ", row, rows.id[row],
            type == kAlert ? 'A' : '-', type == kFlow ? 'F' : '-', rows.len[row] != 0 ? 'S' : '-',
            rows.bin[row] != 0 ? 'B' : '-');
    const cfid_to_cfi_t *group = find_cfi_by_id(conn, rows.id[row]);
    if (group == nullptr) {
        fprintf(stderr, "***Lookup Failed***\n");
        return;
    }
    if (group->id != rows.id[row]) {
        fprintf(stderr, "***Bad ID***\n");
        return;
    }
    int shown = 0;
    for (int i = 0; i < group->cnt; ++i) {
        const custom_field_info_t *field = group->cfi[i];
        if (!has_row(field, type, row)) continue;
        const bool known = field->type >= 0 && field->type < kFieldTypes;
        fprintf(stderr, "%s : %s (%d) : %d :\n", field->name,
                cftype_to_string[known ? field->type : kFieldNone], field->type, field->off);
        print_value(rows, row, *field);
        ++shown;
    }
    if (shown == 0) fprintf(stderr, "***Bad CFI***\n");
}

}  // namespace

void libruv_print_custom_fields(RUVConn *conn, const RUVData_t *record, int count) {
    for (int row = 0; row < count; ++row) {
        if (record->data.cfdata.id[row] == 0)
            fprintf(stderr, "\tcustom field[%d] : unused\n", row);
        else
            print_owned_row(conn, record, row);
    }
}
