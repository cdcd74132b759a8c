#include "config/plugin.h"

#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "config/conf.h"
#include "config/plugin_record.h"
#include "config/siem_config.h"
#include "core/execution.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"
#include "filetail/big_fix.h"
#include "filetail/discovery.h"
#include "filetail/filetail.h"
#include "filetail/tail_state.h"
#include "ruv/ruvlib.h"

namespace {

constexpr int kHostIdSource = 3;  // kind of a data source that is named by a text

// A narrow copy for the length of a statement or block.
class narrow_text {
  public:
    explicit narrow_text(const wchar_t *wide) : text_(wstrtostr(wide)) {}
    ~narrow_text() { free(text_); }
    narrow_text(const narrow_text &) = delete;
    narrow_text &operator=(const narrow_text &) = delete;
    const char *c_str() const { return text_ ? text_ : ""; }

  private:
    char *text_;
};

bool equals(const wchar_t *text, int32_t length, const wchar_t *word) {
    return std::wstring_view(text, static_cast<size_t>(length)) == word;
}

// Kept: a text is compared over its own length only, so every beginning of a word is taken for the
// word, and an empty text for any; files in use have such keys.
bool is_beginning_of(const wchar_t *text, int32_t length, const wchar_t *word) {
    return std::wstring_view(word).starts_with(
        std::wstring_view(text, static_cast<size_t>(length)));
}

void replace_text(wchar_t **field, wchar_t *value) {
    free(*field);
    *field = value;
}

void set_subtype(plugin *p, const key_value_pair *pair) {
    if (pair->value_len == 0) return;
    if (!is_beginning_of(pair->value, pair->value_len, L"big_fix")) return;
    p->process_event = big_fix_process_event;
    p->teardown_process_event = big_fix_teardown_event;
}

void set_hostid(plugin *p, const key_value_pair *pair) {
    if (p->dsinfo) RUVFreeDSInfo(p->dsinfo);
    p->dsinfo = nullptr;
    if (pair->value_len == 0) return;
    free(p->hostid);
    p->hostid = wstrtostr(pair->value);
    if (p->hostid) p->dsinfo = RUVAllocDSInfo(kHostIdSource, p->hostid);
}

void set_directory(plugin *p, const key_value_pair *pair) {
    const size_t length = wcslen(pair->value);  // a NUL byte of the file may have ended it early
    auto *directory = static_cast<wchar_t *>(malloc((length + 2) * sizeof(wchar_t)));
    if (!directory) return;
    wmemcpy(directory, pair->value, length + 1);
    if (length == 0 || directory[length - 1] != L'/') wcscpy(directory + length, L"/");
    replace_text(&p->ft.ft_dir, directory);
}

void set_filter(plugin *p, const key_value_pair *pair) {
    replace_text(&p->ft.ft_filter, wcsdup(pair->value));
}

void set_delimiter(plugin *p, const key_value_pair *pair) {
    replace_text(&p->ft.ft_delim, wcsdup(pair->value));
}

// Stores a switch; returns false when the value is none.
bool set_switch(int32_t *field, const key_value_pair *pair) {
    if (pair->value_len == 0 || equals(pair->value, pair->value_len, L"1")) {
        *field = 1;
    } else if (equals(pair->value, pair->value_len, L"0")) {
        *field = 0;
    } else {
        return false;
    }
    return true;
}

void set_start_top(plugin *p, const key_value_pair *pair) {
    if (set_switch(&p->ft.ft_start_top, pair)) return;
    logger(kLogError, "Invalid ft_start_top value for %s", narrow_text(p->ft.ft_dir).c_str());
}

void set_delimiter_end(plugin *p, const key_value_pair *pair) {
    if (set_switch(&p->ft.ft_delim_end, pair)) return;
    logger(kLogError, "Invalid ft_delim_end_of_event value for %s",
           narrow_text(p->ft.ft_dir).c_str());
}

struct section_key {
    const wchar_t *name;
    void (*apply)(plugin *, const key_value_pair *);
};

// The order decides which name a shortened key stands for.
constexpr section_key kSectionKeys[] = {
    {L"subtype", set_subtype},
    {L"hostid", set_hostid},
    {L"ft_dir", set_directory},
    {L"ft_filter", set_filter},
    {L"ft_delim", set_delimiter},
    {L"ft_start_top", set_start_top},
    {L"ft_delim_end_of_event", set_delimiter_end},
};

void report_invalid_pair(const key_value_pair *pair) {
    const narrow_text key(pair->key), value(pair->value);
    logger(kLogError, "Error: invalid key value pair in config file: %.*s=%.*s",
           static_cast<int>(strlen(key.c_str())), key.c_str(),
           static_cast<int>(strlen(value.c_str())), value.c_str());
}

plugin *new_plugin(config *conf) {
    auto *p = static_cast<plugin *>(calloc(1, sizeof(plugin)));
    if (!p) return nullptr;
    p->conn = &conf->ruv;
    p->ruvconn = conf->ruvconn;
    p->bm_dir = conf->bm_dir;
    p->sleep = conf->sleep_time;
    p->throttle = conf->throttle;
    return p;
}

// Opens the record of a section; null when its type is not one of ours.
plugin *open_section(const key_value_pair *pair, config *conf) {
    if (!equals(pair->value, pair->value_len, L"filetail")) {
        logger(kLogError, "Error: Unknown type in configuration file: %ls", pair->value);
        return nullptr;
    }
    plugin *p = new_plugin(conf);
    if (!p) {
        logger(kLogError, "Error: out of memory for a plugin");
        return nullptr;
    }
    p->flags |= kFileTail;
    p->ft.ft_delim_end = 1;
    return p;
}

// Starts the open plugin, if any, and moves it into the list. A section that a stop has cut short
// is neither started nor blamed for what was not read of it.
void close_section(plugin *p, config *conf) {
    if (!p) return;
    const size_t size = (static_cast<size_t>(conf->p_count) + 1) * sizeof(plugin *);
    auto **list = static_cast<plugin **>(realloc(conf->p_list, size));
    if (!list) {
        logger(kLogError, "Error: out of memory for a plugin");
        plugin_shutdown(p, 0);
        free(p);
        return;
    }
    conf->p_list = list;
    if (is_running()) {
        plugin_init(p, conf->bm_dir, static_cast<int8_t>(conf->connected.load()));
    }
    conf->p_list[conf->p_count++] = p;
}

void join_worker(ft_bm *group) {
    if (!group->t) return;
    pthread_join(*group->t, nullptr);
    free(group->t);
    group->t = nullptr;
}

void close_group(ft_bm *group) {
    for (int32_t i = 0; i < group->fc; ++i) {
        logger(kLogInfo, "Shutdown bookmark for %s", group->f[i]->n);
    }
    free_tail_group(group);
}

void free_event_source(plugin *p) {
    if (p->data) RUVFreeData(p->data);
    p->data = nullptr;
    if (p->dsinfo) RUVFreeDSInfo(p->dsinfo);
    p->dsinfo = nullptr;
}

}  // namespace

void plugin_config(int plugin_start, key_value_pair_spec *kv, config *conf) {
    plugin *open = nullptr;
    int counted = 0;
    // Kept: the pair in front of the first "type" line is offered too; no plugin is open yet.
    for (int32_t i = plugin_start < 0 ? 0 : plugin_start; kv && i < kv->count; ++i) {
        if (!is_running()) break;
        key_value_pair *pair = kv->kvp[i];
        if (equals(pair->key, pair->key_len, L"type")) {
            close_section(open, conf);
            open = open_section(pair, conf);
            if (open) ++counted;
        } else if (open) {
            plugin_add_kv(open, pair);
        }
    }
    close_section(open, conf);
    if (counted == 0) {
        logger(kLogError, "Error: not a valid config. No plugins defined.");
        pause_execution();
    }
}

void plugin_add_kv(plugin *p, key_value_pair *pair) {
    if ((p->flags & kFileTail) == 0) return;
    for (const section_key &row : kSectionKeys) {
        if (is_beginning_of(pair->key, pair->key_len, row.name)) return row.apply(p, pair);
    }
    report_invalid_pair(pair);
}

void plugin_init(plugin *p, const wchar_t *bm_dir, int8_t connected) {
    if ((p->flags & kFileTail) == 0) return;
    if (!p->ft.ft_dir || !p->ft.ft_filter || !p->ft.ft_delim) {
        logger(kLogError, "Error: plugin not started, its section has no %s: %s",
               !p->ft.ft_dir      ? "ft_dir"
               : !p->ft.ft_filter ? "ft_filter"
                                  : "ft_delim",
               narrow_text(p->ft.ft_dir).c_str());
        return;
    }
    ft_init(p, bm_dir, connected);
}

void plugin_shutdown(plugin *p, int) {
    if ((p->flags & kFileTail) == 0) return;
    logger(kLogInfo, "Filetail shutdown called: %s", narrow_text(p->ft.ft_dir).c_str());
    // The worker sends with the record and the data source until it has ended.
    begin_joining_workers();
    for (int32_t i = 0; i < p->bm_count; ++i) join_worker(p->ft.bm[i]);
    end_joining_workers();
    free_event_source(p);
    for (int32_t i = 0; i < p->bm_count; ++i) close_group(p->ft.bm[i]);
    free(p->ft.bm);
    p->bm_count = 0;
    if (p->teardown_process_event) p->teardown_process_event(&p->process_event_data);
    free(p->hostid);
    free(p->ft.bm_file);
    free(p->ft.ft_dir);
    free(p->ft.ft_filter);
    free(p->ft.ft_delim);
    p->hostid = nullptr;
    p->ft = {};
}

void plugin_shutdown_all(config *conf, int signal) {
    for (int32_t i = 0; i < conf->p_count; ++i) {
        logger(kLogInfo, "Calling shutdown on plugin: %d", i);
        plugin_shutdown(conf->p_list[i], signal);
        free(conf->p_list[i]);
    }
    free(conf->p_list);
    conf->p_list = nullptr;
    conf->p_count = 0;
}
