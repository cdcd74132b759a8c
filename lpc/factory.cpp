#include "lpc/factory.h"

#include "lpc/dylib_manager.h"

namespace velmor_com::NQ::LPC {

namespace {

constexpr wchar_t kModule[] = L"LPC";

std::nullptr_t fail(const wchar_t *why) {
    Services::LPCLogger::getLogger()->logError(kModule, why);
    return nullptr;
}

}  // namespace

LPCFactory *LPCFactory::instance() {
    // Never destroyed: the factories live until the process ends, and so does their registry.
    static LPCFactory *const factory = new LPCFactory;
    return factory;
}

void LPCFactory::configure(const std::string &processId) {
    std::lock_guard guard(m_guard);
    m_processIdentifier = processId;
}

std::string LPCFactory::processIdentifier() {
    std::lock_guard guard(m_guard);
    return m_processIdentifier;
}

bool LPCFactory::registerInterface(const std::string &interfaceId, ILPCFactory *factory,
                                   bool servant) {
    std::lock_guard guard(m_guard);
    ClientServantPair &pair = m_registry[interfaceId];
    ILPCFactory *&place = servant ? pair.servant : pair.client;
    if (place) m_replaced.push_back(place);
    place = factory;
    return true;
}

ILPCInterface *LPCFactory::createInstance(const std::string &interfaceId,
                                          const std::string &provider) {
    ClientServantPair pair;
    bool own = false;
    {
        std::lock_guard guard(m_guard);
        const auto found = m_registry.find(interfaceId);
        if (found == m_registry.end()) return fail(L"Unregistered interface");
        pair = found->second;
        own = provider == m_processIdentifier;
    }
    if (own) return createInProcess(pair.servant, interfaceId.c_str(), provider.c_str());
    return pair.client ? pair.client->createObject(provider.c_str()) : nullptr;
}

ILPCInterface *LPCFactory::createInProcess(ILPCFactory *factory, const char *interfaceId,
                                           const char *provider) {
    LPCDylibManager *const manager = LPCDylibManager::instance();
    ILPCRepository *repository = manager->getLPCRepository();
    // Kept: the missing letter of this text, it is what operators search for.
    if (!repository) return fail(L"Faild to get LPC repository");
    ILPCInterface *object = nullptr;
    if (IServiceAdaptor *adaptor = repository->findAdaptor(interfaceId))
        object = factory ? factory->createObject(adaptor, provider) : nullptr;
    else
        fail(L"Service is not available");
    manager->releaseLPCRepository(repository);
    return object;
}

bool registerInFactory(const char *interfaceId, ILPCFactory *factory, bool servant) {
    if (!interfaceId || !factory) {
        fail(L"Invalid argument");
        return false;
    }
    return LPCFactory::instance()->registerInterface(interfaceId, factory, servant);
}

void configureLPCFactory(const char *processId) {
    if (processId)
        LPCFactory::instance()->configure(processId);
    else
        fail(L"Invalid argument");
}

}  // namespace velmor_com::NQ::LPC
