#include "tools/common/options.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tools {
namespace {

void print_usage(const tool_usage &usage, const std::vector<option_row> &rows) {
    printf("Usage: %s [OPTION]...\n%s\n\n", usage.name, usage.summary);
    for (const option_row &row : rows) {
        std::string left = std::string("--") + row.name;
        if (row.argument != nullptr) left += std::string(" ") + row.argument;
        printf("  %-26s %s\n", left.c_str(), row.help);
    }
    printf("  %-26s %s\n", "--help", "show this text and end");
    if (*usage.epilogue != '\0') printf("\n%s\n", usage.epilogue);
}

const option_row *find_row(const std::vector<option_row> &rows, std::string_view name) {
    for (const option_row &row : rows) {
        if (name == row.name) return &row;
    }
    return nullptr;
}

}  // namespace

void usage_error(const tool_usage &usage, const std::string &message) {
    fprintf(stderr, "%s: %s\nTry '%s --help'.\n", usage.name, message.c_str(), usage.name);
    exit(kUsageError);
}

void parse_options(const tool_usage &usage, const std::vector<option_row> &rows, int argc,
                   char **argv) {
    for (int i = 1; i < argc; i++) {
        std::string_view word = argv[i];
        if (word == "--help") {
            print_usage(usage, rows);
            exit(0);
        }
        if (word.substr(0, 2) != "--")
            usage_error(usage, "'" + std::string(word) + "' is not an option");
        size_t equals = word.find('=');
        std::string name(word.substr(2, equals == word.npos ? equals : equals - 2));
        const option_row *row = find_row(rows, name);
        if (row == nullptr) usage_error(usage, "unknown option '--" + name + "'");
        const char *argument = equals == word.npos ? nullptr : argv[i] + equals + 1;
        if (row->argument == nullptr && argument != nullptr)
            usage_error(usage, "option '--" + name + "' takes no argument");
        if (row->argument != nullptr && argument == nullptr) {
            if (i + 1 == argc) usage_error(usage, "option '--" + name + "' needs an argument");
            argument = argv[++i];
        }
        if (!row->store(argument))
            usage_error(usage, "bad argument '" + std::string(argument == nullptr ? "" : argument) +
                                   "' for option '--" + name + "'");
    }
}

bool parse_number(const char *text, int64_t low, int64_t high, int64_t *value) {
    char *end;
    errno = 0;
    long long number = strtoll(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || number < low || number > high) return false;
    *value = number;
    return true;
}

bool parse_unsigned(const char *text, uint64_t high, uint64_t *value) {
    char *end;
    errno = 0;
    int base = strncmp(text, "0x", 2) == 0 ? 16 : 10;
    if (*text < '0' || *text > '9') return false;
    unsigned long long number = strtoull(text, &end, base);
    if (*end != '\0' || errno != 0 || number > high) return false;
    *value = number;
    return true;
}

option_row flag_row(const char *name, bool *target, const char *help) {
    return {name, nullptr, help, [target](const char *) { return *target = true; }};
}

option_row text_row(const char *name, const char *argument, std::string *target, const char *help) {
    return {name, argument, help, [target](const char *text) {
                *target = text;
                return !target->empty();
            }};
}

option_row number_row(const char *name, const char *argument, int64_t low, int64_t high,
                      int64_t *target, const char *help) {
    return {name, argument, help,
            [=](const char *text) { return parse_number(text, low, high, target); }};
}

void open_standard_descriptors() {
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= 2);
    if (fd > 2) close(fd);
}

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> pieces;
    for (size_t end; (end = text.find(separator)) != text.npos; text.remove_prefix(end + 1))
        pieces.emplace_back(text.substr(0, end));
    pieces.emplace_back(text);
    return pieces;
}

}  // namespace tools
