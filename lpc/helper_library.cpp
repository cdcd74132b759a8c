#include "lpc/helper_library.h"

#include <dlfcn.h>
#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "lpc/runtime_location.h"

namespace velmor_com::NQ::LPC {

namespace {

constexpr char kHelperLibrary[] = "libvlrlpchelper.so.4";
constexpr char kHelperFunction[] = "generatePassphraseAndSaveToRegistry";

using Generate = int (*)(const char *softwareId, unsigned char *buffer, uint32_t *length);

Generate find_helper() {
    std::string folder;
    void *library = nullptr;
    if (read_shared_lib_location(kAgentConfigFile, &folder))
        library = dlopen((folder + "/" + kHelperLibrary).c_str(), RTLD_NOW);
    if (!library) library = dlopen(kHelperLibrary, RTLD_NOW);
    if (!library) return nullptr;
    const auto function = reinterpret_cast<Generate>(dlsym(library, kHelperFunction));
    if (!function) dlclose(library);
    return function;
}

void fill_at_random(unsigned char *buffer, size_t size) {
    size_t filled = 0;
    while (filled < size) {
        const ssize_t got = getrandom(buffer + filled, size - filled, 0);
        if (got < 0 && errno != EINTR) return;
        if (got > 0) filled += static_cast<size_t>(got);
    }
}

}  // namespace

bool obtain_passphrase(const char *softwareId, unsigned char *buffer, uint32_t *length) {
    const uint32_t capacity = *length;
    const Generate generate = find_helper();
    if (!generate) {
        fill_at_random(buffer, capacity);
        return false;
    }
    generate(softwareId, buffer, length);
    *length = std::min(*length, capacity);
    return true;
}

}  // namespace velmor_com::NQ::LPC
