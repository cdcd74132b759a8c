// A policy against a configuration file: compared, rewritten, and read again. No policy may put
// a line or a key into the file that its own settings do not stand for.
//
// Input: texts separated by zero bytes: the file, then section, setting and value by turns. A 0x01
// inside a text stands for a zero byte, so that values with one are tried too.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <set>
#include <string>
#include <vector>

#include "config/conf.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"
#include "lpc_interface/config_rewrite.h"
#include "lpc_interface/policy_rules.h"

namespace {

// A folder of this process alone, in memory where there is a file system of it.
const std::string &file_path() {
    static const std::string path = [] {
        char name[64];
        snprintf(name, sizeof name, "%s/policy_fuzz_XXXXXX",
                 access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
        if (!mkdtemp(name)) abort();
        static std::string folder = name;
        atexit([] {
            unlink((folder + "/collector.conf").c_str());
            rmdir(folder.c_str());
        });
        return folder + "/collector.conf";
    }();
    return path;
}

void write_file(const std::string &text) {
    const int fd = open(file_path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) abort();
    close(fd);
}

key_value_pair_spec *read_file() {
    key_value_pair_spec *pairs = nullptr;
    if (conf_parse_key_value_pair(file_path().c_str(), &pairs, 1) != 0) abort();
    return pairs;
}

std::wstring wide(const std::string &text) {
    std::string bytes = text;
    std::replace(bytes.begin(), bytes.end(), '\1', '\0');
    size_t length = 0;
    wchar_t *made = bytes_to_wide(bytes.data(), bytes.size(), &length);
    if (!made) abort();
    const std::wstring result(made, length);
    free(made);
    return result;
}

std::vector<std::string> split(const uint8_t *data, size_t size) {
    std::vector<std::string> texts(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0)
            texts.emplace_back();
        else
            texts.back() += static_cast<char>(data[i]);
    }
    return texts;
}

std::set<std::wstring> keys_of(const key_value_pair_spec &pairs) {
    std::set<std::wstring> keys;
    for (int i = 0; i < pairs.count; ++i)
        keys.emplace(pairs.kvp[i]->key, static_cast<size_t>(pairs.kvp[i]->key_len));
    return keys;
}

// Every key of the new file was there before or is one that policies are known to set.
void check_keys(std::set<std::wstring> known, const key_value_pair_spec &now) {
    known.insert({L"", L"type", L"ft_delim_end_of_event", L"rec_ip", L"rec_port", L"rec_encrypt",
                  L"debug_level", L"ft_dir", L"ft_filter", L"ft_delim", L"ft_start_top"});
    for (const std::wstring &key : keys_of(now))
        if (!known.contains(key)) abort();
}

bool apply(key_value_pair_spec *pairs, const std::vector<std::string> &texts) {
    std::vector<std::wstring> sections;
    for (size_t i = 1; i + 2 < texts.size(); i += 3) sections.push_back(wide(texts[i]));
    const bool deleted = plugin_was_deleted(sections, count_plugins(pairs));
    for (size_t i = 0; i < sections.size(); ++i) {
        std::wstring name = wide(texts[3 * i + 2]), value = wide(texts[3 * i + 3]);
        const int changed = update_config(pairs, sections[i], name, value, deleted);
        if (changed != 0 && changed != 1) abort();
    }
    return deleted;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const char *const locale = setlocale(LC_CTYPE, "C.UTF-8");
    if (!locale || size > 4096) return 0;
    set_log_level(0);
    const std::vector<std::string> texts = split(data, size);
    config_entry_map.clear();
    fill_config_entry_map();
    plugin_map.clear();
    write_file(texts[0] + (texts[0].ends_with('\n') ? "" : "\n"));
    key_value_pair_spec *before = read_file();
    const std::set<std::wstring> keys = keys_of(*before);
    const bool deleted = apply(before, texts);
    const std::vector<std::string> lines = new_file_lines(before, deleted);
    for (const std::string &line : lines)
        if (line.find('\n') != std::string::npos) abort();
    std::string why;
    if (!replace_config_file(file_path(), lines, &why)) abort();
    key_value_pair_spec *after = read_file();
    if (after->count != static_cast<int>(lines.size())) abort();
    check_keys(keys, *after);
    conf_teardown_key_value_pair(before);
    conf_teardown_key_value_pair(after);
    return 0;
}
