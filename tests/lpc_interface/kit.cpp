#include "tests/lpc_interface/kit.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/args.h"
#include "core/restart.h"
#include "core/siemcollector_log.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

int restarts = 0;

void restart_collector() {
    restarts++;
}

std::string logged(const std::function<void()> &act) {
    logger_init(kLogError | kLogInfo | kLogWarn | kLogDebug | kLogDiag, nullptr, 0);
    testing::internal::CaptureStdout();
    act();
    const std::string text = testing::internal::GetCapturedStdout();
    std::string lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        const size_t level = line.find(":(");
        lines += (level == std::string::npos ? line : line.substr(level + 1)) + "\n";
    }
    return lines;
}

int count_of(const std::string &log, const std::string &text) {
    int count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) count++;
    return count;
}

#ifdef __SANITIZE_ADDRESS__
LeaksAllowed::LeaksAllowed() {
    __lsan_disable();
}
LeaksAllowed::~LeaksAllowed() {
    __lsan_enable();
}
#else
LeaksAllowed::LeaksAllowed() = default;
LeaksAllowed::~LeaksAllowed() = default;
#endif

ConfigFile::ConfigFile(const std::string &text) : m_before(g_args.conf_file) {
    std::string pattern = (std::filesystem::temp_directory_path() / "bridge-XXXXXX").string();
    m_folder = mkdtemp(pattern.data());
    std::ofstream(path(), std::ios::binary) << text;
    g_args.conf_file = strdup(path().c_str());
}

ConfigFile::~ConfigFile() {
    free(g_args.conf_file);
    g_args.conf_file = m_before;
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}

std::string ConfigFile::text() const {
    std::ostringstream text;
    text << std::ifstream(path(), std::ios::binary).rdbuf();
    return text.str();
}

std::string ConfigFile::others() const {
    std::string names;
    for (const auto &entry : std::filesystem::directory_iterator(m_folder))
        if (entry.path() != path()) names += entry.path().filename().string() + " ";
    return names;
}
