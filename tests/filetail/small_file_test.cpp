// Opt-in small_file_guard while a small file is read: one that is emptied and written anew in place
// must not be taken for one that grew.

#include "tests/filetail/reader_kit.h"

namespace {

using namespace reader_kit;

// `data` is the text to be written at the first event.
int write_anew(char **, int *, void **data, fdesc *file, FILE *) {
    if (*data != nullptr) bookmark_kit::write_file(file->n, *static_cast<std::string *>(*data));
    *data = nullptr;
    return 1;
}

class SmallReaderTest : public ReaderTest {
  protected:
    void SetUp() override {
        ReaderTest::SetUp();
        conf.small_file_guard = 1;
        bookmark_guard_small_files(true);
    }
    void TearDown() override {
        conf.small_file_guard = 0;
        ReaderTest::TearDown();
    }
    fdesc *verified(const std::string &text) {
        fdesc *file = tail("a", text);
        EXPECT_EQ(update(file), 0);
        EXPECT_EQ(get_bookmark(file), 1);
        return file;
    }
    std::string all_arrived(size_t count) {
        std::string all;
        for (const std::string &message : arrived(count)) {
            all += message.substr(0, message.size() - 1) + "\n";
        }
        return all;
    }
};

TEST_F(SmallReaderTest, GrowthBetweenTheLookAndTheReadingIsRead) {
    connect_to();
    fdesc *file = verified("one\n");
    bookmark_kit::append_file(logs + "a", "two\n" + bookmark_kit::lines(50));
    EXPECT_EQ(read_events(file, 1000), 52);
    EXPECT_EQ(file->at_end, 1);
}

TEST_F(SmallReaderTest, WrittenAnewBetweenTheLookAndTheReading) {
    connect_to();
    fdesc *file = verified("one\n");
    EXPECT_EQ(read_events(file, 1000), 1);
    ASSERT_EQ(get_bookmark(file), 1);
    const std::string saved = image();
    const std::string anew = "uno\n" + bookmark_kit::lines(50);
    bookmark_kit::write_file(logs + "a", anew);
    EXPECT_EQ(read_events(file, 1000), 0) << "the position is in the middle of the new text";
    EXPECT_EQ(image(), saved);
    ASSERT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(read_events(file, 1000), 51);
    EXPECT_EQ(all_arrived(52), "one\n" + anew);
}

TEST_F(SmallReaderTest, WrittenAnewWhileItIsRead) {
    connect_to();
    std::string anew = bookmark_kit::lines(90, "new text");
    fdesc *file = verified("one\ntwo\n");
    p.process_event = write_anew;
    p.process_event_data = &anew;
    EXPECT_EQ(read_events(file, 10), 2);
    EXPECT_EQ(stored_position(file), 0u);
    ASSERT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(read_events(file, 1000), 90);
    EXPECT_EQ(all_arrived(92), "one\ntwo\n" + anew);
}

TEST_F(SmallReaderTest, EmptiedWhileItIsRead) {
    connect_to();
    std::string nothing;
    fdesc *file = verified("one\ntwo\n");
    p.process_event = write_anew;
    p.process_event_data = &nothing;
    EXPECT_EQ(read_events(file, 10), 2);
    bookmark_kit::write_file(logs + "a", "three\nfour\nfive\n");
    ASSERT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(read_events(file, 1000), 3);
    EXPECT_EQ(all_arrived(5), "one\ntwo\nthree\nfour\nfive\n");
}

}  // namespace
