#include "lpc/runtime_location.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

namespace velmor_com::NQ::LPC {

namespace {

struct CloseFile {
    void operator()(FILE *file) const { fclose(file); }
};

// The whole file, when it is a regular one of at most the allowed size.
bool read_small_file(const std::string &name, std::string *text) {
    // A FIFO under that name must not hold up the start of the daemon.
    struct stat status;
    if (stat(name.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    std::unique_ptr<FILE, CloseFile> file(fopen(name.c_str(), "rbe"));
    if (!file || fseek(file.get(), 0, SEEK_END) != 0) return false;
    const long size = ftell(file.get());
    if (size < 0 || static_cast<size_t>(size) > kMaxAgentConfigBytes) return false;
    rewind(file.get());
    text->resize(static_cast<size_t>(size));
    return fread(text->data(), 1, text->size(), file.get()) == text->size();
}

}  // namespace

bool parse_shared_lib_location(const std::string &text, std::string *folder) {
    static const std::string kOpening = "<SharedLibLocation>", kClosing = "</SharedLibLocation>";
    const size_t opening = text.find(kOpening);
    if (opening == std::string::npos) return false;
    const size_t begin = opening + kOpening.size();
    const size_t end = text.find(kClosing, begin);
    if (end == std::string::npos) return false;
    *folder = text.substr(begin, end - begin);
    std::erase(*folder, '\n');
    // Where a C string ends; behind a NUL the name of the library would not be seen.
    folder->resize(strlen(folder->c_str()));
    return true;
}

bool read_shared_lib_location(const std::string &file, std::string *folder) {
    std::string text;
    return read_small_file(file, &text) && parse_shared_lib_location(text, folder);
}

}  // namespace velmor_com::NQ::LPC
