// Configuration files: read with and without comments, turned into settings, then checked.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "config/conf.h"
#include "config/plugin.h"
#include "config/plugin_record.h"
#include "config/siem_config.h"
#include "core/siemcollector_log.h"

namespace {

// One file in memory for the whole run, rewritten for each input.
const std::string &input_path() {
    static const std::string path = [] {
        const int fd = memfd_create("config_fuzz", MFD_CLOEXEC);
        if (fd < 0) abort();
        return "/proc/self/fd/" + std::to_string(fd);
    }();
    return path;
}

void write_input(const uint8_t *data, size_t size) {
    FILE *file = fopen(input_path().c_str(), "w");
    if (file == nullptr) abort();
    if (fwrite(data, 1, size, file) != size) abort();
    fclose(file);
}

void fill_sections(const key_value_pair_spec &pairs, int start) {
    for (int i = start < 0 ? 0 : start; i < pairs.count; i++) {
        plugin section{};
        section.flags = kFileTail;
        section.ft.ft_delim_end = 1;
        for (; i < pairs.count && wcscmp(pairs.kvp[i]->key, L"type") != 0; i++) {
            plugin_add_kv(&section, pairs.kvp[i]);
        }
        plugin_shutdown(&section, 15);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    set_log_level(0);
    write_input(data, size);
    for (const int comments : {1, 0}) {
        key_value_pair_spec *pairs = nullptr;
        if (conf_parse_key_value_pair(input_path().c_str(), &pairs, comments) == 0) {
            for (int i = 0; i < pairs->count; i++) {
                // Each pair must be whole: its lengths are those of its strings.
                if (static_cast<int32_t>(wcslen(pairs->kvp[i]->key)) > pairs->kvp[i]->key_len)
                    abort();
                if (static_cast<int32_t>(wcslen(pairs->kvp[i]->value)) > pairs->kvp[i]->value_len) {
                    abort();
                }
            }
            config settings{};
            const int start = config_init(pairs, &settings);
            if (start < -1 || start > pairs->count) abort();
            config_check(pairs, &settings);
            if (comments == 0) fill_sections(*pairs, start);
            config_teardown(&settings);
        }
        conf_teardown_key_value_pair(pairs);
    }
    return 0;
}
