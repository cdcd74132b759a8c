#include "tools/loopback_agent/session.h"

#include <dirent.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "lpc/dylib_manager.h"
#include "lpc/logger.h"
#include "lpc/runtime.h"
#include "lpc/service_controller.h"
#include "tools/loopback_agent/wide.h"

namespace loopback {

namespace {

constexpr char kSocketSuffix[] = ".sock";
constexpr std::chrono::milliseconds kLookAgain{50};

struct CloseFolder {
    void operator()(DIR *folder) const { closedir(folder); }
};

int connect_to(const std::string &name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (name.size() >= sizeof(address.sun_path)) return -1;
    memcpy(address.sun_path, name.c_str(), name.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0) return fd;
    close(fd);
    return -1;
}

bool no_passphrase(const unsigned char *, unsigned long, unsigned char *, unsigned long *) {
    return false;
}
void nothing() {
}

void log_to_stderr(int level, const wchar_t *message) {
    if (level == 0) fprintf(stderr, "loopback_agent: %s\n", to_utf8(message).c_str());
}

}  // namespace

std::vector<std::string> running_processes(const std::string &folder) {
    std::vector<std::string> processes;
    const std::unique_ptr<DIR, CloseFolder> listing(opendir(folder.c_str()));
    while (const dirent *entry = listing ? readdir(listing.get()) : nullptr) {
        const std::string name = entry->d_name;
        if (!name.ends_with(kSocketSuffix)) continue;
        const int fd = connect_to(folder + "/" + name);
        if (fd < 0) continue;
        close(fd);
        processes.push_back(name.substr(0, name.size() - strlen(kSocketSuffix)));
    }
    std::sort(processes.begin(), processes.end());
    return processes;
}

std::string wait_for_process(const std::string &folder, const std::string &prefix, int seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        std::string found;
        for (const std::string &process : running_processes(folder))
            if (process.starts_with(prefix)) found = process;
        if (!found.empty() || std::chrono::steady_clock::now() >= end) return found;
        std::this_thread::sleep_for(kLookAgain);
    }
}

bool ask_runtime(const std::string &folder, const std::string &process, const std::string &word,
                 std::string *answer) {
    const int fd = connect_to(folder + "/" + process + kSocketSuffix);
    if (fd < 0) return false;
    Channel channel(
        fd, [](const Message &, Message *) {}, [](const std::string &) { return std::string(); });
    return channel.control(word, answer);
}

Session::Session(const std::string &folder) {
    setenv("LOOPBACK_AGENT_DIR", folder.c_str(), 1);
    velmor_com::NQ::Services::LPCLogger::getLogger()->registerGeneralLogger(log_to_stderr);
    LPCDylibManager::setUTMode(true);
    auto *callbacks = new VlrLpcCallbacks{no_passphrase, nothing, nothing};
    ISerializationFactory *factory = new SerializationFactory;
    const std::string id = "LOOPBACKAGENT:p" + std::to_string(getpid()) + ":0001";
    const int result = initializeLPC(id, from_utf8(folder), callbacks, factory);
    delete callbacks;
    delete factory;
    if (result != 0 ||
        !registerInterface<IPolicyDataAccessor_Client_Impl>(IPolicyDataAccessor::kInterfaceId))
        return;
    auto accessor = std::make_unique<PolicyAccessor>();
    if (LPCServiceController<PolicyAccessor>::runService(accessor.get()))
        m_accessor = accessor.release();
}

Session::~Session() {
    deinitializeLPC();
}

}  // namespace loopback
