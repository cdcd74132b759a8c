// Loads arbitrary bytes as a field-definition file, twice, and holds the catalogue to what its
// users rely on.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ruv/catalogue.h"
#include "ruv/custom_rows.h"

namespace {

void require(bool holds) {
    if (!holds) abort();
}

// A row that is named behind a bad offset holds, so nothing may be packed at one.
void check_packing(const custom_field_info_t &field) {
    RUVData_t record = {};
    const bool fits = field.off >= 0 && field.off <= 64 - 8;
    const int packed = libruv_set_custom_field_uint8(&record, field.id, field.rowa, field.off, 1);
    require(field.rowa == -1 ? packed == -1 : packed == (fits ? 0 : -1));
}

void check_entry(const custom_field_info_t &field) {
    require(memchr(field.name, 0, sizeof field.name) != nullptr);
    require(field.rowa >= -1 && field.rowa <= 9);
    require(field.rowf >= -1 && field.rowf <= 6);
    require(field.type >= 0 && field.type < kFieldTypes);
    check_packing(field);
}

void check_names(RUVConn *conn) {
    const custom_fields_info_t &c = conn->cfi;
    for (int i = 0; i < c.custom_fields_cnt; ++i) {
        require(c.name_name[i] == c.name_cfi[i]->name);
        require(i == 0 || strcmp(c.name_name[i - 1], c.name_name[i]) <= 0);
        const custom_field_info_t *found = libruv_lookup_custom_field(conn, c.cfi[i].name);
        require(found && strcmp(found->name, c.cfi[i].name) == 0);
    }
}

void check_ids(RUVConn *conn) {
    const custom_fields_info_t &c = conn->cfi;
    for (int i = 0; i < c.cfid_to_cfis_cnt; ++i) {
        const cfid_to_cfi_t &group = c.id_to_userfields[i];
        require(i == 0 || c.id_to_userfields[i - 1].id < group.id);
        require(group.cnt >= 1 && group.cnt <= 64);
        for (int m = 0; m < group.cnt; ++m) {
            require(static_cast<uint16_t>(group.cfi[m]->id) == group.id);
            require(m == 0 || group.cfi[m - 1]->off <= group.cfi[m]->off);
        }
        require(find_cfi_by_id(conn, group.id) == &group);
    }
    for (int i = 0; i < c.custom_fields_cnt; ++i) {
        check_entry(c.cfi[i]);
        require(find_cfi_by_id(conn, static_cast<uint16_t>(c.cfi[i].id)) != nullptr);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    RUVConn conn = {};
    for (int round = 0; round < 2; ++round) {
        std::string text(reinterpret_cast<const char *>(data), size);
        const int result = libruv_load_catalogue(&conn.cfi, text.data());
        require(result == 0 || conn.cfi.custom_fields_cnt == 0);
        check_names(&conn);
        check_ids(&conn);
    }
    libruv_free_catalogue(&conn.cfi);
    return 0;
}
