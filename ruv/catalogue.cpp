#include "ruv/catalogue.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ruv/request.h"
#include "ruv/trace.h"

// Kept: the file's "float" is the 8-byte type and prints as "double", its "float4" prints as
// "float"; Receivers and their operators have always seen these names crossed.
const char *const cftype_to_string[kFieldTypes] = {
    "none",   "string", "boolean", "int8", "uint8", "int16", "uint16", "int32",
    "uint32", "int64",  "uint64",  "ipv4", "proto", "port",  "float",  "double",
};

namespace {

using ruv::fail;

constexpr int32_t kLargestFile = 16 << 20;  // bytes; real catalogues have a few thousand
constexpr size_t kMostFields = 65'536;      // as many as there are ids
constexpr int kFieldsPerId = sizeof cfid_to_cfi_t::cfi / sizeof *cfid_to_cfi_t::cfi;
constexpr int kAlertRows = 10;
constexpr int kFlowRows = 7;
constexpr unsigned kLargestOffset = 63;

struct type_row {
    const char *name;
    int code;
    int size_of;
};

constexpr type_row kTypes[] = {
    {"string", kFieldString, 0}, {"boolean", kFieldBoolean, 4}, {"int8", kFieldInt8, 1},
    {"uint8", kFieldUint8, 1},   {"int16", kFieldInt16, 2},     {"uint16", kFieldUint16, 2},
    {"int32", kFieldInt32, 4},   {"uint32", kFieldUint32, 4},   {"int64", kFieldInt64, 8},
    {"uint64", kFieldUint64, 8}, {"ipv4", kFieldIPv4, 4},       {"protocol", kFieldProto, 1},
    {"port", kFieldPort, 2},     {"float4", kFieldFloat, 4},    {"float", kFieldDouble, 8},
};

struct free_memory {
    void operator()(void *memory) const { free(memory); }
};

// ---- The keys of a section, one function each.

int decimal(const char *value) {
    return static_cast<int>(std::clamp<long>(strtol(value, nullptr, 10), INT_MIN, INT_MAX));
}

int row_of(const char *value, int rows) {
    const int number = decimal(value);
    return number >= 1 && number <= rows ? number - 1 : -1;
}

void set_id(custom_field_info_t *field, const char *value) {
    field->id = decimal(value);
}

// Both parts of a name are cut to what the entry holds.
void set_name(custom_field_info_t *field, const char *value) {
    snprintf(field->name, sizeof field->name, "%s", value);
}

void set_alert_row(custom_field_info_t *field, const char *value) {
    field->rowa = row_of(value, kAlertRows);
}

void set_flow_row(custom_field_info_t *field, const char *value) {
    field->rowf = row_of(value, kFlowRows);
}

// Kept: a bad offset takes the rows that stand before it in the section; a row that is named after
// it holds, since strings need no offset. Nothing is ever packed at a bad one.
void set_offset(custom_field_info_t *field, const char *value) {
    field->off = decimal(value);
    if (static_cast<unsigned>(field->off) > kLargestOffset) field->rowa = field->rowf = -1;
}

void append_name(custom_field_info_t *field, const char *value) {
    const size_t used = strlen(field->name);
    snprintf(field->name + used, sizeof field->name - used, ".%s", value);
}

void set_type(custom_field_info_t *field, const char *value) {
    field->type = kFieldNone;
    field->size_of = 0;
    for (const type_row &row : kTypes) {
        if (strcmp(row.name, value) == 0) {
            field->type = row.code;
            field->size_of = row.size_of;
        }
    }
}

struct key_row {
    const char *name;
    void (*set)(custom_field_info_t *, const char *value);
};

// Kept: a key is searched for in the whole line, its value included, and the first row that hits
// wins.
constexpr key_row kKeys[] = {
    {"UserField.ID", set_id},
    {"UserField.Name", set_name},
    {"UserField.UDFldE", set_alert_row},
    {"UserField.UDFldF", set_flow_row},
    {"UserFieldUse.Offset", set_offset},
    {"UserFieldUse.Name", append_name},
    {"UserFieldUse.FldType", set_type},
};

void read_line(custom_field_info_t *field, const char *line) {
    const char *equals = strchr(line, '=');
    if (!equals) return;
    for (const key_row &key : kKeys) {
        if (strstr(line, key.name)) {
            key.set(field, equals + 1);
            return;
        }
    }
}

// Reads the sections into `fields`, which has room for every "[" of the text. Lines before the
// first section belong to nothing.
void read_sections(custom_field_info_t *fields, char *text) {
    custom_field_info_t *field = nullptr;
    char *line = text;
    while (char *end = strchr(line, '\n')) {
        *end = 0;
        if (line[0] == '[')
            field = field ? field + 1 : fields;
        else if (field)
            read_line(field, line);
        line = end + 1;
    }
}

// ---- The indexes.

uint16_t group_id(const custom_field_info_t &field) {
    return static_cast<uint16_t>(field.id);
}

// Sorts entries; equal ones stay in file order, which is that of their addresses. The standard
// stable sort would do, but its scratch memory would make C programs link the C++ library.
template <class Compare>
void sort_entries(custom_field_info_t **entries, int count, Compare compare) {
    std::sort(entries, entries + count,
              [&](const custom_field_info_t *a, const custom_field_info_t *b) {
                  const int order = compare(*a, *b);
                  return order != 0 ? order < 0 : a < b;
              });
}

void index_names(custom_fields_info_t *catalogue) {
    const int count = catalogue->custom_fields_cnt;
    for (int i = 0; i < count; ++i) catalogue->name_cfi[i] = &catalogue->cfi[i];
    sort_entries(catalogue->name_cfi, count,
                 [](const custom_field_info_t &a, const custom_field_info_t &b) {
                     return strcmp(a.name, b.name);
                 });
    for (int i = 0; i < count; ++i) catalogue->name_name[i] = catalogue->name_cfi[i]->name;
}

// `by_id` holds the entries ascending by id, those of one id in file order. More fields than a
// group has room for are left out of it; they are still found by name.
void index_ids(custom_fields_info_t *catalogue, custom_field_info_t **by_id) {
    cfid_to_cfi_t *group = nullptr;
    for (int i = 0; i < catalogue->custom_fields_cnt; ++i) {
        if (!group || group->id != group_id(*by_id[i])) {
            group = &catalogue->id_to_userfields[catalogue->cfid_to_cfis_cnt++];
            group->id = group_id(*by_id[i]);
        }
        if (group->cnt < kFieldsPerId) group->cfi[group->cnt++] = by_id[i];
    }
    for (int i = 0; i < catalogue->cfid_to_cfis_cnt; ++i) {
        cfid_to_cfi_t &members = catalogue->id_to_userfields[i];
        sort_entries(members.cfi, members.cnt,
                     [](const custom_field_info_t &a, const custom_field_info_t &b) {
                         return (a.off > b.off) - (a.off < b.off);
                     });
    }
}

template <class T>
bool allocate(T **array, int count) {
    *array = static_cast<T *>(calloc(static_cast<size_t>(count), sizeof(T)));
    return *array != nullptr;
}

// Builds both indexes over catalogue->cfi. @return false without memory.
bool build_indexes(custom_fields_info_t *catalogue) {
    const int count = catalogue->custom_fields_cnt;
    custom_field_info_t **by_id = nullptr;
    if (!allocate(&catalogue->name_name, count) || !allocate(&catalogue->name_cfi, count) ||
        !allocate(&catalogue->id_to_userfields, count) || !allocate(&by_id, count))
        return false;
    const std::unique_ptr<custom_field_info_t *, free_memory> owner(by_id);
    for (int i = 0; i < count; ++i) by_id[i] = &catalogue->cfi[i];
    sort_entries(by_id, count, [](const custom_field_info_t &a, const custom_field_info_t &b) {
        return group_id(a) - group_id(b);
    });
    index_names(catalogue);
    index_ids(catalogue, by_id);
    return true;
}

}  // namespace

int libruv_load_catalogue(custom_fields_info_t *catalogue, char *text) {
    ruv::trace_point();
    libruv_free_catalogue(catalogue);
    const auto count = static_cast<size_t>(std::count(text, text + strlen(text), '['));
    if (count == 0) return 0;
    if (count > kMostFields || !allocate(&catalogue->cfi, static_cast<int>(count))) return fail(1);
    // Kept: an entry starts zeroed, so one without a row of its own has row 0.
    catalogue->custom_fields_cnt = static_cast<int>(count);
    read_sections(catalogue->cfi, text);
    if (build_indexes(catalogue)) return 0;
    libruv_free_catalogue(catalogue);
    return fail(1);
}

int libruv_request_custom_fields(RUVConn *conn) {
    ruv::trace_point();
    int32_t size = 0;
    if (libruv_ask(conn, kGetCustomFieldFile, 0, 0) != 0 ||
        libruv_read_exact(conn, &size, sizeof size) != 0)
        return -1;
    const bool fits = size >= 0 && size <= kLargestFile;
    const std::unique_ptr<char, free_memory> text(
        fits ? static_cast<char *>(malloc(static_cast<size_t>(size) + 1)) : nullptr);
    if (!text) {
        libruv_free_catalogue(&conn->cfi);
        return fail(1);
    }
    if (libruv_read_exact(conn, text.get(), static_cast<size_t>(size)) != 0) return -1;
    text.get()[size] = 0;
    return libruv_load_catalogue(&conn->cfi, text.get());
}

custom_field_info_t *libruv_lookup_custom_field(RUVConn *conn, const char *fieldname) {
    int low = 0;
    int high = conn->cfi.custom_fields_cnt - 1;
    while (low <= high) {
        const int middle = (low + high) / 2;
        const int order = strcmp(fieldname, conn->cfi.name_name[middle]);
        if (order == 0) return conn->cfi.name_cfi[middle];
        if (order < 0)
            high = middle - 1;
        else
            low = middle + 1;
    }
    return nullptr;
}

cfid_to_cfi_t *find_cfi_by_id(RUVConn *conn, uint16_t id) {
    cfid_to_cfi_t *first = conn->cfi.id_to_userfields;
    cfid_to_cfi_t *last = first + conn->cfi.cfid_to_cfis_cnt;
    cfid_to_cfi_t *found = std::lower_bound(
        first, last, id, [](const cfid_to_cfi_t &group, uint16_t key) { return group.id < key; });
    return found != last && found->id == id ? found : nullptr;
}

void libruv_free_catalogue(custom_fields_info_t *catalogue) {
    free(catalogue->cfi);
    free(catalogue->name_name);
    free(catalogue->name_cfi);
    free(catalogue->id_to_userfields);
    *catalogue = {};
}
