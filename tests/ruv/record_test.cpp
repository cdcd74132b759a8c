// Allocating, resetting and freeing records.
#include "ruv/record.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "tests/ruv/record_kit.h"

namespace {

struct outcome {
    bool made;
    int error, argument;  // when not made
    int ver, sver;        // when made
    bool operator==(const outcome &) const = default;
};

std::ostream &operator<<(std::ostream &out, const outcome &o) {
    return out << (o.made ? "made " : "refused ") << o.error << "(" << o.argument << ") " << o.ver
               << "." << o.sver;
}

outcome alloc(RUVConn *conn, int type, int ver, int subver) {
    ruverrno = ruverrno2 = -77;
    const kit::record_ptr record(static_cast<RUVData_t *>(RUVAllocData(conn, type, ver, subver)));
    if (!record) return {false, ruverrno, ruverrno2, 0, 0};
    EXPECT_EQ(-77, ruverrno) << "success leaves the error alone";
    EXPECT_EQ(static_cast<uint32_t>(type), record->ctl.type);
    EXPECT_EQ(type == 4 ? 43 : 0, record->ctl.tpt);
    const auto *bytes = reinterpret_cast<const char *>(&record->data);
    EXPECT_EQ(std::string(sizeof record->data, '\0'), std::string(bytes, sizeof record->data));
    return {true, 0, 0, record->ctl.ver, record->ctl.sver};
}

// A Receiver that takes version `ver` of type 3 with the sub-versions of `mask`, and nothing else.
struct one_offer : kit::connection {
    one_offer(int ver, uint16_t mask) {
        conn.data_types = 1 << 3;
        memset(conn.data_versions, 0, sizeof conn.data_versions);
        conn.data_versions[3][ver - 1] = mask;
    }
};

TEST(Record, OrderOfFieldsIsTheDocumentedOne) {
    EXPECT_EQ(0u, offsetof(RUVData_t, ctl.ver));
    EXPECT_EQ(4u, offsetof(RUVData_t, ctl.sver));
    EXPECT_EQ(8u, offsetof(RUVData_t, ctl.tpt));
    EXPECT_EQ(12u, offsetof(RUVData_t, ctl.type));
    EXPECT_EQ(16u, offsetof(RUVData_t, data.ok_to_send));
    EXPECT_EQ(24u, offsetof(RUVData_t, data.data.session_id));
    EXPECT_LT(offsetof(RUVData_t, data.data), offsetof(RUVData_t, data.cfdata));
}

TEST(RecordAlloc, NoConnection) {
    EXPECT_EQ((outcome{false, 2, 1, 0, 0}), alloc(nullptr, 3, 6, 1));
}

// Every combination of arguments in and out of range, on a Receiver that takes everything: the
// first argument that is wrong is the one that is named.
TEST(RecordAlloc, AllArgumentsOnAReceiverThatTakesEverything) {
    kit::connection all;
    for (int type = -1; type <= 6; ++type)
        for (int ver = -1; ver <= 8; ++ver)
            for (int subver = -1; subver <= 5; ++subver) {
                outcome expected = {true, 0, 0, ver == 0 ? 6 : ver, subver == 0 ? 1 : subver - 1};
                if (type < 1 || type > 4)
                    expected = {false, 2, 2, 0, 0};
                else if (ver < 0 || ver > 6)
                    expected = {false, 2, 3, 0, 0};
                else if (subver < 0 || subver > 3)
                    expected = {false, 2, 4, 0, 0};
                EXPECT_EQ(expected, alloc(&all.conn, type, ver, subver))
                    << type << " " << ver << " " << subver;
            }
}

TEST(RecordAlloc, TypeThatTheReceiverDoesNotTake) {
    for (int type = 1; type <= 4; ++type) {
        kit::connection most;
        most.conn.data_types = static_cast<uint16_t>(0x1F & ~(1 << type));
        for (int other = 1; other <= 4; ++other)
            EXPECT_EQ(
                other == type ? (outcome{false, 15, type, 0, 0}) : (outcome{true, 0, 0, 6, 1}),
                alloc(&most.conn, other, 0, 0));
    }
}

TEST(RecordAlloc, HighestVersionIsTheDefault) {
    for (int ver = 1; ver <= 6; ++ver) {
        one_offer some(ver, 1);
        if (ver > 1) some.conn.data_versions[3][0] = 1;
        EXPECT_EQ((outcome{true, 0, 0, ver, 0}), alloc(&some.conn, 3, 0, 0));
        EXPECT_EQ((outcome{true, 0, 0, ver, 0}), alloc(&some.conn, 3, ver, 1));
    }
}

TEST(RecordAlloc, VersionThatTheReceiverDoesNotTake) {
    one_offer only5(5, 1);
    for (int ver = 1; ver <= 6; ++ver)
        EXPECT_EQ(ver == 5 ? (outcome{true, 0, 0, 5, 0}) : (outcome{false, 16, ver, 0, 0}),
                  alloc(&only5.conn, 3, ver, 0));
}

TEST(RecordAlloc, TypeWithoutAnyVersion) {
    one_offer none(6, 0);
    for (int subver = 0; subver <= 3; ++subver)
        EXPECT_EQ((outcome{false, 16, 0, 0, 0}), alloc(&none.conn, 3, 0, subver));
}

// All masks of sub-versions: the default is 2, else 1, never 3.
TEST(RecordAlloc, SubversionsOfEveryMask) {
    const outcome none = {false, 17, 0, 0, 0}, first = {true, 0, 0, 6, 0},
                  second = {true, 0, 0, 6, 1};
    const std::vector<outcome> defaults = {
        {false, 16, 6, 0, 0}, first, second, second, none, first, second, second};
    for (uint16_t mask = 0; mask < 8; ++mask) {
        one_offer some(6, mask);
        EXPECT_EQ(defaults[mask], alloc(&some.conn, 3, 6, 0)) << mask;
        for (int subver = 1; subver <= 3; ++subver) {
            outcome expected = {true, 0, 0, 6, subver - 1};
            if (mask == 0)
                expected = {false, 16, 6, 0, 0};
            else if ((mask >> (subver - 1) & 1) == 0)
                expected = {false, 17, subver, 0, 0};
            EXPECT_EQ(expected, alloc(&some.conn, 3, 6, subver)) << mask << " " << subver;
        }
    }
}

TEST(RecordAlloc, ExamplesOfTheContract) {
    one_offer both(6, 3), third(6, 4);
    EXPECT_EQ((outcome{true, 0, 0, 6, 1}), alloc(&both.conn, 3, 0, 0));
    EXPECT_EQ((outcome{false, 17, 0, 0, 0}), alloc(&third.conn, 3, 6, 0));
    EXPECT_EQ((outcome{true, 0, 0, 6, 2}), alloc(&third.conn, 3, 6, 3));
}

TEST(RecordReset, ClearsDataAndKeepsControl) {
    const auto record = kit::make(1, 6, 2);
    ASSERT_EQ(0, RUVAlertSet_3rd_party_type(record.get(), 9));
    ASSERT_EQ(0, RUVAlertSet_severity(record.get(), 9));
    ASSERT_EQ(4, RUVAlertSet_hostname(record.get(), "host", 0));
    record->data.cfdata.id[7] = 12;
    RUVResetData(record.get());
    const auto *bytes = reinterpret_cast<const char *>(&record->data);
    EXPECT_EQ(std::string(sizeof record->data, '\0'), std::string(bytes, sizeof record->data));
    EXPECT_EQ(6, record->ctl.ver);
    EXPECT_EQ(1, record->ctl.sver);
    EXPECT_EQ(1u, record->ctl.type);
    EXPECT_EQ(9, record->ctl.tpt);
    EXPECT_EQ(4, RUVAlertSet_hostname(record.get(), "next", 0));
}

TEST(RecordReset, FreesTheRowsForOtherFields) {
    const auto record = kit::make(1, 6, 2);
    record->data.cfdata.id[6] = 99;
    ASSERT_EQ(-1, RUVAlertSet_src_user(record.get(), "u", 1));
    ASSERT_EQ(53, ruverrno);
    RUVResetData(record.get());
    EXPECT_EQ(1, RUVAlertSet_src_user(record.get(), "u", 1));
}

TEST(Record, NullRecordIsAnErrorAndNothingElse) {
    ruverrno = ruverrno2 = 0;
    RUVResetData(nullptr);
    EXPECT_EQ(2, ruverrno);
    EXPECT_EQ(1, ruverrno2);
    ruverrno = ruverrno2 = 0;
    RUVFreeData(nullptr);
    EXPECT_EQ(2, ruverrno);
    EXPECT_EQ(1, ruverrno2);
}

TEST(RecordTrace, LinesOnEntryAndExit) {
    kit::connection all;
    ASSERT_EQ(0, RUVSetLogging(0x01));
    testing::internal::CaptureStderr();
    void *record = RUVAllocData(&all.conn, 3, 6, 1);
    RUVAllocData(&all.conn, 9, 6, 1);
    RUVResetData(record);
    RUVResetData(nullptr);
    RUVFreeData(record);
    const std::string lines = testing::internal::GetCapturedStderr();
    RUVSetLogging(0);
    EXPECT_EQ(
        "libruv -- function enter: RUVAllocData\nlibruv -- function exit: RUVAllocData\n"
        "libruv -- function enter: RUVAllocData\nlibruv -- function error exit: RUVAllocData [2]\n"
        "libruv -- function enter: RUVResetData\nlibruv -- function exit: RUVResetData\n"
        "libruv -- function enter: RUVResetData\nlibruv -- function error exit: RUVResetData [2]\n"
        "libruv -- function enter: RUVFreeData\nlibruv -- function exit: RUVFreeData\n",
        lines);
}

TEST(RecordTrace, ResetIsATracePointBeforeAndAfter) {
    RUVData_t record;
    ASSERT_EQ(0, RUVSetLogging(0x08));
    testing::internal::CaptureStderr();
    libruv_reset_data(&record);
    const std::string lines = testing::internal::GetCapturedStderr();
    RUVSetLogging(0);
    int first = 0, second = 0;
    char end = 0;
    ASSERT_EQ(3, sscanf(lines.c_str(),
                        "libruv -- ruvlib -- libruv_reset_data -- %d\n"
                        "libruv -- ruvlib -- libruv_reset_data -- %d%c",
                        &first, &second, &end))
        << lines;
    EXPECT_LT(first, second);
    EXPECT_EQ('\n', end);
}

}  // namespace
