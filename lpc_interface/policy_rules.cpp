#include "lpc_interface/policy_rules.h"

#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>

#include "core/siemcollector_log.h"
#include "core/utils.h"
#include "lpc_interface/software_id.h"

setting_map config_entry_map;
std::map<std::wstring, setting_map> plugin_map;

namespace {

// Servants may be made while a policy is enforced, and each fills the map of names.
std::mutex entry_map_lock;

constexpr wchar_t kPluginKey[] = L"type";
constexpr wchar_t kFilePrefix[] = L"File";
constexpr wchar_t kDefaultDelimiter[] = L"[newline]";
// Names without a row are remembered too; a server that invents names must not fill the memory.
constexpr size_t kMaxNames = 1024;

struct EntryRow {
    const wchar_t *policy_name, *key;
};

constexpr EntryRow kEntryRows[] = {
    {L"Receiver IP", L"rec_ip"},
    {L"Receiver Port", L"rec_port"},
    {L"Encryption", L"rec_encrypt"},
    {L"OZU Group Log Level", L"debug_level"},
    {L"Log Directory", L"ft_dir"},
    {L"Log File", L"ft_filter"},
    // Kept: the spelling of this name, it is the policy's own.
    {L"Event Delimeter", L"ft_delim"},
    {L"Tail Mode", L"ft_start_top"},
};

struct FreeText {
    void operator()(void *text) const { free(text); }
};

// Narrow bytes of a wide text that may hold NULs.
std::string narrow(const std::wstring &text) {
    std::string bytes;
    for (size_t at = 0; at <= text.size();) {
        const std::unique_ptr<char, FreeText> piece(wstrtostr(text.c_str() + at));
        if (!piece) throw std::bad_alloc();
        if (at > 0) bytes += '\0';
        bytes += piece.get();
        at += wcslen(text.c_str() + at) + 1;
    }
    return bytes;
}

// A value as it will come out of the file again: a character that the locale cannot express is
// written as several bytes, and a comparison with the wide original would differ for ever.
std::wstring through_the_file(const std::wstring &text) {
    const std::string bytes = narrow(text);
    size_t length = 0;
    const std::unique_ptr<wchar_t, FreeText> wide(
        bytes_to_wide(bytes.data(), bytes.size(), &length));
    if (!wide) throw std::bad_alloc();
    return std::wstring(wide.get(), length);
}

constexpr std::string_view kLineBreakers("\n\r\0", 3);

// The private character that stands for a raw NUL (core/utils.h), where narrow text would end.
constexpr wchar_t kRawNul = 0xF700;

// Looks at the bytes, since such characters stand for the other breakers too.
bool breaks_a_line(const std::wstring &text) {
    return text.find(kRawNul) != std::wstring::npos ||
           narrow(text).find_first_of(kLineBreakers) != std::string::npos;
}

// Kept: a beginning of the word counts too, though the daemon itself wants all of it; the numbers
// in the names of policy sections are meant by this count.
bool opens_plugin(const key_value_pair &entry) {
    return entry.key_len > 0 &&
           wcsncmp(kPluginKey, entry.key, static_cast<size_t>(entry.key_len)) == 0;
}

bool same_text(const key_value_pair &entry) {
    return wcsncmp(entry.key, entry.value, static_cast<size_t>(entry.key_len)) == 0;
}

bool is_setting(const key_value_pair &entry) {
    if (entry.key_len > 0 && entry.key[0] == L'#') return false;
    for (int i = 0; i < entry.key_len; i++)
        if (entry.key[i] > 32) return true;
    return false;
}

std::wstring look_up_key(const std::wstring &policy_name) {
    std::lock_guard guard(entry_map_lock);
    const auto row = config_entry_map.find(policy_name);
    if (row != config_entry_map.end()) return row->second;
    if (config_entry_map.size() < kMaxNames) config_entry_map[policy_name];
    return {};
}

void translate_value(const std::wstring &key, std::wstring &value) {
    if (key.starts_with(L"ft_delim") && value.empty()) {
        value = kDefaultDelimiter;
    } else if (key.starts_with(L"ft_start_top")) {
        if (value.starts_with(L"begin"))
            value = L"1";
        else if (value.starts_with(L"end"))
            value = L"0";
    } else if (key.starts_with(L"rec_encryp")) {
        // Kept: any word that begins with "fals" turns encryption off, and case matters; existing
        // policies were written against exactly this.
        if (value.starts_with(L"true"))
            value = L"1";
        else if (value.starts_with(L"fals"))
            value = L"0";
    }
}

int add_to_plugin(const std::wstring &name, const std::wstring &key, const std::wstring &value) {
    if (log_enabled(kLogDebug))
        logger(kLogDebug, "Added '%s': %s", log_text(key).c_str(), log_text(value).c_str());
    plugin_map[name].emplace(key, value);
    return 1;
}

// Number after the first "." of a section's name: how many plugin sections the file's lines of
// this one lie behind. A number that no file can reach stands for every such number.
long sections_to_skip(const std::wstring &name) {
    const size_t dot = name.find(L'.');
    return dot == std::wstring::npos ? 0 : wcstol(name.c_str() + dot + 1, nullptr, 10);
}

// The line of the file that a setting of this section is about, or null.
key_value_pair *find_line(key_value_pair_spec *conf, const std::wstring &name,
                          const std::wstring &key, bool deleted_plugin) {
    const bool is_file = name.starts_with(kFilePrefix);
    if (is_file && deleted_plugin) return nullptr;
    long skip = is_file ? sections_to_skip(name) : 0;
    for (int i = 0; i < conf->count; i++) {
        key_value_pair &entry = *conf->kvp[i];
        if (skip != 0) {
            if (skip > 0 && opens_plugin(entry)) skip--;
            continue;
        }
        // Kept: the search runs on into later sections, a setting that its own section lacks is
        // the next section's.
        if (is_setting(entry) &&
            wcsncmp(key.c_str(), entry.key, static_cast<size_t>(entry.key_len)) == 0)
            return &entry;
    }
    return nullptr;
}

int change_line(key_value_pair *entry, const std::wstring &key, const std::wstring &value) {
    const int changed = compare_values(key, value, &entry->value, &entry->value_len);
    const uint64_t level = changed ? kLogWarn : kLogDebug;
    if (log_enabled(level))
        logger(level, changed ? "Updated '%s': %s" : "Values match(%s): %s",
               log_text(entry->key, entry->key_len).c_str(),
               log_text(entry->value, entry->value_len).c_str());
    return changed;
}

}  // namespace

void fill_config_entry_map() {
    std::lock_guard guard(entry_map_lock);
    for (const EntryRow &row : kEntryRows) config_entry_map[row.policy_name] = row.key;
}

int count_plugins(const key_value_pair_spec *conf) {
    int count = 0;
    for (int i = 0; i < conf->count; i++) count += opens_plugin(*conf->kvp[i]);
    return count;
}

bool plugin_was_deleted(const std::vector<std::wstring> &section_names, int local_plugins) {
    int files = 0;
    for (const std::wstring &name : section_names) {
        if (name == kSoftwareIdWide) return false;
        if (name.starts_with(kFilePrefix)) files++;
    }
    return files < local_plugins;
}

int update_config(key_value_pair_spec *conf, std::wstring &name, std::wstring &settingName,
                  std::wstring &settingValue, bool deleted_plugin) {
    if (breaks_a_line(name) || breaks_a_line(settingValue)) {
        logger(kLogError, "Refused policy setting %s of section %s: it holds a line break or a NUL",
               log_text(settingName).c_str(), log_text(name).c_str());
        return 0;
    }
    const std::wstring key = look_up_key(settingName);
    if (key.empty()) return 0;
    translate_value(key, settingValue);
    settingValue = through_the_file(settingValue);
    if (plugin_map.contains(name)) return add_to_plugin(name, key, settingValue);
    if (key_value_pair *entry = find_line(conf, name, key, deleted_plugin))
        return change_line(entry, key, settingValue);
    return add_to_plugin(name, key, settingValue);
}

int compare_values(std::wstring, std::wstring remote_value, wchar_t **local_value,
                   int *local_value_len) {
    if (remote_value.empty() && *local_value_len != 0) {
        (*local_value)[0] = L'\0';
        *local_value_len = 0;
        return 1;
    }
    const size_t length = remote_value.size();
    if (length == static_cast<size_t>(*local_value_len) &&
        wcsncmp(remote_value.c_str(), *local_value, length) == 0)
        return 0;
    update_value(remote_value.c_str(), local_value, local_value_len);
    return 1;
}

void update_value(const wchar_t *new_value, wchar_t **old_value, int *old_value_len) {
    const size_t length = wcslen(new_value);
    if (length > static_cast<size_t>(*old_value_len)) {
        void *grown = realloc(*old_value, (length + 1) * sizeof(wchar_t));
        if (!grown) throw std::bad_alloc();
        *old_value = static_cast<wchar_t *>(grown);
    }
    wmemcpy(*old_value, new_value, length + 1);
    *old_value_len = static_cast<int>(length);
}

std::vector<std::string> new_file_lines(const key_value_pair_spec *conf, bool deleted_plugin) {
    std::vector<std::string> lines;
    for (int i = 0; i < conf->count; i++) {
        const key_value_pair &entry = *conf->kvp[i];
        const std::wstring key(entry.key, static_cast<size_t>(entry.key_len));
        // Kept: a value that begins with its own key counts as a line without a value; that is how
        // this file's comments and blank lines are told from its settings.
        if (same_text(entry)) {
            lines.push_back(narrow(key));
            continue;
        }
        if (deleted_plugin && opens_plugin(entry)) break;
        const std::wstring value(entry.value, static_cast<size_t>(entry.value_len));
        lines.push_back(narrow(key) + "=" + narrow(value));
    }
    if (!deleted_plugin) lines.emplace_back();
    bool first = true;
    for (const auto &[name, settings] : plugin_map) {
        if (!first) lines.emplace_back();
        first = false;
        if (name.starts_with(kFilePrefix)) {
            lines.emplace_back("type=filetail");
            lines.emplace_back("ft_delim_end_of_event=1");
        } else {
            lines.emplace_back("type=");
        }
        for (const auto &[key, value] : settings)
            lines.push_back(narrow(key) + "=" + narrow(value));
    }
    return lines;
}

std::string log_text(const std::wstring &text) {
    std::string line = narrow(text);
    for (char &c : line)
        if (kLineBreakers.find(c) != std::string_view::npos) c = '?';
    return line;
}

std::string log_text(const wchar_t *text, int length) {
    return log_text(std::wstring(text, static_cast<size_t>(length)));
}
