// Random programs of updates, look-ups, deletions and changes by hand, beside a model that keeps
// the records in a plain list: after each step the file must be the model's, byte for byte.

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

#include "filetail/bookmark.h"
#include "tests/filetail/bookmark_kit.h"

namespace {

using namespace bookmark_kit;

struct model_record {
    std::string path;
    std::string bytes;
};

class BookmarkModelTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        for (int i = 0; i < kFiles; ++i) {
            const std::string path = logs + "file" + std::to_string(i);
            contents.push_back(lines(30 + i, "text of file " + std::to_string(i)));
            write_file(path, contents.back());
            track(path);
        }
    }
    std::string expected_image() const {
        std::string all;
        for (const model_record &r : model) all += r.bytes;
        return all;
    }
    std::vector<model_record>::iterator find(const std::string &path) {
        return std::find_if(model.begin(), model.end(),
                            [&](const model_record &r) { return r.path == path; });
    }
    void put(int i) {
        const std::string &content = contents[static_cast<size_t>(i)];
        const std::string bytes = record(files[static_cast<size_t>(i)]->l, head_of(content),
                                         tail_of(content), files[static_cast<size_t>(i)]->n);
        const auto it = find(files[static_cast<size_t>(i)]->n);
        if (it != model.end()) {
            it->bytes = bytes;
        } else {
            model.push_back({files[static_cast<size_t>(i)]->n, bytes});
        }
    }
    void look_up(int i) {
        fdesc *file = files[static_cast<size_t>(i)];
        const auto it = find(file->n);
        file->l = 5;
        ASSERT_EQ(get_bookmark(file), it != model.end());
        const std::string digits = it == model.end() ? "5" : it->bytes.substr(0, 15);
        ASSERT_EQ(file->l, std::stoull(digits));
    }
    void change_by_hand(std::mt19937 &random) {
        if (model.empty()) return;
        const size_t at = random() % model.size();
        switch (random() % 4) {
            case 0:
                model.erase(model.begin() + static_cast<long>(at));
                break;
            case 1:
                std::swap(model[at], model[random() % model.size()]);
                break;
            case 2:
                model[at].bytes.replace(0, 15, "000000000000007");
                break;
            default:
                model.resize(at);
        }
        if (random() % 2) {
            write_file(bookmarks, expected_image());
        } else {
            write_file(root + "/new", expected_image());
            std::filesystem::rename(root + "/new", bookmarks);
        }
    }

    static constexpr int kFiles = 12;
    std::vector<std::string> contents;
    std::vector<model_record> model;
};

TEST_F(BookmarkModelTest, RandomProgramsGiveTheModelsBytes) {
    for (const unsigned seed : {1u, 2u, 3u, 4u}) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        for (int step = 0; step < 1500; ++step) {
            const int i = static_cast<int>(random() % kFiles);
            const unsigned action = random() % 100;
            if (action < 55) {
                files[static_cast<size_t>(i)]->l = random() % 500;
                ASSERT_EQ(update(files[static_cast<size_t>(i)]), 0);
                put(i);
            } else if (action < 75) {
                ASSERT_NO_FATAL_FAILURE(look_up(i));
            } else if (action < 93) {
                ASSERT_EQ(delete_bookmark(files[static_cast<size_t>(i)]->n), 0);
                const auto it = find(files[static_cast<size_t>(i)]->n);
                if (it != model.end()) model.erase(it);
            } else if (action < 97) {
                change_by_hand(random);
            } else {
                bookmark_teardown();
            }
            ASSERT_EQ(image(), expected_image()) << "step " << step;
        }
        std::filesystem::remove(bookmarks);
        model.clear();
    }
}

// Two workers of two plugins, each with its own files and one that both tail. Every record that a
// reader of the file finds must be whole, since each is put there by one write.
TEST_F(BookmarkModelTest, TwoThreadsAndAReader) {
    constexpr int kRounds = 1500;
    for (fdesc *file : files) ASSERT_EQ(update(file), 0);
    const std::string shared = files[0]->n;
    std::atomic<int> running{2};
    const auto worker = [&](size_t first, unsigned seed) {
        std::mt19937 random(seed);
        fdesc own = {};
        std::string path = shared;
        own.n = path.data();
        for (int i = 0; i < kRounds; ++i) {
            fdesc *file = random() % 4 == 0 ? &own : files[first + random() % 5];
            file->l = random() % 300;
            EXPECT_EQ(update(file), 0);
            if (random() % 16 == 0 && file != &own) {
                EXPECT_EQ(delete_bookmark(file->n), 0);
                EXPECT_EQ(update(file), 0);
            }
            EXPECT_EQ(get_bookmark(file), 1);
        }
        running.fetch_sub(1);
    };
    std::thread one(worker, 1, 11u);
    std::thread two(worker, 6, 22u);
    while (running.load() > 0) {
        const std::string all = image();
        EXPECT_EQ(all.size() % 199, 0u);
    }
    one.join();
    two.join();
    const std::string all = image();
    EXPECT_EQ(all.size(), 12 * 199u);
    for (size_t i = 0; i < files.size(); ++i) {
        std::string padded = files[i]->n;
        padded.resize(150, ' ');
        EXPECT_EQ(count_of(all, "|" + padded + "\n"), 1u) << padded;
    }
    for (size_t i = 1; i < 11; ++i) {
        const uint64_t last = files[i]->l;
        EXPECT_EQ(get_bookmark(files[i]), 1);
        EXPECT_EQ(files[i]->l, last);
    }
}

// The same operations with 2,000 other records around them cost no more system calls; here only the
// results are checked, the cost is the benchmark's business.
TEST_F(BookmarkModelTest, ManyRecords) {
    std::string all;
    for (int i = 0; i < 2000; ++i) all += record(i, 1, 2, "/some/where/" + std::to_string(i));
    write_file(bookmarks, all);
    files[3]->l = 60;
    EXPECT_EQ(update(files[3]), 0);
    EXPECT_EQ(image().size(), 2001 * 199u);
    EXPECT_EQ(delete_bookmark("/some/where/1000"), 0);
    EXPECT_EQ(image().size(), 2000 * 199u);
    files[3]->l = 61;
    EXPECT_EQ(update(files[3]), 0);
    EXPECT_EQ(image().substr(1999 * 199, 16), "000000000000061|");
    EXPECT_EQ(image().substr(0, 1000 * 199), all.substr(0, 1000 * 199));
    EXPECT_EQ(image().substr(1000 * 199, 999 * 199), all.substr(1001 * 199));
}

}  // namespace
