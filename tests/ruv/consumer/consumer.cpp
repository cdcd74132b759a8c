// The same headers in C++: only that they compile and link.
#include <ruv/ruvlib.h>
#include <ruv/ruvlibsetters.h>

int main() {
    const uint32_t address = 0x7F000001;
    RUVDSInfo *source = RUVAllocDSInfo(1, &address);
    const bool failed =
        source == nullptr || RUVAlertSet_severity(nullptr, 1) != -1 || ruverrno != 2;
    RUVFreeDSInfo(source);
    return failed;
}
