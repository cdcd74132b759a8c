// What the tests of reading and delivery share: a plugin on a directory of its own, a Receiver on
// loopback that keeps every message, and waits for what other threads do.

#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "core/args.h"
#include "core/execution.h"
#include "filetail/reader.h"
#include "filetail/ruv.h"
#include "ruv/ruvlib.h"
#include "tests/filetail/bookmark_kit.h"
#include "tests/support/fake_receiver.h"

namespace reader_kit {

using bookmark_kit::Capture;
using bookmark_kit::count_of;
using strings = std::vector<std::string>;

// The messages of all Syslog units in what a Receiver has read; a unit that was cut off is passed
// over, as a Receiver would at the end of its connection.
inline strings messages_of(const std::string &stream) {
    strings messages;
    for (size_t at = stream.find(fake::kMagic); at != std::string::npos;
         at = stream.find(fake::kMagic, at)) {
        at += 8;
        uint32_t word = 0;
        if (at + 16 > stream.size()) break;
        memcpy(&word, &stream[at], 4);
        if ((word >> 8 & 0xFFF) != 3) continue;
        uint16_t length = 0;
        memcpy(&length, &stream[at + 14], 2);
        if (at + 16 + length > stream.size()) break;
        messages.push_back(stream.substr(at + 16, length));
        at += 16 + size_t{length};
    }
    return messages;
}

// Asks every 5 ms, at most 30 s.
inline bool wait_until(const std::function<bool()> &condition) {
    for (int i = 0; i < 6000; ++i) {
        if (condition()) return true;
        usleep(5'000);
    }
    return condition();
}

inline wchar_t *wide(const std::string &text) {
    return strtowstr(text.c_str(), static_cast<int>(text.size()));
}

// A port of our own on which nobody listens: connecting to it is refused.
class quiet_port {
  public:
    quiet_port() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), size), 0);
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size), 0);
        port_ = ntohs(address.sin_port);
    }
    ~quiet_port() { close(fd_); }
    quiet_port(const quiet_port &) = delete;
    int port() const { return port_; }

  private:
    int fd_, port_ = 0;
};

class ReaderTest : public bookmark_kit::StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        execution_reset_for_start();
        _connected = 0;
        p.flags = kFileTail;
        p.throttle = 100'000;
        p.ft.ft_dir = wide(logs);
        p.ft.ft_filter = wide("*");
        p.ft.ft_delim = wide("<newline>");
        p.ft.ft_delim_end = 1;
        p.ft.ft_start_top = 1;
        group = new_tail_group(&p);
    }
    void TearDown() override {
        ruv_teardown(&conf);
        free_tail_group(group);
        if (p.data) RUVFreeData(p.data);
        if (p.dsinfo) RUVFreeDSInfo(p.dsinfo);
        if (p.teardown_process_event) p.teardown_process_event(&p.process_event_data);
        for (wchar_t *text : {p.ft.ft_dir, p.ft.ft_filter, p.ft.ft_delim, p.ft.bm_file,
                              conf.ruv.server, conf.debug}) {
            free(text);
        }
        conf.ruv = {};
        conf.debug = nullptr;
        conf.rec_confirm = conf.reconnect_wait = conf.wake_on_change = 0;
        _connected = 0;
        execution_reset_for_start();
        StoreTest::TearDown();
    }

    void delimiter_is(const std::string &word, int at_end) {
        free(p.ft.ft_delim);
        p.ft.ft_delim = wide(word);
        p.ft.ft_delim_end = at_end;
    }
    void address_is(int port) {
        free(conf.ruv.server);
        conf.ruv.server = wide("127.0.0.1");
        conf.ruv.port = port;
    }
    void serve(std::vector<fake::receiver::script> scripts) {
        receiver = std::make_unique<fake::receiver>(std::move(scripts));
        ASSERT_TRUE(receiver->usable());
        address_is(receiver->port());
    }
    // Connects like the daemon's start.
    void connect() {
        ASSERT_EQ(ruv_init(&conf), 0);
        _connected = 1;
        ASSERT_EQ(ruv_alloc_record(&p), 0);
    }
    void connect_to(std::vector<fake::receiver::script> scripts) {
        serve(std::move(scripts));
        connect();
    }
    void connect_to(fake::version6 version = {}) { connect_to({fake::serve(std::move(version))}); }

    // A tailed file with a position of its own.
    fdesc *tail(const std::string &name, const std::string &content, uint64_t position = 0) {
        bookmark_kit::write_file(logs + name, content);
        fdesc *file = track_at(logs + name, position);
        file->p = group;
        return file;
    }
    strings messages() const { return messages_of(receiver->received()); }
    // What arrives, once it is as much as `wanted` or half a minute is over.
    strings arrived(size_t wanted) const {
        wait_until([&] { return messages().size() >= wanted; });
        return messages();
    }
    uint64_t stored_position(const fdesc *file) const {
        const std::string all = image();
        const size_t at = all.find(std::string(file->n) + " ");
        return at == std::string::npos ? ~0ull : std::stoull(all.substr(at - 48, 15));
    }

    plugin p = {};
    ft_bm *group = nullptr;
    std::unique_ptr<fake::receiver> receiver;
};

// A script that serves `count` units and then ends the connection.
inline fake::receiver::script serve_then_close(int count, fake::version6 version = {}) {
    return [count, version](fake::peer &peer) {
        for (int i = 0; i < count && fake::serve_one(peer, version); ++i) {
        }
    };
}

}  // namespace reader_kit
