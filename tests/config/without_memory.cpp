// What becomes of a configuration when an allocation fails, every one in its turn, or when the file
// cannot be read to its end: a clean failure or a plugin that is not started, never half of one.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>

#include "config/conf.h"
#include "config/plugin.h"
#include "config/plugin_record.h"
#include "config/siem_config.h"
#include "core/execution.h"
#include "core/siemcollector_log.h"
#include "filetail/big_fix.h"
#include "filetail/discovery.h"
#include "filetail/filetail.h"
#include "ruv/ruvlib.h"
#include "tests/core/sandbox.h"

namespace {

int countdown = 0;  // the allocation that fails, counted from 1; 0: none
bool struck = false;
int fstat_error = 0, getline_error = 0;
int started = 0;

bool strikes() {
    if (countdown == 0 || --countdown != 0) return false;
    return struck = true;
}

}  // namespace

// The linker sends this program's own calls here (see its --wrap options).
extern "C" {
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size) {
    return strikes() ? nullptr : __real_malloc(size);
}
void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size) {
    return strikes() ? nullptr : __real_calloc(count, size);
}
void *__real_realloc(void *memory, size_t size);
void *__wrap_realloc(void *memory, size_t size) {
    return strikes() ? nullptr : __real_realloc(memory, size);
}
wchar_t *__real_wcsdup(const wchar_t *text);
wchar_t *__wrap_wcsdup(const wchar_t *text) {
    return strikes() ? nullptr : __real_wcsdup(text);
}
int __real_fstat(int fd, struct stat *status);
int __wrap_fstat(int fd, struct stat *status) {
    if (fstat_error == 0) return __real_fstat(fd, status);
    errno = fstat_error;
    return -1;
}
ssize_t __real_getline(char **line, size_t *room, FILE *file);
ssize_t __wrap_getline(char **line, size_t *room, FILE *file) {
    if (getline_error == 0) return __real_getline(line, room, file);
    errno = getline_error;
    return -1;
}
// What the C library's header makes of getline() in optimised code.
ssize_t __real___getdelim(char **line, size_t *room, int end, FILE *file);
ssize_t __wrap___getdelim(char **line, size_t *room, int end, FILE *file) {
    if (getline_error == 0) return __real___getdelim(line, room, end, file);
    errno = getline_error;
    return -1;
}
}

// The tailer and the event library under the registry: a start only counts.
int ft_init(plugin *p, const wchar_t *, int8_t) {
    EXPECT_TRUE(p->ft.ft_dir && p->ft.ft_filter && p->ft.ft_delim);
    ++started;
    return 1;
}
void free_tail_group(ft_bm *) {
}
int big_fix_process_event(char **, int *, void **, fdesc *, FILE *) {
    return 1;
}
void big_fix_teardown_event(void **) {
}
RUVDSInfo *RUVAllocDSInfo(int, const void *) {
    return nullptr;
}
void RUVFreeDSInfo(RUVDSInfo *) {
}
void RUVFreeData(void *) {
}

namespace {

// Lets each allocation of `call` fail in its turn. Returns how many there were.
template <class Call>
int fail_each(Call call) {
    for (int k = 1; k < 1000; ++k) {
        struck = false;
        call(k);
        countdown = 0;
        if (!struck) return k - 1;
    }
    ADD_FAILURE() << "more allocations than any call makes";
    return 1000;
}

struct WithoutMemory : testing::Test {
    temp_dir dir;
    const std::string path = dir / "conf";
    key_value_pair_spec *pairs = nullptr;

    void SetUp() override {
        set_log_level(0);
        execution_reset_for_start();
        write_file(path,
                   "rec_ip=192.0.2.10\nrec_port=8082\nbookmark_dir=/bm\ndebug_level=info\n"
                   "type=filetail\nft_dir=/var/log\nft_filter=*.log\nft_delim=x\nhostid=h\n");
    }
    void TearDown() override {
        countdown = fstat_error = getline_error = 0;
        conf_teardown_key_value_pair(pairs);
        execution_reset_for_start();
    }
    int parse() { return conf_parse_key_value_pair(path.c_str(), &pairs, 0); }
    void forget() {
        conf_teardown_key_value_pair(pairs);
        pairs = nullptr;
    }
};

TEST_F(WithoutMemory, AFileIsReadWholeOrNotAtAll) {
    const int count = fail_each([this](int k) {
        forget();
        countdown = k;
        const int result = parse();
        countdown = 0;
        EXPECT_EQ(result, struck ? 1 : 0) << k;
        if (struck) EXPECT_TRUE(!pairs || pairs->count == 0) << k;
    });
    EXPECT_GE(count, 9 * 3 + 2) << "each pair, the list and its beginning";
    EXPECT_EQ(pairs->count, 9);
}

TEST_F(WithoutMemory, AReadThatFailsIsNoEndOfTheFile) {
    getline_error = EIO;
    EXPECT_EQ(parse(), 1);
    EXPECT_EQ(pairs->count, 0);
}

TEST_F(WithoutMemory, AFileThatCannotBeLookedAtIsNotRead) {
    fstat_error = EACCES;
    EXPECT_EQ(parse(), 1);
    EXPECT_EQ(pairs->count, 0);
}

TEST_F(WithoutMemory, ASettingIsReadOrLeftOut) {
    ASSERT_EQ(parse(), 0);
    const int count = fail_each([this](int k) {
        config found = {};
        countdown = k;
        const int start = config_init(pairs, &found);
        countdown = 0;
        EXPECT_EQ(start, 3) << k;
        if (found.ruv.server) EXPECT_STREQ(found.ruv.server, L"192.0.2.10");
        EXPECT_TRUE(found.ruv.port == 8082 || (struck && found.ruv.port == 0)) << k;
        config_teardown(&found);
    });
    EXPECT_GE(count, 4) << "a copy of each text, a number's digits";
}

TEST_F(WithoutMemory, APluginIsStartedWholeOrNotAtAll) {
    ASSERT_EQ(parse(), 0);
    const int count = fail_each([this](int k) {
        config found = {};
        started = 0;
        execution_reset_for_start();
        countdown = k;
        plugin_config(3, pairs, &found);
        countdown = 0;
        EXPECT_LE(started, found.p_count) << k;
        if (!struck) EXPECT_EQ(started, 1);
        plugin_shutdown_all(&found, 0);
        config_teardown(&found);
    });
    EXPECT_GE(count, 5) << "the record, its texts and the list";
}

}  // namespace
