// Custom-field rows: who owns them and how values are packed, and the two setters by name.
#include "ruv/custom_rows.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "tests/ruv/record_kit.h"

namespace {

// A catalogue in memory, with its names in order.
class catalogue : public kit::connection {
  public:
    explicit catalogue(std::vector<custom_field_info_t> fields) : fields_(std::move(fields)) {
        for (custom_field_info_t &field : fields_) {
            size_t at = 0;
            while (at < names_.size() && strcmp(names_[at], field.name) <= 0) ++at;
            names_.insert(names_.begin() + static_cast<long>(at), field.name);
            entries_.insert(entries_.begin() + static_cast<long>(at), &field);
        }
        conn.cfi.custom_fields_cnt = static_cast<int>(fields_.size());
        conn.cfi.cfi = fields_.data();
        conn.cfi.name_name = names_.data();
        conn.cfi.name_cfi = entries_.data();
    }

  private:
    std::vector<custom_field_info_t> fields_;
    std::vector<char *> names_;
    std::vector<custom_field_info_t *> entries_;
};

custom_field_info_t field(const char *name, int id, int type, int rowa, int rowf, int off,
                          int size) {
    custom_field_info_t made = {};
    strcpy(made.name, name);
    made.id = id;
    made.type = type;
    made.rowa = rowa;
    made.rowf = rowf;
    made.off = off;
    made.size_of = size;
    return made;
}

std::vector<custom_field_info_t> all_types() {
    return {field("f.none", 20, 0, 0, 0, 0, 0),      field("f.string", 21, 1, 7, 5, 0, 0),
            field("f.boolean", 22, 2, 7, 0, 3, 4),   field("f.int8", 23, 3, 7, 0, 8, 1),
            field("f.uint8", 24, 4, 7, 0, 8, 1),     field("f.int16", 25, 5, 7, 0, 16, 2),
            field("f.uint16", 26, 6, 7, 0, 16, 2),   field("f.int32", 27, 7, 7, 0, 0, 4),
            field("f.uint32", 28, 8, 7, 0, 32, 4),   field("f.int64", 29, 9, 7, 0, 0, 8),
            field("f.uint64", 30, 10, 7, 0, 0, 8),   field("f.ipv4", 31, 11, 7, 0, 16, 4),
            field("f.proto", 32, 12, 7, 0, 56, 1),   field("f.port", 33, 13, 7, 0, 48, 2),
            field("f.float", 34, 14, 7, 0, 32, 4),   field("f.double", 35, 15, 7, 0, 0, 8),
            field("f.beyond", 36, 16, 7, 0, 0, 0),   field("f.norow", 37, 8, -1, -1, 0, 4),
            field("f.pushed", 38, 8, 7, 0, 33, 4),   field("f.late", 39, 1, 8, 6, 0, 0),
            field("f.nostring", 40, 1, -1, -1, 0, 0)};
}

constexpr int kRow = 4;

uint64_t word(const kit::record_ptr &record, int row = kRow) {
    return record->data.cfdata.bin[row];
}

TEST(CustomRows, UnsignedValuesLieAtTheirOffsetFromTheTop) {
    const auto record = kit::make(1, 6, 2);
    RUVData_t *r = record.get();
    EXPECT_EQ(0, libruv_set_custom_field_uint8(r, 9, kRow, 0, 0xAB));
    EXPECT_EQ(0xAB00000000000000u, word(record));
    EXPECT_EQ(0, libruv_set_custom_field_uint16(r, 9, kRow, 8, 0x1234));
    EXPECT_EQ(0xAB12340000000000u, word(record));
    EXPECT_EQ(0, libruv_set_custom_field_uint32(r, 9, kRow, 32, 0x89ABCDEF));
    EXPECT_EQ(0xAB12340089ABCDEFu, word(record));
    EXPECT_EQ(0, libruv_set_custom_field_uint8(r, 9, kRow, 24, 0x77));
    EXPECT_EQ(0xAB12347789ABCDEFu, word(record));
    EXPECT_EQ(9, record->data.cfdata.id[kRow]);
}

TEST(CustomRows, SignedValuesTravelWithTheirSignInverted) {
    const struct {
        int64_t value;
        uint8_t byte;
        uint16_t half;
        uint32_t full;
    } rows[] = {{0, 0x80, 0x8000, 0x80000000},
                {1, 0x81, 0x8001, 0x80000001},
                {-1, 0x7F, 0x7FFF, 0x7FFFFFFF},
                {127, 0xFF, 0x807F, 0x8000007F},
                {-128, 0x00, 0x7F80, 0x7FFFFF80}};
    for (const auto &row : rows) {
        const auto record = kit::make(1, 6, 2);
        RUVData_t *r = record.get();
        libruv_set_custom_field_int8(r, 9, 0, 56, static_cast<int8_t>(row.value));
        libruv_set_custom_field_int16(r, 9, 1, 48, static_cast<int16_t>(row.value));
        libruv_set_custom_field_int32(r, 9, 2, 32, static_cast<int32_t>(row.value));
        libruv_set_custom_field_int64(r, 9, 3, row.value);
        EXPECT_EQ(row.byte, word(record, 0));
        EXPECT_EQ(row.half, word(record, 1));
        EXPECT_EQ(row.full, word(record, 2));
        EXPECT_EQ(static_cast<uint64_t>(row.value) + 0x8000000000000000u, word(record, 3));
    }
    const auto record = kit::make(1, 6, 2);
    libruv_set_custom_field_int64(record.get(), 9, 3, std::numeric_limits<int64_t>::min());
    EXPECT_EQ(0u, word(record, 3));
}

TEST(CustomRows, FloatsFlipTheirSignAndZeroIsSpecial) {
    const struct {
        double value;
        uint32_t narrow;
        uint64_t wide;
    } rows[] = {{1.0, 0xBF800000, 0xBFF0000000000000},
                {-1.0, 0x3F800000, 0x3FF0000000000000},
                {0.0, 0xFF800000, 0xFFF0000000000000},
                {-0.0, 0x00000000, 0x0000000000000000},
                {-2.5, 0x40200000, 0x4004000000000000}};
    for (const auto &row : rows) {
        const auto record = kit::make(1, 6, 2);
        libruv_set_custom_field_float(record.get(), 9, 0, 32, static_cast<float>(row.value));
        libruv_set_custom_field_double(record.get(), 9, 1, row.value);
        EXPECT_EQ(row.narrow, word(record, 0)) << row.value;
        EXPECT_EQ(row.wide, word(record, 1)) << row.value;
    }
    const auto record = kit::make(1, 6, 2);
    libruv_set_custom_field_double(record.get(), 9, 1, std::numeric_limits<double>::denorm_min());
    EXPECT_EQ(0x8000000000000001u, word(record, 1)) << "only +0.0 counts as zero";
}

// Packed words compare as their values do.
TEST(CustomRows, OrderOfWordsIsOrderOfValues) {
    const std::vector<int32_t> values = {std::numeric_limits<int32_t>::min(), -70000, -1, 0, 1, 99,
                                         std::numeric_limits<int32_t>::max()};
    uint64_t last = 0;
    for (size_t i = 0; i < values.size(); ++i) {
        const auto record = kit::make(1, 6, 2);
        libruv_set_custom_field_int32(record.get(), 9, 0, 0, values[i]);
        if (i > 0) {
            EXPECT_LT(last, word(record, 0));
        }
        last = word(record, 0);
    }
}

TEST(CustomRows, BooleansSetAndClearOneBit) {
    for (int off = 0; off < 64; ++off) {
        const auto record = kit::make(1, 6, 2);
        record->data.cfdata.bin[0] = 0x5555555555555555u;
        record->data.cfdata.id[0] = 9;
        const uint64_t bit = uint64_t{1} << (63 - off);
        EXPECT_EQ(0, libruv_set_custom_field_bool(record.get(), 9, 0, off, 1));
        EXPECT_EQ(0x5555555555555555u | bit, word(record, 0));
        EXPECT_EQ(0, libruv_set_custom_field_bool(record.get(), 9, 0, off, 0));
        EXPECT_EQ(0x5555555555555555u & ~bit, word(record, 0));
    }
}

TEST(CustomRows, OtherOwnersKeepTheirRow) {
    const auto record = kit::make(1, 6, 2);
    RUVData_t *r = record.get();
    ASSERT_EQ(0, libruv_set_custom_field_uint32(r, 9, kRow, 0, 1));
    const RUVData_t before = *r;
    int refused = 0;
    const auto refuse = [&](int result) {
        EXPECT_EQ(-1, result);
        EXPECT_EQ(53, ruverrno);
        EXPECT_EQ(0, memcmp(&before, r, sizeof before));
        ruverrno = 0;
        ++refused;
    };
    refuse(libruv_set_custom_field_str(r, 10, kRow, "text", 4));
    refuse(libruv_set_custom_field_bool(r, 10, kRow, 0, 1));
    refuse(libruv_set_custom_field_int8(r, 10, kRow, 0, 1));
    refuse(libruv_set_custom_field_uint8(r, 10, kRow, 0, 1));
    refuse(libruv_set_custom_field_int16(r, 10, kRow, 0, 1));
    refuse(libruv_set_custom_field_uint16(r, 10, kRow, 0, 1));
    refuse(libruv_set_custom_field_int32(r, 10, kRow, 0, 1));
    refuse(libruv_set_custom_field_uint32(r, 10, kRow, 0, 1));
    refuse(libruv_set_custom_field_int64(r, 10, kRow, 1));
    refuse(libruv_set_custom_field_uint64(r, 10, kRow, 1));
    refuse(libruv_set_custom_field_float(r, 10, kRow, 0, 1));
    refuse(libruv_set_custom_field_double(r, 10, kRow, 1));
    EXPECT_EQ(12, refused);
}

// What a damaged catalogue could ask for.
TEST(CustomRows, NoRowAndNoRoomAreCleanErrors) {
    const auto record = kit::make(1, 6, 2);
    const RUVData_t before = *record;
    for (const int row : {-1, 10, 1000, -1000}) {
        EXPECT_EQ(-1, libruv_set_custom_field_uint8(record.get(), 9, row, 0, 1));
        EXPECT_EQ(56, ruverrno);
        EXPECT_EQ(-1, libruv_set_custom_field_str(record.get(), 9, row, "x", 1));
        EXPECT_EQ(56, ruverrno);
        EXPECT_EQ(-1, libruv_set_custom_field_int64(record.get(), 9, row, 1));
        EXPECT_EQ(56, ruverrno);
    }
    for (const int off : {-1, 57, 64, std::numeric_limits<int>::max()}) {
        EXPECT_EQ(-1, libruv_set_custom_field_uint8(record.get(), 9, 0, off, 1));
        EXPECT_EQ(55, ruverrno);
    }
    EXPECT_EQ(-1, libruv_set_custom_field_uint32(record.get(), 9, 0, 33, 1));
    EXPECT_EQ(-1, libruv_set_custom_field_bool(record.get(), 9, 0, 64, 0));
    EXPECT_EQ(0, memcmp(&before, record.get(), sizeof before));
    EXPECT_EQ(0, libruv_set_custom_field_uint32(record.get(), 9, 0, 32, 1));
}

TEST(CustomField, ChecksComeInTheirOrder) {
    catalogue all(all_types());
    const auto expect = [](int error, int result) {
        EXPECT_EQ(-1, result);
        EXPECT_EQ(error, ruverrno);
        ruverrno = 0;
    };
    const auto alert = kit::make(1, 6, 2);
    const auto flow = kit::make(2, 6, 3);
    const uint32_t value = 5;
    // Null data of length 0 is no absent value here.
    expect(52, RUVAlertSet_custom_field(&all.conn, alert.get(), "f.uint32", nullptr, 0));
    expect(52, RUVFlowSet_custom_field(&all.conn, flow.get(), "f.uint32", nullptr, 0));
    expect(52, RUVAlertSet_custom_field(&all.conn, alert.get(), "f.uint32", &value, -1));
    expect(2, RUVAlertSet_custom_field(&all.conn, nullptr, "f.uint32", &value, 4));
    expect(50, RUVAlertSet_custom_field(&all.conn, flow.get(), "f.uint32", &value, 4));
    expect(50, RUVFlowSet_custom_field(&all.conn, alert.get(), "f.uint32", &value, 4));
    for (int version = 1; version <= 5; ++version) {
        expect(51,
               RUVAlertSet_custom_field(&all.conn, kit::make(1, version).get(), "no", &value, 4));
        expect(51,
               RUVFlowSet_custom_field(&all.conn, kit::make(2, version).get(), "no", &value, 4));
    }
    expect(59, RUVAlertSet_custom_field(&all.conn, kit::make(1, 6, 1).get(), "no", &value, 4));
    expect(59, RUVFlowSet_custom_field(&all.conn, kit::make(2, 6, 1).get(), "no", &value, 4));
    expect(56, RUVAlertSet_custom_field(&all.conn, alert.get(), "no", &value, 4));
    expect(56, RUVFlowSet_custom_field(&all.conn, flow.get(), nullptr, &value, 4));
    expect(2, RUVAlertSet_custom_field(nullptr, alert.get(), "f.uint32", &value, 4));
    EXPECT_EQ(0, RUVAlertSet_custom_field(&all.conn, alert.get(), "f.uint32", &value, 4));
    EXPECT_EQ(0, RUVFlowSet_custom_field(&all.conn, flow.get(), "f.uint32", &value, 4));
}

// Each type with a value, the word it must give in row 7, and no other length than its own.
TEST(CustomField, EveryTypeOfTheCatalogue) {
    catalogue all(all_types());
    const unsigned char bytes[8] = {0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8};
    const struct {
        const char *name;
        int size;
        uint64_t word;
        int id;
    } rows[] = {{"f.boolean", 4, uint64_t{1} << 60, 22},
                {"f.int8", 1, uint64_t{0x71} << 48, 23},
                {"f.uint8", 1, uint64_t{0xF1} << 48, 24},
                {"f.int16", 2, uint64_t{0x72F1} << 32, 25},
                {"f.uint16", 2, uint64_t{0xF2F1} << 32, 26},
                {"f.int32", 4, uint64_t{0x74F3F2F1} << 32, 27},
                {"f.uint32", 4, 0xF4F3F2F1, 28},
                {"f.int64", 8, 0x78F7F6F5F4F3F2F1, 29},
                {"f.uint64", 8, 0xF8F7F6F5F4F3F2F1, 30},
                {"f.ipv4", 4, uint64_t{0xF4F3F2F1} << 16, 31},
                {"f.proto", 1, 0xF1, 32},
                {"f.port", 2, 0xF2F1, 33},
                {"f.float", 4, 0x74F3F2F1, 34},
                {"f.double", 8, 0x78F7F6F5F4F3F2F1, 35}};
    for (const auto &row : rows)
        for (int size = 0; size <= 8; ++size) {
            const auto record = kit::make(1, 6, 3);
            const int result =
                RUVAlertSet_custom_field(&all.conn, record.get(), row.name, bytes, size);
            EXPECT_EQ(size == row.size ? 0 : -1, result) << row.name << size;
            if (size != row.size) {
                EXPECT_EQ(54, ruverrno);
            }
            EXPECT_EQ(size == row.size ? row.word : 0, word(record, 7)) << row.name;
            EXPECT_EQ(size == row.size ? row.id : 0, record->data.cfdata.id[7]);
            EXPECT_EQ(0u, record->data.ok_to_send) << "custom fields mark no bit";
        }
}

TEST(CustomField, TypesThatCannotBeWritten) {
    catalogue all(all_types());
    const auto record = kit::make(1, 6, 2);
    for (const char *name : {"f.none", "f.beyond"}) {
        EXPECT_EQ(-1, RUVAlertSet_custom_field(&all.conn, record.get(), name, "x", 0));
        EXPECT_EQ(55, ruverrno);
        EXPECT_EQ(-1, RUVAlertSet_custom_field(&all.conn, record.get(), name, "x", 1));
        EXPECT_EQ(54, ruverrno);
    }
    EXPECT_EQ(-1, RUVAlertSet_custom_field(&all.conn, record.get(), "f.norow", "abcd", 4));
    EXPECT_EQ(56, ruverrno);
    EXPECT_EQ(-1, RUVAlertSet_custom_field(&all.conn, record.get(), "f.pushed", "abcd", 4));
    EXPECT_EQ(55, ruverrno);
    EXPECT_EQ(-1, RUVAlertSet_custom_field(&all.conn, record.get(), "f.nostring", "abcd", 4));
    EXPECT_EQ(56, ruverrno);
}

TEST(CustomField, StringsOfAlerts) {
    catalogue all(all_types());
    const std::string text(300, 't');
    for (const int subver : {2, 3}) {
        const auto record = kit::make(1, 6, subver);
        EXPECT_EQ(255,
                  RUVAlertSet_custom_field(&all.conn, record.get(), "f.string", text.c_str(), 0));
        EXPECT_EQ(255,
                  RUVAlertSet_custom_field(&all.conn, record.get(), "f.string", text.c_str(), 300));
        EXPECT_EQ(3, RUVAlertSet_custom_field(&all.conn, record.get(), "f.string", "abc", 0));
        EXPECT_EQ(3, record->data.cfdata.len[7]);
        EXPECT_EQ(21, record->data.cfdata.id[7]);
        const uint8_t flag = 1;
        EXPECT_EQ(-1, RUVAlertSet_custom_field(&all.conn, record.get(), "f.uint8", &flag, 1));
        EXPECT_EQ(53, ruverrno) << "the row belongs to another id";
        EXPECT_EQ(0, RUVAlertSet_custom_field(&all.conn, record.get(), "f.late", "", 0));
        EXPECT_EQ(39, record->data.cfdata.id[8]);
    }
}

TEST(CustomField, StringsOfFlows) {
    catalogue all(all_types());
    const auto second = kit::make(2, 6, 2);
    EXPECT_EQ(-1, RUVFlowSet_custom_field(&all.conn, second.get(), "f.string", "abc", 3));
    EXPECT_EQ(59, ruverrno);
    const auto third = kit::make(2, 6, 3);
    EXPECT_EQ(3, RUVFlowSet_custom_field(&all.conn, third.get(), "f.string", "abc", 3));
    EXPECT_EQ(21, third->data.cfdata.id[5]);
    EXPECT_EQ(-1, RUVFlowSet_custom_field(&all.conn, third.get(), "f.late", "abc", 3));
    EXPECT_EQ(59, ruverrno) << "row 6 takes no strings";
    const int on = 1;
    EXPECT_EQ(0, RUVFlowSet_custom_field(&all.conn, second.get(), "f.boolean", &on, 4));
    EXPECT_EQ(uint64_t{1} << 60, word(second, 0));
}

}  // namespace
