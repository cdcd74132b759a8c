// The objects that the loopback runtime hands out.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "tools/loopback_agent/runtime.h"

namespace loopback {

class RepositoryView : public ILPCRepository {
  public:
    explicit RepositoryView(Repository *repository) : m_repository(repository) {}
    IServiceAdaptor *findAdaptor(const char *id) override { return m_repository->find(id); }
    void registerAdaptor(const char *id, IServiceAdaptor *adaptor) override {
        m_repository->add(id, adaptor);
    }

  private:
    Repository *const m_repository;
};

class Notifications : public INotificationService {};

/// Both queues of a call.
class CallQueues : public IObjectConnector {
  public:
    bool write(const void *bytes, size_t size) override;
    bool nextSize(size_t *size) override;
    bool read(void *bytes, size_t size) override;

  protected:
    std::vector<std::string> m_out;
    std::deque<std::string> m_in;
    size_t m_outBytes = 0;
};

/// A call to another process.
class OutgoingCall : public CallQueues {
  public:
    OutgoingCall(Runtime *runtime, const char *provider, const char *service)
        : m_runtime(runtime), m_provider(provider), m_service(service) {}
    int invoke(bool wait, unsigned timeout_seconds) override;

  private:
    Runtime *const m_runtime;
    const std::string m_provider, m_service;
};

/// A call from another process.
class IncomingCall : public CallQueues {
  public:
    explicit IncomingCall(const std::vector<std::string> &parameters) {
        m_in.assign(parameters.begin(), parameters.end());
    }
    int invoke(bool wait, unsigned timeout_seconds) override;
    std::vector<std::string> takeAnswer() { return std::move(m_out); }
};

}  // namespace loopback
