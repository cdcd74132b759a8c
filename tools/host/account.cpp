#include "tools/host/account.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

constexpr int kGroupsAtMost = 65536;  // the kernel's own limit

std::string name_of_user(uid_t user) {
    const passwd *entry = getpwuid(user);
    return entry == nullptr ? std::to_string(user) : entry->pw_name;
}

std::vector<int> ask_here(const std::vector<access_question> &questions) {
    std::vector<int> answers;
    for (const access_question &question : questions) {
        answers.push_back(access(question.path.c_str(), question.mode) == 0 ? 0 : errno);
    }
    return answers;
}

// Becomes the account, in the child. A root directory that cannot be entered leaves our own view.
bool become(const account &who) {
    if (who.pid != 0) {
        const std::string root = "/proc/" + std::to_string(who.pid) + "/root";
        if (chdir(root.c_str()) == 0 && chroot(".") != 0 && chdir("/") != 0) return false;
    }
    return setgroups(who.groups.size(), who.groups.data()) == 0 && setgid(who.group) == 0 &&
           setuid(who.user) == 0;
}

[[noreturn]] void answer_as(const account &who, const std::vector<access_question> &questions,
                            int to) {
    if (!become(who)) _exit(1);
    const std::vector<int> answers = ask_here(questions);
    const char *bytes = reinterpret_cast<const char *>(answers.data());
    size_t left = answers.size() * sizeof(int);
    while (left > 0) {
        const ssize_t written = write(to, bytes, left);
        if (written <= 0) _exit(1);
        bytes += written;
        left -= static_cast<size_t>(written);
    }
    _exit(0);
}

std::vector<int> read_answers(int from, size_t count) {
    std::vector<int> answers(count);
    char *bytes = reinterpret_cast<char *>(answers.data());
    size_t left = count * sizeof(int);
    while (left > 0) {
        const ssize_t got = read(from, bytes, left);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return {};
        bytes += got;
        left -= static_cast<size_t>(got);
    }
    return answers;
}

}  // namespace

std::optional<account> account_of_process(long pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    account found;
    found.pid = pid;
    bool has_user = false;
    bool has_group = false;
    for (std::string line; std::getline(status, line);) {
        std::istringstream words(line);
        std::string name;
        unsigned long real = 0, effective = 0;
        words >> name;
        if (name == "Uid:" && words >> real >> effective) {
            found.user = static_cast<uid_t>(effective);
            has_user = true;
        } else if (name == "Gid:" && words >> real >> effective) {
            found.group = static_cast<gid_t>(effective);
            has_group = true;
        } else if (name == "Groups:") {
            for (unsigned long group = 0; words >> group;) {
                found.groups.push_back(static_cast<gid_t>(group));
            }
        }
    }
    if (!has_user || !has_group) return std::nullopt;
    found.name = name_of_user(found.user);
    return found;
}

std::optional<account> account_of_owner(const std::string &path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) return std::nullopt;
    const passwd *entry = getpwuid(info.st_uid);
    if (entry == nullptr) return std::nullopt;
    account found{entry->pw_name, entry->pw_uid, entry->pw_gid, {}, 0};
    int count = 32;
    found.groups.resize(static_cast<size_t>(count));
    if (getgrouplist(found.name.c_str(), found.group, found.groups.data(), &count) < 0) {
        if (count <= 0 || count > kGroupsAtMost) return std::nullopt;
        found.groups.resize(static_cast<size_t>(count));
        if (getgrouplist(found.name.c_str(), found.group, found.groups.data(), &count) < 0) {
            return std::nullopt;
        }
    }
    found.groups.resize(static_cast<size_t>(count));
    return found;
}

std::vector<int> ask_access(const account &who, const std::vector<access_question> &questions) {
    if (geteuid() == who.user && (geteuid() != 0 || who.pid == 0)) return ask_here(questions);
    if (geteuid() != 0) return {};
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return {};
    const pid_t child = fork();
    if (child == 0) answer_as(who, questions, ends[1]);
    close(ends[1]);
    std::vector<int> answers;
    if (child > 0) answers = read_answers(ends[0], questions.size());
    close(ends[0]);
    while (child > 0 && waitpid(child, nullptr, 0) < 0 && errno == EINTR) continue;
    return answers;
}
