// The agent's configuration file: where the libraries are.
#include "lpc/runtime_location.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/lpc/temp_folder.h"

namespace velmor_com::NQ::LPC {
namespace {

TEST(RuntimeLocation, TheValueBetweenTheTags) {
    const struct {
        const char *text, *value;  // null: not found
    } rows[] = {
        {"<SharedLibLocation>/opt/x</SharedLibLocation>", "/opt/x"},
        {"<A><SharedLibLocation> /a b </SharedLibLocation></A>", " /a b "},
        {"<SharedLibLocation>/opt\n/x\n</SharedLibLocation>", "/opt/x"},
        {"<SharedLibLocation>\r\n/x</SharedLibLocation>", "\r/x"},
        {"<SharedLibLocation></SharedLibLocation>", ""},
        {"<SharedLibLocation>1</SharedLibLocation><SharedLibLocation>2</SharedLibLocation>", "1"},
        {"</SharedLibLocation><SharedLibLocation>late</SharedLibLocation>", "late"},
        {"<SharedLibLocation><SharedLibLocation>x</SharedLibLocation>", "<SharedLibLocation>x"},
        {"", nullptr},
        {"<SharedLibLocation>/opt/x", nullptr},
        {"/opt/x</SharedLibLocation>", nullptr},
        {"</SharedLibLocation>/opt/x<SharedLibLocation>", nullptr},
        {"<sharedliblocation>/opt/x</sharedliblocation>", nullptr},
        {"<SharedLibLocation >/opt/x</SharedLibLocation>", nullptr},
    };
    for (const auto &row : rows) {
        std::string value = "unset";
        EXPECT_EQ(parse_shared_lib_location(row.text, &value), row.value != nullptr) << row.text;
        EXPECT_EQ(value, row.value ? row.value : "unset") << row.text;
    }
}

TEST(RuntimeLocation, AValueEndsAtANul) {
    std::string text = "<SharedLibLocation>/opt/x.so#/y</SharedLibLocation>", value;
    text[text.find('#')] = '\0';
    EXPECT_TRUE(parse_shared_lib_location(text, &value));
    EXPECT_EQ(value, "/opt/x.so");
}

TEST(RuntimeLocation, AFileOfAtMostEightKilobytes) {
    TempFolder folder;
    std::string text = "<SharedLibLocation>/opt/x</SharedLibLocation>", value;
    text.resize(8192, ' ');
    EXPECT_TRUE(read_shared_lib_location(folder.write("full", text), &value));
    EXPECT_EQ(value, "/opt/x");
    EXPECT_FALSE(read_shared_lib_location(folder.write("over", text + " "), &value));
    EXPECT_FALSE(read_shared_lib_location(folder.write("empty", ""), &value));
    EXPECT_FALSE(read_shared_lib_location(folder.path("missing"), &value));
}

TEST(RuntimeLocation, OnlyARegularFileIsRead) {
    TempFolder folder;
    std::string value;
    ASSERT_EQ(mkfifo(folder.path("fifo").c_str(), 0600), 0);
    EXPECT_FALSE(read_shared_lib_location(folder.path("fifo"), &value));
    EXPECT_FALSE(read_shared_lib_location(folder.path(), &value));
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
