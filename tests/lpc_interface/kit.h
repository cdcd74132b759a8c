// The bridge's tests: the log as text, files in a folder of their own, and a restart that counts.
#pragma once

#include <functional>
#include <string>

/// What the core was asked for since the beginning of the process.
extern int restarts;

/// Runs `act` with the log on standard output at the finest level; returns what was written,
/// without the time stamps.
std::string logged(const std::function<void()> &act);

/// Number of times that `text` stands in `log`.
int count_of(const std::string &log, const std::string &text);

/// While one exists, what is allocated may be leaked.
class LeaksAllowed {
  public:
    LeaksAllowed();
    ~LeaksAllowed();
    LeaksAllowed(const LeaksAllowed &) = delete;
    LeaksAllowed &operator=(const LeaksAllowed &) = delete;
};

/// A folder with a configuration file that g_args names; both go with it.
class ConfigFile {
  public:
    explicit ConfigFile(const std::string &text);
    ~ConfigFile();
    ConfigFile(const ConfigFile &) = delete;
    ConfigFile &operator=(const ConfigFile &) = delete;

    std::string path() const { return m_folder + "/collector.conf"; }
    std::string folder() const { return m_folder; }
    std::string text() const;
    /// Names of everything in the folder but the file itself, each with a blank behind it.
    std::string others() const;

  private:
    std::string m_folder;
    char *m_before;
};
