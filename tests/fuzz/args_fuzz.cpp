// Command lines: the input is a list of words, separated by zero bytes. Invalid ones end the
// process by design, so each is parsed in a child whose end must be an exit, never a signal.

#include <fcntl.h>
#include <getopt.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/args.h"
#include "core/siemcollector_log.h"

namespace {

[[noreturn]] void parse_in_child(std::vector<char *> words) {
    const int null = open("/dev/null", O_RDWR);
    dup2(null, 1);
    dup2(null, 2);
    set_log_level(31);
    optind = 0;
    args_parse(static_cast<int>(words.size()) - 1, words.data());
    if (g_args.timeout_retry < 1 || g_args.timeout_sleep < 1 || g_args.query_retry < 1) abort();
    args_log_program_args();
    args_teardown();
    _exit(0);
}

}  // namespace

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
    const pid_t child = fork();
    if (child == 0) parse_in_child(words);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) abort();
    if (!WIFEXITED(status) || WEXITSTATUS(status) > 1) abort();
    return 0;
}
