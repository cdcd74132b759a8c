/**
 * Answers requests: looks at one complete request and says which bytes go back and what happens to
 * the connection then. Takes no descriptor. Owns the channel ids, which all connections share, so
 * that a data source keeps its id when a client comes back.
 *
 * Used by one thread.
 */
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/ruv_receiver/catalogue.h"
#include "tools/ruv_receiver/frame.h"
#include "tools/ruv_receiver/settings.h"

namespace receiver {

/** A data source as a client described it. */
struct data_source {
    unsigned kind; /**< 1 IPv4, 2 IPv6, 3 HostID */
    std::string text;
    int32_t channel;
};

const char *source_kind_name(unsigned kind);

/** What a request leads to. */
struct answer {
    std::string bytes;                   /**< empty: no answer */
    bool start_tls = false;              /**< the TLS handshake follows the answer */
    bool close = false;                  /**< the connection ends behind the answer */
    const data_source *source = nullptr; /**< of a GetChanID that was granted */
};

class responder {
  public:
    /** Both must outlive the responder. */
    responder(const settings &chosen, const catalogue &custom);

    /** `request` is complete at `bytes`; `faulty` tells whether the faults strike. */
    answer respond(const unit &request, const uint8_t *bytes, bool faulty, bool tls_active);

    /** The data source behind a record's channel id, null when none was handed out. */
    const data_source *source_of(uint16_t channel) const { return by_channel_[channel]; }

  private:
    bool grant(const unit &request, const uint8_t *bytes, bool tls_active, bool faulty,
               answer *out);
    bool assign_channel(const uint8_t *body, answer *out);
    void add_versions(bool faulty, std::string *out) const;
    void add_receiver_version(std::string *out) const;
    void add_catalogue(bool faulty, std::string *out) const;

    const settings &chosen_;
    const catalogue &custom_;
    std::map<std::pair<unsigned, std::string>, data_source> sources_;
    size_t source_bytes_ = 0;
    std::vector<const data_source *> by_channel_;
};

}  // namespace receiver
