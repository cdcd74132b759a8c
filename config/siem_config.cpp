#include "config/siem_config.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include "config/conf.h"
#include "core/args.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"

config conf;

namespace {

constexpr int32_t kLongestReconnectWaitSeconds = 300;

// A key sets either a text or a number. A documented number takes what the digits at its beginning
// say, 0 when there are none; an opt-in number is strict and has a range.
struct global_key {
    const wchar_t *name;
    wchar_t **(*text)(config &);
    int32_t *(*number)(config &);
    int32_t lowest, highest;  // of an opt-in number, else 0, 0
};

#define TEXT(name, field)                                                     \
    {                                                                         \
        name, [](config &c) -> wchar_t ** { return &c.field; }, nullptr, 0, 0 \
    }
#define NUMBER(name, field, lowest, highest)                                            \
    {                                                                                   \
        name, nullptr, [](config &c) -> int32_t * { return &c.field; }, lowest, highest \
    }

constexpr global_key kGlobalKeys[] = {
    TEXT(L"rec_ip", ruv.server),
    NUMBER(L"rec_port", ruv.port, 0, 0),
    NUMBER(L"rec_encrypt", ruv.encrypt, 0, 0),
    TEXT(L"bookmark_dir", bm_dir),
    TEXT(L"debug_level", debug),
    TEXT(L"log_path", log),
    NUMBER(L"sleep", sleep_time, 0, 0),
    NUMBER(L"throttle", throttle, 0, 0),
    {L"daemonize", nullptr, [](config &) -> int32_t * { return &g_args.daemon; }, 0, 0},
    NUMBER(L"rec_confirm", rec_confirm, 0, INT32_MAX),
    TEXT(L"rec_tls_min", rec_tls_min),
    TEXT(L"rec_tls_ca", rec_tls_ca),
    TEXT(L"rec_tls_name", rec_tls_name),
    TEXT(L"rec_tls_cert", rec_tls_cert),
    TEXT(L"rec_tls_key", rec_tls_key),
    NUMBER(L"reconnect_wait", reconnect_wait, 1, kLongestReconnectWaitSeconds),
    NUMBER(L"small_file_guard", small_file_guard, 0, 1),
    NUMBER(L"rotation_drain", rotation_drain, 0, 1),
    NUMBER(L"wake_on_change", wake_on_change, 0, 1),
};

#undef TEXT
#undef NUMBER

bool is_key(const key_value_pair *pair, const wchar_t *name) {
    const size_t length = wcslen(name);
    return pair->key && static_cast<size_t>(pair->key_len) == length &&
           wmemcmp(pair->key, name, length) == 0;
}

const global_key *find_key(const key_value_pair *pair) {
    for (const global_key &row : kGlobalKeys) {
        if (is_key(pair, row.name)) return &row;
    }
    return nullptr;
}

// Decimal value of the text's beginning, held to 32 bits; *whole tells whether that was all.
int32_t to_number(const wchar_t *value, bool *whole) {
    char *text = wstrtostr(value);
    if (!text) return 0;
    char *end = text;
    const long number = strtol(text, &end, 10);
    *whole = end != text && *end == '\0';
    free(text);
    if (number > INT32_MAX) return INT32_MAX;
    return number < INT32_MIN ? INT32_MIN : static_cast<int32_t>(number);
}

// The value that takes effect: out of its range, an opt-in number that is too large becomes the
// largest one, and any other nonsense leaves the opt-in off.
int32_t effective_number(const global_key &row, const wchar_t *value, bool *accepted) {
    bool whole = false;
    const int32_t number = to_number(value, &whole);
    *accepted = true;
    if (row.highest == 0) return number;
    *accepted = whole && number >= row.lowest && number <= row.highest;
    if (*accepted) return number;
    return whole && number > row.highest ? row.highest : 0;
}

void replace_text(wchar_t **field, const wchar_t *value) {
    wchar_t *copy = wcsdup(value);
    free(*field);
    *field = copy;
}

void check_number(const global_key &row, const key_value_pair *pair) {
    bool accepted = true;
    const int32_t used = effective_number(row, pair->value, &accepted);
    if (accepted) return;
    if (used != 0) {
        logger(kLogWarn, "Warning: value of %ls is too large, using %d: %ls", row.name, used,
               pair->value);
    } else {
        logger(kLogWarn, "Warning: value of %ls is not in effect, it must be %d to %d: %ls",
               row.name, row.lowest, row.highest, pair->value);
    }
}

// The version stays as it is: a connection that cannot be as safe as was asked for is not made.
void check_tls(const config &c) {
    if (c.rec_tls_min && wcscmp(c.rec_tls_min, L"1.2") != 0 && wcscmp(c.rec_tls_min, L"1.3") != 0) {
        logger(kLogWarn, "Warning: value of rec_tls_min must be 1.2 or 1.3: %ls", c.rec_tls_min);
    }
    if (!c.rec_tls_cert != !c.rec_tls_key) {
        logger(kLogWarn, "Warning: rec_tls_cert and rec_tls_key must be set together");
    }
}

}  // namespace

int config_init(key_value_pair_spec *pairs, config *target) {
    if (!pairs) return 0;
    for (int32_t i = 0; i < pairs->count; ++i) {
        const key_value_pair *pair = pairs->kvp[i];
        if (is_key(pair, L"type")) return i - 1;
        const global_key *row = find_key(pair);
        if (!row) continue;
        if (row->text) {
            replace_text(row->text(*target), pair->value);
        } else {
            bool accepted = true;
            *row->number(*target) = effective_number(*row, pair->value, &accepted);
        }
    }
    return pairs->count;
}

void config_check(const key_value_pair_spec *pairs, const config *target) {
    if (!pairs) return;
    for (int32_t i = 0; i < pairs->count && !is_key(pairs->kvp[i], L"type"); ++i) {
        const global_key *row = find_key(pairs->kvp[i]);
        if (row && row->number) check_number(*row, pairs->kvp[i]);
    }
    check_tls(*target);
}

void config_teardown(config *target) {
    for (const global_key &row : kGlobalKeys) {
        if (row.text) {
            wchar_t **field = row.text(*target);
            free(*field);
            *field = nullptr;
        } else if (row.number(*target) != &g_args.daemon) {
            *row.number(*target) = 0;
        }
    }
    target->log_len = 0;
}
