// Syslog bodies, and what holds for the units of every type.
#include <gtest/gtest.h>

#include "ruv/bodies.h"
#include "tests/ruv/record_kit.h"

namespace {

using kit::raw;

TEST(EncodeSyslog, Version6IsTwentySevenBytesForThreeOfMessage) {
    for (int subver = 1; subver <= 3; ++subver) {
        const auto record = kit::make(3, 6, subver);
        ASSERT_EQ(3, RUVSyslogSet_message(record.get(), "abc", 3));
        ASSERT_EQ(0, RUVSyslogSet_collect_time(record.get(), 0x5F3A2B1C));
        ASSERT_EQ(0, RUVSyslogSet_3rd_party_type(record.get(), 0x0102));
        const int sver = subver - 1;
        EXPECT_EQ(raw({0x55, 0xAA, 0x55,      0xAA, 0xCE, 0xFA, 0xED, 0xFE,  // magic
                       6,    3,    sver << 4, 0,    0x02, 0x01, 0x34, 0x12,  // header
                       0x1C, 0x2B, 0x3A,      0x5F, 0,    0,    3,    0,
                       'a',  'b',  'c'}),  // body, message
                  kit::encoded(record));
    }
}

TEST(EncodeSyslog, LegacyVersions) {
    const RUVDSInfo v4 = kit::ipv4_source();
    const RUVDSInfo v6 = kit::ipv6_source();
    char name[] = "host";
    const RUVDSInfo host = kit::host_source(name);
    for (int version = 3; version <= 5; ++version) {
        const auto record = kit::make(3, version);
        ASSERT_EQ(2, RUVSyslogSet_message(record.get(), "hi", 0));
        ASSERT_EQ(0, RUVSyslogSet_3rd_party_type(record.get(), 0xABCD));
        const std::string with_source =
            kit::kMagicBytes + raw({version, 5, 0xCD, 0xAB, 3, 2, 1, 10, 2, 0, 0, 0, 'h', 'i'});
        const std::string without =
            kit::kMagicBytes + raw({version, 5, 0xCD, 0xAB, 0, 0, 0, 0, 2, 0, 0, 0, 'h', 'i'});
        EXPECT_EQ(with_source, kit::encoded(record, &v4));
        EXPECT_EQ(without, kit::encoded(record));
        EXPECT_EQ(without, kit::encoded(record, &v6));
        EXPECT_EQ(without, kit::encoded(record, &host));
    }
}

TEST(EncodeSyslog, Versions1And2NeverExisted) {
    for (int version = 1; version <= 2; ++version) {
        const auto record = kit::make(3, version);
        record->data.ok_to_send = 0x2;
        EXPECT_EQ("error 2", kit::encoded(record));
    }
}

TEST(EncodeSyslog, MessageIsRequired) {
    for (int version = 1; version <= 6; ++version) {
        const auto record = kit::make(3, version);
        RUVSyslogSet_collect_time(record.get(), 1);
        record->data.ok_to_send |= ~uint64_t{2};
        EXPECT_EQ("error 18", kit::encoded(record));
    }
}

TEST(EncodeSyslog, EmptyMessageIsAnEmptySegment) {
    const auto record = kit::make(3, 6);
    ASSERT_EQ(0, RUVSyslogSet_message(record.get(), "", 0));
    EXPECT_EQ(kit::start6(3, 0, 0, 0x1234) + std::string(8, '\0'), kit::encoded(record));
}

// The length field has 16 bits; whatever is longer is cut, and field and segment agree.
TEST(EncodeSyslog, LengthFieldAndSegmentAreOneValue) {
    const std::string text(70000, 'x');
    for (const int length : {65534, 65535, 65536, 70000}) {
        const int kept = std::min(length, 65535);
        for (const int version : {3, 5, 6}) {
            const auto record = kit::make(3, version);
            ASSERT_EQ(kept, RUVSyslogSet_message(record.get(), text.data(), length));
            const std::string unit = kit::encoded(record);
            const size_t start = version == 6 ? 24 : 20;
            ASSERT_EQ(start + static_cast<size_t>(kept), unit.size());
            EXPECT_EQ(version == 6
                          ? kit::image(2).at<uint16_t>(0, static_cast<uint16_t>(kept)).bytes()
                          : kit::image(4).at<uint32_t>(0, static_cast<uint32_t>(kept)).bytes(),
                      unit.substr(version == 6 ? 22 : 16, version == 6 ? 2 : 4));
        }
    }
}

TEST(EncodeUnit, ReencodingGivesTheSameBytes) {
    const auto record = kit::make(3, 6);
    RUVSyslogSet_message(record.get(), "again", 0);
    const std::string first = kit::encoded(record);
    EXPECT_EQ(first, kit::encoded(record));
}

TEST(EncodeUnit, AlertAndFlowOfAnUnknownSubversionAreMagicAndHeaderOnly) {
    for (const int type : {1, 2}) {
        const auto record = kit::make(type, 6);
        record->data.ok_to_send = type == 1 ? 0x8 : 0x20;
        record->ctl.sver = 3;
        EXPECT_EQ(kit::start6(static_cast<unsigned>(type), 3, 0, 0x1234), kit::encoded(record));
    }
}

TEST(EncodeUnit, OtherTypesHaveOneBodyWhateverTheSubversion) {
    for (const int sver : {0, 1, 2, 3, 4095}) {
        const auto record = kit::make(3, 6);
        record->ctl.sver = sver;
        RUVSyslogSet_message(record.get(), "m", 1);
        EXPECT_EQ(kit::start6(3, static_cast<unsigned>(sver), 0, 0x1234) +
                      raw({0, 0, 0, 0, 0, 0, 1, 0, 'm'}),
                  kit::encoded(record));
    }
}

// Which bits alone are enough for which type, bit by bit.
TEST(EncodeUnit, RequiredFieldsBitByBit) {
    const uint64_t enough[] = {0, 0x60168, 0x8F9FE0, 0x2, 0xF8};
    for (int type = 1; type <= 4; ++type)
        for (int bit = 0; bit < 64; ++bit) {
            const auto record = kit::make(type, 6);
            record->data.ok_to_send = uint64_t{1} << bit;
            const bool sent = kit::encoded(record).compare(0, 5, "error") != 0;
            EXPECT_EQ((enough[type] >> bit & 1) != 0, sent) << type << " bit " << bit;
            EXPECT_EQ(sent, libruv_okay_to_send(record.get()));
        }
}

TEST(EncodeUnit, FormsExistForExactlyTheKnownVersions) {
    for (uint32_t type = 0; type < 7; ++type)
        for (int ver = -1; ver < 9; ++ver)
            for (int sver = -1; sver < 5; ++sver) {
                bool known = ver >= (type == 1 ? 1 : 3) && ver <= 6 && type >= 1 && type <= 4;
                if (ver == 6 && type <= 2 && (sver < 0 || sver > 2)) known = false;
                EXPECT_EQ(known, libruv_find_body(type, ver, sver) != nullptr)
                    << type << " " << ver << " " << sver;
            }
}

}  // namespace
