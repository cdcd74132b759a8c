#include "lpc_interface/lpc_interface.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "core/siemcollector_log.h"
#include "lpc/helper_library.h"
#include "lpc/logger.h"
#include "lpc/process_id.h"
#include "lpc/runtime.h"
#include "lpc/service_controller.h"
#include "lpc_interface/IPolicyEnforcement_Servant_Impl.h"
#include "lpc_interface/IPropertyCollection_Servant_Impl.h"
#include "lpc_interface/IUpdateCallback_Servant_Impl.h"
#include "lpc_interface/software_id.h"

using namespace velmor_com::NQ;

unsigned char g_lpc_passphrase[kPassphraseCapacity];
uint32_t g_passphrase_length = kPassphraseCapacity;

namespace {

constexpr size_t kTemporaryNameBytes = 4096;
static_assert(kTemporaryNameBytes >= L_tmpnam);

using Software_Id = std::string;

struct Registration {
    const char *interface_id;
    bool (*perform)(const char *interface_id);
};

// Kept: the last identifier stands here twice, once for each side of the interface; both have the
// same line in the log.
constexpr Registration kRegistrations[] = {
    {"IUpdateCallback", LPC::registerInterface<updater::Adaptor_InProc_IUpdateCallback>},
    {"IPropertyCollection", LPC::registerInterface<LPC::Adaptor_InProc_IPropertyCollection>},
    {"IPolicyEnforcement", LPC::registerInterface<LPC::Adaptor_InProc_IPolicyEnforcement>},
    {"IPolicyDataAccessor", LPC::registerInterface<LPC::IPolicyDataAccessor_Client_Impl>},
    {"IPolicyDataAccessor", LPC::registerInterface<LPC::Adaptor_InProc_IPolicyDataAccessor>},
};

LPC::VlrLpcCallbacks *new_callbacks() {
    return new (std::nothrow)
        LPC::VlrLpcCallbacks{sHA1_Validation_callback, startPointProductServicesCallBack,
                             stopPointProductServicesCallBack};
}

// The folder in which the runtime keeps what it needs for this process; the runtime creates it.
std::wstring working_directory() {
    char name[kTemporaryNameBytes] = "";
    // Kept: tmpnam, though another process could take the name before the runtime does; what is
    // handed over is a name, and the runtime refuses one that exists.
    if (!tmpnam(name)) return {};
    std::wstring wide(strlen(name), L'\0');
    return mbstowcs(wide.data(), name, wide.size()) == wide.size() ? wide : std::wstring();
}

// Returns as initializeLPC(); a memory that is short is one more way to fail.
int bring_up(void (*log)(int level, const wchar_t *message)) try {
    Services::LPCLogger::getLogger()->registerGeneralLogger(log);
    LPC::obtain_passphrase(kSoftwareId, g_lpc_passphrase, &g_passphrase_length);
    LPC::VlrLpcCallbacks *callbacks = new_callbacks();
    LPC::ISerializationFactory *factory = new LPC::SerializationFactory;
    Software_Id sIdentifierToUse;
    LPC::generateLPCProcessUID(kSoftwareId, std::to_string(getpid()), sIdentifierToUse);
    logger(kLogDebug, "LPC Process UID: %s", sIdentifierToUse.c_str());
    const std::wstring temporary = working_directory();
    logger(kLogDebug, "Initializing LPC");
    const int result = LPC::initializeLPC(sIdentifierToUse, temporary, callbacks, factory);
    delete factory;
    delete callbacks;
    return result;
} catch (const std::bad_alloc &) {
    return -1;
}

// Called on threads of the runtime too, to which nothing is thrown.
template <class ServantImpl>
bool run_service() try {
    // Kept: the servant of a failed start is neither deleted nor kept, since a runtime that took it
    // half way may still hold it.
    return LPC::LPCServiceController<ServantImpl>::runService(new (std::nothrow) ServantImpl);
} catch (...) {
    return false;
}

template <class ServantImpl>
void start_service(const char *name) {
    if (run_service<ServantImpl>())
        logger(kLogInfo, "Started %s service", name);
    else
        logger(kLogError, "Unable to run the %s service", name);
}

}  // namespace

int init_lpc(void (*log)(int level, const wchar_t *message)) {
    const int retVal = bring_up(log);
    if (retVal < 0) {
        logger(kLogError, "Initializing LPC failed");
        return retVal;
    }
    if (retVal == 1) {
        logger(kLogInfo, "LPC not installed");
        return 1;
    }
    logger(kLogInfo, "LPC initialized");
    registerInterfaces();
    startPointProductServicesCallBack();
    return 0;
}

void deinit_lpc() try {
    logger(kLogInfo, "DeInitializing LPC");
    LPC::deinitializeLPC();
} catch (const std::bad_alloc &) {
    // The process ends next, and what was not taken down ends with it.
}

bool registerInterfaces() {
    for (const Registration &row : kRegistrations) {
        if (!row.perform(row.interface_id)) {
            logger(kLogError, "Failed to register %s", row.interface_id);
            return false;
        }
        logger(kLogInfo, "Registered %s", row.interface_id);
    }
    return true;
}

void startPointProductServicesCallBack() {
    start_service<updater::IUpdateCallback_Servant_Impl>("updater");
    start_service<LPC::IPropertyCollection_Servant_Impl>("property collection");
    start_service<LPC::IPolicyEnforcement_Servant_Impl>("policy enforcement");
}

void stopPointProductServicesCallBack() {
}

bool sHA1_Validation_callback(const unsigned char *, unsigned long, unsigned char *arg2,
                              unsigned long *arg2_size) {
    if (!arg2 || !arg2_size || *arg2_size < g_passphrase_length) return false;
    memcpy(arg2, g_lpc_passphrase, g_passphrase_length);
    *arg2_size = g_passphrase_length;
    return true;
}
