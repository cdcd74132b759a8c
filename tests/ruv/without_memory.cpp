// What becomes of each call when an allocation fails: every allocation of every call, one by one.
// A failure is a clean error, leaks nothing, and the same call works afterwards.
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <cstdlib>
#include <string>

#include "ruv/catalogue.h"
#include "ruv/channel.h"
#include "ruv/record.h"
#include "ruv/ruvlibsetters.h"
#include "tests/ruv/link_kit.h"

namespace {

// The allocation of this thread that fails, counted from 1; 0: none. The scripted Receiver's
// threads are left alone.
thread_local int t_countdown = 0;
thread_local bool t_struck = false;

bool strikes() {
    if (t_countdown == 0 || --t_countdown != 0) return false;
    return t_struck = true;
}

}  // namespace

// The linker sends the library's own calls here (see the --wrap options of this program); those
// inside other libraries are not touched.
extern "C" {
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size) {
    return strikes() ? nullptr : __real_malloc(size);
}
void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size) {
    return strikes() ? nullptr : __real_calloc(count, size);
}
void *__real_realloc(void *memory, size_t size);
void *__wrap_realloc(void *memory, size_t size) {
    return strikes() ? nullptr : __real_realloc(memory, size);
}
char *__real_strdup(const char *text);
char *__wrap_strdup(const char *text) {
    return strikes() ? nullptr : __real_strdup(text);
}
SSL *__real_SSL_new(SSL_CTX *context);
SSL *__wrap_SSL_new(SSL_CTX *context) {
    return strikes() ? nullptr : __real_SSL_new(context);
}
SSL_CTX *__real_SSL_CTX_new(const SSL_METHOD *method);
SSL_CTX *__wrap_SSL_CTX_new(const SSL_METHOD *method) {
    return strikes() ? nullptr : __real_SSL_CTX_new(method);
}
BIO *__real_BIO_new(const BIO_METHOD *method);
BIO *__wrap_BIO_new(const BIO_METHOD *method) {
    return strikes() ? nullptr : __real_BIO_new(method);
}
}

namespace {

// Lets each allocation of `call` fail in its turn; `failed(k)` looks at what the k-th one left
// behind. Returns how many there were.
template <class Call, class Failed>
int fail_each(Call call, Failed failed) {
    for (int k = 1; k < 1000; ++k) {
        clear_error();
        t_struck = false;
        t_countdown = k;
        call();
        t_countdown = 0;
        if (!t_struck) return k - 1;
        failed(k);
    }
    ADD_FAILURE() << "more allocations than any call makes";
    return 1000;
}

const std::string kFields =
    "[b]\nUserField.ID=5\nUserField.Name=F\nUserField.UDFldE=1\nUserFieldUse.Offset=8\n"
    "UserFieldUse.Name=b\nUserFieldUse.FldType=uint8\n"
    "[a]\nUserField.ID=5\nUserField.Name=F\nUserField.UDFldE=1\nUserFieldUse.Offset=0\n"
    "UserFieldUse.Name=a\nUserFieldUse.FldType=uint8\n"
    "[c]\nUserField.ID=2\nUserField.Name=F\nUserField.UDFldE=2\nUserFieldUse.Offset=0\n"
    "UserFieldUse.Name=c\nUserFieldUse.FldType=string\n";

void expect_fields(const RUVConn &conn) {
    const custom_fields_info_t &cfi = conn.cfi;
    ASSERT_EQ(cfi.custom_fields_cnt, 3);
    ASSERT_EQ(cfi.cfid_to_cfis_cnt, 2);
    EXPECT_STREQ(cfi.name_name[0], "F.a");
    EXPECT_STREQ(cfi.name_name[2], "F.c");
    EXPECT_EQ(cfi.id_to_userfields[0].id, 2);
    EXPECT_STREQ(cfi.id_to_userfields[1].cfi[0]->name, "F.a") << "ascending by offset";
}

void expect_no_fields(const RUVConn &conn) {
    EXPECT_EQ(conn.cfi.custom_fields_cnt, 0);
    EXPECT_EQ(conn.cfi.cfid_to_cfis_cnt, 0);
    EXPECT_EQ(conn.cfi.cfi, nullptr);
    EXPECT_EQ(conn.cfi.name_name, nullptr);
    EXPECT_EQ(conn.cfi.name_cfi, nullptr);
    EXPECT_EQ(conn.cfi.id_to_userfields, nullptr);
}

fake::version6 with_fields() {
    fake::version6 v;
    v.versions.push_back({6, 0, 7});
    v.catalogue = kFields;
    return v;
}

TEST(WithoutMemory, AllocConn) {
    conn_ptr conn;
    const int count = fail_each([&] { conn = make_conn(514); },
                                [&](int k) {
                                    EXPECT_EQ(conn, nullptr) << k;
                                    EXPECT_EQ(ruverrno, 1) << k;
                                });
    EXPECT_EQ(count, 3) << "the handle, its host, the known bits";
    EXPECT_NE(conn, nullptr);
}

TEST(WithoutMemory, AllocDSInfo) {
    const uint32_t address[4] = {1, 2, 3, 4};
    for (const int type : {1, 2, 3}) {
        ds_ptr ds;
        const void *data = type == 3 ? static_cast<const void *>("host") : address;
        const int count = fail_each([&] { ds.reset(RUVAllocDSInfo(type, data)); },
                                    [&](int k) {
                                        EXPECT_EQ(ds, nullptr) << k;
                                        EXPECT_EQ(ruverrno, 1) << k;
                                    });
        EXPECT_EQ(count, type == 3 ? 2 : 1);
        EXPECT_NE(ds, nullptr);
    }
}

TEST(WithoutMemory, AllocData) {
    RUVConn conn = {};
    conn.data_types = 0x1E;
    conn.data_versions[3][5] = 3;
    void *record = nullptr;
    EXPECT_EQ(fail_each([&] { record = RUVAllocData(&conn, 3, 0, 0); },
                        [&](int) {
                            EXPECT_EQ(record, nullptr);
                            EXPECT_EQ(ruverrno, 1);
                        }),
              1);
    ASSERT_NE(record, nullptr);
    RUVFreeData(record);
}

TEST(WithoutMemory, Catalogue) {
    RUVConn conn = {};
    int result = 0;
    const int count = fail_each(
        [&] {
            std::string text = kFields;
            result = libruv_load_catalogue(&conn.cfi, text.data());
        },
        [&](int k) {
            EXPECT_EQ(result, -1) << k;
            EXPECT_EQ(ruverrno, 1) << k;
            expect_no_fields(conn);
        });
    EXPECT_EQ(count, 5) << "entries, two name arrays, the groups, and the order by id";
    EXPECT_EQ(result, 0);
    expect_fields(conn);
    libruv_free_catalogue(&conn.cfi);
}

// An open handle with a catalogue, opened again: whatever is missing, it ends closed, with an empty
// catalogue, and the next open is as good as the first.
TEST(WithoutMemory, Open) {
    fake::receiver receiver(fake::serve(with_fields()));
    conn_ptr conn = open_conn(receiver.port());
    expect_fields(*conn);
    int result = 0;
    const int count = fail_each(
        [&] {
            RUVClose(conn.get());
            result = RUVOpen(conn.get());
        },
        [&](int k) {
            EXPECT_EQ(result, -1) << k;
            EXPECT_EQ(ruverrno, 1) << k;
            EXPECT_EQ(conn->skt, -1) << k;
            expect_no_fields(*conn);
            EXPECT_EQ(RUVOpen(conn.get()), 0) << k << " " << ruverrno;
            EXPECT_EQ(conn->ruv_ver, 2);
            expect_fields(*conn);
        });
    EXPECT_EQ(count, 6) << "the text and what the catalogue is made of";
    EXPECT_EQ(result, 0);
}

// A channel that cannot be kept is an error, the cache stays as it was, and the next call gets it.
TEST(WithoutMemory, Channels) {
    fake::version6 answers;
    answers.channel = 4000;  // far enough to need more known bits
    fake::receiver receiver(fake::serve(answers));
    const uint32_t address[4] = {1, 2, 3, 4};
    for (const int type : {1, 2, 3}) {
        conn_ptr conn = open_conn(receiver.port());
        ds_ptr ds(RUVAllocDSInfo(type, type == 3 ? static_cast<const void *>("host") : address));
        void *record = RUVAllocData(conn.get(), 3, 0, 0);
        RUVSyslogSet_message(record, "abc", 3);
        int result = 0;
        const int count = fail_each(
            [&] { result = RUVSendData(conn.get(), record, ds.get()); },
            [&](int k) {
                EXPECT_EQ(result, -1) << k;
                EXPECT_EQ(ruverrno, 1) << k;
                EXPECT_EQ(conn->cid.ipv4_cnt + conn->cid.ipv6_cnt + conn->cid.hostid_cnt, 0);
                EXPECT_NE(conn->skt, -1) << "the stream is in order";
                libruv_free_channels(conn.get());  // what has grown would not grow again
            });
        EXPECT_EQ(count, type == 1 ? 3 : 4) << "known bits, two arrays, and a copy";
        EXPECT_EQ(result, 27);
        EXPECT_EQ(libruv_lookup_channel_id(conn.get(), ds.get()), 4000);
        EXPECT_EQ(RUVSendData(conn.get(), record, ds.get()), 27);
        RUVFreeData(record);
    }
}

TEST(WithoutMemory, KnownBits) {
    fake::receiver receiver(fake::serve());
    conn_ptr conn = open_conn(receiver.port());
    void *record = RUVAllocData(conn.get(), 3, 0, 0);
    int result = 0;
    const int count = fail_each(
        [&] { result = libruv_am_known(conn.get(), static_cast<RUVData_t *>(record), 500); },
        [&](int) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(ruverrno, 1);
            EXPECT_FALSE(libruv_known_bit(conn.get(), 500, 3));
        });
    EXPECT_EQ(count, 1);
    EXPECT_TRUE(libruv_known_bit(conn.get(), 500, 3));
    RUVFreeData(record);
}

TEST(WithoutMemory, Group) {
    fake::receiver receiver(fake::serve());
    conn_ptr conn = open_conn(receiver.port());
    void *record = RUVAllocData(conn.get(), 3, 0, 0);
    RUVSyslogSet_message(record, "abc", 3);
    ASSERT_EQ(RUVGroupBegin(conn.get()), 0);
    int result = 0;
    const int count = fail_each([&] { result = RUVSendData(conn.get(), record, nullptr); },
                                [&](int) {
                                    EXPECT_EQ(result, -1);
                                    EXPECT_EQ(ruverrno, 1);
                                    EXPECT_NE(conn->skt, -1);
                                });
    EXPECT_EQ(count, 1);
    EXPECT_EQ(result, 27);
    EXPECT_EQ(RUVGroupCommit(conn.get(), 60), 0) << "the group has exactly the one record";
    EXPECT_EQ(receiver.wait_received(32 + 27 + 16).size(), 32u + 27 + 16);
    RUVFreeData(record);
}

// The TLS library's objects: error 20, and no connection in the clear instead.
TEST(WithoutMemory, TlsSession) {
    fake::receiver receiver([](fake::peer &p) { p.drain(); });
    conn_ptr conn = make_conn(receiver.port(), 1);
    conn->ruv_ver = 1;  // one connection without a probe
    int result = 0;
    for (int k = 1; k <= 2; ++k) {
        clear_error();
        t_struck = false;
        t_countdown = k;
        result = RUVOpen(conn.get());
        t_countdown = 0;
        EXPECT_TRUE(t_struck);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(ruverrno, 20) << k;
        EXPECT_EQ(conn->skt, -1);
        EXPECT_EQ(conn->ssl_conn, nullptr);
    }
}

TEST(WithoutMemory, TlsOptions) {
    conn_ptr conn = make_conn(514);
    int result = 0;
    const int count = fail_each(
        [&] { result = RUVSetTLSOptions(conn.get(), "1.2", nullptr, nullptr, nullptr, nullptr); },
        [&](int k) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(ruverrno, k == 1 ? 1 : 20) << k;
            clear_error();
            EXPECT_EQ(RUVOpen(conn.get()), -1) << "never without what was demanded";
            EXPECT_EQ(ruverrno, 5);
        });
    EXPECT_EQ(count, 2);
    EXPECT_EQ(result, 0);
}

}  // namespace
