// Runs a fuzz target once over every file of its stored corpus, and over cut and flipped forms of
// each, so that the replay is more than a repetition. Fails when the corpus is empty.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

using bytes = std::vector<uint8_t>;

bytes read_file(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void run(const bytes &input) {
    // An exact copy on the heap, so that a sanitizer sees a read behind its end.
    const bytes exact(input.begin(), input.end());
    static const uint8_t nothing = 0;
    LLVMFuzzerTestOneInput(exact.empty() ? &nothing : exact.data(), exact.size());
}

void run_variants(const bytes &input) {
    run(input);
    const size_t step = std::max<size_t>(1, input.size() / 64);
    for (size_t at = 0; at < input.size(); at += step) {
        run(bytes(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(at)));
        bytes flipped = input;
        flipped[at] ^= static_cast<uint8_t>(1u << (at % 8));
        run(flipped);
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2 || !std::filesystem::is_directory(argv[1])) {
        fprintf(stderr, "usage: replay CORPUS_DIRECTORY\n");
        return 64;
    }
    std::vector<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(argv[1])) {
        if (entry.is_regular_file()) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const auto &path : files) run_variants(read_file(path));
    printf("%zu inputs replayed\n", files.size());
    return files.empty() ? 1 : 0;
}
