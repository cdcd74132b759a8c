#include "lpc_interface/config_rewrite.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

namespace {

constexpr char kNewSuffix[] = ".new";

class Descriptor {
  public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) close(m_fd);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int get() const { return m_fd; }

  private:
    int m_fd;
};

bool fail(const char *step, const std::string &path, std::string *why) {
    *why = std::string(step) + " " + path + ": " + strerror(errno);
    return false;
}

std::string behind_links(const std::string &path) {
    char real[PATH_MAX];
    return realpath(path.c_str(), real) ? real : path;
}

bool write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

bool write_new_file(const std::string &name, const std::vector<std::string> &lines,
                    const struct stat *old, std::string *why) {
    // What a killed process left behind is nobody's; a link planted there is not followed.
    unlink(name.c_str());
    const Descriptor file(open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                               old ? 0600 : 0666));
    if (file.get() < 0) return fail("create", name, why);
    std::string bytes;
    for (const std::string &line : lines) bytes += line + "\n";
    if (!write_all(file.get(), bytes)) return fail("write", name, why);
    if (old) {
        struct stat own;
        if (fstat(file.get(), &own) != 0) return fail("look at", name, why);
        if ((own.st_uid != old->st_uid || own.st_gid != old->st_gid) &&
            fchown(file.get(), old->st_uid, old->st_gid) != 0)
            return fail("give away", name, why);
        if (fchmod(file.get(), old->st_mode & 07777) != 0)
            return fail("set the mode of", name, why);
    }
    return fsync(file.get()) == 0 || fail("flush", name, why);
}

// The rename is only sure to survive a power cut once the folder is on the disk. Where that cannot
// be had the file is whole all the same.
void flush_folder(const std::string &path) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const Descriptor directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() >= 0) fsync(directory.get());
}

// A backup that cannot be linked (no hard links here, or not ours to link) is done without: the
// rename needs none, it only helps whoever looks after a power cut.
bool link_backup(const std::string &path, const std::string &backup) {
    if (link(path.c_str(), backup.c_str()) == 0) return true;
    if (errno != EEXIST || unlink(backup.c_str()) != 0) return false;
    return link(path.c_str(), backup.c_str()) == 0;
}

}  // namespace

bool replace_config_file(const std::string &path, const std::vector<std::string> &lines,
                         std::string *why) {
    const std::string target = behind_links(path), fresh = target + kNewSuffix;
    struct stat old;
    const bool exists = stat(target.c_str(), &old) == 0;
    if (!exists && errno != ENOENT) return fail("look at", target, why);
    if (exists && !S_ISREG(old.st_mode)) {
        *why = target + " is no regular file";
        return false;
    }
    if (!write_new_file(fresh, lines, exists ? &old : nullptr, why)) {
        unlink(fresh.c_str());
        return false;
    }
    const std::string backup = target + "." + std::to_string(time(nullptr));
    const bool linked = exists && link_backup(target, backup);
    const bool renamed = rename(fresh.c_str(), target.c_str()) == 0 || fail("replace", target, why);
    if (!renamed) unlink(fresh.c_str());
    if (renamed) flush_folder(target);
    if (linked) unlink(backup.c_str());
    return renamed;
}
