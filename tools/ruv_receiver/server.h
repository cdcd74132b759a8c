/**
 * The Receiver's loop: accepts connections, reads them, cuts the bytes into units, logs events and
 * answers requests. One thread serves all connections with epoll; it sleeps when nothing happens.
 */
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "tools/ruv_receiver/connection.h"
#include "tools/ruv_receiver/event_log.h"
#include "tools/ruv_receiver/responder.h"

namespace receiver {

class server {
  public:
    /** All must outlive the server. `tls` is null when TLS is off. */
    server(const settings &chosen, const catalogue &custom, SSL_CTX *tls, event_log &log);
    ~server();
    server(const server &) = delete;
    server &operator=(const server &) = delete;

    /** Takes the signals 2 and 15 into the loop and opens the listening socket. On failure false
     * with a message on standard error. */
    bool start();

    /** The port that is listened on, host order. */
    uint16_t port() const { return port_; }

    /** Serves until a signal or one of the wanted counts ends it. */
    void run();

  private:
    bool listen_on(const char *address, int64_t port);
    bool watch(int fd, uint32_t events);
    int wait_time() const;
    void dispatch(int fd, uint32_t events);
    void accept_all();
    void adopt(int fd);
    void tick();
    void service(connection &c);
    void advance_handshake(connection &c);
    bool sniff(connection &c);
    void read_available(connection &c);
    void serve_again();
    bool read_once(connection &c);
    size_t read_into(connection &c, uint8_t *buffer, size_t length);
    void process(connection &c, const uint8_t *bytes, size_t have);
    size_t take_units(connection &c, const uint8_t *bytes, size_t have);
    void take_record(connection &c, const unit &u, const uint8_t *bytes);
    void take_request(connection &c, const unit &u, const uint8_t *bytes);
    void describe_request(connection &c, const unit &u, const answer &given);
    void note_garbage(connection &c, uint64_t length);
    void apply_event_limits(connection &c);
    void push_out(connection &c);
    void update_interest(connection &c);
    void fail(connection &c, std::string reason);
    void remove_dead();
    void note_connection(const connection &c, const char *what, const std::string &detail);

    const settings &chosen_;
    const catalogue &custom_;
    SSL_CTX *tls_;
    event_log &log_;
    responder responder_;
    int epoll_ = -1, listener_ = -1, signals_ = -1;
    bool listener_paused_ = false;
    uint16_t port_ = 0;
    bool stop_ = false;
    uint64_t closed_ = 0;
    std::map<int, std::unique_ptr<connection>> clients_;
    std::vector<int> dead_, again_;
    std::vector<uint8_t> buffer_;
    clock_time now_, next_progress_, last_tick_;
};

}  // namespace receiver
