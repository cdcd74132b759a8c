// Sends ten alerts as one group and waits until the Receiver confirms that it has read them.
//
//     c++ -std=c++17 send_alerts.cpp -lruv -o send_alerts
//     ./send_alerts 127.0.0.1 8082
#include <ruv/ruvlib.h>
#include <ruv/ruvlibsetters.h>

#include <cstdlib>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>

struct close_conn {
    void operator()(RUVConn *conn) const { RUVFreeConn(conn); }
};
struct free_record {
    void operator()(void *record) const { RUVFreeData(record); }
};

static std::string reason(RUVConn *conn) {
    char text[512];
    RUVStrError(conn, ruverrno, text);
    return text;
}

static bool fill(void *record, const std::string &message, uint16_t number) {
    const auto now = static_cast<uint32_t>(std::time(nullptr));
    return RUVAlertSet_sigid(record, 4711) == 0 && RUVAlertSet_severity(record, 25) == 0 &&
           RUVAlertSet_src_ipv4(record, 0xC0000207) == 0 &&
           RUVAlertSet_dst_ipv4(record, 0xC6336401) == 0 &&
           RUVAlertSet_dst_port(record, 443) == 0 && RUVAlertSet_first_time(record, now) == 0 &&
           RUVAlertSet_sequence(record, number) == 0 &&
           RUVAlertSet_message(record, message.data(), static_cast<int>(message.size())) >= 0;
}

int main(int argc, char **argv) {
    if (argc != 3) {
        std::cerr << "usage: " << argv[0] << " HOST PORT\n";
        return 2;
    }
    std::unique_ptr<RUVConn, close_conn> conn(RUVAllocConn(argv[1], std::atoi(argv[2]), 0, 0, 2));
    if (!conn || RUVOpen(conn.get()) != 0) {
        std::cerr << "connect: " << reason(conn.get()) << '\n';
        return 1;
    }
    std::unique_ptr<void, free_record> record(RUVAllocData(conn.get(), 1, 6, 0));
    if (!record || RUVGroupBegin(conn.get()) != 0) {
        std::cerr << "begin: " << reason(conn.get()) << '\n';
        return 1;
    }
    for (uint16_t i = 1; i <= 10; ++i) {
        // The group copies the record, so that the text may go at the end of each round.
        const std::string message = "login refused, try " + std::to_string(i);
        RUVResetData(record.get());
        if (!fill(record.get(), message, i) || RUVSendData(conn.get(), record.get(), nullptr) < 0) {
            std::cerr << "send: " << reason(conn.get()) << '\n';
            return 1;
        }
    }
    if (RUVGroupCommit(conn.get(), 30) != 0) {
        std::cerr << "not confirmed: " << reason(conn.get()) << '\n';
        return 1;
    }
    std::cout << "10 alerts confirmed\n";
    return 0;
}
