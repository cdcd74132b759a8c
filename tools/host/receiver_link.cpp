#include "tools/host/receiver_link.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>

namespace {

constexpr unsigned kEstablished = 0x01;  // as the kernel numbers the states of TCP
constexpr unsigned kCloseWait = 0x08;

using links_by_inode = std::map<unsigned long, receiver_link>;

// "0: 0100007F:86EC 0100007F:1F92 01 00000000:00000000 00:00000000 00000000 0 0 12345 ..."
void read_table(const std::string &path, long port, links_by_inode *links) {
    std::ifstream table(path);
    for (std::string line; std::getline(table, line);) {
        unsigned remote = 0, state = 0;
        unsigned long inode = 0;
        if (sscanf(line.c_str(), " %*u: %*[0-9A-F]:%*x %*[0-9A-F]:%x %x %*s %*s %*s %*s %*s %lu",
                   &remote, &state, &inode) != 3) {
            continue;
        }
        if (remote != port) continue;
        if (state == kEstablished) (*links)[inode] = receiver_link::established;
        if (state == kCloseWait) (*links)[inode] = receiver_link::closed_by_peer;
    }
}

}  // namespace

std::optional<receiver_link> find_receiver_link(long pid, long port) {
    const std::string process = "/proc/" + std::to_string(pid);
    const std::unique_ptr<DIR, int (*)(DIR *)> descriptors(opendir((process + "/fd").c_str()),
                                                           &closedir);
    if (descriptors == nullptr) return std::nullopt;
    links_by_inode links;
    read_table(process + "/net/tcp", port, &links);
    read_table(process + "/net/tcp6", port, &links);
    receiver_link best = receiver_link::none;
    while (const dirent *entry = readdir(descriptors.get())) {
        char target[64];
        const std::string name = process + "/fd/" + entry->d_name;
        const ssize_t length = readlink(name.c_str(), target, sizeof target - 1);
        if (length <= 0) continue;
        target[length] = '\0';
        unsigned long inode = 0;
        if (sscanf(target, "socket:[%lu]", &inode) != 1) continue;
        const auto found = links.find(inode);
        if (found != links.end()) best = std::max(best, found->second);
    }
    return best;
}
