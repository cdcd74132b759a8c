#include "filetail/bookmark_format.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::string formatted(uint64_t location, uint32_t head, uint32_t tail, const std::string &path) {
    char out[kBookmarkRecord];
    if (!bookmark_format(out, location, head, tail, path.data(), path.size())) return "refused";
    return {out, sizeof(out)};
}

bookmark_record parsed(const std::string &bytes) {
    return bookmark_parse(bytes.data(), bytes.size());
}

std::string path_of(const std::string &bytes) {
    const bookmark_record record = parsed(bytes);
    return {record.path ? record.path : "", record.path_length};
}

const std::string kZeros = "000000000000000|000000000000000|000000000000000|";

std::string with_field(const std::string &field) {
    std::string padded = field;
    padded.resize(150, ' ');
    return kZeros + padded + "\n";
}

TEST(BookmarkFormat, WritesTheDocumentedBytes) {
    const std::string expected =
        "000000000004711|000004294967295|000000000000042|/var/log/messages" +
        std::string(133, ' ') + "\n";
    ASSERT_EQ(expected.size(), 199u);
    EXPECT_EQ(formatted(4711, 4294967295u, 42, "/var/log/messages"), expected);
}

TEST(BookmarkFormat, UsesAllFifteenDigits) {
    EXPECT_EQ(formatted(999999999999999, 0, 0, "/a").substr(0, 16), "999999999999999|");
    EXPECT_EQ(formatted(4294967296, 0, 0, "/a").substr(0, 16), "000004294967296|");
    EXPECT_EQ(formatted(1000000000000000, 0, 0, "/a").substr(0, 16), "999999999999999|");
}

TEST(BookmarkFormat, TakesPathsOfUpTo150Bytes) {
    const std::string longest = "/" + std::string(149, 'p');
    EXPECT_EQ(formatted(1, 2, 3, longest).substr(48), longest + "\n");
    EXPECT_EQ(formatted(1, 2, 3, longest + "p"), "refused");
    EXPECT_EQ(formatted(1, 2, 3, ""), "refused");
}

TEST(BookmarkFormat, ReadsWhatItWrote) {
    for (const std::string &path : {std::string("/a"), "/" + std::string(149, 'p')}) {
        const std::string bytes = formatted(123456789012345, 4000000000u, 7, path);
        const bookmark_record record = parsed(bytes);
        EXPECT_EQ(record.location, 123456789012345u);
        EXPECT_EQ(record.head, 4000000000u);
        EXPECT_EQ(record.tail, 7u);
        EXPECT_EQ(path_of(bytes), path);
    }
}

TEST(BookmarkFormat, AcceptsBlanksInFrontOfNumbers) {
    const bookmark_record record =
        parsed("             12|              3|              4|/a" + std::string(148, ' ') + "\n");
    EXPECT_EQ(record.location, 12u);
    EXPECT_EQ(record.head, 3u);
    EXPECT_EQ(record.tail, 4u);
    EXPECT_EQ(record.path_length, 2u);
}

TEST(BookmarkFormat, PathEndsAtTheFieldEvenWithoutALineFeed) {
    EXPECT_EQ(path_of(with_field("/a").substr(0, 198)), "/a");
    EXPECT_EQ(path_of(with_field("/a").substr(0, 198) + "x"), "/a");
}

TEST(BookmarkFormat, PathWithABlankMatchesNothing) {
    EXPECT_EQ(path_of(with_field("/a b")), "");
    EXPECT_EQ(path_of(with_field("/a\tb")), "");
    EXPECT_EQ(path_of(with_field(" /a")), "");
    EXPECT_EQ(path_of(with_field("")), "");
}

TEST(BookmarkFormat, ShortRecordCountsOnlyWithTheEndOfItsPath) {
    EXPECT_EQ(path_of(kZeros + "/a\n"), "/a");
    EXPECT_EQ(path_of(kZeros + "/a "), "/a");
    EXPECT_EQ(path_of(kZeros + "/a"), "") << "the rest of the path may be missing";
    EXPECT_EQ(path_of(kZeros + "/" + std::string(149, 'p')), "/" + std::string(149, 'p'));
    EXPECT_EQ(path_of(kZeros), "");
    EXPECT_EQ(path_of(""), "");
}

TEST(BookmarkFormat, ShortRecordFollowedByAHoleStillCounts) {
    std::string bytes = kZeros + "/a\n";
    bytes.resize(199, '\0');
    EXPECT_EQ(path_of(bytes), "/a");
}

TEST(BookmarkFormat, DamagedNumbersMatchNothing) {
    for (size_t at : {0u, 7u, 14u, 16u, 30u, 32u, 46u}) {
        std::string bytes = with_field("/a");
        bytes[at] = 'x';
        EXPECT_EQ(path_of(bytes), "") << at;
    }
    for (size_t at : {15u, 31u, 47u}) {
        std::string bytes = with_field("/a");
        bytes[at] = '0';
        EXPECT_EQ(path_of(bytes), "") << at;
    }
    EXPECT_EQ(path_of("               |" + with_field("/a").substr(16)), "");
    EXPECT_EQ(path_of(std::string(199, '\0')), "");
}

TEST(BookmarkFormat, EveryByteButADigitDamagesANumber) {
    for (size_t at = 0; at < 47; ++at) {
        if (at % 16 == 15) continue;
        for (int byte = 0; byte < 256; ++byte) {
            std::string bytes = "123456789012345|000002345678901|000003456789012|/a\n";
            bytes[at] = static_cast<char>(byte);
            const bool is_first = at % 16 == 0;
            const bool is_blank = byte == ' ' || (byte >= '\t' && byte <= '\r');
            const bool is_digit = byte >= '0' && byte <= '9';
            ASSERT_EQ(path_of(bytes) == "/a", is_digit || (is_first && is_blank)) << at;
            if (is_digit) {
                ASSERT_EQ(parsed(bytes).location, strtoull(bytes.c_str(), nullptr, 10));
            }
        }
    }
}

TEST(BookmarkFormat, EveryPrefixAndEveryByteIsReadWithinBounds) {
    const std::string bytes = formatted(1, 2, 3, "/var/log/messages");
    for (size_t length = 0; length <= bytes.size(); ++length) {
        const std::string exact(bytes, 0, length);
        const bookmark_record record = parsed(exact);
        EXPECT_LE(record.path_length, 150u);
        EXPECT_EQ(record.path_length > 0, length > kZeros.size() + 17) << length;
    }
}

TEST(BookmarkFormat, EveryNumberIsWrittenAsTheCLibraryWritesIt) {
    uint64_t value = 1;
    for (int i = 0; i < 400; ++i) {
        char expected[64];
        snprintf(expected, sizeof(expected), "%015llu|%015u|%015u|",
                 static_cast<unsigned long long>(value), static_cast<uint32_t>(value),
                 static_cast<uint32_t>(value >> 3));
        const std::string bytes =
            formatted(value, static_cast<uint32_t>(value), static_cast<uint32_t>(value >> 3), "/a");
        ASSERT_EQ(bytes.substr(0, 48), expected);
        ASSERT_EQ(parsed(bytes).location, value);
        ASSERT_EQ(parsed(bytes).head, static_cast<uint32_t>(value));
        ASSERT_EQ(parsed(bytes).tail, static_cast<uint32_t>(value >> 3));
        value = i % 20 < 16 ? value * 10 % 999'999'999'999'999 : value * 7 + 9;
        value %= 1'000'000'000'000'000;
    }
}

// The comparison in one go and the reading of a path must agree on every record.
TEST(BookmarkFormat, ParsingForAPathAgreesWithParsing) {
    const std::vector<std::string> paths = {
        "/a", "/a b", "/ab", "", "/", std::string(150, 'p'), std::string(151, 'p'), "/a\n"};
    std::vector<std::string> images = {"", kZeros, kZeros + "/a", kZeros + "/a\n", kZeros + "/a "};
    for (const std::string &path : paths) images.push_back(with_field(path));
    for (size_t at = 0; at < 199; ++at) {
        for (const char damage : {'x', ' ', '\0', '\n', '0'}) {
            images.push_back(with_field("/a"));
            images.back()[at] = damage;
        }
    }
    for (const std::string &image : images) {
        for (const std::string &path : paths) {
            bookmark_record record;
            const bool is_it =
                bookmark_parse_of(image.data(), image.size(), path.data(), path.size(), &record);
            const bookmark_record plain = parsed(image);
            EXPECT_EQ(is_it, plain.path_length > 0 && path_of(image) == path) << image;
            EXPECT_EQ(record.path_length, plain.path_length) << image;
            EXPECT_EQ(record.location, plain.location);
        }
    }
}

TEST(BookmarkFormat, FindablePaths) {
    const auto findable = [](const std::string &path) {
        return bookmark_path_findable(path.data(), path.size());
    };
    EXPECT_TRUE(findable("/a"));
    EXPECT_TRUE(findable(std::string(150, 'p')));
    EXPECT_TRUE(findable("/\xc3\xa4"));
    EXPECT_FALSE(findable(std::string(151, 'p')));
    EXPECT_FALSE(findable(""));
    for (const char blank : {' ', '\t', '\n', '\v', '\f', '\r'}) {
        EXPECT_FALSE(findable(std::string("/a") + blank + "b"));
    }
}

TEST(BookmarkFormat, ABlankIsSeenWhereverItStands) {
    for (size_t length = 1; length <= 26; ++length) {
        for (size_t at = 0; at < length; ++at) {
            for (int byte = 0; byte < 256; ++byte) {
                std::string path(length, 'p');
                path[at] = static_cast<char>(byte);
                const bool is_blank = byte == ' ' || (byte >= '\t' && byte <= '\r');
                ASSERT_EQ(bookmark_path_findable(path.data(), path.size()), !is_blank)
                    << length << " " << at << " " << byte;
            }
        }
    }
}

}  // namespace
