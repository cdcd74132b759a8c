// The agent's configuration file: any bytes in it either name the folder of the libraries or not.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "lpc/runtime_location.h"

using namespace velmor_com::NQ::LPC;

namespace {

// One file in memory for the whole run, rewritten for each input.
int input_file() {
    static const int fd = memfd_create("location_fuzz", MFD_CLOEXEC);
    if (fd < 0) abort();
    return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const int fd = input_file();
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) abort();
    const std::string text(reinterpret_cast<const char *>(data), size), before = "kept";
    std::string folder = before, parsed = before;
    const bool found = read_shared_lib_location("/proc/self/fd/" + std::to_string(fd), &folder);
    if (found && size > kMaxAgentConfigBytes) abort();
    if (size <= kMaxAgentConfigBytes) {
        if (found != parse_shared_lib_location(text, &parsed) || folder != parsed) abort();
    }
    if (!found && folder != before) abort();
    // What is found stands in the file, once the line feeds are gone from both, and ends at the
    // closing mark or at a NUL.
    std::string joined = text;
    std::erase(joined, '\n');
    if (found && (folder.find('\n') != std::string::npos ||
                  (joined.find(folder + "</SharedLibLocation>") == std::string::npos &&
                   joined.find(folder + '\0') == std::string::npos)))
        abort();
    if (found && folder.find('\0') != std::string::npos) abort();
    return 0;
}
