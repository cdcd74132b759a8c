// The custom-field rows of a dump.
#include "ruv/custom_print.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "ruv/custom_rows.h"
#include "tests/ruv/record_kit.h"

namespace {

// A connection with id groups; each field's row is 2 for Alerts and 3 for Flows.
class groups : public kit::connection {
  public:
    custom_field_info_t &add(const char *name, uint16_t id, int type, int off) {
        custom_field_info_t &field = fields_[used_++];
        field = {};
        strcpy(field.name, name);
        field.id = id;
        field.type = type;
        field.rowa = 2;
        field.rowf = 3;
        field.off = off;
        if (conn.cfi.cfid_to_cfis_cnt == 0 || groups_[conn.cfi.cfid_to_cfis_cnt - 1].id != id)
            groups_[conn.cfi.cfid_to_cfis_cnt++].id = id;
        cfid_to_cfi_t &group = groups_[conn.cfi.cfid_to_cfis_cnt - 1];
        group.cfi[group.cnt++] = &field;
        conn.cfi.id_to_userfields = groups_.data();
        return field;
    }

  private:
    std::vector<custom_field_info_t> fields_{32};
    std::vector<cfid_to_cfi_t> groups_{32};
    size_t used_ = 0;
};

std::string rows_of(RUVConn *conn, const kit::record_ptr &record, int count) {
    testing::internal::CaptureStderr();
    libruv_print_custom_fields(conn, record.get(), count);
    return testing::internal::GetCapturedStderr();
}

const std::string kFree = "\tcustom field[0] : unused\n\tcustom field[1] : unused\n";

// The dump of row 2, which a test fills before.
std::string row2(RUVConn *conn, const kit::record_ptr &record) {
    const std::string lines = rows_of(conn, record, 3);
    EXPECT_EQ(kFree, lines.substr(0, kFree.size()));
    return lines.substr(kFree.size());
}

TEST(CustomPrint, FreeRows) {
    kit::connection any;
    const auto record = kit::make(1, 6, 2);
    EXPECT_EQ("", rows_of(&any.conn, record, 0));
    EXPECT_EQ(kFree, rows_of(&any.conn, record, 2));
}

TEST(CustomPrint, StringsEndAtTheirLength) {
    groups all;
    all.add("File.Name", 9, 1, 0);
    const auto record = kit::make(1, 6, 2);
    libruv_set_custom_field_str(record.get(), 9, 2, "passwd.txt", 6);
    EXPECT_EQ(
        "\tcustom field[2] : 9 : A-S- : File.Name : string (1) : 0 :\n"
        "len = 6 : string : passwd\n",
        row2(&all.conn, record));
    libruv_set_custom_field_str(record.get(), 9, 2, "", 0);
    EXPECT_EQ(
        "\tcustom field[2] : 9 : A--- : File.Name : string (1) : 0 :\n"
        "len = 0 : string : \n",
        row2(&all.conn, record));
}

// Every numeric type: what the writers pack, the dump shows again.
TEST(CustomPrint, NumbersAreUnpacked) {
    const struct {
        const char *type;
        int code, off;
        int (*set)(RUVData_t *);
        const char *value;
    } rows[] = {
        {"int8", 3, 8, [](RUVData_t *r) { return libruv_set_custom_field_int8(r, 9, 2, 8, -7); },
         "-7"},
        {"uint8", 4, 8, [](RUVData_t *r) { return libruv_set_custom_field_uint8(r, 9, 2, 8, 250); },
         "250"},
        {"int16", 5, 48,
         [](RUVData_t *r) { return libruv_set_custom_field_int16(r, 9, 2, 48, -32767); }, "-32767"},
        {"uint16", 6, 48,
         [](RUVData_t *r) { return libruv_set_custom_field_uint16(r, 9, 2, 48, 65535); }, "65535"},
        {"int32", 7, 1,
         [](RUVData_t *r) { return libruv_set_custom_field_int32(r, 9, 2, 1, -1234567); },
         "-1234567"},
        {"uint32", 8, 32,
         [](RUVData_t *r) { return libruv_set_custom_field_uint32(r, 9, 2, 32, 4294967295u); },
         "4294967295"},
        {"int64", 9, 0,
         [](RUVData_t *r) { return libruv_set_custom_field_int64(r, 9, 2, INT64_MIN + 1); },
         "-9223372036854775807"},
        {"uint64", 10, 0,
         [](RUVData_t *r) { return libruv_set_custom_field_uint64(r, 9, 2, UINT64_MAX); },
         "18446744073709551615"},
        {"float", 14, 32,
         [](RUVData_t *r) { return libruv_set_custom_field_float(r, 9, 2, 32, -2.5f); },
         "-2.500000"},
        {"float", 14, 0,
         [](RUVData_t *r) { return libruv_set_custom_field_float(r, 9, 2, 0, 0.0f); }, "0.000000"},
        {"double", 15, 0, [](RUVData_t *r) { return libruv_set_custom_field_double(r, 9, 2, 1e3); },
         "1000.000000"},
        {"double", 15, 0, [](RUVData_t *r) { return libruv_set_custom_field_double(r, 9, 2, 0.0); },
         "0.000000"},
        {"boolean", 2, 63,
         [](RUVData_t *r) { return libruv_set_custom_field_bool(r, 9, 2, 63, 5); }, "true (1)"},
        {"ipv4", 11, 32,
         [](RUVData_t *r) { return libruv_set_custom_field_uint32(r, 9, 2, 32, 0x0A010203); },
         "10.1.2.3 (167838211)"},
        {"proto", 12, 0,
         [](RUVData_t *r) { return libruv_set_custom_field_uint8(r, 9, 2, 0, 200); },
         "unknown (200)"},
        {"port", 13, 16,
         [](RUVData_t *r) { return libruv_set_custom_field_uint16(r, 9, 2, 16, 65000); },
         "unknown (65000)"},
    };
    for (const auto &row : rows) {
        groups all;
        all.add("F.f", 9, row.code, row.off);
        const auto record = kit::make(1, 6, 2);
        ASSERT_EQ(0, row.set(record.get()));
        EXPECT_EQ("\tcustom field[2] : 9 : A--B : F.f : " + std::string(row.type) + " (" +
                      std::to_string(row.code) + ") : " + std::to_string(row.off) + " :\n" +
                      row.value + "\n",
                  row2(&all.conn, record));
    }
}

TEST(CustomPrint, EveryFieldOfTheRow) {
    groups all;
    all.add("Two.first", 9, 4, 0);
    all.add("Two.second", 9, 2, 8);
    all.add("Two.elsewhere", 9, 4, 16).rowa = 5;
    all.add("Other.field", 10, 4, 0);
    const auto record = kit::make(1, 6, 2);
    libruv_set_custom_field_uint8(record.get(), 9, 2, 0, 200);
    EXPECT_EQ(
        "\tcustom field[2] : 9 : A--B : Two.first : uint8 (4) : 0 :\n200\n"
        "Two.second : boolean (2) : 8 :\nfalse (0)\n",
        row2(&all.conn, record));
}

TEST(CustomPrint, FlowsUseTheirOwnRow) {
    groups all;
    all.add("Flow.field", 9, 4, 0);
    const auto record = kit::make(2, 6, 3);
    libruv_set_custom_field_uint8(record.get(), 9, 3, 0, 1);
    EXPECT_EQ(kFree +
                  "\tcustom field[2] : unused\n"
                  "\tcustom field[3] : 9 : -F-B : Flow.field : uint8 (4) : 0 :\n1\n",
              rows_of(&all.conn, record, 4));
}

TEST(CustomPrint, RowsThatCannotBeResolved) {
    groups all;
    custom_field_info_t &field = all.add("F.f", 9, 4, 0);
    const auto record = kit::make(1, 6, 2);
    libruv_set_custom_field_uint8(record.get(), 11, 2, 0, 1);
    EXPECT_EQ("\tcustom field[2] : 11 : A--B : ***Lookup Failed***\n", row2(&all.conn, record));
    record->data.cfdata.id[2] = 9;
    field.rowa = -1;
    EXPECT_EQ("\tcustom field[2] : 9 : A--B : ***Bad CFI***\n", row2(&all.conn, record));
    all.conn.cfi.id_to_userfields[0].cfi[0] = nullptr;
    EXPECT_EQ("\tcustom field[2] : 9 : A--B : ***Bad CFI***\n", row2(&all.conn, record));
}

// Types and offsets that no valid catalogue has.
TEST(CustomPrint, DamagedFieldsAreShownSafely) {
    groups all;
    custom_field_info_t &field = all.add("F.f", 9, 99, 60);
    const auto record = kit::make(1, 6, 2);
    libruv_set_custom_field_uint64(record.get(), 9, 2, UINT64_MAX);
    EXPECT_EQ("\tcustom field[2] : 9 : A--B : F.f : none (99) : 60 :\n\n", row2(&all.conn, record));
    field.type = 8;
    EXPECT_EQ("\tcustom field[2] : 9 : A--B : F.f : uint32 (8) : 60 :\n0\n",
              row2(&all.conn, record));
    field.off = INT_MAX;
    EXPECT_EQ("\tcustom field[2] : 9 : A--B : F.f : uint32 (8) : 2147483647 :\n0\n",
              row2(&all.conn, record));
}

}  // namespace
