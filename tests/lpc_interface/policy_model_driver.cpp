// Enforces the policies that it reads from standard input, for policy_model_test.py. One word a
// line, texts in hexadecimal behind a "-":
//   file TEXT           the configuration file; begins a new case
//   object              a setting object of the policy
//   section NAME        a section of it
//   setting NAME VALUE  a setting of that
//   enforce             answered by the log, the number of restarts and the file's text
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

#include "core/siemcollector_log.h"
#include "lpc_interface/IPolicyEnforcement_Servant_Impl.h"
#include "tests/lpc_interface/kit.h"

namespace velmor_com::NQ::LPC {
namespace {

using manageability::Lpc_OneSectionHandle;

class Agent : public IPolicyDataAccessor_S {
  public:
    bool isRunning() override { return false; }
    bool abort() override { return false; }
    void setOperationTimeout(unsigned) override {}
    bool getPolicyObjectContainer(const std::wstring &, Objects &objects) override {
        manageability::Lpc_PolicySettingObjectContainer settings;
        for (size_t i = 0; i < setting_objects.size(); i++)
            settings.add({L"setting", static_cast<int>(i), L""});
        objects.add({L"", L"", L"", L"Policy", settings});
        return true;
    }
    bool getAllPolicySections(const std::wstring &, const std::wstring &, const std::wstring &,
                              const std::wstring &, int index, const std::wstring &,
                              Sections &sections) override {
        for (const auto &section : setting_objects[static_cast<size_t>(index)])
            sections.add(section);
        return sections.size() > 0;
    }

    std::vector<std::vector<Lpc_OneSectionHandle>> setting_objects;
};

std::string bytes_of(const std::string &digits) {
    std::string bytes;
    for (size_t i = 1; i + 1 < digits.size(); i += 2)
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return bytes;
}

// The texts are plain ASCII.
std::wstring wide_of(const std::string &digits) {
    const std::string bytes = bytes_of(digits);
    return {bytes.begin(), bytes.end()};
}

void answer(const std::string &text) {
    printf("%d ", restarts);
    for (const unsigned char byte : text) printf("%02x", byte);
    printf("\n");
    fflush(stdout);
}

void run() {
    const ConfigFile file("");
    IPolicyEnforcement_Servant_Impl servant;
    Agent agent;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string word, first, second;
        words >> word >> first >> second;
        if (word == "file") {
            std::ofstream(file.path(), std::ios::binary | std::ios::trunc) << bytes_of(first);
            agent.setting_objects.clear();
            restarts = 0;
        } else if (word == "object") {
            agent.setting_objects.emplace_back();
        } else if (word == "section") {
            agent.setting_objects.back().emplace_back(wide_of(first));
        } else if (word == "setting") {
            agent.setting_objects.back().back().insert(wide_of(first), wide_of(second));
        } else if (word == "enforce") {
            servant.enforcePolicy(L"LOGRELAY1000", &agent);
            answer(file.text());
        }
    }
}

}  // namespace
}  // namespace velmor_com::NQ::LPC

int main() {
    logger_init(kLogError | kLogInfo | kLogWarn | kLogDebug, nullptr, 0);
    velmor_com::NQ::LPC::run();
    return 0;
}
