// The Receiver's cutting and decoding on buffers that end exactly where the bytes end, so that a
// sanitizer sees any look beyond them.

#include "tools/ruv_receiver/frame.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "tools/common/json_reader.h"
#include "tools/common/wire_layout.h"
#include "tools/ruv_receiver/decode.h"

namespace receiver {
namespace {

using bytes = std::vector<uint8_t>;

/** A copy on the heap with nothing behind it. */
std::unique_ptr<uint8_t[]> exact(const bytes &content, size_t length) {
    std::unique_ptr<uint8_t[]> copy(new uint8_t[length]);
    if (length > 0) memcpy(copy.get(), content.data(), length);
    return copy;
}

bytes magic() {
    return bytes(wire::kMagic, wire::kMagic + wire::kMagicSize);
}

bytes modern(unsigned type, unsigned data_version, size_t more) {
    bytes unit = magic();
    uint8_t header[8] = {};
    wire::write_uint(header, data_version << 20 | type << 8 | 6, 4);
    unit.insert(unit.end(), header, header + sizeof header);
    unit.resize(unit.size() + more);
    return unit;
}

bytes legacy(unsigned version, unsigned mark, size_t more) {
    bytes unit = magic();
    unit.push_back(static_cast<uint8_t>(version));
    unit.push_back(static_cast<uint8_t>(mark));
    unit.resize(wire::kMagicSize + more);
    return unit;
}

/** Every unit with nothing but zeros in its fields, by the documented sizes. */
std::vector<bytes> empty_units() {
    std::vector<bytes> units;
    for (unsigned version = 1; version <= 2; version++) units.push_back(legacy(version, 0, 128));
    for (unsigned version = 3; version <= 5; version++) {
        for (auto [mark, size] : {std::pair{0u, 129u}, {1u, 62u}, {4u, 148u}, {5u, 12u}})
            units.push_back(legacy(version, mark, size));
    }
    const unsigned alert[] = {100, 216, 224, 0}, flow[] = {128, 204, 232, 0};
    for (unsigned sub = 0; sub < 4; sub++) {
        units.push_back(modern(wire::kAlert, sub, alert[sub]));
        units.push_back(modern(wire::kFlow, sub, flow[sub]));
        units.push_back(modern(wire::kSyslog, sub, 8));
        units.push_back(modern(wire::kWindows, sub, 4));
    }
    for (unsigned code = 0; code <= 9; code++)
        units.push_back(modern(wire::kRequest, code, code == 3 || code == 8 ? 4 : 0));
    return units;
}

TEST(Frame, EveryUnitIsAsLongAsDocumented) {
    for (const bytes &whole : empty_units()) {
        auto copy = exact(whole, whole.size());
        unit u = next_unit(copy.get(), whole.size());
        EXPECT_TRUE(u.kind == unit_kind::record || u.kind == unit_kind::request);
        EXPECT_EQ(u.size, whole.size());
    }
}

TEST(Frame, EveryBeginningAsksForMore) {
    for (const bytes &whole : empty_units()) {
        for (size_t have = 1; have < whole.size(); have++) {
            auto copy = exact(whole, have);
            unit u = next_unit(copy.get(), have);
            ASSERT_EQ(u.kind, unit_kind::incomplete) << have << " of " << whole.size();
            ASSERT_GT(u.size, have);
            ASSERT_LE(u.size, whole.size());
        }
    }
}

TEST(Frame, GarbageEndsWhereAMagicMayBegin) {
    for (size_t kept = 0; kept <= wire::kMagicSize; kept++) {
        bytes noise(20, 'x');
        noise.insert(noise.end(), wire::kMagic, wire::kMagic + kept);
        auto copy = exact(noise, noise.size());
        unit u = next_unit(copy.get(), noise.size());
        EXPECT_EQ(u.kind, unit_kind::garbage);
        EXPECT_EQ(u.size, 20u);
    }
}

TEST(Frame, UnknownKindsAreGarbage) {
    for (const bytes &odd : {legacy(0, 0, 40), legacy(7, 0, 40), legacy(3, 2, 40), legacy(5, 9, 40),
                             modern(5, 0, 40), modern(4095, 0, 40)}) {
        auto copy = exact(odd, odd.size());
        unit u = next_unit(copy.get(), odd.size());
        EXPECT_EQ(u.kind, unit_kind::garbage);
        EXPECT_EQ(u.size, odd.size());
    }
}

TEST(Frame, LengthsOfTheLargestValuesDoNotWrap) {
    bytes windows = legacy(4, 1, 62);
    for (size_t i = wire::kMagicSize + 2; i < windows.size(); i++) windows[i] = 0xFF;
    auto copy = exact(windows, windows.size());
    unit u = next_unit(copy.get(), windows.size());
    EXPECT_EQ(u.kind, unit_kind::incomplete);
    EXPECT_EQ(u.size, windows.size() + 6 * 0xFFFFFFFFull);
}

TEST(Decode, RandomUnitsAreReadToTheirEndAndNoFurther) {
    std::mt19937 dice(7);
    std::vector<bytes> units = empty_units();
    for (int round = 0; round < 3000; round++) {
        bytes whole = units[dice() % units.size()];
        size_t fixed = whole[8] == 6 ? 16 : 10;
        for (size_t i = fixed; i < whole.size(); i++)
            whole[i] = static_cast<uint8_t>(dice() % 3 == 0 ? dice() : 0);
        unit u = next_unit(whole.data(), whole.size());
        if (u.kind == unit_kind::incomplete && u.size < 200000) {
            while (whole.size() < u.size) whole.push_back(static_cast<uint8_t>(dice()));
        }
        auto copy = exact(whole, whole.size());
        u = next_unit(copy.get(), whole.size());
        if (u.kind != unit_kind::record) continue;
        ASSERT_EQ(u.size, whole.size());
        std::string line;
        describe_record(line, u, copy.get(), {1, "a source", "HostID", nullptr});
        ASSERT_EQ(line.back(), '\n');
        ASSERT_EQ(line.find('\n'), line.size() - 1);
    }
}

TEST(JsonReader, TakesAndRefuses) {
    std::vector<tools::json_member> members;
    std::string error;
    ASSERT_TRUE(tools::read_json_object(
        R"( {"a":"x\n\u20ac","b":-1.5e3,"c":[true,null,"z"],"d":null} )", &members, &error));
    ASSERT_EQ(members.size(), 4u);
    EXPECT_EQ(members[0].values, std::vector<std::string>{"x\n\xe2\x82\xac"});
    EXPECT_EQ(members[1].values, std::vector<std::string>{"-1.5e3"});
    EXPECT_EQ(members[2].values, (std::vector<std::string>{"1", "z"}));
    EXPECT_TRUE(members[3].values.empty());
    for (const char *bad : {"", "{", "{}x", "{\"a\"}", "{\"a\":}", "{\"a\":x}", "{\"a\":\"", "[]",
                            "{\"a\":[1}", "{\"a\":\"\\u12\"}", "{\"a\":\"\\ud800\"}", "{,}"}) {
        members.clear();
        error.clear();
        EXPECT_FALSE(tools::read_json_object(bad, &members, &error)) << bad;
        EXPECT_FALSE(error.empty());
    }
}

}  // namespace
}  // namespace receiver
