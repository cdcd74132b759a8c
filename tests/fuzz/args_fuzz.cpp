// Command lines: the input is a list of words, separated by zero bytes. Invalid ones end the
// process by design; here the end comes back as an exception, so that all runs in one process.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/args.h"
#include "core/siemcollector_log.h"

namespace {

struct ended {
    int status;
};

bool g_parsing = false;

// The usage text goes nowhere meanwhile.
class quiet {
  public:
    quiet() : before_(stdout) {
        static FILE *const null = fopen("/dev/null", "w");
        if (!null) abort();
        stdout = null;
        g_parsing = true;
    }
    ~quiet() {
        g_parsing = false;
        stdout = before_;
    }
    quiet(const quiet &) = delete;
    quiet &operator=(const quiet &) = delete;

  private:
    FILE *before_;
};

// @return the status that the process would have ended with, or -1 when it goes on.
int parse(std::vector<char *> words) {
    const quiet scope;
    try {
        args_parse(static_cast<int>(words.size()) - 1, words.data());
    } catch (const ended &end) {
        return end.status;
    }
    return -1;
}

}  // namespace

// The linker puts this in the place of exit(), see the list of targets.
extern "C" [[noreturn]] void __real_exit(int status);
extern "C" [[noreturn]] void __wrap_exit(int status) {
    if (g_parsing) throw ended{status};
    __real_exit(status);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    std::vector<std::string> texts{"velmor_siem_collector"};
    std::string text(reinterpret_cast<const char *>(data), size);
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\0', at), text.size());
        texts.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    std::vector<char *> words;
    for (std::string &word : texts) words.push_back(word.data());
    words.push_back(nullptr);
    set_log_level(0);
    const int status = parse(words);
    if (status != -1 && status != 1) abort();
    if (status == -1) {
        if (g_args.timeout_retry < 1 || g_args.timeout_sleep < 1 || g_args.query_retry < 1) abort();
        if (!g_args.conf_file || args_anchor_conf_file() != 0 || g_args.conf_file[0] != '/')
            abort();
        args_log_program_args();
    }
    args_teardown();
    return 0;
}
