// The reader on a file that was renamed: its last event, and reads that fail.

#include <sys/stat.h>

#include "tests/filetail/reader_kit.h"

namespace {

using namespace reader_kit;

class RenamedReaderTest : public ReaderTest {
  protected:
    // `a.log` with its renamed predecessor, as the scan leaves them.
    fdesc *renamed(const std::string &rest) {
        fdesc *file = tail("a.log", "successor\n");
        bookmark_kit::write_file(logs + "a.log.1", rest);
        file->drain = strdup((logs + "a.log.1").c_str());
        return file;
    }
};

TEST_F(RenamedReaderTest, LastTextNeedsNoDelimiterOnceNothingCanFollow) {
    connect_to();
    fdesc *file = renamed("one\ntwo");
    EXPECT_EQ(read_events(file, 100), 1);
    EXPECT_EQ(file->at_end, 1);
    EXPECT_EQ(file->l, 4u);
    file->final = 1;
    EXPECT_EQ(read_events(file, 100), 1);
    EXPECT_EQ(file->l, 7u);
    EXPECT_EQ(file->at_end, 1);
    EXPECT_EQ(read_events(file, 100), 0) << "not a second time";
    EXPECT_EQ(arrived(2), (strings{"one ", "two"}));
    EXPECT_EQ(stored_position(file), 7u);
}

TEST_F(RenamedReaderTest, LastEventOfTheKindThatADelimiterBegins) {
    connect_to();
    delimiter_is("<<", 0);
    fdesc *file = renamed("<<one<<two<<three");
    EXPECT_EQ(read_events(file, 100), 2);
    file->final = 1;
    EXPECT_EQ(read_events(file, 100), 1);
    EXPECT_EQ(arrived(3), (strings{"<<one", "<<two", "<<three"}));
}

TEST_F(RenamedReaderTest, LastTextGoesWithAGroup) {
    conf.rec_confirm = 10;
    connect_to();
    fdesc *file = renamed("one\ntwo");
    file->final = 1;
    EXPECT_EQ(read_events(file, 100), 2);
    EXPECT_EQ(arrived(2), (strings{"one ", "two"}));
    EXPECT_EQ(stored_position(file), 7u);
}

TEST_F(RenamedReaderTest, LongLastTextIsSentToo) {
    connect_to();
    const std::string text(200'000, 'x');
    fdesc *file = renamed(text);
    EXPECT_EQ(read_events(file, 100), 0);
    EXPECT_EQ(file->at_end, 1);
    file->final = 1;
    EXPECT_EQ(read_events(file, 100), 1);
    strings all = arrived(4);
    std::string joined;
    for (const std::string &part : all) joined += part;
    EXPECT_EQ(joined, text);
}

TEST_F(RenamedReaderTest, FileThatCannotBeOpenedIsNotAtItsEnd) {
    connect_to();
    fdesc *file = renamed("one\n");
    std::filesystem::remove(logs + "a.log.1");
    EXPECT_EQ(read_events(file, 100), 1);
    EXPECT_EQ(file->failed, 1);
    EXPECT_EQ(file->at_end, 0);
}

TEST_F(RenamedReaderTest, FileThatCannotBeReadIsNotAtItsEnd) {
    connect_to();
    fdesc *file = renamed("one\n");
    // A position that the kernel refuses is the one read error that can be had at will.
    file->l = uint64_t{1} << 63;
    Capture log;
    EXPECT_EQ(read_events(file, 100), 0);
    EXPECT_EQ(file->failed, 1);
    EXPECT_EQ(file->at_end, 0);
    EXPECT_EQ(count_of(log.text(), "Error: Reading file " + logs + "a.log.1 : (22)"), 1u);
    file->l = 0;
    EXPECT_EQ(read_events(file, 100), 1);
    EXPECT_EQ(file->failed, 0);
    EXPECT_EQ(file->at_end, 1);
}

TEST_F(RenamedReaderTest, OtherFilesEndQuietlyAtAReadError) {
    connect_to();
    fdesc *file = tail("b.log", "one\n");
    file->l = uint64_t{1} << 63;
    Capture log;
    EXPECT_EQ(read_events(file, 100), 0);
    EXPECT_EQ(file->at_end, 1);
    EXPECT_EQ(count_of(log.text(), "(ERROR)"), 0u);
}

TEST_F(RenamedReaderTest, NothingIsReadWhileTheFileIsSearchedFor) {
    connect_to();
    fdesc *file = tail("a.log", "one\n");
    file->moved = 1;
    EXPECT_EQ(read_events(file, 100), 0);
    EXPECT_EQ(file->l, 0u);
    file->moved = 0;
    EXPECT_EQ(read_events(file, 100), 1);
}

}  // namespace
