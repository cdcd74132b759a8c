// Reading one file: batches, positions, bookmarks, and what happens when a send fails.

#include "filetail/reader.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <thread>

#include "filetail/big_fix.h"
#include "tests/filetail/reader_kit.h"

namespace {

using namespace reader_kit;

class Reader : public ReaderTest {};

TEST_F(Reader, SendsCompleteEventsAndLeavesTheRest) {
    connect_to();
    fdesc *file = tail("a", "a\nb\nc");
    EXPECT_EQ(read_events(file, 100), 2);
    EXPECT_EQ(arrived(2), (strings{"a ", "b "}));
    EXPECT_EQ(file->l, 4u);
    EXPECT_EQ(file->at_end, 1);
    EXPECT_EQ(stored_position(file), 4u);
    bookmark_kit::append_file(logs + "a", "\nd");
    EXPECT_EQ(read_events(file, 100), 1);
    EXPECT_EQ(arrived(3), (strings{"a ", "b ", "c "}));
    EXPECT_EQ(read_events(file, 100), 0);
    EXPECT_EQ(file->l, 6u);
}

// A file of fewer than 257 bytes has its tail checksum taken where a stream would stand: behind the
// bytes read for the first event of a batch, and at its start for each later one.
TEST_F(Reader, TheTailOfASmallFileFollowsTheStream) {
    const std::string content = "one\ntwo\nthree\n";
    const auto crc_from = [&](size_t place) {
        std::string block = content.substr(place);
        block.resize(256, '\0');
        return computeChecksum(block.data());
    };
    connect_to();
    fdesc *file = tail("a", content);
    Capture log(15);
    EXPECT_EQ(read_events(file, 100), 3);
    const std::string text = log.text();
    const size_t ends[] = {4, 8, 14}, places[] = {14, 4, 8};
    for (int i = 0; i < 3; ++i) {
        char record[64];
        snprintf(record, sizeof record, "Wrote '%015zu|%015u|%015u|", ends[i], crc_from(0),
                 crc_from(places[i]));
        EXPECT_EQ(count_of(text, record), 1u) << record << "\n" << text;
    }
}

TEST_F(Reader, TurnsLineEndsIntoBlanks) {
    connect_to();
    fdesc *file = tail("a", "one\r\n\n\rtwo\r\r\n");
    EXPECT_EQ(read_events(file, 100), 3);
    EXPECT_EQ(arrived(3), (strings{"one  ", " ", " two   "}));
}

TEST_F(Reader, CutsAtPatternsOnEitherSide) {
    connect_to();
    delimiter_is("\\d\\d:", 0);
    fdesc *file = tail("a", "10:one\nmore\n11:two\n12:three\n");
    EXPECT_EQ(read_events(file, 100), 2);
    EXPECT_EQ(arrived(2), (strings{"10:one more ", "11:two "}));
    delimiter_is(";;", 1);
    fdesc *other = tail("b", "a;;b\n;;c");
    EXPECT_EQ(read_events(other, 100), 2);
    EXPECT_EQ(arrived(4), (strings{"10:one more ", "11:two ", "a;;", "b ;;"}));
}

TEST_F(Reader, ReadsLinesOfEveryLengthAroundTheBuffer) {
    connect_to();
    std::string content;
    strings expected;
    for (const size_t length : {1u, 1022u, 1023u, 1024u, 1025u, 2047u, 2048u, 2049u, 65534u}) {
        content += std::string(length, 'x') + "\n";
        expected.push_back(std::string(length, 'x') + " ");
    }
    fdesc *file = tail("a", content);
    EXPECT_EQ(read_events(file, 1000), static_cast<int>(expected.size()));
    EXPECT_TRUE(arrived(expected.size()) == expected);
    EXPECT_EQ(file->l, content.size());
}

TEST_F(Reader, FinishesABatchBeforeTheThrottleCounts) {
    connect_to();
    std::string content;
    for (int i = 0; i < 5000; ++i) content += std::to_string(i) + "\n";
    fdesc *file = tail("a", content);
    const int first = read_events(file, 10);
    EXPECT_GE(first, 10);
    EXPECT_LE(first, 10 + 499);
    EXPECT_EQ(file->at_end, 0);
    int total = first;
    for (int more; (more = read_events(file, 10)) > 0;) total += more;
    EXPECT_EQ(total, 5000);
    EXPECT_EQ(arrived(5000).back(), "4999 ");
}

TEST_F(Reader, AThrottleOfZeroReadsNothing) {
    connect_to();
    fdesc *file = tail("a", "a\n");
    EXPECT_EQ(read_events(file, 0), 0);
    EXPECT_EQ(file->l, 0u);
    EXPECT_EQ(image(), "");
}

TEST_F(Reader, NulBytesNeitherStallNorDrift) {
    connect_to();
    const std::string nuls(3000, '\0');
    const std::string content =
        nuls + "a\n" + std::string("b\0c\n\0\0d\n", 8) + std::string("\0\0\0;\n", 5) + "e\n";
    fdesc *file = tail("a", content);
    EXPECT_EQ(read_events(file, 100), 5);
    EXPECT_EQ(arrived(5), (strings{"a ", "b c ", "d ", "; ", "e "}));
    EXPECT_EQ(file->l, content.size());
}

TEST_F(Reader, AnEventOfNulBytesIsPassedOver) {
    connect_to();
    delimiter_is("\\x00{4}", 1);
    fdesc *file = tail("a", std::string("\0\0\0\0\0\0\0\0ab\0\0\0\0", 14));
    EXPECT_EQ(read_events(file, 100), 1) << "only the event with text counts";
    EXPECT_EQ(arrived(1), (strings{"ab    "}));
    EXPECT_EQ(file->l, 14u);
    EXPECT_EQ(stored_position(file), 14u);
}

TEST_F(Reader, AFileThatCannotBeOpenedCountsOne) {
    connect_to();
    fdesc *file = track_at(logs + "gone", 0);
    file->p = group;
    Capture log(1);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(read_events(file, 100), 1);
    const read_outcome outcome = read_file(file, 100);
    EXPECT_TRUE(outcome.unreadable);
    EXPECT_EQ(outcome.handled, 0);
    for (int i = 0; i < 1000; ++i) read_events(file, 100);
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
    const std::string line = "Error: Reading file " + logs + "gone : (2)No such file or directory";
    const size_t lines = count_of(log.text(), line);
    EXPECT_GE(lines, 1u);
    EXPECT_LE(lines, static_cast<size_t>(seconds.count()) + 2) << "once a second is enough";
}

// A long unfinished line, and one that the matcher gives up on, are not searched again and again
// while the file stays as it is; whatever changes it brings them back.
TEST_F(Reader, AFileWithoutAnEventIsReadAgainWhenItChanges) {
    connect_to();
    const std::string half(100'000, 'x');
    fdesc *file = tail("a", half);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(read_events(file, 100), 0);
        EXPECT_EQ(file->at_end, 1);
    }
    bookmark_kit::append_file(logs + "a", "y");
    EXPECT_EQ(read_events(file, 100), 0);
    bookmark_kit::append_file(logs + "a", "\nz");
    EXPECT_EQ(read_events(file, 100), 1);
    EXPECT_EQ(file->l, half.size() + 2);
    file->l = 50'000;  // as after a bookmark that was changed by hand
    EXPECT_EQ(read_events(file, 100), 1);
}

TEST_F(Reader, AMatcherErrorIsNotRepeatedForAnUnchangedFile) {
    connect_to();
    delimiter_is("(a+a+)+(a+a+)+(a+a+)+[=%]", 1);
    fdesc *file = tail("a", std::string(60, 'a') + "!");
    Capture log(1);
    for (int i = 0; i < 50; ++i) EXPECT_EQ(read_events(file, 100), 0);
    bookmark_kit::append_file(logs + "a", "!");
    for (int i = 0; i < 50; ++i) EXPECT_EQ(read_events(file, 100), 0);
    EXPECT_EQ(count_of(log.text(), "Error in matching event: -"), 2u);
}

TEST_F(Reader, WhatIsNoRegularFileHasNoEvents) {
    connect_to();
    ASSERT_EQ(mkfifo((logs + "fifo").c_str(), 0600), 0);
    std::filesystem::create_directory(logs + "folder");
    for (const char *name : {"fifo", "folder"}) {
        fdesc *file = track_at(logs + name, 0);
        file->p = group;
        EXPECT_EQ(read_events(file, 100), 0) << name;
    }
    fdesc *device = track_at("/dev/zero", 0);
    device->p = group;
    EXPECT_EQ(read_events(device, 100), 0);
}

TEST_F(Reader, ABadPatternIsReportedOnce) {
    connect_to();
    delimiter_is("(", 1);
    fdesc *file = tail("a", "a(\n");
    Capture log(1);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(read_events(file, 100), 0);
    EXPECT_EQ(count_of(log.text(), "(ERROR)"), 1u);
    EXPECT_EQ(file->l, 0u);
}

TEST_F(Reader, AMatcherErrorEndsTheBatchBehindTheEventsCut) {
    connect_to();
    delimiter_is("\\n|(a+a+)+(a+a+)+(a+a+)+=", 1);
    fdesc *file = tail("a", "one\n" + std::string(60, 'a') + "!");
    Capture log(1);
    EXPECT_EQ(read_events(file, 100), 1);
    EXPECT_GE(count_of(log.text(), "Error in matching event: -"), 1u);
    EXPECT_EQ(file->l, 4u);
    EXPECT_EQ(arrived(1), (strings{"one "}));
}

TEST_F(Reader, LogsWhatItSendsAtDebug) {
    connect_to();
    fdesc *file = tail("a", "x%s%n\ny\n");
    Capture log(15);
    EXPECT_EQ(read_events(file, 100), 2);
    const std::string text = log.text();
    const std::string sending = ":(DEBUG) Sending RUV data read from: " + logs + "a:";
    const size_t first = text.find(sending + "x%s%n \n");
    const size_t engage = text.find(":(DEBUG) engage ruv spin lock\n");
    const size_t released = text.find(":(DEBUG) released ruv spin lock\n");
    const size_t wrote = text.find("to bookmark file\n");
    const size_t second = text.find(sending + "y \n");
    EXPECT_NE(first, std::string::npos);
    EXPECT_LT(first, engage);
    EXPECT_LT(engage, released);
    EXPECT_LT(released, wrote);
    EXPECT_LT(wrote, second);
    EXPECT_NE(second, std::string::npos);
}

int drop_x(char **event, int *length, void **data, fdesc *, FILE *fd) {
    EXPECT_NE(fd, nullptr);
    EXPECT_EQ(static_cast<size_t>(*length), strlen(*event));
    ++*static_cast<int *>(*data);
    return (*event)[0] != 'x';
}

TEST_F(Reader, ADroppedEventCountsAndMovesThePosition) {
    connect_to();
    int calls = 0;
    p.process_event = drop_x;
    p.process_event_data = &calls;
    fdesc *file = tail("a", "x1\na\nx2\n");
    EXPECT_EQ(read_events(file, 100), 3);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(arrived(1), (strings{"a "}));
    EXPECT_EQ(file->l, 8u);
    EXPECT_EQ(stored_position(file), 8u);
}

TEST_F(Reader, TheBigFixCutterDatesEveryEvent) {
    connect_to();
    p.process_event = big_fix_process_event;
    p.teardown_process_event = big_fix_teardown_event;
    fdesc *file = tail("a", "first line of it\nNov 15, 2026 dated\nplain\n");
    EXPECT_EQ(read_events(file, 100), 3);
    EXPECT_EQ(arrived(3), (strings{"first line of first line of it ", "Nov 15, 2026 dated ",
                                   "Nov 15, 2026 plain "}));
    EXPECT_EQ(file->l, 42u);
}

TEST_F(Reader, ALongEventGoesAsConsecutiveRecords) {
    connect_to();
    std::string line(150'000, 'a');
    for (size_t i = 0; i < line.size(); ++i) line[i] = static_cast<char>('a' + i % 26);
    fdesc *file = tail("a", line + "\nshort\n");
    Capture log(4);
    EXPECT_EQ(read_events(file, 100), 2);
    const strings got = arrived(4);
    EXPECT_EQ(count_of(log.text(), "(WARN)"), 1u);
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got[0].size(), 65535u);
    EXPECT_EQ(got[1].size(), 65535u);
    EXPECT_TRUE(got[0] + got[1] + got[2] == line + " ");
    EXPECT_EQ(got[3], "short ");
}

TEST_F(Reader, AnEndlessLineIsCutAtAMultipleOfTheLongestRecord) {
    connect_to();
    const size_t most = size_t{256} * 65535;
    fdesc *file = tail("a", "");
    ASSERT_EQ(truncate(file->n, static_cast<off_t>(2 * most + 10)), 0);
    {
        const int fd = open(file->n, O_WRONLY | O_CLOEXEC);
        ASSERT_EQ(pwrite(fd, "x", 1, 0), 1);
        ASSERT_EQ(pwrite(fd, "y", 1, static_cast<off_t>(most)), 1);
        close(fd);
    }
    EXPECT_EQ(read_events(file, 100), 2);
    EXPECT_EQ(file->l, 2 * most);
    const strings got = arrived(512);
    ASSERT_EQ(got.size(), 512u);
    EXPECT_EQ(got[0][0], 'x');
    EXPECT_EQ(got[256][0], 'y');
    EXPECT_EQ(got[511].size(), 65535u);
}

// Emptied and written anew in place, and longer than before, between the look at its position and
// the reading: what stands at the position is the middle of the new text.
TEST_F(Reader, AFileWrittenAnewIsNotReadFromTheMiddle) {
    connect_to();
    const std::string old_text = bookmark_kit::lines(40, "old text");
    const std::string new_text = bookmark_kit::lines(60, "new text");
    fdesc *file = tail("a", old_text, old_text.size());
    ASSERT_EQ(update(file), 0);
    ASSERT_EQ(get_bookmark(file), 1);
    const std::string saved = image();
    bookmark_kit::write_file(logs + "a", new_text);
    EXPECT_EQ(read_events(file, 1000), 0);
    EXPECT_EQ(file->l, old_text.size());
    EXPECT_EQ(image(), saved);
    ASSERT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(read_events(file, 1000), 60);
    const strings got = arrived(60);
    ASSERT_EQ(got.size(), 60u);
    EXPECT_EQ(got[0] + "\n", new_text.substr(0, new_text.find('\n')) + " \n");
}

// The same in the middle of the reading; `data` is the text to be written at the first event.
int write_anew(char **, int *, void **data, fdesc *file, FILE *) {
    if (*data != nullptr) bookmark_kit::write_file(file->n, *static_cast<std::string *>(*data));
    *data = nullptr;
    return 1;
}

TEST_F(Reader, AFileWrittenAnewWhileItIsReadIsBegunAnew) {
    connect_to();
    const std::string old_text = bookmark_kit::lines(60, "old text");
    std::string new_text = bookmark_kit::lines(90, "new text");
    fdesc *file = tail("a", old_text);
    ASSERT_EQ(update(file), 0);
    ASSERT_EQ(get_bookmark(file), 1);
    p.process_event = write_anew;
    p.process_event_data = &new_text;
    Capture log(2);
    EXPECT_EQ(read_events(file, 10), 60) << "what was read of the old text is nowhere else";
    EXPECT_EQ(count_of(log.text(),
                       ":(INFO) Started reading file over cause the start of the file "
                       "didn't match: " +
                           logs + "a\n"),
              1u);
    EXPECT_EQ(file->l, 0u);
    EXPECT_EQ(file->at_end, 0);
    EXPECT_EQ(stored_position(file), 0u);
    ASSERT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(read_events(file, 1000), 90);
    std::string all;
    for (const std::string &message : arrived(150)) {
        all += message.substr(0, message.size() - 1) + "\n";
    }
    EXPECT_EQ(all, old_text + new_text);
}

// The Receiver ends the connection after some events and takes a new one at once: what was not
// sent is read again, and nothing is left out.
TEST_F(Reader, AFailedSendIsReadAgain) {
    const int handshake = 2;  // NOP and the version list
    connect_to({serve_then_close(handshake + 3), fake::serve()});
    std::string content;
    for (int i = 0; i < 200; ++i) content += "event " + std::to_string(i) + "\n";
    fdesc *file = tail("a", content);
    int handled = 0;
    // Waiting for the closed connection to be noticed is the reader's own business.
    ASSERT_TRUE(wait_until([&] {
        if (_connected == 0) {
            EXPECT_EQ(ruv_ensure_connected(&p), 0);
        }
        handled += read_events(file, 1);
        usleep(2000);
        return file->l == content.size();
    }));
    EXPECT_EQ(stored_position(file), content.size());
    ASSERT_TRUE(
        wait_until([&] { return !messages().empty() && messages().back() == "event 199 "; }));
    EXPECT_GE(receiver->connections(), 2);
    EXPECT_EQ(handled, 200);
}

TEST_F(Reader, StopsWhenExecutionEnds) {
    connect_to();
    fdesc *file = tail("a", "a\nb\n");
    stop_execution();
    EXPECT_EQ(read_events(file, 100), 0);
    EXPECT_EQ(file->l, 0u);
}

TEST_F(Reader, ReadsNothingWithoutAConnection) {
    fdesc *file = tail("a", "a\nb\n");
    EXPECT_EQ(read_events(file, 100), 0);
    EXPECT_EQ(file->l, 0u);
}

TEST_F(Reader, KeepsNoDescriptor) {
    connect_to();
    fdesc *file = tail("a", "a\n");
    p.process_event = big_fix_process_event;
    p.teardown_process_event = big_fix_teardown_event;
    read_events(file, 100);
    const auto open_descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = open_descriptors();
    for (int i = 0; i < 20; ++i) {
        bookmark_kit::append_file(logs + "a", "b\n");
        read_events(file, 100);
    }
    EXPECT_EQ(open_descriptors(), before);
}

// ---- Groups that the Receiver confirms.

class ConfirmedReader : public ReaderTest {
  protected:
    void SetUp() override {
        ReaderTest::SetUp();
        conf.rec_confirm = 10;
    }
    std::string numbered(int count) const {
        std::string content;
        for (int i = 0; i < count; ++i) content += std::to_string(i) + "\n";
        return content;
    }
    size_t nops() const {
        // Magic, then a header of protocol 6, data type 0, request 0.
        return count_of(receiver->received(), fake::kMagic + std::string("\6\0\0\0", 4));
    }
};

TEST_F(ConfirmedReader, OneAnswerConfirmsAGroup) {
    connect_to();
    const size_t before = nops();
    fdesc *file = tail("a", numbered(95) + "rest");
    Capture log(15);
    EXPECT_EQ(read_events(file, 1000), 95);
    const std::string text = log.text();
    const strings got = messages();
    ASSERT_EQ(got.size(), 95u) << "confirmed means arrived";
    for (int i = 0; i < 95; ++i) EXPECT_EQ(got[static_cast<size_t>(i)], std::to_string(i) + " ");
    EXPECT_EQ(nops() - before, 10u) << "groups of at most 10";
    EXPECT_EQ(count_of(text, "to bookmark file"), 10u) << "one bookmark write a group";
    EXPECT_EQ(file->l, numbered(95).size());
    EXPECT_EQ(stored_position(file), file->l);
}

TEST_F(ConfirmedReader, AThrottleIsHeldBetweenGroups) {
    connect_to();
    fdesc *file = tail("a", numbered(95));
    EXPECT_EQ(read_events(file, 15), 20);
}

TEST_F(ConfirmedReader, AGroupThatIsNotConfirmedIsReadAgain) {
    // The first connection reads the group's records and closes instead of answering the NOP.
    const int handshake = 2;
    connect_to({serve_then_close(handshake + 10), fake::serve()});
    fdesc *file = tail("a", numbered(10));
    EXPECT_EQ(read_events(file, 1), 10);
    const strings got = messages();
    ASSERT_EQ(got.size(), 20u) << "all of the group twice";
    EXPECT_EQ(strings(got.begin(), got.begin() + 10), strings(got.begin() + 10, got.end()));
    EXPECT_EQ(file->l, numbered(10).size());
}

TEST_F(ConfirmedReader, ThePositionStaysWithoutAnAnswer) {
    connect_to({serve_then_close(2 + 4)});
    receiver->stop();
    fdesc *file = tail("a", numbered(10));
    EXPECT_EQ(read_events(file, 100), 0);
    EXPECT_EQ(file->l, 0u);
    EXPECT_EQ(image(), "");
    EXPECT_EQ(_connected, 0);
}

TEST_F(ConfirmedReader, TheCutterFindsItsStateAsItWas) {
    connect_to({serve_then_close(2 + 3), fake::serve()});
    p.process_event = big_fix_process_event;
    p.teardown_process_event = big_fix_teardown_event;
    p.process_event_data = strdup("Nov 1, 2026");
    fdesc *file = tail("a", "cont\nNov 2, 2026 dated\nplain\n");
    EXPECT_EQ(read_events(file, 1), 3);
    const strings expected = {"Nov 1, 2026 cont ", "Nov 2, 2026 dated ", "Nov 2, 2026 plain "};
    const strings got = messages();
    ASSERT_EQ(got.size(), 6u);
    EXPECT_EQ(strings(got.begin() + 3, got.end()), expected);
}

TEST_F(ConfirmedReader, AFileWrittenAnewWhileItIsReadIsBegunAnew) {
    connect_to();
    std::string new_text = bookmark_kit::lines(90, "new text");
    fdesc *file = tail("a", bookmark_kit::lines(60, "old text"));
    ASSERT_EQ(update(file), 0);
    ASSERT_EQ(get_bookmark(file), 1);
    p.process_event = write_anew;
    p.process_event_data = &new_text;
    EXPECT_EQ(read_events(file, 10), 60);
    EXPECT_EQ(file->l, 0u);
    EXPECT_EQ(stored_position(file), 0u);
    ASSERT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(read_events(file, 1000), 90);
    EXPECT_EQ(messages().size(), 150u);
}

TEST_F(ConfirmedReader, DroppedEventsMoveThePosition) {
    connect_to();
    int calls = 0;
    p.process_event = drop_x;
    p.process_event_data = &calls;
    fdesc *file = tail("a", "x1\nx2\na\nx3\n");
    EXPECT_EQ(read_events(file, 100), 4);
    EXPECT_EQ(messages(), (strings{"a "}));
    EXPECT_EQ(file->l, 11u);
    fdesc *all_dropped = tail("b", "x1\nx2\n");
    EXPECT_EQ(read_events(all_dropped, 100), 2);
    EXPECT_EQ(all_dropped->l, 6u);
}

// Refuses the NOP and is silent to a TLS hello: that is how a Receiver of generation 5 looks.
std::vector<fake::receiver::script> generation_5() {
    const auto refuse = [](fake::peer &peer) {
        peer.read(16);
        peer.send(fake::kNotOkay);
        peer.drain();
    };
    return {refuse, [](fake::peer &peer) { peer.drain(); }};
}

TEST_F(ConfirmedReader, AnOlderReceiverGetsEventsOneByOne) {
    connect_to(generation_5());
    fdesc *file = tail("a", "one\ntwo\n");
    Capture log(4);
    EXPECT_EQ(read_events(file, 100), 2);
    bookmark_kit::append_file(logs + "a", "three\n");
    EXPECT_EQ(read_events(file, 100), 1);
    EXPECT_EQ(count_of(log.text(), "rec_confirm is not in effect"), 1u);
    EXPECT_EQ(file->l, 14u);
    // Magic, then the block of version 5: version, type, third party, no address, the length.
    const auto record = [](const std::string &text) {
        return fake::kMagic + std::string("\5\5\0\0\0\0\0\0", 8) +
               fake::bytes_of(static_cast<uint32_t>(text.size())) + text;
    };
    const std::string wanted = record("one ") + record("two ") + record("three ");
    EXPECT_TRUE(wait_until([&] { return receiver->received().find(wanted) != std::string::npos; }));
}

}  // namespace
