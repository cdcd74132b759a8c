// A helper library that claims to have made more bytes than it was given room for.
#include <cstdint>
#include <cstring>

extern "C" __attribute__((visibility("default"))) int generatePassphraseAndSaveToRegistry(
    const char *, unsigned char *buffer, uint32_t *length) {
    memset(buffer, 'p', *length);
    *length += 36;
    return 1;  // the result is nobody's business
}
