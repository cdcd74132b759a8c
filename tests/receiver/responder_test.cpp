// What the Receiver answers, and which bodies it knows, for everything that a client can ask:
// every request code, every kind and length of data source, every number of a record's kind.
#include "tools/ruv_receiver/responder.h"

#include <gtest/gtest.h>

#include "tools/common/wire_layout.h"

namespace receiver {
namespace {

const std::string kOkay("OKAY\0\0\0\0", 8), kNotOkay("NOTOKAY\0", 8);

// A responder with its settings, and requests in the form that the frame hands on.
struct rig {
    settings chosen;
    catalogue custom;
    responder under_test{chosen, custom};

    answer ask(unsigned code, const std::string &body = "", bool faulty = false, bool tls = false) {
        const std::string bytes = std::string(16, 0) + body;
        unit request = {};
        request.kind = unit_kind::request;
        request.body_offset = 16;
        request.size = bytes.size();
        request.version = 6;
        request.subversion = static_cast<uint16_t>(code);
        return under_test.respond(request, reinterpret_cast<const uint8_t *>(bytes.data()), faulty,
                                  tls);
    }
    answer source(unsigned kind, const std::string &data) {
        uint8_t head[4];
        wire::write_uint(head, kind, 2);
        wire::write_uint(head + 2, data.size(), 2);
        return ask(wire::kGetChanId, std::string(reinterpret_cast<char *>(head), 4) + data);
    }
};

TEST(Responder, EveryCodeHasOneAnswer) {
    rig r;
    for (unsigned code = 0; code < 4096; ++code) {
        const answer given = r.ask(code, std::string(8, 0));
        EXPECT_EQ(given.close, code == wire::kCloseConn) << code;
        EXPECT_FALSE(given.start_tls);
        if (code == wire::kCloseConn) {
            EXPECT_EQ(given.bytes, "");
            continue;
        }
        // TLS is off, and the eight zeros describe no data source.
        const bool granted =
            code <= wire::kAmKnown2 && code != wire::kReqSsl && code != wire::kGetChanId;
        EXPECT_EQ(given.bytes.substr(0, 8), granted ? kOkay : kNotOkay) << code;
        if (!granted) EXPECT_EQ(given.bytes.size(), 8u);
    }
}

TEST(Responder, OnlyTheThreeKindsOfSourcesAreKnown) {
    rig r;
    for (unsigned kind = 0; kind < 6; ++kind) {
        for (const size_t length : {0u, 1u, 4u, 16u, 17u, 65'535u}) {
            const answer given = r.source(kind, std::string(length, 'x'));
            const bool fits =
                (kind == 1 && length == 4) || (kind == 2 && length == 16) || kind == 3;
            EXPECT_EQ(given.bytes.substr(0, 8), fits ? kOkay : kNotOkay) << kind << " " << length;
            EXPECT_EQ(given.bytes.size(), fits ? 12u : 8u);
            EXPECT_EQ(given.source != nullptr, fits);
        }
    }
}

TEST(Responder, InventedSourcesHaveAnEnd) {
    rig r;
    const answer first = r.source(3, "first");
    size_t bytes = 0;
    int granted = 0;
    for (; granted < 5000; ++granted) {
        std::string name = std::to_string(granted);
        name.resize(65'535, '.');
        if (r.source(3, name).bytes == kNotOkay) break;
        bytes += name.size();
    }
    EXPECT_GT(granted, 500);
    EXPECT_LE(bytes, size_t{64} << 20);
    // Those who were there before are served on.
    EXPECT_EQ(r.source(3, "first").bytes, first.bytes);
    EXPECT_EQ(r.ask(wire::kNop).bytes, kOkay);
}

TEST(Responder, AnOlderReceiverIsSilent) {
    rig r;
    r.chosen.generation = 5;
    for (unsigned code = 0; code < 16; ++code) EXPECT_EQ(r.ask(code).bytes, "");
}

TEST(Responder, TlsIsGrantedOnceAndOnlyWhereItIsOffered) {
    for (const tls_mode mode :
         {tls_mode::none, tls_mode::always, tls_mode::request, tls_mode::any}) {
        rig r;
        r.chosen.tls = mode;
        const bool offered = mode == tls_mode::request || mode == tls_mode::any;
        EXPECT_EQ(r.ask(wire::kReqSsl).start_tls, offered);
        EXPECT_EQ(r.ask(wire::kReqSsl).bytes, offered ? kOkay : kNotOkay);
        EXPECT_FALSE(r.ask(wire::kReqSsl, "", false, true).start_tls);
        // Half an answer promises nothing.
        r.chosen.faults.truncate = 1u << wire::kReqSsl;
        const answer half = r.ask(wire::kReqSsl, "", true);
        EXPECT_TRUE(half.close && !half.start_tls && half.bytes.size() == 4);
    }
}

TEST(Responder, KindsHaveNames) {
    EXPECT_STREQ(source_kind_name(1), "IPv4");
    EXPECT_STREQ(source_kind_name(2), "IPv6");
    EXPECT_STREQ(source_kind_name(3), "HostID");
    for (const unsigned other : {0u, 4u, 65'535u}) EXPECT_STREQ(source_kind_name(other), "");
}

TEST(Layout, OnlyTheDocumentedBodiesExist) {
    for (unsigned type = 0; type < 4096; ++type) {
        for (const unsigned sub : {0u, 1u, 2u, 3u, 4u, 4095u}) {
            const layout *body = body_of_v6(type, sub);
            const bool split = type == wire::kAlert || type == wire::kFlow;
            const bool known =
                type >= wire::kAlert && type <= wire::kWindows && !(split && sub > 2);
            ASSERT_EQ(body != nullptr, known) << type << " " << sub;
            if (body) EXPECT_EQ(body->type, type);
        }
    }
    for (unsigned version = 0; version < 256; ++version) {
        for (unsigned mark = 0; mark < 256; ++mark) {
            const layout *body = body_of_legacy(version, mark);
            const bool oldest = version == 1 || version == 2;
            const bool marked =
                version >= 3 && version <= 5 && (mark == 0 || mark == 1 || mark == 4 || mark == 5);
            ASSERT_EQ(body != nullptr, oldest || marked) << version << " " << mark;
            if (oldest) EXPECT_EQ(body->type, wire::kAlert);
        }
    }
}

// Every field lies in its block, and every length field is one of the fields.
TEST(Layout, TablesStayInTheirBlocks) {
    std::vector<std::pair<const layout *, unsigned>> bodies;
    for (unsigned version = 1; version <= 5; ++version)
        for (unsigned mark = 0; mark < 6; ++mark)
            bodies.emplace_back(body_of_legacy(version, mark), version);
    for (unsigned type = 1; type <= 4; ++type)
        for (unsigned sub = 0; sub < 3; ++sub) bodies.emplace_back(body_of_v6(type, sub), 6);
    for (const auto &[body, version] : bodies) {
        if (!body) continue;
        for (const field &f : body->fields)
            EXPECT_LE(body->at(f.offset) + f.size, body->size) << body->name << " " << f.name;
        for (const part &p : body->parts) {
            bool found = false;
            for (const field &f : body->fields)
                found |= f.offset == p.length_offset && f.size == p.length_width;
            EXPECT_TRUE(found) << body->name << " " << p.name;
        }
        if (body->rows) {
            EXPECT_LE(body->row_lengths + body->rows, body->size) << body->name;
            const std::vector<uint8_t> zeros(body->size, 0), ones(body->size, 0xFF);
            EXPECT_EQ(variable_size(*body, zeros.data(), version), 0u);
            EXPECT_GE(variable_size(*body, ones.data(), version), body->rows * 255u);
        }
    }
}

}  // namespace
}  // namespace receiver
