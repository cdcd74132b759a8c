// The loopback runtime of one process: a listening socket, the connections, the repository of the
// services, and the objects that the process asks for.
#pragma once

#include <atomic>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lpc/cross_objects.h"
#include "lpc/vlr_runtime.h"
#include "tools/loopback_agent/channel.h"

namespace loopback {

using namespace velmor_com::NQ::LPC;

/// Services by identifier. An adaptor that was replaced stays until the end, since a call may still
/// be running in it.
class Repository {
  public:
    IServiceAdaptor *find(const std::string &id);
    void add(const std::string &id, IServiceAdaptor *adaptor);

  private:
    std::mutex m_guard;
    std::map<std::string, IServiceAdaptor *> m_current;
    std::vector<std::unique_ptr<IServiceAdaptor>> m_all;
};

class Runtime : public IVlrLpcFactory {
  public:
    Runtime(std::string folder, std::string processId, VlrLpcCallbacks *callbacks,
            ServicesCrossObjectFactory *crossObjects);
    ~Runtime() override;

    /// Opens the socket FOLDER/PROCESSID.sock and accepts connections on a thread; false when it
    /// cannot.
    bool listen();
    /// Ends every wait and takes no more calls; threads may still be running.
    void disable();

    IVlrLpcObject *createObject(const ObjectRequest &request) override;
    void destroyObject(IVlrLpcObject *&object) override;

    /// The connection to a process, made when there is none; null when it cannot be.
    std::shared_ptr<Channel> channel_to(const std::string &provider);
    Repository &repository() { return m_repository; }

  private:
    struct Connection {
        std::shared_ptr<Channel> channel;
        std::thread server;
        std::atomic<bool> ended{false};
    };

    std::shared_ptr<Channel> make_channel(int socket);
    std::shared_ptr<Channel> connect_to(const std::string &provider);
    void accept_all();
    void take(int socket);
    void serve(const Message &call, Message *answer);
    std::string control(const std::string &word);

    const std::string m_folder, m_processId;
    VlrLpcCallbacks *const m_callbacks;
    ServicesCrossObjectFactory *const m_crossObjects;
    Repository m_repository;
    std::mutex m_guard;  ///< guards the connections and the flag
    std::list<Connection> m_connections;
    bool m_disabled = false;
    int m_listener = -1;
    std::string m_socketName;
    std::thread m_acceptor;
};

}  // namespace loopback
