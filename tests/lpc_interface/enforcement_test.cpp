// Whole policies against whole files, with an accessor that plays the agent.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <thread>

#include "lpc_interface/IPolicyEnforcement_Servant_Impl.h"
#include "tests/lpc_interface/kit.h"

namespace velmor_com::NQ::LPC {
namespace {

using Sections = manageability::Lpc_MultipleSectionsHandle;

class Agent : public IPolicyDataAccessor_S {
  public:
    bool isRunning() override { return false; }
    bool abort() override { return false; }
    void setOperationTimeout(unsigned) override {}

    bool getPolicyObjectContainer(const std::wstring &softwareid, Objects &objects) override {
        asked_for = softwareid;
        if (meanwhile) meanwhile();
        switch (fault) {
            case 'n':
                return false;
            case 'e':
                throw std::runtime_error("the agent is gone");
            case 's':
                throw "a word of the agent";
            case 'S':
                throw std::string("words of the agent");
            case 'x':
                throw 7;
        }
        manageability::Lpc_PolicySettingObjectContainer settings;
        for (size_t i = 0; i < setting_objects.size(); i++)
            settings.add({L"setting", static_cast<int>(i), L"text"});
        objects.add({L"feature", L"category", L"type", L"Policy", settings});
        return true;
    }

    bool getAllPolicySections(const std::wstring &feature, const std::wstring &category,
                              const std::wstring &type, const std::wstring &name, int index,
                              const std::wstring &text, Sections &sections) override {
        EXPECT_EQ(feature + category + type + name + text, L"featurecategorytypesettingtext");
        sections = setting_objects[static_cast<size_t>(index)];
        return sections.size() > 0;
    }

    std::vector<Sections> setting_objects{1};
    std::wstring asked_for;
    std::function<void()> meanwhile;
    char fault = ' ';
};

constexpr char kFile[] =
    "# head\nrec_ip=192.0.2.1\nrec_encrypt=0\ntype=filetail\nft_dir=/a\nft_start_top=0\n";

class Enforcement : public testing::Test {
  protected:
    void add(const wchar_t *section, const wchar_t *name, const wchar_t *value) {
        agent.setting_objects.back().insert(section, name, value);
    }
    std::string enforce(IPolicyDataAccessor *accessor) {
        before = restarts;
        return logged([&] { EXPECT_TRUE(servant.enforcePolicy(L"LOGRELAY1000", accessor)); });
    }
    std::string enforce() { return enforce(&agent); }
    int restarted() const { return restarts - before; }

    IPolicyEnforcement_Servant_Impl servant;
    Agent agent;
    int before = 0;
};

TEST_F(Enforcement, NoAccessor) {
    EXPECT_EQ(enforce(nullptr), "(INFO) Enforce Policy called\n(ERROR) accessor object null\n");
}

TEST_F(Enforcement, IdenticalPolicyIsNotWritten) {
    const ConfigFile file(kFile);
    const auto written = std::filesystem::last_write_time(file.path());
    add(L"LOGRELAY1000", L"Receiver IP", L"192.0.2.1");
    add(L"LOGRELAY1000", L"Tail Mode", L"end");
    EXPECT_EQ(enforce(),
              "(INFO) Enforce Policy called\n"
              "(DEBUG) \tSection Name: LOGRELAY1000\n"
              "(DEBUG) \tSetting for Policy: Receiver IP = 192.0.2.1\n"
              "(DEBUG) Values match(rec_ip): 192.0.2.1\n"
              "(DEBUG) \tSetting for Policy: Tail Mode = end\n"
              "(DEBUG) Values match(ft_start_top): 0\n"
              "(DEBUG) No policy update, configs are identical\n");
    EXPECT_EQ(agent.asked_for, L"LOGRELAY1000");
    EXPECT_EQ(std::filesystem::last_write_time(file.path()), written);
    EXPECT_EQ(restarted(), 0);
}

TEST_F(Enforcement, ADiscrepancyIsWrittenAndTheCollectorRestarted) {
    const ConfigFile file(kFile);
    add(L"LOGRELAY1000", L"Tail Mode", L"begin");
    const std::string log = enforce();
    const std::string expected =
        "# head\nrec_ip=192.0.2.1\nrec_encrypt=0\ntype=filetail\nft_dir=/a\nft_start_top=1\n\n";
    EXPECT_EQ(file.text(), expected);
    EXPECT_EQ(file.others(), "");
    EXPECT_EQ(restarted(), 1);
    EXPECT_EQ(log.substr(log.find("(WARN) Updated")),
              "(WARN) Updated 'ft_start_top': 1\n"
              "(WARN) Updating local configuration, 1 descrepancies.\n"
              "(INFO) # head\n(INFO) rec_ip=192.0.2.1\n(INFO) rec_encrypt=0\n"
              "(INFO) type=filetail\n(INFO) ft_dir=/a\n(INFO) ft_start_top=1\n(INFO) \n");
}

TEST_F(Enforcement, ANewSectionIsAppended) {
    const ConfigFile file(kFile);
    add(L"LOGRELAY1000", L"Receiver IP", L"192.0.2.1");
    add(L"File.2", L"Tail Mode", L"begin");
    add(L"File.2", L"Log Directory", L"/b");
    add(L"File.2", L"Event Delimeter", L"");
    enforce();
    EXPECT_EQ(file.text(), std::string(kFile) +
                               "\ntype=filetail\nft_delim_end_of_event=1\n"
                               "ft_delim=[newline]\nft_dir=/b\nft_start_top=1\n");
    EXPECT_EQ(restarted(), 1);
}

TEST_F(Enforcement, FewerSectionsThanPluginsRebuildAll) {
    const ConfigFile file(
        "rec_ip=1\ntype=filetail\nft_dir=/1\ntype=filetail\nft_dir=/2\n"
        "type=filetail\nft_dir=/3\n");
    add(L"File.1", L"Log Directory", L"/3");
    add(L"File.2", L"Log Directory", L"/1");
    const std::string log = enforce();
    EXPECT_EQ(count_of(log,
                       "(DEBUG) An Ozu plugin has been deleted.  Recreating full plugin "
                       "configuration\n"),
              1);
    EXPECT_EQ(file.text(),
              "rec_ip=1\ntype=filetail\nft_delim_end_of_event=1\nft_dir=/3\n\n"
              "type=filetail\nft_delim_end_of_event=1\nft_dir=/1\n");
    EXPECT_EQ(restarted(), 1);
}

TEST_F(Enforcement, EachSettingObjectIsLookedAt) {
    const ConfigFile file(kFile);
    add(L"LOGRELAY1000", L"Receiver IP", L"192.0.2.9");
    agent.setting_objects.emplace_back();  // has no sections, the next is looked at all the same
    agent.setting_objects.emplace_back();
    add(L"LOGRELAY1000", L"Encryption", L"true");
    EXPECT_EQ(count_of(enforce(), "Updating local configuration, 2 descrepancies."), 1);
    EXPECT_EQ(count_of(file.text(), "rec_ip=192.0.2.9\nrec_encrypt=1\n"), 1);
}

TEST_F(Enforcement, CollectedSectionsDoNotOutliveThePolicy) {
    const ConfigFile file(kFile);
    add(L"LOGRELAY1000", L"Receiver IP", L"192.0.2.1");
    add(L"File.7", L"Log Directory", L"/b");
    enforce();
    const std::string first = file.text();
    agent.setting_objects.assign(1, {});
    add(L"LOGRELAY1000", L"Encryption", L"true");
    enforce();
    EXPECT_EQ(count_of(file.text(), "ft_dir=/b"), 1);
    EXPECT_EQ(file.text().size(), first.size() + 1);
}

TEST_F(Enforcement, ThePolicyMayBeEmptyOrRefused) {
    const ConfigFile file(kFile);
    agent.fault = 'n';
    EXPECT_EQ(enforce(),
              "(INFO) Enforce Policy called\n"
              "(DEBUG) No policy update, configs are identical\n");
    EXPECT_EQ(file.text(), kFile);
}

TEST_F(Enforcement, ExceptionsEndThePolicyOnly) {
    const ConfigFile file(kFile);
    const struct {
        char fault;
        const char *line;
    } rows[] = {
        {'e', "(ERROR) Exception in Policy Enforcement: the agent is gone\n"},
        {'s', "(ERROR) Exception in Policy Enforcement: a word of the agent\n"},
        {'S', "(ERROR) Exception in Policy Enforcement: words of the agent\n"},
        {'x', "(ERROR) Unexpected exception in Policy Enforcement\n"},
    };
    for (const auto &row : rows) {
        agent.fault = row.fault;
        EXPECT_EQ(enforce(), std::string("(INFO) Enforce Policy called\n") + row.line);
        EXPECT_EQ(restarted(), 0);
    }
    agent.fault = ' ';
    add(L"LOGRELAY1000", L"Encryption", L"true");
    enforce();
    EXPECT_EQ(restarted(), 1);
}

TEST_F(Enforcement, AFileThatCannotBeReplacedMeansNoRestart) {
    const ConfigFile file(kFile);
    ASSERT_TRUE(std::filesystem::create_directory(file.path() + ".new"));
    add(L"LOGRELAY1000", L"Encryption", L"true");
    EXPECT_EQ(count_of(enforce(), "(ERROR) Configuration not updated: "), 1);
    EXPECT_EQ(file.text(), kFile);
    EXPECT_EQ(restarted(), 0);
}

TEST_F(Enforcement, AFileThatCannotBeReadIsNotWrittenOver) {
    const ConfigFile file(kFile);
    std::filesystem::remove(file.path());
    ASSERT_TRUE(std::filesystem::create_directory(file.path()));
    add(L"LOGRELAY1000", L"Encryption", L"true");
    EXPECT_EQ(count_of(enforce(), "(ERROR) Policy not enforced: "), 1);
    EXPECT_TRUE(std::filesystem::is_directory(file.path()));
    EXPECT_EQ(restarted(), 0);
}

TEST_F(Enforcement, AMissingFileIsMadeOfThePolicy) {
    const ConfigFile file(kFile);
    std::filesystem::remove(file.path());
    add(L"File.1", L"Log Directory", L"/a");
    enforce();
    EXPECT_EQ(file.text(), "\ntype=filetail\nft_delim_end_of_event=1\nft_dir=/a\n");
    EXPECT_EQ(restarted(), 1);
}

TEST_F(Enforcement, UserPoliciesAreNotLookedAt) {
    const ConfigFile file(kFile);
    add(L"LOGRELAY1000", L"Encryption", L"true");
    EXPECT_EQ(logged([&] {
                  EXPECT_TRUE(
                      servant.enforcePolicy(L"s", L"u", L"d", 1, manageability::UBPLOGON, &agent));
              }),
              "");
    EXPECT_EQ(file.text(), kFile);
    EXPECT_FALSE(servant.isRunning());
    EXPECT_FALSE(servant.abort());
    EXPECT_EQ(servant.getInterfaceId(), "IPolicyEnforcement");
}

// The thread that waits for the agent may be given whatever the agent wants meanwhile.
TEST_F(Enforcement, OneThreadEnforcesOneAtATime) {
    const ConfigFile file(kFile);
    Agent other;
    other.setting_objects.back().insert(L"LOGRELAY1000", L"Receiver IP", L"10.0.0.1");
    agent.meanwhile = [&] {
        IPolicyEnforcement_Servant_Impl made_meanwhile;
        EXPECT_TRUE(made_meanwhile.enforcePolicy(L"LOGRELAY1000", &other));
    };
    add(L"LOGRELAY1000", L"Encryption", L"true");
    EXPECT_EQ(count_of(enforce(),
                       "(ERROR) Policy not enforced: it came while another one was being read\n"),
              1);
    EXPECT_EQ(other.asked_for, L"");
    EXPECT_EQ(restarted(), 1);
    EXPECT_EQ(count_of(file.text(), "rec_ip=192.0.2.1\nrec_encrypt=1\n"), 1) << file.text();
    enforce(&other);  // now it may
    EXPECT_EQ(count_of(file.text(), "rec_ip=10.0.0.1\nrec_encrypt=1\n"), 1) << file.text();
}

TEST_F(Enforcement, AServantHoldsNothing) {
    EXPECT_EQ(sizeof(servant), sizeof(void *));
}

TEST_F(Enforcement, EnforcementsDoNotOverlap) {
    const ConfigFile file(kFile);
    const int restarts_before = restarts;
    Agent other;
    add(L"LOGRELAY1000", L"Encryption", L"true");
    other.setting_objects.back().insert(L"LOGRELAY1000", L"Receiver IP", L"10.0.0.1");
    logged([&] {
        std::thread second([&] { servant.enforcePolicy(L"LOGRELAY1000", &other); });
        servant.enforcePolicy(L"LOGRELAY1000", &agent);
        second.join();
    });
    EXPECT_EQ(restarts - restarts_before, 2);
    EXPECT_EQ(count_of(file.text(), "rec_ip=10.0.0.1\nrec_encrypt=1\n"), 1) << file.text();
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
