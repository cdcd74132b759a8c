// libvlrlpchelper.so.4 of the loopback agent: makes a pass phrase and leaves a copy where the agent
// finds it, in the folder of its libraries.
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "tools/loopback_agent/location.h"

namespace {

bool save(const std::string &name, const unsigned char *bytes, size_t size) {
    const int file = open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0) return false;
    const bool saved = write(file, bytes, size) == static_cast<ssize_t>(size);
    return close(file) == 0 && saved;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int generatePassphraseAndSaveToRegistry(
    const char *softwareId, unsigned char *buffer, uint32_t *length) {
    if (getrandom(buffer, *length, 0) != static_cast<ssize_t>(*length)) return 1;
    const std::string name = loopback::own_folder() + "/" + softwareId + ".passphrase";
    return save(name, buffer, *length) ? 0 : 1;
}
