#include "tools/check/live_files.h"

#include <dirent.h>
#include <fnmatch.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "tools/check/rules.h"
#include "tools/host/account.h"

namespace {

constexpr size_t kFilesLookedAt = 1000;  // of one section: a check must end soon

// Whose rights are asked for, and how its steps name it.
struct asker {
    account who;
    bool certain = true;  // false: a start may add groups that are not known before
    std::string suffix;   // behind what was found, such as " for user a"

    std::vector<int> ask(const std::vector<access_question> &questions) const {
        return ask_access(who, questions);
    }
    int ask(const std::string &path, int mode) const {
        const std::vector<int> answers = ask(std::vector<access_question>{{path, mode}});
        return answers.empty() ? EPERM : answers.front();
    }
};

account ourselves() {
    account own;
    own.user = geteuid();
    return own;
}

asker choose_asker(const config_text &text, long collector, steps *done) {
    std::optional<account> found;
    if (collector != 0) found = account_of_process(collector);
    if (!found) found = account_of_owner(global_value(text, "bookmark_dir"));
    if (!found) return {ourselves(), true, ""};
    if (ask_access(*found, {{"/", R_OK}}).empty()) {
        done->note("these are the rights of this user; the collector runs as " + found->name +
                   ": run this as root or as " + found->name);
        return {ourselves(), true, ""};
    }
    return {*found, found->pid != 0 || found->user == 0, " for user " + found->name};
}

// Whose the path is, since that tells what is to be done: " (www-data:adm, mode 0640)".
std::string ownership(const std::string &path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) return "";
    const passwd *user = getpwuid(info.st_uid);
    const group *owners = getgrgid(info.st_gid);
    char mode[16];
    snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
    return " (" + (user == nullptr ? std::to_string(info.st_uid) : user->pw_name) + ":" +
           (owners == nullptr ? std::to_string(info.st_gid) : owners->gr_name) + ", mode " + mode +
           ")";
}

// A start may add groups that the user data base does not know: then it is no failure yet.
void tell_unreadable(const asker &as, const char *what, const std::string &path, int error,
                     steps *done) {
    const std::string text = std::string(what) + " " + path + " is not readable" + as.suffix +
                             ": " + strerror(error) + ownership(path);
    if (as.certain) {
        done->bad(text);
    } else {
        done->note(text + ", unless the collector is started with more groups");
    }
}

void check_writable(const asker &as, const std::string &path, const char *what, steps *done) {
    std::string existing = path;
    struct stat info {};
    while (existing.size() > 1 && stat(existing.c_str(), &info) != 0) {
        const size_t slash = existing.rfind('/');
        existing = slash == 0 || slash == std::string::npos ? "/" : existing.substr(0, slash);
    }
    const int error = as.ask(existing, W_OK | X_OK);
    if (error != 0) {
        done->bad(std::string(what) + " " + path + ": " + existing + " is not writable" +
                  as.suffix + ": " + strerror(error));
    } else {
        done->good(std::string(what) + " " + path +
                   (existing == path ? " is writable" : " can be created") + as.suffix);
    }
}

std::vector<access_question> matching_files(const std::string &directory,
                                            const std::string &filter) {
    std::vector<access_question> files;
    std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(directory.c_str()), &closedir);
    if (dir == nullptr) return files;
    while (const dirent *entry = readdir(dir.get())) {
        const std::string path = directory + entry->d_name;
        struct stat info {};
        if (fnmatch(filter.c_str(), entry->d_name, 0) != 0) continue;
        if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
        files.push_back({path, R_OK});
        if (files.size() == kFilesLookedAt) break;
    }
    return files;
}

void check_section(const asker &as, const std::string &directory, const std::string &filter,
                   steps *done) {
    const int error = as.ask(directory, R_OK | X_OK);
    if (error != 0) {
        tell_unreadable(as, "directory", directory, error, done);
        return;
    }
    done->good("directory " + directory + " is readable" + as.suffix);
    const std::vector<access_question> files = matching_files(directory, filter);
    if (files.empty()) {
        done->note("no file in " + directory + " matches " + filter);
        return;
    }
    const std::vector<int> answers = as.ask(files);
    size_t readable = 0;
    for (size_t i = 0; i < answers.size(); i++) {
        if (answers[i] == 0) {
            readable++;
        } else {
            tell_unreadable(as, "file", files[i].path, answers[i], done);
        }
    }
    if (readable > 0) {
        done->good(std::to_string(readable) + (readable == 1 ? " file " : " files ") + "of " +
                   directory + filter + " readable" + as.suffix);
    }
}

}  // namespace

void check_live_files(const config_text &text, long collector, steps *done) {
    const asker as = choose_asker(text, collector, done);
    const std::string bookmarks = global_value(text, "bookmark_dir");
    if (!bookmarks.empty()) check_writable(as, bookmarks, "bookmark directory", done);
    const std::string log = global_value(text, "log_path");
    const size_t slash = log.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        check_writable(as, log.substr(0, slash), "log directory", done);
    }
    for (const config_section &section : text.sections) {
        const std::string directory = section_directory(text, section);
        if (section.type != "filetail" || directory.empty()) continue;
        check_section(as, directory, section_value(text, section, "ft_filter"), done);
    }
}
