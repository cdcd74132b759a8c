#include "tools/status/survey.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <utility>

#include "core/utils.h"
#include "filetail/cutter.h"
#include "filetail/delimiter.h"
#include "filetail/identity.h"
#include "tools/check/config_text.h"
#include "tools/check/rules.h"
#include "tools/host/account.h"
#include "tools/host/lock_holder.h"
#include "tools/status/renamed.h"

namespace {

constexpr size_t kHeadBytes = 256;
constexpr uint64_t kSampleBytes = 256 * 1024;
constexpr uint64_t kLongestRecordBytes = 65535;
constexpr size_t kErrorsShown = 5;
constexpr uint64_t kLogTailBytes = 256 * 1024;
constexpr char kDefaultLog[] = "/var/log/velmor/siem_collector.log";

class readable_file {
  public:
    explicit readable_file(const std::string &path)
        : fd_(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {}
    ~readable_file() {
        if (fd_ >= 0) close(fd_);
    }
    readable_file(const readable_file &) = delete;
    readable_file &operator=(const readable_file &) = delete;
    bool ok() const { return fd_ >= 0; }
    std::string range(uint64_t from, uint64_t length) const {
        std::string bytes(length, '\0');
        size_t have = 0;
        while (have < length) {
            const ssize_t got =
                pread(fd_, bytes.data() + have, length - have, static_cast<off_t>(from + have));
            if (got <= 0) break;
            have += static_cast<size_t>(got);
        }
        bytes.resize(have);
        return bytes;
    }

  private:
    int fd_;
};

struct delimiter_count {
    int64_t count = 0;
    size_t last_end = 0;     ///< behind the last one
    size_t longest_gap = 0;  ///< bytes of the longest event
};

delimiter_count count_delimiters(const delimiter *pattern, const std::string &bytes) {
    delimiter_count result;
    delimiter_search how{0, false, false};
    delimiter_hit hit{};
    while (delimiter_find(pattern, bytes.data(), bytes.size(), how, &hit) == kDelimiterFound) {
        result.count++;
        result.longest_gap = std::max(result.longest_gap, hit.end - result.last_end);
        result.last_end = hit.end;
        how.from = hit.end;
        how.move_on = hit.begin == hit.end;
    }
    result.longest_gap = std::max(result.longest_gap, bytes.size() - result.last_end);
    return result;
}

// The bytes behind the last delimiter, as far as the sample at the file's end shows them.
uint64_t waiting_bytes(const readable_file &file, const delimiter *pattern, uint64_t from,
                       uint64_t size) {
    const uint64_t start = std::max(from, size > kSampleBytes ? size - kSampleBytes : 0);
    const std::string tail = file.range(start, size - start);
    return tail.size() - count_delimiters(pattern, tail).last_end;
}

void look_ahead(const readable_file &file, const delimiter *pattern, file_state *state) {
    if (state->position >= state->size) return;
    const uint64_t unread = state->size - state->position;
    state->waiting = std::min(unread, waiting_bytes(file, pattern, state->position, state->size));
    state->lag = unread - state->waiting;
    const std::string sample = file.range(state->position, std::min(unread, kSampleBytes));
    const delimiter_count seen = count_delimiters(pattern, sample);
    state->nul_ahead = sample.find('\0') != std::string::npos;
    state->long_ahead = seen.longest_gap > kLongestRecordBytes;
    if (unread <= kSampleBytes) {
        state->events = seen.count;
    } else {
        state->estimated = true;
        state->events = seen.count == 0 ? -1
                                        : static_cast<int64_t>(static_cast<double>(state->lag) *
                                                               static_cast<double>(seen.count) /
                                                               static_cast<double>(seen.last_end));
    }
}

uint32_t head_checksum(const readable_file &file) {
    std::string head = file.range(0, kHeadBytes);
    head.resize(kHeadBytes, '\0');
    return checksum_bytes(head.data(), head.size());
}

struct section_rules {
    const delimiter *pattern;
    bool from_top;  // a file without a bookmark is read from its first byte
    bool guards;    // small_file_guard
    bool drains;    // rotation_drain
};

file_state look_at(const std::string &path, const struct stat &info, const bookmark_image &marks,
                   const section_rules &rules, long now) {
    file_state state;
    state.path = path;
    state.size = static_cast<uint64_t>(info.st_size);
    state.small = state.size < kHeadBytes;
    state.age_seconds = std::max<long>(0, now - info.st_mtime);
    state.unsure = !marks.readable && !marks.absent;
    state.position = state.size;
    const readable_file file(path);
    state.readable = file.ok();
    const auto mark = marks.positions.find(path);
    state.known = mark != marks.positions.end();
    if (!state.readable || state.unsure) return state;
    if (state.known) {
        const stored_position &at = mark->second;
        state.head_changed =
            at.head != head_checksum(file) &&
            !(rules.guards && is_grown_small_file(path.c_str(), at.head, at.location));
        state.position = at.location;
        // What the daemon will do at its next scan: a new file is read from its first byte.
        if (state.head_changed || state.position > state.size) state.position = 0;
    } else if (rules.from_top) {
        state.position = 0;
    }
    if (rules.pattern != nullptr) look_ahead(file, rules.pattern, &state);
    return state;
}

bool starts_at_top(const config_text &text, const config_section &section) {
    const config_line *line = section_line(text, section, "ft_start_top");
    return line != nullptr && (line->value.empty() || line->value == "1");
}

bool is_set(const config_text &text, const char *key) {
    return number_of(global_value(text, key)).value_or(0) == 1;
}

// The bookmarks of this section whose position was not reached in the file that stands under their
// path now, or to which no path leads any more.
std::vector<left_behind> bookmarks_left_behind(const plugin_state &plugin,
                                               const bookmark_image &marks) {
    std::vector<left_behind> found;
    for (const file_state &file : plugin.files) {
        if (!file.known || !file.readable) continue;
        const stored_position &at = marks.positions.at(file.path);
        const bool other = file.head_changed || at.location > file.size;
        if (!other || is_grown_small_file(file.path.c_str(), at.head, at.location)) continue;
        found.push_back({file.path, at});
    }
    const size_t prefix = plugin.directory.size();
    for (const auto &[path, at] : marks.positions) {
        struct stat info {};
        if (path.compare(0, prefix, plugin.directory) != 0) continue;
        if (path.find('/', prefix) != std::string::npos) continue;
        if (fnmatch(plugin.filter.c_str(), path.c_str() + prefix, 0) != 0) continue;
        if (lstat(path.c_str(), &info) == 0 || errno != ENOENT) continue;
        found.push_back({path, at});
    }
    return found;
}

// What the daemon has still to send of files that were renamed, each as a file of its own.
void add_rests(const bookmark_image &marks, const section_rules &rules, long now,
               plugin_state *plugin) {
    const std::vector<left_behind> bookmarks = bookmarks_left_behind(*plugin, marks);
    for (const renamed_file &rest : find_renamed(plugin->directory, plugin->filter, bookmarks)) {
        for (file_state &file : plugin->files) file.waits_for_rest |= file.path == rest.rest_of;
        file_state state;
        state.path = rest.path;
        state.rest_of = rest.rest_of;
        state.size = rest.size;
        state.known = true;
        state.position = marks.positions.at(rest.rest_of).location;
        state.age_seconds = std::max<long>(0, now - rest.changed);
        const readable_file file(rest.path);
        if (rules.pattern != nullptr) look_ahead(file, rules.pattern, &state);
        plugin->files.push_back(std::move(state));
    }
}

plugin_state look_at_plugin(const config_text &text, const config_section &section,
                            const bookmark_image &marks, long now) {
    plugin_state state;
    state.directory = section_directory(text, section);
    state.filter = section_value(text, section, "ft_filter");
    std::string reason;
    const delimiter_ptr pattern = delimiter_compile(
        translate_delim(section_value(text, section, "ft_delim").c_str()), &reason);
    const section_rules rules{pattern.get(), starts_at_top(text, section),
                              is_set(text, "small_file_guard"), is_set(text, "rotation_drain")};
    std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(state.directory.c_str()), &closedir);
    if (dir == nullptr) {
        state.error = strerror(errno);
        return state;
    }
    while (const dirent *entry = readdir(dir.get())) {
        if (fnmatch(state.filter.c_str(), entry->d_name, 0) != 0) continue;
        const std::string path = state.directory + entry->d_name;
        struct stat info {};
        if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
        state.files.push_back(look_at(path, info, marks, rules, now));
    }
    if (rules.drains) add_rests(marks, rules, now, &state);
    std::sort(state.files.begin(), state.files.end(),
              [](const file_state &a, const file_state &b) { return a.path < b.path; });
    return state;
}

// What the running collector may not do, although this tool, perhaps as root, may.
void look_for_forbidden(survey *taken) {
    const std::optional<account> collector = account_of_process(taken->pid);
    if (!collector) return;
    taken->user = collector->name;
    std::vector<access_question> questions;
    std::vector<file_state *> files;
    for (plugin_state &plugin : taken->plugins) {
        for (file_state &file : plugin.files) {
            questions.push_back({file.path, R_OK});
            files.push_back(&file);
        }
    }
    if (taken->bookmarks.readable) questions.push_back({taken->bookmark_path, R_OK | W_OK});
    const std::vector<int> answers = ask_access(*collector, questions);
    if (answers.size() != questions.size()) return;
    for (size_t i = 0; i < files.size(); i++) files[i]->forbidden = answers[i] == EACCES;
    if (taken->bookmarks.readable) taken->bookmarks_forbidden = answers.back() != 0;
}

std::vector<std::string> last_error_lines(const std::string &log_path) {
    std::vector<std::string> lines;
    const readable_file log(log_path);
    struct stat info {};
    if (!log.ok() || stat(log_path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return lines;
    const uint64_t size = static_cast<uint64_t>(info.st_size);
    const uint64_t from = size > kLogTailBytes ? size - kLogTailBytes : 0;
    const std::string bytes = log.range(from, size - from);
    for (size_t at = 0; at < bytes.size();) {
        const size_t end = std::min(bytes.find('\n', at), bytes.size());
        const std::string line = bytes.substr(at, end - at);
        if (line.find(":(ERROR) ") != std::string::npos) lines.push_back(line);
        at = end + 1;
    }
    if (lines.size() > kErrorsShown) lines.erase(lines.begin(), lines.end() - kErrorsShown);
    return lines;
}

}  // namespace

survey take_survey(const survey_request &request) {
    survey taken;
    taken.config_path = request.config_path;
    taken.taken_at = time(nullptr);
    const lock_holder holder = find_lock_holder(request.lock_path, request.lock_table);
    taken.pid = holder.pid;
    taken.up = holder.pid != 0;
    taken.lock_table = holder.table_readable || !holder.file_exists;
    if (taken.up) taken.since = process_start_time(holder.pid);
    config_text text;
    if (!config_text_read(request.config_path, &text, &taken.error)) return taken;
    std::string log_path = global_value(text, "log_path");
    taken.last_errors = last_error_lines(log_path.empty() ? kDefaultLog : log_path);
    taken.bookmark_path = global_value(text, "bookmark_dir") + "/ft_bookmark";
    taken.bookmarks = read_bookmarks(taken.bookmark_path);
    for (const config_section &section : text.sections) {
        if (section.type != "filetail" || section_directory(text, section).empty()) continue;
        taken.plugins.push_back(look_at_plugin(text, section, taken.bookmarks, taken.taken_at));
    }
    if (taken.up) {
        look_for_forbidden(&taken);
        taken.link =
            find_receiver_link(taken.pid, number_of(global_value(text, "rec_port")).value_or(0));
    }
    return taken;
}

uint64_t total_lag(const survey &taken) {
    uint64_t sum = 0;
    for (const plugin_state &plugin : taken.plugins) {
        for (const file_state &file : plugin.files) sum += file.lag;
    }
    return sum;
}
