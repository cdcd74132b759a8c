// The two setters of custom fields: from a name in the Receiver's catalogue to a row.
#include "ruv/catalogue.h"
#include "ruv/custom_rows.h"
#include "ruv/ruvlibsetters.h"
#include "ruv/setters.h"
#include "ruv/trace.h"

namespace {

constexpr int kFlowStringRowMax = 5;  // row 6 of a Flow carries binary values only

template <class T>
T value_at(const void *data) {
    T value;
    memcpy(&value, data, sizeof value);
    return value;
}

// Packs the value at `data`, whose size the caller has checked, with the writer of its type.
int store_binary(RUVData_t *record, const custom_field_info_t &field, int row, const void *data) {
    const int id = field.id;
    const int off = field.off;
    switch (field.type) {
        case kFieldBoolean:
            return libruv_set_custom_field_bool(record, id, row, off, value_at<int>(data));
        case kFieldInt8:
            return libruv_set_custom_field_int8(record, id, row, off, value_at<int8_t>(data));
        case kFieldUint8:
        case kFieldProto:
            return libruv_set_custom_field_uint8(record, id, row, off, value_at<uint8_t>(data));
        case kFieldInt16:
            return libruv_set_custom_field_int16(record, id, row, off, value_at<int16_t>(data));
        case kFieldUint16:
        case kFieldPort:
            return libruv_set_custom_field_uint16(record, id, row, off, value_at<uint16_t>(data));
        case kFieldInt32:
            return libruv_set_custom_field_int32(record, id, row, off, value_at<int32_t>(data));
        case kFieldUint32:
        case kFieldIPv4:
            return libruv_set_custom_field_uint32(record, id, row, off, value_at<uint32_t>(data));
        case kFieldInt64:
            return libruv_set_custom_field_int64(record, id, row, value_at<int64_t>(data));
        case kFieldUint64:
            return libruv_set_custom_field_uint64(record, id, row, value_at<uint64_t>(data));
        case kFieldFloat:
            return libruv_set_custom_field_float(record, id, row, off, value_at<float>(data));
        case kFieldDouble:
            return libruv_set_custom_field_double(record, id, row, value_at<double>(data));
        default:
            return ruv::fail(55);
    }
}

int store_string(RUVData_t *record, const custom_field_info_t &field, int row, const char *text,
                 int len) {
    if (record->ctl.type == kFlow && (record->ctl.sver != 2 || row > kFlowStringRowMax))
        return ruv::fail(59);
    return libruv_set_custom_field_str(record, field.id, row, text, libruv_text_length(text, len));
}

int set_custom_field(RUVConn *conn, void *handle, uint32_t type, const char *name, const void *data,
                     int len) {
    // Kept: null data with length 0 is an error here, whereas the other setters take it as "no
    // value".
    if (libruv_setter_helper_str(handle, type, data, len) != 0) return -1;
    auto *record = static_cast<RUVData_t *>(handle);
    if (record->ctl.ver != 6) return ruv::fail(51);
    if (record->ctl.sver != 1 && record->ctl.sver != 2) return ruv::fail(59);
    if (conn == nullptr) return ruv::fail(2, 1);
    const custom_field_info_t *field =
        name == nullptr ? nullptr : libruv_lookup_custom_field(conn, name);
    if (field == nullptr) return ruv::fail(56);
    const int row = type == kAlert ? field->rowa : field->rowf;
    if (field->type == kFieldString)
        return store_string(record, *field, row, static_cast<const char *>(data), len);
    if (len != field->size_of) return ruv::fail(54);
    return store_binary(record, *field, row, data);
}

}  // namespace

int RUVAlertSet_custom_field(RUVConn *conn, void *record, const char *name, const void *data,
                             int len) {
    return ruv::traced("RUVAlertSet_custom_field",
                       [=] { return set_custom_field(conn, record, kAlert, name, data, len); });
}

int RUVFlowSet_custom_field(RUVConn *conn, void *record, const char *name, const void *data,
                            int len) {
    return ruv::traced("RUVFlowSet_custom_field",
                       [=] { return set_custom_field(conn, record, kFlow, name, data, len); });
}
