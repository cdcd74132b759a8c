#include "tools/loopback_agent/runtime.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "lpc/errors.h"
#include "tools/loopback_agent/connectors.h"

namespace loopback {

namespace {

constexpr int kBacklog = 16;

bool socket_address(const std::string &name, sockaddr_un *address) {
    *address = {};
    address->sun_family = AF_UNIX;
    if (name.size() >= sizeof(address->sun_path)) return false;
    memcpy(address->sun_path, name.c_str(), name.size());
    return true;
}

int local_socket() {
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

}  // namespace

IServiceAdaptor *Repository::find(const std::string &id) {
    std::lock_guard guard(m_guard);
    const auto found = m_current.find(id);
    return found == m_current.end() ? nullptr : found->second;
}

void Repository::add(const std::string &id, IServiceAdaptor *adaptor) {
    std::lock_guard guard(m_guard);
    m_all.emplace_back(adaptor);
    m_current[id] = adaptor;
}

Runtime::Runtime(std::string folder, std::string processId, VlrLpcCallbacks *callbacks,
                 ServicesCrossObjectFactory *crossObjects)
    : m_folder(std::move(folder)),
      m_processId(std::move(processId)),
      m_callbacks(callbacks),
      m_crossObjects(crossObjects) {
}

Runtime::~Runtime() {
    disable();
    if (m_acceptor.joinable()) m_acceptor.join();
    for (Connection &connection : m_connections)
        if (connection.server.joinable()) connection.server.join();
    if (m_listener >= 0) close(m_listener);
}

bool Runtime::listen() {
    m_socketName = m_folder + "/" + m_processId + ".sock";
    sockaddr_un address;
    if (!socket_address(m_socketName, &address)) return false;
    unlink(m_socketName.c_str());
    m_listener = local_socket();
    const auto *plain = reinterpret_cast<const sockaddr *>(&address);
    if (m_listener < 0 || bind(m_listener, plain, sizeof(address)) != 0 ||
        chmod(m_socketName.c_str(), 0600) != 0 || ::listen(m_listener, kBacklog) != 0)
        return false;
    m_acceptor = std::thread(&Runtime::accept_all, this);
    return true;
}

void Runtime::disable() {
    std::lock_guard guard(m_guard);
    m_disabled = true;
    if (m_listener >= 0) {
        shutdown(m_listener, SHUT_RDWR);  // ends accept()
        unlink(m_socketName.c_str());
    }
    for (Connection &connection : m_connections) connection.channel->shut();
}

std::shared_ptr<Channel> Runtime::make_channel(int socket) {
    return std::make_shared<Channel>(
        socket, [this](const Message &call, Message *answer) { serve(call, answer); },
        [this](const std::string &word) { return control(word); });
}

void Runtime::accept_all() {
    for (;;) {
        const int socket = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket >= 0)
            take(socket);
        else if (errno != EINTR && errno != ECONNABORTED)
            return;
    }
}

void Runtime::take(int socket) {
    auto channel = make_channel(socket);
    std::lock_guard guard(m_guard);
    if (m_disabled) return;
    m_connections.remove_if([](Connection &old) {
        if (!old.ended) return false;
        if (old.server.joinable()) old.server.join();
        return true;
    });
    Connection &added = m_connections.emplace_back();
    added.channel = channel;
    added.server = std::thread([&added, channel] {
        channel->serve_all();
        channel->shut();
        added.ended = true;
    });
}

std::shared_ptr<Channel> Runtime::channel_to(const std::string &provider) {
    {
        std::lock_guard guard(m_guard);
        if (m_disabled) return nullptr;
        for (Connection &connection : m_connections) {
            // A process that calls itself has both ends; only the accepted one is being served.
            const bool wrong_end = provider == m_processId && connection.server.joinable();
            if (!connection.ended && !wrong_end && connection.channel->peer() == provider)
                return connection.channel;
        }
    }
    return connect_to(provider);
}

// The process that connects serves the calls of the other side while it waits for its own.
std::shared_ptr<Channel> Runtime::connect_to(const std::string &provider) {
    sockaddr_un address;
    if (!socket_address(m_folder + "/" + provider + ".sock", &address)) return nullptr;
    const int socket = local_socket();
    if (socket < 0) return nullptr;
    auto channel = make_channel(socket);
    if (connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        !channel->hello(m_processId))
        return nullptr;
    channel->set_peer(provider);
    std::lock_guard guard(m_guard);
    if (m_disabled) return nullptr;
    m_connections.emplace_back().channel = channel;
    return channel;
}

void Runtime::serve(const Message &call, Message *answer) {
    IServiceAdaptor *adaptor = m_repository.find(call.service);
    if (!adaptor) {
        answer->code = ecServiceNotAvailable;
        return;
    }
    IncomingCall connector(call.parameters);
    answer->code = adaptor->dispatch(&connector);
    if (answer->code == IObjectConnector::kDone) answer->parameters = connector.takeAnswer();
}

std::string Runtime::control(const std::string &word) {
    if (word == "passphrase") {
        unsigned char buffer[256];
        unsigned long size = sizeof(buffer);
        if (!m_callbacks->validationCallback_(nullptr, 0, buffer, &size)) return {};
        return {reinterpret_cast<char *>(buffer), size};
    }
    if (word == "installed") {
        m_callbacks->vlrlpcInstalledCallBack_();
        return "done";
    }
    if (word == "reload") {
        IVlrLpcServicesObject *object =
            m_crossObjects->createObject(ServicesCrossObjectFactory::kRuntimeControl);
        auto *runtime = dynamic_cast<IVlrLpcRuntimeControl *>(object);
        if (runtime) runtime->reload();
        m_crossObjects->destroyObject(object);
        return runtime ? "done" : "";
    }
    return {};
}

IVlrLpcObject *Runtime::createObject(const ObjectRequest &request) {
    switch (request.kind) {
        case ObjectRequest::kRepository:
            return new RepositoryView(&m_repository);
        case ObjectRequest::kNotification:
            return new Notifications;
        case ObjectRequest::kConnector:
            if (!request.provider || !request.service) return nullptr;
            return new OutgoingCall(this, request.provider, request.service);
        default:
            return nullptr;  // results of asynchronous calls are not kept here
    }
}

void Runtime::destroyObject(IVlrLpcObject *&object) {
    delete object;
    object = nullptr;
}

}  // namespace loopback
