// The bookmark store: what an update and a look-up cost with 1, 100 and 10,000 records.
//
//   update   update_bookmark_fd of one file after another
//   look_up  get_bookmark of one file after another
//
// Works in a folder of its own under TMPDIR or /tmp, which is removed at the end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "filetail/bookmark.h"
#include "filetail/tail_state.h"

namespace {

namespace fs = std::filesystem;

/// A store with `count` files of 1,000 bytes and a record for each.
class filled_store {
  public:
    explicit filled_store(int count) {
        std::string pattern = (fs::temp_directory_path() / "bookmark-bench-XXXXXX").string();
        folder_ = mkdtemp(pattern.data());
        bookmark_set_directory(fs::path(folder_).wstring().c_str());
        for (int i = 0; i < count; i++) {
            names_.push_back(folder_ + "/" + std::to_string(i) + ".log");
            std::ofstream(names_.back()) << std::string(1000, 'x');
        }
        for (std::string &name : names_) {
            auto file = std::make_unique<fdesc>();
            file->n = name.data();
            if (descriptor_ < 0) descriptor_ = open(name.c_str(), O_RDONLY | O_CLOEXEC);
            update_bookmark_fd(descriptor_, file.get());
            files_.push_back(std::move(file));
        }
    }
    ~filled_store() {
        bookmark_teardown();
        close(descriptor_);
        fs::remove_all(folder_);
    }
    filled_store(const filled_store &) = delete;
    filled_store &operator=(const filled_store &) = delete;

    size_t size() const { return files_.size(); }
    fdesc *file(size_t i) { return files_[i].get(); }
    /// One for all: the files hold the same text, and a process may not open so many.
    int descriptor() const { return descriptor_; }

  private:
    std::string folder_;
    std::vector<std::string> names_;
    std::vector<std::unique_ptr<fdesc>> files_;
    int descriptor_ = -1;
};

void update(benchmark::State &state) {
    filled_store store(static_cast<int>(state.range(0)));
    size_t turn = 0;
    for (auto _ : state) {
        fdesc *file = store.file(turn % store.size());
        file->l = turn % 1000;
        if (update_bookmark_fd(store.descriptor(), file) != 0) {
            state.SkipWithError("an update failed");
            break;
        }
        turn++;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(update)->Arg(1)->Arg(100)->Arg(10'000);

void look_up(benchmark::State &state) {
    filled_store store(static_cast<int>(state.range(0)));
    size_t turn = 0;
    for (auto _ : state) {
        if (get_bookmark(store.file(turn++ % store.size())) != 1) {
            state.SkipWithError("a look-up found nothing");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(look_up)->Arg(1)->Arg(100)->Arg(10'000);

}  // namespace
