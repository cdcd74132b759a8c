// A runtime that lacks one of its entry points: the build gives the missing one another name. The
// loader must call none of the others.
#include <cstdlib>

#define ENTRY_POINT(name)                                          \
    extern "C" __attribute__((visibility("default"))) int name() { \
        abort();                                                   \
    }

ENTRY_POINT(initializeLPCLib)
ENTRY_POINT(deinitializeLPCLib)
ENTRY_POINT(getVlrLpcFactory)
ENTRY_POINT(createAsyncResultId)
ENTRY_POINT(enableLPCLib)
ENTRY_POINT(disableLPCLib)
ENTRY_POINT(getVlrLpcLogger)
