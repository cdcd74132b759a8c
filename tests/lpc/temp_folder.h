// A folder that goes with its owner.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

class TempFolder {
  public:
    TempFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "lpc-XXXXXX").string();
        m_path = mkdtemp(pattern.data());
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempFolder(const TempFolder &) = delete;
    TempFolder &operator=(const TempFolder &) = delete;

    std::string path(const std::string &name = "") const {
        return name.empty() ? m_path : m_path + "/" + name;
    }
    std::string write(const std::string &name, const std::string &text) const {
        std::ofstream(path(name), std::ios::binary | std::ios::trunc) << text;
        return path(name);
    }

  private:
    std::string m_path;
};
