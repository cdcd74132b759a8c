#include "tests/filetail/bookmark_kit.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "core/utils.h"

namespace bookmark_kit {

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void write_file(const std::string &path, const std::string &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    ASSERT_TRUE(out.flush().good()) << path;
}

void append_file(const std::string &path, const std::string &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out << bytes;
    ASSERT_TRUE(out.flush().good()) << path;
}

void replace_by_empty(const std::string &path, const std::string &renamed) {
    write_file(renamed + ".new", "");
    std::filesystem::create_hard_link(path, renamed);
    std::filesystem::rename(renamed + ".new", path);
}

std::string record(unsigned long long location, unsigned long long head, unsigned long long tail,
                   const std::string &path) {
    char text[512];
    snprintf(text, sizeof(text), "%015llu|%015llu|%015llu|%-150s\n", location, head, tail,
             path.c_str());
    return text;
}

uint32_t crc256(std::string bytes) {
    bytes.resize(256, '\0');
    uint32_t crc = 0xFFFFFFFFu;
    for (const char c : bytes) {
        crc ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) ? 0xEDB88320u : 0);
    }
    return ~crc;
}

uint32_t head_of(const std::string &content) {
    return crc256(content.substr(0, 256));
}

uint32_t tail_of(const std::string &content) {
    return crc256(content.substr(content.size() - 257, 256));
}

std::string lines(int count, const std::string &text) {
    std::string all;
    for (int i = 0; i < count; ++i) all += text + " " + std::to_string(i) + "\n";
    return all;
}

size_t count_of(const std::string &text, const std::string &what) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

Capture::Capture(uint64_t mask) : file_(tmpfile()) {
    logger_init(mask, nullptr, 0);
    fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    dup2(fileno(file_), STDOUT_FILENO);
}

Capture::~Capture() {
    logger_init(0, nullptr, 0);
    restore();
    fclose(file_);
}

std::string Capture::text() {
    logger_init(0, nullptr, 0);
    restore();
    std::string all(static_cast<size_t>(lseek(fileno(file_), 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(fileno(file_), all.data(), all.size(), 0), static_cast<ssize_t>(all.size()));
    return all;
}

// Standard output may have been closed from the start; then it is closed again.
void Capture::restore() {
    if (file_ == nullptr || done_) return;
    done_ = true;
    fflush(stdout);
    if (saved_ < 0) {
        close(STDOUT_FILENO);
        return;
    }
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
}

OneDescriptor::OneDescriptor() {
    const int next = open("/dev/null", O_RDONLY);
    close(next);
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    const rlimit one_more = {static_cast<rlim_t>(next) + 1, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &one_more), 0);
}

OneDescriptor::~OneDescriptor() {
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before_), 0);
}

void StoreTest::SetUp() {
    // A short name keeps every path well under the limit of a record.
    char name[] = "/tmp/bm.XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    root = name;
    logs = root + "/logs/";
    std::filesystem::create_directory(logs);
    bookmarks = root + "/ft_bookmark";
    logger_init(0, nullptr, 0);
    use_directory(root);
}

void StoreTest::TearDown() {
    for (fdesc *file : files) free_fdesc(file);
    bookmark_teardown();
    bookmark_guard_small_files(false);
    bookmark_follow_renames(false);
    std::filesystem::remove_all(root);
}

void StoreTest::use_directory(const std::string &directory) {
    wchar_t *wide = strtowstr(directory.c_str(), static_cast<int>(directory.size()));
    bookmark_set_directory(wide);
    free(wide);
}

void StoreTest::forget() {
    for (fdesc *file : files) free_fdesc(file);
    files.clear();
    bookmark_teardown();
}

fdesc *StoreTest::track(const std::string &path) {
    auto *file = static_cast<fdesc *>(calloc(1, sizeof(fdesc)));
    file->n = strdup(path.c_str());
    files.push_back(file);
    return file;
}

fdesc *StoreTest::track_at(const std::string &path, uint64_t location) {
    fdesc *file = track(path);
    file->l = location;
    return file;
}

int StoreTest::update(fdesc *file) {
    FILE *stream = fopen(file->n, "r");
    if (!stream) return -2;
    const int result = update_bookmark(stream, file);
    fclose(stream);
    return result;
}

}  // namespace bookmark_kit
