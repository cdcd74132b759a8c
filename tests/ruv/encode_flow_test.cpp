// Flow bodies, byte for byte, from their documented offsets.
#include <gtest/gtest.h>

#include "tests/ruv/record_kit.h"

namespace {

using kit::image;

const uint8_t kSrcMac[6] = {0x51, 0x52, 0x53, 0x54, 0x55, 0x56};
const uint8_t kDstMac[6] = {0x61, 0x62, 0x63, 0x64, 0x65, 0x66};
const uint32_t kSrc6[4] = {0x03020120, 0x07060504, 0x0B0A0908, 0x0F0E0D0C};
const uint32_t kDst6[4] = {0x13121130, 0x17161514, 0x1B1A1918, 0x1F1E1D1C};
const std::string kSrc6Bytes = kit::raw({0x20, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15});
const std::string kDst6Bytes =
    kit::raw({0x30, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31});
constexpr uint32_t kSrc4 = 0xC0A80102, kDst4 = 0xC0A80304;

// Every setter that the version has; the values say which field they belong to.
void fill(RUVData_t *r) {
    RUVFlowSet_session_id(r, 0x9999999999999999u);
    RUVFlowSet_src_mac(r, kSrcMac);
    RUVFlowSet_dst_mac(r, kDstMac);
    RUVFlowSet_dst_bytes(r, 0x1111111111111101u);
    RUVFlowSet_src_bytes(r, 0x2222222222222202u);
    RUVFlowSet_dst_packets(r, 0x3333333333333303u);
    RUVFlowSet_src_packets(r, 0x4444444444444404u);
    RUVFlowSet_dst_asn_geo(r, 0x5555555555555505u);
    RUVFlowSet_src_asn_geo(r, 0x6666666666666606u);
    RUVFlowSet_duration(r, 0xA1A2A3A4);
    RUVFlowSet_duration_usec(r, 0xB1B2B3B4);
    RUVFlowSet_flow_count(r, 0xC1C2C3C4);
    RUVFlowSet_first_time(r, 0xD1D2D3D4);
    RUVFlowSet_last_time(r, 0xE1E2E3E4);
    RUVFlowSet_last_time_usec(r, 0xF1F2F3F4);
    RUVFlowSet_src_port(r, 0x0102);
    RUVFlowSet_dst_port(r, 0x0304);
    RUVFlowSet_vlan(r, 0x0506);
    RUVFlowSet_iface_in(r, 0x0708);
    RUVFlowSet_iface_out(r, 0x090A);
    RUVFlowSet_protocol(r, 0x71);
    RUVFlowSet_dir(r, 0x72);
    RUVFlowSet_conn_state(r, 0x73);
    RUVFlowSet_tos_src(r, 0x74);
    RUVFlowSet_tcp_flags(r, 0x75);
}

void use_ipv4(RUVData_t *r) {
    RUVFlowSet_src_ipv4(r, kSrc4);
    RUVFlowSet_dst_ipv4(r, kDst4);
}

void use_ipv6(RUVData_t *r) {
    RUVFlowSet_src_ipv6(r, kSrc6);
    RUVFlowSet_dst_ipv6(r, kDst6);
}

// The six counters, then MACs at `macs`, six 32-bit words at `words`, five 16-bit ones at `shorts`.
void put_common(image &body, size_t counters, size_t macs, size_t words, size_t shorts) {
    body.at<uint64_t>(counters, 0x1111111111111101u);
    body.at<uint64_t>(counters + 8, 0x2222222222222202u);
    body.at<uint64_t>(counters + 16, 0x3333333333333303u);
    body.at<uint64_t>(counters + 24, 0x4444444444444404u);
    body.at<uint64_t>(counters + 32, 0x5555555555555505u);
    body.at<uint64_t>(counters + 40, 0x6666666666666606u);
    body.text(macs, "abcdef").text(macs + 6, "QRSTUV");
    body.at<uint32_t>(words, 0xA1A2A3A4).at<uint32_t>(words + 4, 0xB1B2B3B4);
    body.at<uint32_t>(words + 8, 0xC1C2C3C4).at<uint32_t>(words + 12, 0xD1D2D3D4);
    body.at<uint32_t>(words + 16, 0xE1E2E3E4).at<uint32_t>(words + 20, 0xF1F2F3F4);
    body.at<uint16_t>(shorts, 0x0102).at<uint16_t>(shorts + 2, 0x0304);
    body.at<uint16_t>(shorts + 4, 0x0506).at<uint16_t>(shorts + 6, 0x0708);
    body.at<uint16_t>(shorts + 8, 0x090A);
}

image legacy_block(int version) {
    image body(148);
    body.at<uint8_t>(0, version).at<uint8_t>(1, 4);
    put_common(body, 4, 52, 96, 136);
    body.at<uint8_t>(146, 0x71).at<uint8_t>(147, 0x72);
    return body;
}

TEST(EncodeFlow, LegacyVersions) {
    for (int version = 3; version <= 5; ++version) {
        const auto record = kit::make(2, version);
        fill(record.get());
        use_ipv4(record.get());
        const image v4 = legacy_block(version).at<uint32_t>(76, kSrc4).at<uint32_t>(92, kDst4);
        EXPECT_EQ(kit::kMagicBytes + v4.bytes(), kit::encoded(record)) << version;

        RUVResetData(record.get());
        fill(record.get());
        use_ipv6(record.get());
        const image v6 = legacy_block(version).text(64, kSrc6Bytes).text(80, kDst6Bytes);
        EXPECT_EQ(kit::kMagicBytes + v6.bytes(), kit::encoded(record)) << version;
    }
}

TEST(EncodeFlow, LegacyDataSource) {
    const RUVDSInfo v4 = kit::ipv4_source();
    const RUVDSInfo v6 = kit::ipv6_source();
    for (int version = 3; version <= 5; ++version) {
        const auto record = kit::make(2, version);
        fill(record.get());
        image with_v4 = legacy_block(version).at<uint32_t>(132, 0x0A010203);
        image with_v6 = legacy_block(version).at<uint32_t>(120, 0x20010DB8).at<uint32_t>(124, 1);
        with_v6.at<uint32_t>(128, 0x0A0B0C0D).at<uint32_t>(132, 0x0E0F1011);
        EXPECT_EQ(kit::kMagicBytes + with_v4.bytes(), kit::encoded(record, &v4));
        EXPECT_EQ(kit::kMagicBytes + with_v6.bytes(), kit::encoded(record, &v6));
    }
}

TEST(EncodeFlow, Versions1And2NeverExisted) {
    for (int version = 1; version <= 2; ++version) {
        const auto record = kit::make(2, version);
        record->data.ok_to_send = 0x20;  // the setters refuse these versions
        ruverrno2 = 77;
        EXPECT_EQ("error 2", kit::encoded(record));
        EXPECT_EQ(77, ruverrno2) << "the argument is not changed";
    }
}

TEST(EncodeFlow, MissingFieldsCountBeforeTheVersion) {
    for (int version = 1; version <= 6; ++version) {
        const auto record = kit::make(2, version);
        record->data.ok_to_send = ~uint64_t{0x8F9FE0};
        EXPECT_EQ("error 18", kit::encoded(record)) << version;
    }
}

TEST(EncodeFlow, Version6Subversion1) {
    const auto record = kit::make(2, 6, 1);
    const std::string start = kit::start6(2, 0, 0, 0x1234);
    image body(128);
    put_common(body, 0, 48, 92, 116);
    body.at<uint8_t>(126, 0x71).at<uint8_t>(127, 0x72);

    fill(record.get());
    use_ipv4(record.get());
    image v4 = body;
    v4.at<uint32_t>(72, kSrc4).at<uint32_t>(88, kDst4);
    EXPECT_EQ(start + v4.bytes(), kit::encoded(record));

    RUVResetData(record.get());
    fill(record.get());
    use_ipv6(record.get());
    image v6 = body;
    v6.text(60, kSrc6Bytes).text(76, kDst6Bytes);
    EXPECT_EQ(start + v6.bytes(), kit::encoded(record));
}

// Session id (offset 0) and direction stay zero in both sub-versions with rows.
image block_of_5_rows() {
    image body(204);
    put_common(body, 8, 96, 148, 172);
    body.at<uint8_t>(197, 0x71).at<uint8_t>(199, 0x73).at<uint8_t>(200, 0x74).at<uint8_t>(201,
                                                                                          0x75);
    return body;
}

image block_of_7_rows() {
    image body(232);
    put_common(body, 8, 112, 164, 188);
    body.at<uint8_t>(219, 0x71).at<uint8_t>(221, 0x73).at<uint8_t>(222, 0x74).at<uint8_t>(223,
                                                                                          0x75);
    return body;
}

TEST(EncodeFlow, Version6Subversion2) {
    const auto record = kit::make(2, 6, 2);
    const std::string start = kit::start6(2, 1, 0, 0x1234);
    fill(record.get());
    use_ipv4(record.get());
    image v4 = block_of_5_rows().at<uint32_t>(140, kSrc4).at<uint32_t>(144, kDst4);
    EXPECT_EQ(start + v4.bytes(), kit::encoded(record));

    RUVResetData(record.get());
    fill(record.get());
    use_ipv6(record.get());
    image v6 = block_of_5_rows().text(108, kSrc6Bytes).text(124, kDst6Bytes);
    EXPECT_EQ(start + v6.bytes(), kit::encoded(record));
}

TEST(EncodeFlow, Version6Subversion3) {
    const auto record = kit::make(2, 6, 3);
    const std::string start = kit::start6(2, 2, 0, 0x1234);
    fill(record.get());
    use_ipv4(record.get());
    image v4 = block_of_7_rows().at<uint32_t>(156, kSrc4).at<uint32_t>(160, kDst4);
    EXPECT_EQ(start + v4.bytes(), kit::encoded(record));

    RUVResetData(record.get());
    fill(record.get());
    use_ipv6(record.get());
    image v6 = block_of_7_rows().text(124, kSrc6Bytes).text(140, kDst6Bytes);
    EXPECT_EQ(start + v6.bytes(), kit::encoded(record));
}

// All ten rows are filled; a block takes only its own.
void fill_rows(RUVData_t *r) {
    for (int row = 0; row < 10; ++row) {
        r->data.cfdata.bin[row] = 0x0102030405060708u + static_cast<unsigned>(row);
        r->data.cfdata.id[row] = static_cast<uint16_t>(0x4000 + row);
        r->data.cfdata.len[row] = static_cast<uint8_t>(row % 2);
        r->data.cfdata.data[row] = reinterpret_cast<const uint8_t *>("ABCDEFGHIJ" + row);
    }
}

TEST(EncodeFlow, RowsOfSubversion2) {
    const auto record = kit::make(2, 6, 2);
    fill(record.get());
    fill_rows(record.get());
    image body = block_of_5_rows();
    for (size_t row = 0; row < 5; ++row) {
        body.at<uint64_t>(56 + 8 * row, 0x0102030405060708u + row);
        body.at<uint16_t>(182 + 2 * row, static_cast<uint16_t>(0x4000 + row));
        body.at<uint8_t>(192 + row, static_cast<uint8_t>(row % 2));
    }
    EXPECT_EQ(kit::start6(2, 1, 0, 0x1234) + body.bytes() + "BD", kit::encoded(record));
}

TEST(EncodeFlow, RowsOfSubversion3) {
    const auto record = kit::make(2, 6, 3);
    fill(record.get());
    fill_rows(record.get());
    image body = block_of_7_rows();
    for (size_t row = 0; row < 7; ++row) {
        body.at<uint64_t>(56 + 8 * row, 0x0102030405060708u + row);
        body.at<uint16_t>(198 + 2 * row, static_cast<uint16_t>(0x4000 + row));
        body.at<uint8_t>(212 + row, static_cast<uint8_t>(row % 2));
    }
    EXPECT_EQ(kit::start6(2, 2, 0, 0x1234) + body.bytes() + "BDF", kit::encoded(record));
}

TEST(EncodeFlow, SessionIdAndDirectionTravelAsZero) {
    const auto record = kit::make(2, 6, 2);
    ASSERT_EQ(0, RUVFlowSet_session_id(record.get(), ~uint64_t{0}));
    ASSERT_EQ(0, RUVFlowSet_dir(record.get(), 255));
    ASSERT_EQ(0, RUVFlowSet_flow_count(record.get(), 1));
    EXPECT_EQ(kit::start6(2, 1, 0, 0x1234) + image(204).at<uint32_t>(156, 1).bytes(),
              kit::encoded(record));
}

}  // namespace
