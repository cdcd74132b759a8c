#include "ruv/error.h"

#include <netdb.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <thread>

#include "ruv/trace.h"
#include "tests/ruv/link_kit.h"

namespace {

// With ruverrno2 = 11, ruverrno3 = 22, ruverrno4 = 33 and a version-6 connection.
const std::map<int, std::string> &texts() {
    static const std::map<int, std::string> table = {
        {1, "Failed to allocate memory"},
        {2, "The provided arguemnt was invalid (arg #11)"},
        {3, std::string("A system library call returned an error (errno = 11 [") + strerror(11) +
                "])"},
        {4, "Communication timed out"},
        {5, "Error during initialization of the library"},
        {6, "SSL library error (ret = 11, SSL_get_error = 22, ERR_get_error = 33)"},
        {7, "The detected encryption flag and the one provided do not match"},
        {8, "The requested RUV version and the detected version do not match"},
        {9, "The connection is already encrypted"},
        {10,
         std::string("'getaddrinfo' call returned an error (rv = 11 [") + gai_strerror(11) + "])"},
        {11, "Windows junk is busted -- fix me"},
        {12, "Operation is not supported by the currently RUV protocol (protocal #2)"},
        {13, "Requested operation returned 'NOTOKAY'"},
        {14, "Unknown data source"},
        {15, "Unknown or unspported data type (11)"},
        {16, "Unknown or unspported data type version (11)"},
        {17, "Unknown or unspported data type subversion (11)"},
        {18, "Required piece of data missing"},
        {19, "SSL library communication timed out"},
        {20, "SSL library failed to allocate memory"},
        {21, "Already connected"},
        {22, "Not connected"},
        {23, "Bad logging level provided"},
        {50, "Trying to add data to the wrong data type"},
        {51, "Data field not available for the version of the data type"},
        {52, "Data setter called with bad argument"},
        {53, "RUV*Set_custom_field tried to write over already written field"},
        {54, "RUV*Set_custom_field called with invalid len (sizeof)"},
        {55, "RUV*Set_custom_field called with bad type"},
        {56, "RUV*Set_custom_field called with bad field name"},
        {57, "Setter fuction called with invalid argument"},
        {58, "Windows Eventlog -- trying to add too many insertion strings (max of 32)"},
        {59, "Data field not available for the sub-version of the data type"},
        {99, "Unknown error (11)"},
    };
    return table;
}

TEST(Error, EveryCodeFromMinusOneToHundredHasItsText) {
    RUVConn conn = {};
    conn.ruv_ver = 2;
    for (int code = -1; code <= 100; ++code) {
        ruverrno = 1;
        ruverrno2 = 11;
        ruverrno3 = 22;
        ruverrno4 = 33;
        char buffer[512];
        char *result = RUVStrError(&conn, code, buffer);
        const auto row = texts().find(code);
        if (row != texts().end()) {
            EXPECT_EQ(result, buffer) << code;
            EXPECT_EQ(std::string(buffer), row->second) << code;
            EXPECT_EQ(ruverrno, 1) << code;
        } else {
            EXPECT_EQ(result, nullptr) << code;
            EXPECT_EQ(std::string(buffer), "Unknown error code (" + std::to_string(code) + ")");
            EXPECT_EQ(ruverrno, 99) << code;
            EXPECT_EQ(ruverrno2, code);
        }
    }
}

TEST(Error, TextNeedsNoConnection) {
    EXPECT_EQ(text_of(nullptr, 12),
              "Operation is not supported by the currently RUV protocol (protocal #0)");
    EXPECT_EQ(text_of(nullptr, 22), "Not connected");
}

TEST(Error, ReasonOfATlsFailureIsAppendedOnlyForOwnTls) {
    RUVConn conn = {};
    strcpy(conn.tls_reason, "certificate has expired");
    clear_error();
    const std::string plain = "SSL library error (ret = 0, SSL_get_error = 0, ERR_get_error = 0)";
    EXPECT_EQ(text_of(&conn, 6), plain);
    conn.tls_opted = 1;
    EXPECT_EQ(text_of(&conn, 6), plain + ": certificate has expired");
    EXPECT_EQ(text_of(&conn, 22), "Not connected");
}

TEST(Error, StateIsPerThread) {
    ruv::fail(2, 5);
    std::thread([] {
        EXPECT_EQ(ruverrno, 0);
        ruv::fail_tls(1, 2, 3);
        EXPECT_EQ(ruverrno, 6);
    }).join();
    EXPECT_EQ(ruverrno, 2);
    EXPECT_EQ(ruverrno2, 5);
}

TEST(Error, SystemFailureKeepsErrno) {
    errno = 0;
    EXPECT_EQ(ruv::fail_system(ECONNRESET), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, ECONNRESET);
}

TEST(Logging, MaskSetsExactlyItsSwitches) {
    std::atomic<int> *const switches[] = {&debug_fn_call, &debug_send, &debug_recv, &debug_trace,
                                          &debug_data};
    for (uint64_t mask = 0; mask < 32; ++mask) {
        EXPECT_EQ(RUVSetLogging(0), 0);
        testing::internal::CaptureStderr();
        EXPECT_EQ(RUVSetLogging(mask), 0);
        testing::internal::GetCapturedStderr();
        for (int bit = 0; bit < 5; ++bit)
            EXPECT_EQ(switches[bit]->load(), static_cast<int>(mask >> bit & 1)) << mask;
    }
    EXPECT_EQ(RUVSetLogging(0), 0);
}

TEST(Logging, HigherBitsAreRefusedAndChangeNothing) {
    ASSERT_EQ(RUVSetLogging(0x02), 0);
    for (int bit = 5; bit < 64; ++bit) {
        clear_error();
        EXPECT_EQ(RUVSetLogging(uint64_t{1} << bit | 0x1D), -1);
        EXPECT_EQ(ruverrno, 23);
        EXPECT_EQ(debug_send.load(), 1);
        EXPECT_EQ(debug_recv.load() + debug_fn_call.load() + debug_data.load(), 0);
    }
    ASSERT_EQ(RUVSetLogging(0), 0);
}

TEST(Logging, PublicFunctionsSayWhenTheyAreEnteredAndLeft) {
    ASSERT_EQ(RUVSetLogging(0x01), 0);
    const std::string text = stderr_of([] {
        RUVOpen(nullptr);
        const uint32_t address = 1;
        ds_ptr ds(RUVAllocDSInfo(1, &address));
    });
    const std::string off = stderr_of([] { RUVSetLogging(0); });
    EXPECT_EQ(text,
              "libruv -- function enter: RUVOpen\n"
              "libruv -- function error exit: RUVOpen [2]\n"
              "libruv -- function enter: RUVAllocDSInfo\n"
              "libruv -- function exit: RUVAllocDSInfo\n"
              "libruv -- function enter: RUVFreeDSInfo\n"
              "libruv -- function exit: RUVFreeDSInfo\n");
    EXPECT_EQ(stderr_of([] { RUVOpen(nullptr); }), "");
}

TEST(Logging, TracePointsReplaceTheFunctionLines) {
    ASSERT_EQ(RUVSetLogging(0x08), 0);
    const auto fail_and_succeed = [] {
        RUVOpen(nullptr);
        char text[512];
        RUVStrError(nullptr, 1, text);
    };
    const std::string text = stderr_of(fail_and_succeed);
    stderr_of([] { RUVSetLogging(0x09); });
    const std::string both = stderr_of(fail_and_succeed);
    stderr_of([] { RUVSetLogging(0); });
    std::string without_lines = text;
    std::erase_if(without_lines, [](unsigned char c) { return isdigit(c); });
    const std::string open = "libruv -- ruvlib -- RUVOpen -- \n";
    const std::string error = "libruv -- ruvlib -- RUVStrError -- \n";
    EXPECT_EQ(without_lines, open + open + error + error) << text;
    EXPECT_LT(without_lines.size(), text.size()) << "line numbers";
    EXPECT_EQ(both, text);
}

}  // namespace
