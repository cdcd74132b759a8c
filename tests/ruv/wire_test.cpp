#include "ruv/wire.h"

#include "ruv/request.h"
#include "tests/ruv/link_kit.h"

namespace {

std::string header_bytes(int pv, int dt, int dv, int tpt, int cid) {
    RUVv6_Header_t header;
    libruv_set_hdrv6(&header, pv, dt, dv, tpt, cid);
    return fake::bytes_of(header);
}

TEST(Wire, MagicIsSentInTheDocumentedOrder) {
    EXPECT_EQ(fake::bytes_of(magic), std::string("\x55\xAA\x55\xAA\xCE\xFA\xED\xFE", 8));
}

TEST(Wire, HeaderWordHoldsVersionTypeAndDataVersion) {
    EXPECT_EQ(header_bytes(6, 0, 0, 0, 0), std::string("\x06\0\0\0\0\0\0\0", 8));
    EXPECT_EQ(header_bytes(6, 3, 1, 0, 7), std::string("\x06\x03\x10\0\0\0\x07\0", 8));
    EXPECT_EQ(header_bytes(6, 0, 8, 43, 0x1234), std::string("\x06\0\x80\0\x2B\0\x34\x12", 8));
    EXPECT_EQ(header_bytes(6, 0xABC, 0xDEF, 0xFFFF, 0xFFFF),
              std::string("\x06\xBC\xFA\xDE\xFF\xFF\xFF\xFF", 8));
}

TEST(Wire, HeaderMasksVersionAndTypeButNotDataVersion) {
    EXPECT_EQ(header_bytes(0x106, 0x1003, 1, 0, 0), std::string("\x06\x03\x10\0\0\0\0\0", 8));
    EXPECT_EQ(header_bytes(6, 0, 0xFFF, 0, -1), std::string("\x06\0\xF0\xFF\0\0\xFF\xFF", 8));
}

TEST(Wire, HeaderPrintsWhenDataDumpingIsOn) {
    RUVSetLogging(0x10);
    const std::string text = stderr_of([] { header_bytes(6, 0, 3, 5, 9); });
    RUVSetLogging(0);
    EXPECT_EQ(text,
              "RUV v6 Header:\n\tVersion: 6, Data Type: 0, Data Ver: 3\n"
              "\tThird Party Type: 5\n\tChannel ID: 9\n\n");
    EXPECT_EQ(stderr_of([] { header_bytes(6, 0, 3, 5, 9); }), "");
}

TEST(Wire, ResultWordHasEightBytes) {
    EXPECT_EQ(std::string(kResultOkay, sizeof kResultOkay), fake::kOkay);
}

}  // namespace
