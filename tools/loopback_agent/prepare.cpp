#include "tools/loopback_agent/prepare.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace loopback {

namespace fs = std::filesystem;

namespace {

constexpr char kMissingSymbol[] = "missing-symbol";

void link_library(const fs::path &from, const fs::path &to) {
    fs::remove(to);
    fs::create_symlink(from, to);
}

bool write_text(const fs::path &name, const std::string &text) {
    std::ofstream file(name, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    return !file.fail();
}

}  // namespace

bool is_fault(const std::string &word) {
    return word == kMissingSymbol || word == "initialize" || word == "enable" ||
           word.starts_with("slow-load=");
}

bool prepare_folder(const std::string &folder, const std::vector<std::string> &faults,
                    std::string *error) try {
    const fs::path built =
        fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "loopback_agent";
    const fs::path place = fs::absolute(folder);
    fs::create_directories(place);
    const bool faulty = std::find(faults.begin(), faults.end(), kMissingSymbol) != faults.end();
    link_library((faulty ? built / "faulty" : built) / "libvlrlpc.so", place / "libvlrlpc.so");
    link_library(built / "libvlrlpchelper.so.4", place / "libvlrlpchelper.so.4");
    std::string lines;
    for (const std::string &fault : faults)
        if (fault != kMissingSymbol) lines += fault + "\n";
    const std::string config =
        "<Agent>\n<SharedLibLocation>" + place.string() + "</SharedLibLocation>\n</Agent>\n";
    if (write_text(place / "faults", lines) && write_text(place / "config.xml", config))
        return true;
    *error = "cannot write in " + place.string();
    return false;
} catch (const fs::filesystem_error &failure) {
    *error = failure.what();
    return false;
}

}  // namespace loopback
