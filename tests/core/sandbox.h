// What the tests of the core share: a directory of their own, and code that runs in a child because
// it ends the process or takes over its standard streams.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

/// A new directory, removed with all it holds at the end.
class temp_dir {
  public:
    temp_dir() {
        std::string name = (std::filesystem::temp_directory_path() / "collector.XXXXXX").string();
        if (!mkdtemp(name.data())) abort();
        path_ = name;
    }
    ~temp_dir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

inline std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void write_file(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
}

/// A log without its time stamps, the 21 characters up to and with the colon that begin a line.
inline std::string without_stamps(const std::string &log) {
    std::istringstream lines(log);
    std::string line, result;
    while (std::getline(lines, line)) {
        const bool stamped = line.size() > 21 && line[3] == ' ' && line[6] == ' ' &&
                             line[9] == ':' && line[12] == ':' && line.substr(20, 2) == ":(";
        result += stamped ? line.substr(21) : line;
        if (!lines.eof()) result += '\n';
    }
    return result;
}

struct child_result {
    int status = -1;  ///< exit status, or -1 when a signal ended the child
    std::string out, err;
};

/// Runs `work` in a child whose standard output and error go to files; the child ends with status
/// 0 when `work` returns.
inline child_result run_in_child(const std::function<void()> &work) {
    const temp_dir dir;
    const std::string out = dir / "out", err = dir / "err";
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int flags = O_WRONLY | O_CREAT | O_APPEND;
        dup2(open(out.c_str(), flags, 0600), STDOUT_FILENO);
        dup2(open(err.c_str(), flags, 0600), STDERR_FILENO);
        work();
        fflush(nullptr);
        _exit(0);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(out), read_file(err)};
}

/// Polls `condition` for up to 30 s; returns whether it came true.
inline bool eventually(const std::function<bool()> &condition) {
    for (int i = 0; i < 3000; ++i) {
        if (condition()) return true;
        usleep(10'000);
    }
    return condition();
}
