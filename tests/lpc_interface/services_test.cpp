// The property collection and the update callback.
#include <gtest/gtest.h>

#include <filesystem>

#include "lpc_interface/IPropertyCollection_Servant_Impl.h"
#include "lpc_interface/IUpdateCallback_Servant_Impl.h"
#include "tests/lpc_interface/kit.h"

namespace velmor_com::NQ {
namespace {

using manageability::Lpc_MultipleSectionsHandle;

std::wstring flat(const manageability::Lpc_OneSectionHandle &section) {
    std::wstring text = section.getName(), name, value;
    for (size_t i = 0; section.getSettingByIndex(i, name, value); i++)
        text += L"|" + name + L"=" + value;
    return text;
}

constexpr char kCollected[] =
    "(INFO) IPropertyCollection_Servant_Impl::collectProperties method getting called\n";
constexpr char kCompleted[] = "(INFO) Properties Collection completed successfully\n";

TEST(PropertyCollection, EveryLineOfTheFile) {
    const ConfigFile file("# c\n\nrec_ip=1\nk=a=b\nrec_ip=2\nword\ntype=filetail\n");
    LPC::IPropertyCollection_Servant_Impl servant;
    Lpc_MultipleSectionsHandle sections;
    const std::string log = logged([&] { EXPECT_TRUE(servant.collectProperties(true, sections)); });
    ASSERT_EQ(sections.size(), 2u);
    EXPECT_EQ(flat(sections[0]), L"General|szProductVer=1.0.0.0|Language=0000");
    EXPECT_EQ(flat(sections[1]), L"Config|rec_ip=1|k=a=b|word=word|type=filetail");
    EXPECT_EQ(log, std::string(kCollected) +
                       "(DEBUG) \tConfig param: rec_ip : 1\n"
                       "(DEBUG) \tConfig param: k : a=b\n"
                       "(DEBUG) \tConfig param: rec_ip : 2\n"
                       "(DEBUG) \tConfig param: word : word\n"
                       "(DEBUG) \tConfig param: type : filetail\n" +
                       kCompleted);
}

TEST(PropertyCollection, LinesOfAnotherSystemKeepTheirCarriageReturn) {
    const ConfigFile file("rec_ip=1\r\nword\r\n\r\n");
    LPC::IPropertyCollection_Servant_Impl servant;
    Lpc_MultipleSectionsHandle sections;
    const std::string log = logged([&] { EXPECT_TRUE(servant.collectProperties(true, sections)); });
    ASSERT_EQ(sections.size(), 2u);
    EXPECT_EQ(flat(sections[1]), L"Config|rec_ip=1\r|word\r=word\r");
    EXPECT_EQ(log, std::string(kCollected) +
                       "(DEBUG) \tConfig param: rec_ip : 1\r\n"
                       "(DEBUG) \tConfig param: word\r : word\r\n" +
                       kCompleted);
}

TEST(PropertyCollection, AnEmptyFileHasGeneralPropertiesOnly) {
    const ConfigFile file("");
    LPC::IPropertyCollection_Servant_Impl servant;
    Lpc_MultipleSectionsHandle sections;
    logged([&] { EXPECT_TRUE(servant.collectProperties(false, sections)); });
    ASSERT_EQ(sections.size(), 1u);
    EXPECT_EQ(sections[0].size(), 2u);
}

TEST(PropertyCollection, AMissingFileDoesNotFail) {
    const ConfigFile file("");
    std::filesystem::remove(file.path());
    LPC::IPropertyCollection_Servant_Impl servant;
    Lpc_MultipleSectionsHandle sections;
    const std::string log = logged([&] { EXPECT_TRUE(servant.collectProperties(true, sections)); });
    EXPECT_EQ(sections.size(), 1u);
    EXPECT_EQ(count_of(log, kCompleted), 1);
}

TEST(PropertyCollection, AnySoftwareExists) {
    LPC::IPropertyCollection_Servant_Impl servant;
    EXPECT_EQ(logged([&] { EXPECT_TRUE(servant.isSoftwareExists(L"anything")); }),
              "(INFO) IPropertyCollection_Servant_Impl::isSoftwareExists method getting called\n");
    EXPECT_FALSE(servant.isRunning());
    EXPECT_FALSE(servant.abort());
    EXPECT_EQ(servant.getInterfaceId(), "IPropertyCollection");
    EXPECT_EQ(sizeof(servant), sizeof(void *));
}

TEST(UpdateCallback, ProductInformation) {
    const struct {
        const wchar_t *name;
        const char *line;
        const wchar_t *value;
        int result;
    } rows[] = {
        {L"Location", "(INFO) IRequesting the content location\n", L"old", 0},
        {L"Version", "(INFO) Requesting for content version\n", L"9.1.3", 0},
        {L"version", "(INFO) Unknown request\n", L"old", 1},
        {L"", "(INFO) Unknown request\n", L"old", 1},
        {L"Version ", "(INFO) Unknown request\n", L"old", 1},
    };
    updater::IUpdateCallback_Servant_Impl servant;
    for (const auto &row : rows) {
        std::wstring value = L"old";
        int result = -1;
        const std::string log =
            logged([&] { result = servant.GetProductInfo(L"software", row.name, value); });
        EXPECT_EQ(log,
                  std::string("(INFO) IUpdateCallback_Servant_Impl::GetProductInfo\n") + row.line);
        EXPECT_EQ(value, row.value);
        EXPECT_EQ(result, row.result);
    }
}

TEST(UpdateCallback, NoticesAreOnlyLogged) {
    updater::IUpdateCallback_Servant_Impl servant;
    auto state = updater::UPDATE_STATE_RUNNING;
    EXPECT_EQ(logged([&] { EXPECT_EQ(servant.UpdateNotify(L"a", L"b", L"c", state), 0); }),
              "(INFO) IUpdateCallback_Servant_Impl::UpdateNotify method getting called\n");
    EXPECT_EQ(state, updater::UPDATE_STATE_RUNNING);
    EXPECT_EQ(logged([&] { EXPECT_EQ(servant.SetProductInfo(L"a", L"b", L"c"), 0); }),
              "(INFO) IUpdateCallback_Servant_Impl::SetProductInfo method getting called\n");
    EXPECT_FALSE(servant.isRunning());
    EXPECT_FALSE(servant.abort());
    EXPECT_EQ(servant.getInterfaceId(), "IUpdateCallback");
    EXPECT_EQ(sizeof(servant), sizeof(void *));
}

}  // namespace
}  // namespace velmor_com::NQ
