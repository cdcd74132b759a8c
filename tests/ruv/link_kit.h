#pragma once
// Small helpers for the tests of the library's connection half.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "ruv/conn.h"
#include "ruv/ruvlib.h"
#include "ruv/wait.h"
#include "tests/support/fake_receiver.h"

struct conn_deleter {
    void operator()(RUVConn *conn) const { RUVFreeConn(conn); }
};
using conn_ptr = std::unique_ptr<RUVConn, conn_deleter>;

struct ds_deleter {
    void operator()(RUVDSInfo *ds) const { RUVFreeDSInfo(ds); }
};
using ds_ptr = std::unique_ptr<RUVDSInfo, ds_deleter>;

inline conn_ptr make_conn(int port, int force_ssl = 0, int ruv_ver_req = 0) {
    return conn_ptr(RUVAllocConn("127.0.0.1", port, 1, force_ssl, ruv_ver_req));
}

// A handle connected to a well-behaved version-6 Receiver.
inline conn_ptr open_conn(int port) {
    conn_ptr conn = make_conn(port);
    EXPECT_EQ(RUVOpen(conn.get()), 0) << ruverrno << " " << ruverrno2;
    return conn;
}

// Puts the library's own calls back at the end of a test that replaced them.
struct os_guard {
    ruv::os_calls saved = ruv::os;
    ~os_guard() { ruv::os = saved; }
};

// A busy host may be slow to answer: what has no limit of its own in a test has a generous one.
inline const int64_t patience_ms = ruv::os.probe_budget_ms = ruv::os.own_handshake_ms = 60'000;

inline void clear_error() {
    ruverrno = ruverrno2 = ruverrno3 = ruverrno4 = 0;
}

inline std::string text_of(RUVConn *conn, int err) {
    char text[512];
    RUVStrError(conn, err, text);
    return text;
}

// Standard error of one piece of code.
template <class Body>
std::string stderr_of(Body body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

// What a request looks like on the wire, from its documented layout.
inline std::string request_bytes(uint8_t code, uint16_t channel = 0, uint16_t third_party = 0) {
    const std::string word = {6, 0, static_cast<char>(code << 4), static_cast<char>(code >> 4)};
    return fake::kMagic + word + fake::bytes_of(third_party) + fake::bytes_of(channel);
}
