#include "ruv/catalogue.h"

#include <cstring>

#include "tests/ruv/link_kit.h"

namespace {

struct catalogue {
    RUVConn conn = {};
    int result = 0;
    explicit catalogue(std::string text) { result = load(std::move(text)); }
    ~catalogue() { libruv_free_catalogue(&conn.cfi); }
    int load(std::string text) { return libruv_load_catalogue(&conn.cfi, text.data()); }
    const custom_field_info_t &operator[](int i) const { return conn.cfi.cfi[i]; }
    int count() const { return conn.cfi.custom_fields_cnt; }
};

// A section of the file.
std::string field(int id, const char *name, const char *use, const char *type, int rowa, int rowf,
                  int off) {
    return std::string("[section]\n") + "UserField.ID=" + std::to_string(id) +
           "\nUserField.Name=" + name + "\nUserFieldUse.Name=" + use +
           "\nUserFieldUse.FldType=" + type + "\nUserField.UDFldE=" + std::to_string(rowa) +
           "\nUserField.UDFldF=" + std::to_string(rowf) +
           "\nUserFieldUse.Offset=" + std::to_string(off) + "\n";
}

TEST(Catalogue, ReadsAFieldWithAllItsKeys) {
    const catalogue c(field(5, "Disk", "Free", "uint32", 4, 2, 16));
    ASSERT_EQ(c.result, 0);
    ASSERT_EQ(c.count(), 1);
    EXPECT_STREQ(c[0].name, "Disk.Free");
    EXPECT_EQ(c[0].id, 5);
    EXPECT_EQ(c[0].type, 8);
    EXPECT_EQ(c[0].size_of, 4);
    EXPECT_EQ(c[0].rowa, 3);
    EXPECT_EQ(c[0].rowf, 1);
    EXPECT_EQ(c[0].off, 16);
}

TEST(Catalogue, TypeNamesHaveTheirCodesAndSizes) {
    struct row {
        const char *name;
        int code, size;
        const char *printed;
    };
    const row rows[] = {
        {"string", 1, 0, "string"},  {"boolean", 2, 4, "boolean"}, {"int8", 3, 1, "int8"},
        {"uint8", 4, 1, "uint8"},    {"int16", 5, 2, "int16"},     {"uint16", 6, 2, "uint16"},
        {"int32", 7, 4, "int32"},    {"uint32", 8, 4, "uint32"},   {"int64", 9, 8, "int64"},
        {"uint64", 10, 8, "uint64"}, {"ipv4", 11, 4, "ipv4"},      {"protocol", 12, 1, "proto"},
        {"port", 13, 2, "port"},     {"float4", 14, 4, "float"},   {"float", 15, 8, "double"},
        {"double", 0, 0, "none"},    {"", 0, 0, "none"},           {"String", 0, 0, "none"},
        {"uint32 ", 0, 0, "none"},   {"uint32\r", 0, 0, "none"},
    };
    for (const row &r : rows) {
        const catalogue c(field(1, "a", "b", r.name, 1, 1, 0));
        ASSERT_EQ(c.count(), 1) << r.name;
        EXPECT_EQ(c[0].type, r.code) << r.name;
        EXPECT_EQ(c[0].size_of, r.size) << r.name;
        EXPECT_STREQ(cftype_to_string[c[0].type], r.printed);
    }
}

TEST(Catalogue, RowsAndOffsetsOutsideTheirRangeAreMarked) {
    struct row {
        int rowa, rowf, off, expected_a, expected_f;
    };
    const row rows[] = {
        {1, 1, 0, 0, 0},     {10, 7, 63, 9, 6},  {11, 8, 0, -1, -1}, {0, 0, 0, -1, -1},
        {-5, -1, 0, -1, -1}, {1, 1, 64, -1, -1}, {1, 1, -1, -1, -1},
    };
    for (const row &r : rows) {
        const catalogue c(field(1, "a", "b", "uint8", r.rowa, r.rowf, r.off));
        ASSERT_EQ(c.count(), 1);
        EXPECT_EQ(c[0].rowa, r.expected_a);
        EXPECT_EQ(c[0].rowf, r.expected_f);
        EXPECT_EQ(c[0].off, r.off);
    }
    // A bad offset takes the rows named so far; one that is named behind it holds.
    const catalogue late(
        "[f]\nUserField.UDFldF=4\nUserFieldUse.Offset=64\nUserField.UDFldE=3\n"
        "[g]\nUserFieldUse.Offset=-1\nUserField.UDFldE=11\nUserField.UDFldF=3\n");
    EXPECT_EQ(late[0].rowa, 2);
    EXPECT_EQ(late[0].rowf, -1);
    EXPECT_EQ(late[0].off, 64);
    EXPECT_EQ(late[1].rowa, -1);
    EXPECT_EQ(late[1].rowf, 2);
    // Huge numbers are no rows either.
    const catalogue huge(
        "[f]\nUserField.UDFldE=99999999999999999999\nUserField.UDFldF=-9999999999\n");
    EXPECT_EQ(huge[0].rowa, -1);
    EXPECT_EQ(huge[0].rowf, -1);
}

TEST(Catalogue, AFieldWithoutRowsHasRowZero) {
    const catalogue c("[f]\nUserField.ID=3\n");
    EXPECT_EQ(c[0].rowa, 0);
    EXPECT_EQ(c[0].rowf, 0);
    EXPECT_STREQ(c[0].name, "");
}

TEST(Catalogue, OneIdGroupsItsFieldsByOffset) {
    const catalogue c(
        field(5, "a", "late", "uint8", 1, 1, 32) + field(2, "b", "x", "uint8", 2, 2, 0) +
        field(5, "a", "early", "uint8", 1, 1, 8) + field(5, "a", "same", "uint8", 1, 1, 32));
    ASSERT_EQ(c.conn.cfi.cfid_to_cfis_cnt, 2);
    const cfid_to_cfi_t *groups = c.conn.cfi.id_to_userfields;
    EXPECT_EQ(groups[0].id, 2);
    EXPECT_EQ(groups[0].cnt, 1);
    ASSERT_EQ(groups[1].cnt, 3);
    EXPECT_STREQ(groups[1].cfi[0]->name, "a.early");
    EXPECT_STREQ(groups[1].cfi[1]->name, "a.late");
    EXPECT_STREQ(groups[1].cfi[2]->name, "a.same");
}

TEST(Catalogue, FindsById) {
    std::string text;
    for (const int id : {9, 3, 7, 1, 65'535, 0})
        text += field(id, "f", std::to_string(id).c_str(), "int8", 1, 1, 0);
    catalogue c(text);
    for (const int id : {9, 3, 7, 1, 65'535, 0}) {
        cfid_to_cfi_t *group = find_cfi_by_id(&c.conn, static_cast<uint16_t>(id));
        ASSERT_NE(group, nullptr) << id;
        EXPECT_EQ(group->cfi[0]->name, "f." + std::to_string(id));
    }
    for (const int id : {2, 8, 10, 65'534})
        EXPECT_EQ(find_cfi_by_id(&c.conn, static_cast<uint16_t>(id)), nullptr);
    RUVConn empty = {};
    EXPECT_EQ(find_cfi_by_id(&empty, 0), nullptr);
}

TEST(Catalogue, FindsByName) {
    catalogue c(field(1, "b", "b", "int8", 1, 1, 0) + field(2, "a", "z", "int8", 1, 1, 0) +
                field(3, "c", "", "int8", 1, 1, 0) + field(4, "B", "b", "int8", 1, 1, 0));
    for (const auto &[name, id] : {std::pair{"b.b", 1}, {"a.z", 2}, {"c.", 3}, {"B.b", 4}}) {
        custom_field_info_t *found = libruv_lookup_custom_field(&c.conn, name);
        ASSERT_NE(found, nullptr) << name;
        EXPECT_EQ(found->id, id);
    }
    clear_error();
    for (const char *name : {"", "a", "zz", "b.B", "c"})
        EXPECT_EQ(libruv_lookup_custom_field(&c.conn, name), nullptr) << name;
    EXPECT_EQ(ruverrno, 0);
    for (int i = 1; i < c.count(); ++i)
        EXPECT_LE(strcmp(c.conn.cfi.name_name[i - 1], c.conn.cfi.name_name[i]), 0);
    RUVConn empty = {};
    EXPECT_EQ(libruv_lookup_custom_field(&empty, "a"), nullptr);
}

TEST(Catalogue, EqualNamesKeepTheirFileOrder) {
    const catalogue c(field(2, "a", "b", "int8", 1, 1, 0) + field(1, "a", "b", "int8", 1, 1, 0));
    EXPECT_EQ(c.conn.cfi.name_cfi[0]->id, 2);
    EXPECT_EQ(c.conn.cfi.name_cfi[1]->id, 1);
    EXPECT_EQ(c.conn.cfi.name_name[0], c.conn.cfi.name_cfi[0]->name);
}

TEST(Catalogue, ReadsNothingAfterTheLastLineFeed) {
    const catalogue c("[f]\nUserField.ID=3\nUserField.Name=x");
    EXPECT_EQ(c[0].id, 3);
    EXPECT_STREQ(c[0].name, "");
}

TEST(Catalogue, AFileWithoutSectionsIsEmptyAndDropsTheOldOne) {
    catalogue c(field(1, "a", "b", "int8", 1, 1, 0));
    ASSERT_EQ(c.count(), 1);
    EXPECT_EQ(c.load("UserField.ID=4\nno section at all\n"), 0);
    EXPECT_EQ(c.count(), 0);
    EXPECT_EQ(c.conn.cfi.cfid_to_cfis_cnt, 0);
    EXPECT_EQ(libruv_lookup_custom_field(&c.conn, "a.b"), nullptr);
    EXPECT_EQ(c.load(""), 0);
    EXPECT_EQ(c.count(), 0);
}

TEST(Catalogue, ANewFileReplacesTheOldOne) {
    catalogue c(field(1, "a", "b", "int8", 1, 1, 0) + field(2, "c", "d", "int8", 1, 1, 0));
    EXPECT_EQ(c.load(field(9, "n", "m", "int8", 1, 1, 0)), 0);
    EXPECT_EQ(c.count(), 1);
    EXPECT_EQ(c.conn.cfi.cfid_to_cfis_cnt, 1);
    EXPECT_EQ(libruv_lookup_custom_field(&c.conn, "a.b"), nullptr);
    EXPECT_NE(libruv_lookup_custom_field(&c.conn, "n.m"), nullptr);
}

TEST(Catalogue, EveryBracketCountsButOnlyALinesFirstOneOpensASection) {
    const catalogue c("[f]\nUserField.Name=a[1]\nUserField.ID=4\n[g] UserField.ID=9\n");
    ASSERT_EQ(c.count(), 3);
    EXPECT_STREQ(c[0].name, "a[1]");
    EXPECT_EQ(c[0].id, 4);
    EXPECT_EQ(c[1].id, 0);
    EXPECT_STREQ(c[2].name, "");
    EXPECT_EQ(c.conn.cfi.cfid_to_cfis_cnt, 2);
}

TEST(Catalogue, TheFirstKeyFoundAnywhereInTheLineWins) {
    const catalogue c("[f]\nUserField.Name=UserField.ID\nx UserField.ID y=12z\n");
    EXPECT_STREQ(c[0].name, "");
    EXPECT_EQ(c[0].id, 12);
}

TEST(Catalogue, TheValueBeginsAfterTheFirstEquals) {
    const catalogue c("[f]\nUserField.Name=a=b\nUserFieldUse.Name=\nOther=1\nUserField.ID\n");
    EXPECT_STREQ(c[0].name, "a=b.");
    EXPECT_EQ(c[0].id, 0);
}

TEST(Catalogue, LinesBeforeTheFirstSectionBelongToNothing) {
    const catalogue c("UserField.ID=9\nUserField.Name=x\n[f]\nUserField.ID=1\n");
    ASSERT_EQ(c.count(), 1);
    EXPECT_EQ(c[0].id, 1);
}

TEST(Catalogue, LongNamesAreCutToTheEntry) {
    const std::string longest(81, 'n');
    catalogue exact("[f]\nUserField.Name=" + longest.substr(0, 40) +
                    "\nUserFieldUse.Name=" + longest.substr(0, 40) + "\n");
    EXPECT_EQ(strlen(exact[0].name), 81u);
    catalogue c("[f]\nUserField.ID=5\nUserField.Name=" + std::string(5000, 'n') +
                "\nUserFieldUse.Name=" + std::string(5000, 'm') + "\n");
    EXPECT_EQ(c[0].name, longest);
    EXPECT_EQ(c[0].id, 5);
    EXPECT_NE(libruv_lookup_custom_field(&c.conn, longest.c_str()), nullptr);
}

TEST(Catalogue, AGroupHoldsSixtyFourFieldsAndTheRestIsFoundByName) {
    std::string text;
    for (int i = 0; i < 70; ++i)
        text += field(5, "n", std::to_string(i).c_str(), "int8", 1, 1, 63 - i % 64);
    catalogue c(text);
    ASSERT_EQ(c.result, 0);
    ASSERT_EQ(c.conn.cfi.cfid_to_cfis_cnt, 1);
    EXPECT_EQ(c.conn.cfi.id_to_userfields[0].cnt, 64);
    EXPECT_STREQ(c.conn.cfi.id_to_userfields[0].cfi[0]->name, "n.63");
    EXPECT_NE(libruv_lookup_custom_field(&c.conn, "n.69"), nullptr);
}

TEST(Catalogue, IdsAreTheSixteenBitsOfTheWire) {
    catalogue c(field(65'536 + 5, "a", "b", "int8", 1, 1, 0) + field(5, "c", "d", "int8", 1, 1, 1));
    ASSERT_EQ(c.conn.cfi.cfid_to_cfis_cnt, 1);
    EXPECT_EQ(find_cfi_by_id(&c.conn, 5)->cnt, 2);
}

TEST(Catalogue, TooManyFieldsAreRefused) {
    EXPECT_EQ(catalogue(std::string(65'536, '[')).result, 0);
    clear_error();
    catalogue c(std::string(65'537, '['));
    EXPECT_EQ(c.result, -1);
    EXPECT_EQ(ruverrno, 1);
    EXPECT_EQ(c.count(), 0);
}

// ---- The download.

fake::receiver::script offer(const std::string &answer) {
    return [answer](fake::peer &p) {
        fake::version6 v;
        v.versions = {{6, 0, 7}};
        if (fake::serve_one(p, v) && fake::serve_one(p, v)) {
            fake::read_header(p);
            p.send(answer);
        }
    };
}

TEST(Download, HostileSizesAreErrors) {
    struct row {
        std::string answer;
        int error;
    };
    const row rows[] = {
        {fake::kOkay + fake::bytes_of(int32_t{-1}), 1},
        {fake::kOkay + fake::bytes_of(INT32_MIN), 1},
        {fake::kOkay + fake::bytes_of(int32_t{(16 << 20) + 1}), 1},
        {fake::kOkay + fake::bytes_of(INT32_MAX), 1},
        {fake::kOkay + fake::bytes_of(int32_t{10}) + "[f]", 3},
        {fake::kOkay + "\1", 3},
        {fake::kNotOkay, 13},
    };
    for (const row &r : rows) {
        fake::receiver receiver(offer(r.answer));
        conn_ptr conn = make_conn(receiver.port());
        clear_error();
        EXPECT_EQ(RUVOpen(conn.get()), -1);
        EXPECT_EQ(ruverrno, r.error);
        EXPECT_EQ(conn->cfi.custom_fields_cnt, 0);
    }
}

TEST(Download, AnEmptyFileIsNoFailure) {
    fake::receiver receiver(offer(fake::kOkay + fake::bytes_of(int32_t{0})));
    conn_ptr conn = open_conn(receiver.port());
    EXPECT_EQ(conn->cfi.custom_fields_cnt, 0);
    EXPECT_EQ(receiver.wait_received(48), request_bytes(0) + request_bytes(2) + request_bytes(7));
}

TEST(Download, ANulByteEndsTheText) {
    const std::string text("[f]\nUserField.ID=3\n\0[g]\n", 24);
    fake::receiver receiver(offer(fake::kOkay + fake::bytes_of(int32_t{24}) + text));
    conn_ptr conn = open_conn(receiver.port());
    EXPECT_EQ(conn->cfi.custom_fields_cnt, 1);
}

}  // namespace
