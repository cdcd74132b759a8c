#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "filetail/cutter.h"
#include "filetail/delimiter.h"
#include "tools/check/rules.h"

namespace {

constexpr size_t kHeadBytes = 256;
constexpr size_t kSampleBytes = 64 * 1024;
constexpr size_t kFilesLookedAt = 200;  // of one directory: a check must end soon

struct matching_file {
    std::string name;
    std::string head;  ///< its first kSampleBytes
};

std::string read_start(const std::string &path) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return "";
    std::string bytes(kSampleBytes, '\0');
    const ssize_t got = pread(fd, bytes.data(), bytes.size(), 0);
    close(fd);
    bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return bytes;
}

std::vector<matching_file> list_matching(const std::string &directory, const std::string &filter) {
    std::vector<matching_file> files;
    std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(directory.c_str()), &closedir);
    if (dir == nullptr) return files;
    while (const dirent *entry = readdir(dir.get())) {
        if (fnmatch(filter.c_str(), entry->d_name, 0) != 0) continue;
        const std::string path = directory + entry->d_name;
        struct stat info {};
        if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
        if (files.size() >= kFilesLookedAt) break;
        files.push_back({entry->d_name, read_start(path)});
    }
    return files;
}

bool delimiter_occurs(const std::string &word, const std::string &bytes) {
    std::string reason;
    const delimiter_ptr pattern = delimiter_compile(translate_delim(word.c_str()), &reason);
    if (pattern == nullptr) return true;  // reported as what it is
    delimiter_hit hit{};
    return delimiter_find(pattern.get(), bytes.data(), bytes.size(), {0, false, false}, &hit) ==
           kDelimiterFound;
}

void check_files(const config_text &text, const config_section &section,
                 const std::vector<matching_file> &files, report *found) {
    const std::string word = section_value(text, section, "ft_delim");
    const bool guarded = global_value(text, "small_file_guard") == "1";
    std::map<std::string, std::string> heads;
    std::set<std::string> told;  // one example of each trap is enough for one section
    const auto tell = [&](const char *id, const std::string &detail) {
        if (told.insert(id).second) found->add(id, section.number, detail);
    };
    for (const matching_file &file : files) {
        if (file.name.find(' ') != std::string::npos) tell("T86", file.name);
        if (!guarded && file.head.size() < kHeadBytes) tell("T87", file.name);
        if (!file.head.empty() && !word.empty() && !delimiter_occurs(word, file.head)) {
            tell("T88", file.name);
        }
        if (file.head.size() < kHeadBytes) continue;
        const auto [other, is_new] = heads.insert({file.head.substr(0, kHeadBytes), file.name});
        if (!is_new) tell("T91", other->second + " and " + file.name);
    }
}

/// The paths, as they stand, of the blocks of a rotation rule file that say copytruncate.
std::vector<std::string> truncated_paths(const std::string &rules) {
    std::vector<std::string> truncated;
    std::vector<std::string> paths;  // of the block that is read
    bool inside = false;
    bool from_here_on = false;  // said outside a block, it holds for those that follow
    bool in_this = false;
    std::istringstream lines(rules);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        for (std::string word; words >> word && word.front() != '#';) {
            if (word == "copytruncate") (inside ? in_this : from_here_on) = true;
            if (!inside && word.find('/') != std::string::npos) paths.push_back(word);
            if (!inside && word.back() == '{') {
                inside = true;
                in_this = from_here_on;
            } else if (inside && word == "}") {
                if (in_this) truncated.insert(truncated.end(), paths.begin(), paths.end());
                paths.clear();
                inside = false;
            }
        }
    }
    return truncated;
}

/// Whether a path of a rule, mostly a pattern, stands for files that the section tails.
bool rotates(std::string rule, const std::string &directory, const std::string &filter) {
    while (!rule.empty() && (rule.back() == '{' || rule.back() == '"')) rule.pop_back();
    if (!rule.empty() && rule.front() == '"') rule.erase(0, 1);
    const auto names = [](const std::string &pattern, const std::string &path) {
        return fnmatch(pattern.c_str(), path.c_str(), FNM_PATHNAME) == 0;
    };
    if (names(rule, directory + filter) || names(directory + filter, rule)) return true;
    for (const matching_file &file : list_matching(directory, filter)) {
        if (names(rule, directory + file.name)) return true;
    }
    return false;
}

void check_logrotate_rule(const std::string &path, const config_text &text, report *found) {
    std::ifstream rule(path);
    const std::string bytes{std::istreambuf_iterator<char>(rule), {}};
    const bool signals = bytes.find("HUP") != std::string::npos ||
                         bytes.find("kill -1 ") != std::string::npos ||
                         bytes.find("reload") != std::string::npos;
    const bool names_us = bytes.find("siem_collector") != std::string::npos ||
                          bytes.find("siem-collector") != std::string::npos;
    if (signals && names_us) found->add("T89", 0, path);
    const std::vector<std::string> truncated = truncated_paths(bytes);
    for (const config_section &section : text.sections) {
        const std::string directory = section_directory(text, section);
        const std::string filter = section_value(text, section, "ft_filter");
        if (directory.empty()) continue;
        for (const std::string &pattern : truncated) {
            if (!rotates(pattern, directory, filter)) continue;
            found->add("T90", section.number, path);
            break;
        }
    }
}

void check_logrotate(const config_text &text, const std::string &directory, report *found) {
    std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(directory.c_str()), &closedir);
    if (dir == nullptr) return;
    while (const dirent *entry = readdir(dir.get())) {
        const std::string path = directory + "/" + entry->d_name;
        struct stat info {};
        if (stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
            check_logrotate_rule(path, text, found);
        }
    }
}

}  // namespace

void check_host(const config_text &text, const std::string &logrotate_directory, report *found) {
    for (const config_section &section : text.sections) {
        const std::string directory = section_directory(text, section);
        const std::string filter = section_value(text, section, "ft_filter");
        if (section.type != "filetail" || directory.empty() || directory.front() != '/') continue;
        struct stat info {};
        if (stat(directory.c_str(), &info) != 0) {
            const config_line *line = section_line(text, section, "ft_dir");
            found->add("T85", line->number, directory);
            continue;
        }
        check_files(text, section, list_matching(directory, filter), found);
    }
    check_logrotate(text, logrotate_directory, found);
}
