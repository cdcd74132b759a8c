// Archives from the wire that no encoder has written: refused, without memory for what they claim.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <random>

#include "lpc/parameter.h"
#include "tests/lpc/loaded_runtime.h"

namespace velmor_com::NQ::LPC {
namespace {

using namespace manageability;

constexpr wchar_t kHeader[] = L"22 serialization::archive 18 ";

template <class T>
bool decodes(const std::wstring &archive) {
    const std::string bytes = wire_bytes(archive);
    try {
        const ParameterRef parameter(new Parameter(bytes.data(), bytes.size()));
        T value{};
        parameter->get(value);
        return true;
    } catch (const LPCError &) {
        return false;
    }
}

bool anything_decodes(const std::wstring &archive) {
    return decodes<bool>(archive) | decodes<int>(archive) | decodes<unsigned long>(archive) |
           decodes<std::wstring>(archive) | decodes<LogonState>(archive) |
           decodes<Lpc_OneSectionHandle>(archive) | decodes<Lpc_MultipleSectionsHandle>(archive) |
           decodes<Lpc_PolicyObjectContainer>(archive);
}

long peak_kilobytes() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

TEST(HostileArchive, TheHeaderMustBeThere) {
    EXPECT_TRUE(decodes<int>(std::wstring(kHeader) + L"2 7"));
    for (const wchar_t *archive :
         {L"", L" ", L"2 7", L"22 serialization::archiv", L"22 serialization::Archive 18 2 7",
          L"99999999999999999999 serialization::archive 18 2 7", L"-1 x",
          L"22 serialization::archive x 2 7", L"22 serialization::archive 9999 2 7"})
        EXPECT_FALSE(decodes<int>(archive)) << testing::PrintToString(std::wstring(archive));
}

TEST(HostileArchive, ValuesMustBeWhole) {
    const struct {
        const wchar_t *text;
        bool (*decode)(const std::wstring &);
    } rows[] = {
        {L"", decodes<int>},
        {L"2", decodes<int>},
        {L"2 x", decodes<int>},
        {L"2 99999999999", decodes<int>},
        {L"0 7", decodes<int>},
        {L"8 7", decodes<int>},
        {L"-1 7", decodes<int>},
        {L"2 2", decodes<bool>},
        {L"2 4", decodes<LogonState>},
        {L"2 -1", decodes<LogonState>},
        {L"2 5 abcd", decodes<std::wstring>},
        {L"2 -1 abcd", decodes<std::wstring>},
        {L"2 18446744073709551615 abcd", decodes<std::wstring>},
        {L"2 4611686018427387904 abcd", decodes<std::wstring>},
        {L"2 1 1 S 65536", decodes<Lpc_MultipleSectionsHandle>},
        {L"2 65537", decodes<Lpc_MultipleSectionsHandle>},
        {L"2 18446744073709551615", decodes<Lpc_MultipleSectionsHandle>},
        {L"2 -1", decodes<Lpc_PolicyObjectContainer>},
        {L"2 1 S 18446744073709551615", decodes<Lpc_OneSectionHandle>},
        {L"2 1 0  0  0  0  18446744073709551615", decodes<Lpc_PolicyObjectContainer>},
    };
    for (const auto &row : rows)
        EXPECT_FALSE(row.decode(kHeader + std::wstring(row.text)))
            << testing::PrintToString(std::wstring(row.text));
}

TEST(HostileArchive, ClaimsTakeNoMemory) {
    const long before = peak_kilobytes();
    for (const wchar_t *claim : {L"2 1073741824 a", L"2 4294967296 a", L"2 60000", L"2 1 60000 a"})
        EXPECT_FALSE(decodes<std::wstring>(kHeader + std::wstring(claim)) &&
                     decodes<Lpc_MultipleSectionsHandle>(kHeader + std::wstring(claim)));
    EXPECT_LT(peak_kilobytes() - before, 512 * 1024);
}

TEST(HostileArchive, ManyEntriesAreRefused) {
    const auto sections = [](unsigned count) {
        std::wstring archive = std::wstring(kHeader) + L"2 " + std::to_wstring(count);
        for (unsigned i = 0; i < count; i++) archive += L" 0  0";
        return archive;
    };
    EXPECT_TRUE(decodes<Lpc_MultipleSectionsHandle>(sections(65536)));
    EXPECT_FALSE(decodes<Lpc_MultipleSectionsHandle>(sections(65537)));
}

TEST(HostileArchive, BlocksOfTheWrongSizeAreRefused) {
    const std::string bytes = wire_bytes(std::wstring(kHeader) + L"2 7");
    EXPECT_THROW(new Parameter(bytes.data(), bytes.size() - 1), LPCError);
    EXPECT_THROW(new Parameter(nullptr, 0), LPCError);
    const std::string large(Parameter::kMaxBytes + sizeof(wchar_t), ' ');
    EXPECT_THROW(new Parameter(large.data(), large.size()), LPCError);
}

// Every way to cut a good archive short, and a few thousand ways to spoil it, seeded.
TEST(HostileArchive, CutAndSpoiledArchivesOnlyFail) {
    const std::wstring good = std::wstring(kHeader) + L"2 2 1 S 1 1 k 2 v1 1 T 0";
    ASSERT_TRUE(decodes<Lpc_MultipleSectionsHandle>(good));
    for (size_t length = 0; length < good.size(); length++)
        EXPECT_FALSE(decodes<Lpc_MultipleSectionsHandle>(good.substr(0, length))) << length;
    std::mt19937 random(20260101);
    const std::wstring characters = std::wstring(L" 0123456789-+.:aS\n\0\uffff", 22);
    int decoded = 0;
    for (int i = 0; i < 2000; i++) {
        std::wstring spoiled = good;
        for (unsigned n = random() % 4 + 1; n > 0; n--)
            spoiled[random() % spoiled.size()] = characters[random() % characters.size()];
        decoded += anything_decodes(spoiled);
    }
    EXPECT_LT(decoded, 2000);
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
