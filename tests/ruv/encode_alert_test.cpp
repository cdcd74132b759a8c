// Alert bodies, byte for byte, from their documented offsets.
#include <gtest/gtest.h>

#include "tests/ruv/record_kit.h"

namespace {

using kit::image;

const uint8_t kSrcMac[6] = {0x51, 0x52, 0x53, 0x54, 0x55, 0x56};
const uint8_t kDstMac[6] = {0x61, 0x62, 0x63, 0x64, 0x65, 0x66};
const std::string kSrcMacBytes = "QRSTUV";
const std::string kDstMacBytes = "abcdef";
const uint32_t kSrc6[4] = {0x03020120, 0x07060504, 0x0B0A0908, 0x0F0E0D0C};
const uint32_t kDst6[4] = {0x13121130, 0x17161514, 0x1B1A1918, 0x1F1E1D1C};
const std::string kSrc6Bytes = kit::raw({0x20, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15});
const std::string kDst6Bytes =
    kit::raw({0x30, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31});
constexpr uint32_t kSrc4 = 0xC0A80102, kDst4 = 0xC0A80304;

// Every setter that the version has; the values say which field they belong to.
void fill(RUVData_t *r) {
    RUVAlertSet_session_id(r, 0x1122334455667788u);
    RUVAlertSet_src_mac(r, kSrcMac);
    RUVAlertSet_dst_mac(r, kDstMac);
    RUVAlertSet_sigid(r, 0xA1A2A3A4);
    RUVAlertSet_norm_sigid(r, 0xB1B2B3B4);
    RUVAlertSet_event_count(r, 0xC1C2C3C4);
    RUVAlertSet_first_time(r, 0xD1D2D3D4);
    RUVAlertSet_last_time(r, 0xE1E2E3E4);
    RUVAlertSet_last_time_usec(r, 0xF1F2F3F4);
    RUVAlertSet_src_port(r, 0x0102);
    RUVAlertSet_dst_port(r, 0x0304);
    RUVAlertSet_vlan(r, 0x0506);
    RUVAlertSet_sequence(r, 0x0708);
    RUVAlertSet_protocol(r, 0x71);
    RUVAlertSet_flow(r, 1);
    RUVAlertSet_action(r, 0x72);
    RUVAlertSet_severity(r, 0x5A);
    RUVAlertSet_trusted(r, 0x73);
    RUVAlertSet_sig_generator(r, 0x74);
    RUVAlertSet_message(r, "M", 1);
    RUVAlertSet_src_user(r, "su", 2);
    RUVAlertSet_dst_user(r, "dus", 3);
    RUVAlertSet_application(r, "appl", 4);
    RUVAlertSet_hostname(r, "hostn", 5);
    RUVAlertSet_domain(r, "domain", 6);
    RUVAlertSet_command(r, "command", 7);
    RUVAlertSet_object(r, "objectob", 8);
    RUVAlertSet_packet(r, "packet\0pa", 9);
}

void use_ipv4(RUVData_t *r) {
    RUVAlertSet_src_ipv4(r, kSrc4);
    RUVAlertSet_dst_ipv4(r, kDst4);
}

void use_ipv6(RUVData_t *r) {
    RUVAlertSet_src_ipv6(r, kSrc6);
    RUVAlertSet_dst_ipv6(r, kDst6);
}

const std::string kPacketBytes("packet\0pa", 9);

// The 128 bytes of versions 1 to 5; fields that came later stay zero.
image legacy_block(int version) {
    image body(128);
    body.at<uint8_t>(0, version).at<uint8_t>(1, 0x5A).at<uint8_t>(2, 0x72).at<uint8_t>(3, 0x71);
    body.text(4, kDstMacBytes).text(10, kSrcMacBytes).at<uint8_t>(16, 1).at<uint8_t>(17, 1);
    body.at<uint16_t>(18, 0x0506).at<uint16_t>(20, 0x0102).at<uint16_t>(22, 0x0304);
    body.at<uint32_t>(56, 0xA1A2A3A4).at<uint32_t>(60, 0xD1D2D3D4).at<uint32_t>(64, 0xE1E2E3E4);
    body.at<uint32_t>(68, 0xF1F2F3F4).at<uint32_t>(72, 0xC1C2C3C4).at<uint16_t>(76, 9);
    // The setters of these texts refuse version 2, although its block has their lengths.
    if (version >= 3)
        body.at<uint8_t>(78, 2)
            .at<uint8_t>(79, 3)
            .at<uint8_t>(80, 4)
            .at<uint8_t>(81, 5)
            .at<uint8_t>(82, 6);
    if (version >= 4) {
        body.at<uint64_t>(108, 0x1122334455667788u).at<uint32_t>(116, 0xB1B2B3B4);
        body.at<uint16_t>(120, 0x0708).at<uint8_t>(125, 8);
    }
    // Version 4 refuses these three from its setters.
    if (version >= 5) body.at<uint8_t>(122, 0x73).at<uint8_t>(123, 0x74).at<uint8_t>(124, 7);
    return body;
}

// Texts behind the block of a legacy version.
std::string legacy_texts(int version) {
    std::string texts = "M";
    if (version >= 3)
        texts +=
            "su"
            "dus"
            "appl"
            "hostn"
            "domain";
    if (version >= 5) texts += "command";
    if (version >= 4) texts += "objectob";
    return texts + kPacketBytes;
}

// From version 3 on the block travels as byte 0, a zero byte, and the other 127 bytes.
std::string legacy_unit(int version, const image &body) {
    std::string block = body.bytes();
    if (version >= 3) block.insert(1, 1, '\0');
    return kit::kMagicBytes + block + legacy_texts(version);
}

TEST(EncodeAlert, LegacyVersionsWithIPv4) {
    for (int version = 1; version <= 5; ++version) {
        const auto record = kit::make(1, version);
        fill(record.get());
        use_ipv4(record.get());
        const image body = legacy_block(version).at<uint32_t>(36, kSrc4).at<uint32_t>(52, kDst4);
        EXPECT_EQ(legacy_unit(version, body), kit::encoded(record)) << "version " << version;
    }
}

TEST(EncodeAlert, LegacyVersionsWithIPv6) {
    for (int version = 1; version <= 5; ++version) {
        const auto record = kit::make(1, version);
        fill(record.get());
        use_ipv6(record.get());
        const image body = legacy_block(version).text(24, kSrc6Bytes).text(40, kDst6Bytes);
        EXPECT_EQ(legacy_unit(version, body), kit::encoded(record)) << "version " << version;
    }
}

TEST(EncodeAlert, LegacyDataSourceFromVersion3On) {
    const RUVDSInfo v4 = kit::ipv4_source();
    const RUVDSInfo v6 = kit::ipv6_source();
    for (int version = 1; version <= 5; ++version) {
        const auto record = kit::make(1, version);
        fill(record.get());
        image with_v4 = legacy_block(version);
        image with_v6 = legacy_block(version);
        if (version >= 3) {
            with_v4.at<uint32_t>(96, 0x0A010203);
            with_v6.at<uint32_t>(84, 0x20010DB8).at<uint32_t>(88, 1).at<uint32_t>(92, 0x0A0B0C0D);
            with_v6.at<uint32_t>(96, 0x0E0F1011);
        }
        EXPECT_EQ(legacy_unit(version, with_v4), kit::encoded(record, &v4)) << version;
        EXPECT_EQ(legacy_unit(version, with_v6), kit::encoded(record, &v6)) << version;
    }
}

TEST(EncodeAlert, Version5BlockIs129Bytes) {
    const auto record = kit::make(1, 5);
    ASSERT_EQ(0, RUVAlertSet_severity(record.get(), 100));
    const std::string unit = kit::encoded(record);
    ASSERT_EQ(8u + 129u, unit.size());
    EXPECT_EQ(kit::raw({5, 0, 100}), unit.substr(8, 3));
}

// The setters refuse these texts for version 2, whose body could carry the first five of them.
TEST(EncodeAlert, Version2HasRoomForFiveTexts) {
    const auto record = kit::make(1, 2);
    ASSERT_EQ(0, RUVAlertSet_sigid(record.get(), 1));
    for (int row = 0; row < 7; ++row) {
        record->data.cfdata.data[row] = reinterpret_cast<const uint8_t *>("acdhofu" + row);
        record->data.cfdata.len[row] = 1;
    }
    image body = image(128).at<uint8_t>(0, 2).at<uint32_t>(56, 1);
    body.text(78, kit::raw({1, 1, 1, 1, 1}));
    EXPECT_EQ(kit::kMagicBytes + body.bytes() + "ufahd", kit::encoded(record));
}

// Fields that version 1 lets its setters write but has no place for.
TEST(EncodeAlert, Version1SendsNoTextsButMessageAndPacket) {
    const auto record = kit::make(1, 1);
    ASSERT_EQ(1, RUVAlertSet_src_user(record.get(), "u", 1));
    ASSERT_EQ(1, RUVAlertSet_command(record.get(), "c", 1));
    ASSERT_EQ(0, RUVAlertSet_sigid(record.get(), 1));
    EXPECT_EQ(kit::kMagicBytes + image(128).at<uint8_t>(0, 1).at<uint32_t>(56, 1).bytes(),
              kit::encoded(record));
}

image v6_sub1_block() {
    image body(100);
    body.at<uint64_t>(0, 0x1122334455667788u).text(8, kSrcMacBytes).text(14, kDstMacBytes);
    body.at<uint32_t>(20, 0xA1A2A3A4).at<uint32_t>(24, 0xB1B2B3B4).at<uint32_t>(28, 0xC1C2C3C4);
    body.at<uint32_t>(64, 0xD1D2D3D4).at<uint32_t>(68, 0xE1E2E3E4).at<uint32_t>(72, 0xF1F2F3F4);
    body.at<uint16_t>(76, 0x0102).at<uint16_t>(78, 0x0304).at<uint16_t>(80, 0x0506);
    body.at<uint16_t>(82, 0x0708).at<uint16_t>(84, 9);
    body.text(86, kit::raw({0x71, 1, 0x72, 0x5A, 0x73, 0x74, 1, 2, 3, 4, 5, 6, 7, 8}));
    return body;
}

const std::string kAllTexts =
    "M"
    "su"
    "dus"
    "appl"
    "hostn"
    "domain"
    "command"
    "objectob";

TEST(EncodeAlert, Version6Subversion1) {
    const auto record = kit::make(1, 6, 1);
    fill(record.get());
    use_ipv4(record.get());
    image v4 = v6_sub1_block().at<uint32_t>(44, kSrc4).at<uint32_t>(60, kDst4);
    const std::string start = kit::start6(1, 0, 0, 0x1234);
    EXPECT_EQ(start + v4.bytes() + kAllTexts + kPacketBytes, kit::encoded(record));

    RUVResetData(record.get());
    fill(record.get());
    use_ipv6(record.get());
    image v6 = v6_sub1_block().text(32, kSrc6Bytes).text(48, kDst6Bytes);
    EXPECT_EQ(start + v6.bytes() + kAllTexts + kPacketBytes, kit::encoded(record));
}

// Offsets of sub-version 2; sub-version 3 has 8 bytes of flow id, always zero, in front.
image v6_rows_block(size_t shift) {
    image body(216 + shift);
    body.at<uint64_t>(shift, 0x1122334455667788u);
    body.text(shift + 88, kSrcMacBytes).text(shift + 94, kDstMacBytes);
    body.at<uint32_t>(shift + 100, 0xA1A2A3A4).at<uint32_t>(shift + 104, 0xB1B2B3B4);
    body.at<uint32_t>(shift + 108, 0xC1C2C3C4).at<uint32_t>(shift + 152, 0xD1D2D3D4);
    body.at<uint32_t>(shift + 156, 0xE1E2E3E4).at<uint32_t>(shift + 160, 0xF1F2F3F4);
    body.at<uint16_t>(shift + 164, 0x0102).at<uint16_t>(shift + 166, 0x0304);
    body.at<uint16_t>(shift + 168, 0x0506).at<uint16_t>(shift + 170, 0x0708);
    body.at<uint16_t>(shift + 172, 9);
    for (uint16_t row = 0; row < 7; ++row)
        body.at<uint16_t>(shift + 174 + 2u * row, static_cast<uint16_t>(row + 1));
    // Application, command, domain, host name, object, destination user, source user.
    body.text(shift + 194, kit::raw({4, 7, 6, 5, 8, 3, 2, 0, 0, 0}));
    body.text(shift + 204, kit::raw({0x71, 1, 0x72, 0x5A, 0x73, 0x74, 1}));
    return body;
}

const std::string kRowTexts =
    "M"
    "appl"
    "command"
    "domain"
    "hostn"
    "objectob"
    "dus"
    "su";

TEST(EncodeAlert, Version6Subversions2And3) {
    for (const unsigned sver : {1u, 2u}) {
        const size_t shift = sver == 2 ? 8 : 0;
        const auto record = kit::make(1, 6, static_cast<int>(sver) + 1);
        const std::string start = kit::start6(1, sver, 0, 0x1234);
        fill(record.get());
        EXPECT_EQ(-1, RUVAlertSet_flow_id(record.get(), 99));
        use_ipv4(record.get());
        image v4 = v6_rows_block(shift);
        v4.at<uint32_t>(shift + 144, kSrc4).at<uint32_t>(shift + 148, kDst4);
        EXPECT_EQ(start + v4.bytes() + kRowTexts + kPacketBytes, kit::encoded(record)) << sver;

        RUVResetData(record.get());
        fill(record.get());
        use_ipv6(record.get());
        image v6 = v6_rows_block(shift);
        v6.text(shift + 112, kSrc6Bytes).text(shift + 128, kDst6Bytes);
        EXPECT_EQ(start + v6.bytes() + kRowTexts + kPacketBytes, kit::encoded(record)) << sver;
    }
}

TEST(EncodeAlert, Version6RowsCarryWordsIdsAndLateStrings) {
    for (const unsigned sver : {1u, 2u}) {
        const size_t shift = sver == 2 ? 8 : 0;
        const auto record = kit::make(1, 6, static_cast<int>(sver) + 1);
        RUVAlertSet_sigid(record.get(), 5);
        for (int row = 0; row < 10; ++row)
            record->data.cfdata.bin[row] = 0x0101010101010101u * static_cast<unsigned>(row + 1);
        record->data.cfdata.id[9] = 0x3039;
        record->data.cfdata.len[9] = 2;
        record->data.cfdata.data[9] = reinterpret_cast<const uint8_t *>("zz");
        image body(216 + shift);
        for (size_t row = 0; row < 10; ++row)
            body.at<uint64_t>(shift + 8 + 8 * row, 0x0101010101010101u * (row + 1));
        body.at<uint32_t>(shift + 100, 5).at<uint16_t>(shift + 192, 0x3039);
        body.at<uint8_t>(shift + 203, 2);
        EXPECT_EQ(kit::start6(1, sver, 0, 0x1234) + body.bytes() + "zz", kit::encoded(record));
    }
}

TEST(EncodeAlert, AddressWithIPv4AndIPv6SendsIPv4Only) {
    const auto record = kit::make(1, 6, 2);
    use_ipv6(record.get());
    use_ipv4(record.get());
    const image body = image(216).at<uint32_t>(144, kSrc4).at<uint32_t>(148, kDst4);
    EXPECT_EQ(kit::start6(1, 1, 0, 0x1234) + body.bytes(), kit::encoded(record));
}

TEST(EncodeAlert, ThirdPartyTypeAndChannelGoIntoTheHeader) {
    const auto record = kit::make(1, 6, 1);
    ASSERT_EQ(0, RUVAlertSet_3rd_party_type(record.get(), 0xBEEF));
    ASSERT_EQ(0, RUVAlertSet_action(record.get(), 1));
    EXPECT_EQ(kit::start6(1, 0, 0xBEEF, 0xFFFF) + image(100).at<uint8_t>(88, 1).bytes(),
              kit::encoded(record, nullptr, 0xFFFF));
}

TEST(EncodeAlert, MessageAndPacketAloneAreNotEnough) {
    for (int version = 1; version <= 6; ++version) {
        const auto record = kit::make(1, version);
        RUVAlertSet_message(record.get(), "text", 0);
        RUVAlertSet_packet(record.get(), "pkt", 3);
        EXPECT_EQ("error 18", kit::encoded(record));
    }
}

}  // namespace
