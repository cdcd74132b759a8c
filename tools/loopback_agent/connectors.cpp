#include "tools/loopback_agent/connectors.h"

#include <cstring>

#include "lpc/errors.h"

namespace loopback {

namespace {

constexpr size_t kMaxCallBytes = size_t{64} << 20;

}  // namespace

bool CallQueues::write(const void *bytes, size_t size) {
    if (size > kMaxCallBytes - m_outBytes) return false;
    m_outBytes += size;
    m_out.emplace_back(static_cast<const char *>(bytes), size);
    return true;
}

bool CallQueues::nextSize(size_t *size) {
    if (m_in.empty()) return false;
    *size = m_in.front().size();
    return true;
}

bool CallQueues::read(void *bytes, size_t size) {
    if (m_in.empty() || m_in.front().size() != size) return false;
    memcpy(bytes, m_in.front().data(), size);
    m_in.pop_front();
    return true;
}

int OutgoingCall::invoke(bool wait, unsigned timeout_seconds) {
    const auto channel = m_runtime->channel_to(m_provider);
    if (!channel) return ecPPProcessNotFound;
    Message call, answer;
    call.service = m_service;
    call.parameters.swap(m_out);
    const int result = channel->call(call, wait, timeout_seconds, &answer);
    m_in.assign(answer.parameters.begin(), answer.parameters.end());
    return result;
}

int IncomingCall::invoke(bool, unsigned) {
    return ecLogicError;
}

}  // namespace loopback
