// A plugin with one group on the test's log directory.

#pragma once

#include <cstdint>
#include <string>

#include "config/plugin_record.h"
#include "config/siem_config.h"
#include "filetail/ruv.h"
#include "tests/filetail/bookmark_kit.h"

namespace bookmark_kit {

class ScanTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        directory_.assign(logs.begin(), logs.end());
        owner.ft.ft_dir = directory_.data();
        set_filter(L"*.log");
        group = new_tail_group(&owner);
        ASSERT_NE(group, nullptr);
        _connected = 1;
    }
    void TearDown() override {
        free_tail_group(group);
        _connected = 0;
        conf.rotation_drain = 0;
        conf.small_file_guard = 0;
        StoreTest::TearDown();
    }
    void set_filter(const std::wstring &filter) {
        filter_ = filter;
        owner.ft.ft_filter = filter_.data();
    }
    // As after a restart of the daemon.
    void restart() {
        free_tail_group(group);
        bookmark_teardown();
        group = new_tail_group(&owner);
    }
    // What the reader does when it has sent everything of the file that `f[i]` reads now.
    void read_all(int i) { read_some(i, SIZE_MAX); }
    // The same for the next bytes of it only.
    void read_some(int i, size_t bytes) {
        fdesc *file = group->f[i];
        if (file->moved) return;
        FILE *stream = fopen(tail_path(file), "r");
        ASSERT_NE(stream, nullptr);
        std::string unread;
        fseek(stream, static_cast<long>(file->l), SEEK_SET);
        for (int c; unread.size() < bytes && (c = fgetc(stream)) != EOF;) {
            unread += static_cast<char>(c);
        }
        const bool at_end = unread.size() < bytes;
        file->l += unread.size();
        received += unread;
        ASSERT_EQ(update_bookmark(stream, file), 0);
        file->at_end = at_end;
        fclose(stream);
    }

    plugin owner = {};
    ft_bm *group = nullptr;
    std::string received;

  private:
    std::wstring directory_, filter_;
};

}  // namespace bookmark_kit
