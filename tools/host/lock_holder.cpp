#include "tools/host/lock_holder.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

const char *const kCollectorLockPath = "/var/lock/velmor_siem_collector.loc";

lock_holder find_lock_holder(const std::string &path, const std::string &table) {
    lock_holder result{false, false, 0};
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) return result;
    result.file_exists = true;
    std::ifstream locks(table);
    result.table_readable = locks.good();
    std::string line;
    while (std::getline(locks, line)) {
        // "1: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF"; a waiting request has "->" second.
        std::istringstream words(line);
        std::string number, kind, mode, access, file;
        long pid = 0;
        if (!(words >> number >> kind >> mode >> access >> pid >> file) || kind != "FLOCK")
            continue;
        unsigned major_number = 0, minor_number = 0;
        unsigned long inode = 0;
        if (sscanf(file.c_str(), "%x:%x:%lu", &major_number, &minor_number, &inode) != 3) continue;
        if (inode == info.st_ino && makedev(major_number, minor_number) == info.st_dev) {
            result.pid = pid;
            return result;
        }
    }
    return result;
}

long process_start_time(long pid) {
    std::ifstream stat_file("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat_file, text);
    // The second field, the name, may hold blanks and brackets: what counts follows its last ")".
    const size_t close = text.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(text.substr(close + 1));
    std::string field;
    for (int i = 0; i < 20 && fields >> field; i++) continue;
    if (!fields) return 0;
    std::ifstream kernel("/proc/stat");
    long booted = 0;
    while (std::getline(kernel, text)) {
        if (sscanf(text.c_str(), "btime %ld", &booted) == 1) break;
    }
    return booted == 0 ? 0 : booted + std::atol(field.c_str()) / sysconf(_SC_CLK_TCK);
}
