// Windows event bodies: the legacy block and the text of version 6.
#include <gtest/gtest.h>

#include "tests/ruv/record_kit.h"

namespace {

using kit::image;

void fill(RUVData_t *r) {
    RUVWinEventLogSet_log_file(r, "Security", 0);
    RUVWinEventLogSet_record_num(r, 4294967295u);
    RUVWinEventLogSet_source_name(r, "Source", 0);
    RUVWinEventLogSet_event_id(r, 65535);
    RUVWinEventLogSet_windows_ver(r, 6, 1);
    RUVWinEventLogSet_gen_time(r, 0x51525354);
    RUVWinEventLogSet_event_type(r, 5);
    RUVWinEventLogSet_hostname(r, "HOST", 0);
    RUVWinEventLogSet_user(r, "DOM\\user", 0);
    RUVWinEventLogSet_category(r, "Logon", 0);
    RUVWinEventLogSet_insertion_string(r, "a", 0);
    RUVWinEventLogSet_insertion_string(r, "bc", 0);
    RUVWinEventLogSet_message(r, "The message", 0);
}

// 64 bytes in memory; bytes 2 and 3 do not travel.
std::string legacy_unit(int version, image body, const std::string &texts) {
    body.at<uint8_t>(0, version).at<uint8_t>(1, 1);
    std::string block = body.bytes();
    block.erase(2, 2);
    return kit::kMagicBytes + block + texts;
}

image legacy_block() {
    image body(64);
    body.at<uint32_t>(4, 1 << 8 | 6).at<uint32_t>(24, 65535).at<uint16_t>(28, 5);
    body.at<uint32_t>(32, 6).at<uint32_t>(36, 0x51525354).at<uint32_t>(44, 4);
    body.at<uint32_t>(52, 11).at<uint32_t>(56, 3);
    return body;
}

TEST(EncodeWindows, LegacyVersions) {
    const RUVDSInfo v4 = kit::ipv4_source();
    const RUVDSInfo v6 = kit::ipv6_source();
    for (int version = 3; version <= 5; ++version) {
        const auto record = kit::make(4, version);
        fill(record.get());
        const std::string texts = "SourceHOSTThe messageabc";
        EXPECT_EQ(legacy_unit(version, legacy_block(), texts), kit::encoded(record));
        EXPECT_EQ(legacy_unit(version, legacy_block().at<uint32_t>(20, 0x0A010203), texts),
                  kit::encoded(record, &v4));
        image with_v6 = legacy_block().at<uint32_t>(8, 0x20010DB8).at<uint32_t>(12, 1);
        with_v6.at<uint32_t>(16, 0x0A0B0C0D).at<uint32_t>(20, 0x0E0F1011);
        EXPECT_EQ(legacy_unit(version, with_v6, texts), kit::encoded(record, &v6));
    }
}

TEST(EncodeWindows, LegacyBlockIs62BytesOnTheWire) {
    const auto record = kit::make(4, 3);
    RUVWinEventLogSet_event_id(record.get(), 1);
    EXPECT_EQ(8u + 62u, kit::encoded(record).size());
}

TEST(EncodeWindows, LegacyWindowsVersions) {
    const int versions[][2] = {{5, 0}, {5, 1}, {5, 2}, {6, 0}, {6, 1}};
    for (const auto &[major, minor] : versions) {
        const auto record = kit::make(4, 4);
        ASSERT_EQ(0, RUVWinEventLogSet_windows_ver(record.get(), major, minor));
        EXPECT_EQ(kit::raw({major, minor, 0, 0}), kit::encoded(record).substr(8 + 2, 4));
    }
}

TEST(EncodeWindows, Versions1And2NeverExisted) {
    for (int version = 1; version <= 2; ++version) {
        const auto record = kit::make(4, version);
        record->data.ok_to_send = 0x10;
        EXPECT_EQ("error 2", kit::encoded(record));
    }
}

// The text in front of which version 6 says how long it is. Records start with type 43.
std::string unit6(int sver, const std::string &text) {
    return kit::start6(4, static_cast<unsigned>(sver), 43, 0x1234) +
           image(4).at<uint32_t>(0, static_cast<uint32_t>(text.size())).bytes() + text;
}

TEST(EncodeWindows, Version6Text) {
    const RUVDSInfo v4 = kit::ipv4_source();
    for (int sver = 0; sver <= 2; ++sver) {
        const auto record = kit::make(4, 6, sver + 1);
        fill(record.get());
        const std::string rest =
            "||Security||4294967295||Source||65535||61||0||5||HOST||DOM\\user||Logon||2||a||bc||"
            "The message";
        EXPECT_EQ(unit6(sver, "10.1.2.3" + rest), kit::encoded(record, &v4));
        EXPECT_EQ(unit6(sver, "192.0.2.77" + rest), kit::encoded(record));
    }
}

TEST(EncodeWindows, Version6AddressOfOtherSources) {
    const auto record = kit::make(4, 6);
    RUVWinEventLogSet_event_id(record.get(), 7);
    const std::string rest = "||||0||||7||0||0||0||||||||0||";
    char name[] = "host";
    const RUVDSInfo host = kit::host_source(name);
    const RUVDSInfo v6 = kit::ipv6_source();
    EXPECT_EQ(unit6(0, "192.0.2.77" + rest), kit::encoded(record, &host));
    EXPECT_EQ(unit6(0, "32.1.13.184" + rest), kit::encoded(record, &v6));
    const std::string longest(45, 'f');
    EXPECT_EQ(unit6(0, longest + rest), kit::encoded(record, nullptr, 0x1234, longest.c_str()));
    EXPECT_EQ(unit6(0, rest), kit::encoded(record, nullptr, 0x1234, nullptr));
    RUVDSInfo broadcast = kit::ipv4_source();
    broadcast.ipv4 = 0xFFFFFFFF;
    EXPECT_EQ(unit6(0, "255.255.255.255" + rest), kit::encoded(record, &broadcast));
}

TEST(EncodeWindows, Version6TwoStringsAndNoMessage) {
    const auto record = kit::make(4, 6);
    RUVWinEventLogSet_event_id(record.get(), 7);
    RUVWinEventLogSet_insertion_string(record.get(), "a", 1);
    RUVWinEventLogSet_insertion_string(record.get(), "b", 1);
    const std::string unit = kit::encoded(record);
    EXPECT_EQ("||2||a||b||", unit.substr(unit.size() - 11));
}

TEST(EncodeWindows, Version6EmptyStringsKeepTheirSeparators) {
    const auto record = kit::make(4, 6);
    RUVWinEventLogSet_event_id(record.get(), 7);
    ASSERT_EQ(0, RUVWinEventLogSet_insertion_string(record.get(), "", 0));
    ASSERT_EQ(0, RUVWinEventLogSet_insertion_string(record.get(), "", 0));
    const std::string unit = kit::encoded(record);
    EXPECT_EQ("||2||||||", unit.substr(unit.size() - 9));
}

// The largest of everything: all texts in their buffers, all segments in their list.
TEST(EncodeWindows, LargestRecordOfBothForms) {
    const std::string big(65535, 'm');
    const std::string row(255, 'r');
    const std::string string(1000, 's');
    for (const int version : {5, 6}) {
        const auto record = kit::make(4, version);
        RUVData_t *r = record.get();
        RUVWinEventLogSet_log_file(r, row.data(), 255);
        RUVWinEventLogSet_source_name(r, row.data(), 255);
        RUVWinEventLogSet_hostname(r, row.data(), 255);
        RUVWinEventLogSet_user(r, row.data(), 255);
        RUVWinEventLogSet_category(r, row.data(), 255);
        RUVWinEventLogSet_record_num(r, 4294967295u);
        RUVWinEventLogSet_event_id(r, 65535);
        r->data.data.win_ver = 255;
        r->data.data.colltime = 4294967295u;
        r->data.data.eventtype = 255;
        for (int i = 0; i < 33; ++i)
            ASSERT_EQ(1000, RUVWinEventLogSet_insertion_string(r, string.data(), 1000));
        ASSERT_EQ(-1, RUVWinEventLogSet_insertion_string(r, string.data(), 1000));
        EXPECT_EQ(58, ruverrno);
        ASSERT_EQ(65535, RUVWinEventLogSet_message(r, big.data(), 65535));

        const std::string address(45, 'f');
        const std::string unit = kit::encoded(record, nullptr, 0x1234, address.c_str());
        if (version == 5) {
            EXPECT_EQ(8u + 62u + 255 + 255 + 65535 + 33 * 1000, unit.size());
            continue;
        }
        std::string text = address + "||" + row + "||4294967295||" + row;
        text += "||65535||255||4294967295||255||" + row + "||" + row + "||" + row + "||33||";
        for (int i = 0; i < 33; ++i) text += string + "||";
        EXPECT_EQ(unit6(0, text + big), unit);
    }
}

// Lengths that only a hostile caller has: nothing is read, and no sum wraps around.
TEST(EncodeWindows, HugeInsertionStringsAreCutTogether) {
    for (const int version : {5, 6}) {
        const auto record = kit::make(4, version);
        RUVWinEventLogSet_event_id(record.get(), 7);
        uint64_t total = 0;
        for (int i = 0; i < 33; ++i) {
            const int stored = RUVWinEventLogSet_insertion_string(record.get(), "x", 0x7FFFFFFF);
            ASSERT_GE(stored, 0);
            total += static_cast<uint64_t>(stored);
        }
        EXPECT_LT(total, 0x7FFFFFFFu);
        encoded_unit unit;
        ASSERT_EQ(0, libruv_encode(record.get(), nullptr, 0, nullptr, &unit));
        uint64_t sum = 0;
        for (int i = version == 6 ? 3 : 1; i < unit.count; ++i) sum += unit.segments[i].iov_len;
        EXPECT_LE(sum, 0x7FFFFFFFu) << "the result of a send is an int";
        uint32_t field = 0;
        memcpy(&field, unit.block + (version == 6 ? 0 : 56), 4);
        EXPECT_EQ(version == 6 ? sum : total, field);
    }
}

}  // namespace
