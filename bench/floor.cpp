// The floor under the collector: the system calls of one event's road and nothing else.
//
//   floor PORT DIRECTORY BOOKMARK_FILE MODE
//
// Reads every file of DIRECTORY once from its beginning, cuts it at line feeds and sends each line
// as a Syslog record of version 6 to 127.0.0.1:PORT. The modes, and the calls for each event:
//
//   literal  one gathered write of four segments; the two 256-byte reads behind the checksums;
//            stat of the path; open, read, write and close of the bookmark file
//   kept     the same with the bookmark file kept open
//   write    the gathered write alone
//   batch    500 events in one gathered write, then one bookmark update of the mode literal
//
// Nothing is checked, logged, locked, computed or looked up: a program that does the documented
// work cannot spend less, and bench/run says by how much it spends more. Prints the number of
// events; ends with status 1 when anything fails.

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

constexpr size_t kRecordBytes = 199;
constexpr size_t kChecksumBytes = 256;
constexpr size_t kBatchEvents = 500;
constexpr size_t kReadBytes = 256 * 1024;
constexpr uint64_t kMagic = 0xFEEDFACEAA55AA55ull;

enum class mode { literal, kept, write, batch };

/// What stands in front of a message on the wire.
struct preamble {
    uint64_t magic = kMagic;
    uint32_t header_word = 6 | 3u << 8;
    uint32_t third_party_and_channel = 0;
    uint32_t collect_time = 0;
    uint16_t reserved = 0;
    uint16_t length = 0;
};
static_assert(sizeof(preamble) == 24);

struct floor_state {
    mode how;
    int peer;
    std::string bookmark;
    int kept;
    uint64_t events = 0;
};

struct tailed_file {
    std::string path;
    int fd;
    size_t record;  ///< its place in the bookmark file
};

[[noreturn]] void die(const char *what) {
    perror(what);
    exit(1);
}

void must(bool good, const char *what) {
    if (!good) {
        die(what);
    }
}

void write_all(int fd, iovec *parts, size_t count) {
    while (count > 0) {
        const ssize_t sent = writev(fd, parts, static_cast<int>(count));
        must(sent > 0, "writev");
        size_t left = static_cast<size_t>(sent);
        while (count > 0 && left >= parts->iov_len) {
            left -= parts->iov_len;
            parts++;
            count--;
        }
        if (count > 0) {
            parts->iov_base = static_cast<char *>(parts->iov_base) + left;
            parts->iov_len -= left;
        }
    }
}

void update_bookmark(const floor_state &state, const tailed_file &file) {
    char block[kChecksumBytes];
    char record[kRecordBytes];
    struct stat status;
    must(pread(file.fd, block, sizeof block, 0) >= 0, "read of the head");
    must(stat(file.path.c_str(), &status) == 0, "stat");
    must(pread(file.fd, block, sizeof block, std::max<off_t>(0, status.st_size - 257)) >= 0,
         "read of the tail");
    const int fd = state.kept >= 0
                       ? state.kept
                       : open(state.bookmark.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    must(fd >= 0, "open of the bookmark");
    const off_t place = static_cast<off_t>(file.record * kRecordBytes);
    must(pread(fd, record, sizeof record, place) >= 0, "read of the bookmark");
    must(pwrite(fd, record, sizeof record, place) == sizeof record, "write of the bookmark");
    if (fd != state.kept) {
        close(fd);
    }
}

/// The segments of one event, in the form of the wire.
void add_event(preamble *head, const char *text, size_t length, iovec *parts) {
    head->collect_time = static_cast<uint32_t>(time(nullptr));
    head->length = static_cast<uint16_t>(length);
    char *bytes = reinterpret_cast<char *>(head);
    parts[0] = {bytes, 8};
    parts[1] = {bytes + 8, 8};
    parts[2] = {bytes + 16, 8};
    parts[3] = {const_cast<char *>(text), length};
}

void send_singly(floor_state *state, const tailed_file &file, const char *text, size_t length) {
    preamble head;
    iovec parts[4];
    add_event(&head, text, length, parts);
    write_all(state->peer, parts, 4);
    if (state->how != mode::write) {
        update_bookmark(*state, file);
    }
    state->events++;
}

class batch_sender {
  public:
    explicit batch_sender(floor_state *state) : state_(state), heads_(kBatchEvents) {}

    void add(const char *text, size_t length) {
        iovec parts[4];
        preamble *head = &heads_[count_];
        add_event(head, text, length, parts);
        segments_[2 * count_] = {head, sizeof *head};
        segments_[2 * count_ + 1] = parts[3];
        count_++;
    }
    bool full() const { return count_ == kBatchEvents; }
    void flush(const tailed_file &file) {
        if (count_ == 0) {
            return;
        }
        write_all(state_->peer, segments_, 2 * count_);
        update_bookmark(*state_, file);
        state_->events += count_;
        count_ = 0;
    }

  private:
    floor_state *state_;
    std::vector<preamble> heads_;
    iovec segments_[2 * kBatchEvents];
    size_t count_ = 0;
};

void send_file(floor_state *state, const tailed_file &file, batch_sender *batch) {
    static std::vector<char> buffer(kReadBytes);
    off_t position = 0;
    for (;;) {
        const ssize_t have = pread(file.fd, buffer.data(), buffer.size(), position);
        must(have >= 0, "read");
        const char *begin = buffer.data();
        const char *const end = begin + have;
        while (const void *mark = memchr(begin, '\n', static_cast<size_t>(end - begin))) {
            const char *next = static_cast<const char *>(mark) + 1;
            const size_t length = static_cast<size_t>(next - begin);
            if (state->how == mode::batch) {
                batch->add(begin, length);
                if (batch->full()) {
                    batch->flush(file);
                }
            } else {
                send_singly(state, file, begin, length);
            }
            begin = next;
        }
        batch->flush(file);
        if (begin == buffer.data()) {
            return;
        }
        position += begin - buffer.data();
    }
}

int connect_to(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<uint16_t>(port));
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    must(fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&peer), sizeof peer) == 0, "connect");
    return fd;
}

mode parse_mode(const char *word) {
    const char *const words[] = {"literal", "kept", "write", "batch"};
    for (size_t i = 0; i < std::size(words); i++) {
        if (strcmp(word, words[i]) == 0) {
            return static_cast<mode>(i);
        }
    }
    fprintf(stderr, "floor: unknown mode %s\n", word);
    exit(1);
}

void send_directory(floor_state *state, const char *directory) {
    batch_sender batch(state);
    DIR *listing = opendir(directory);
    must(listing, directory);
    size_t record = 0;
    while (const dirent *entry = readdir(listing)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        tailed_file file = {std::string(directory) + "/" + entry->d_name, -1, record++};
        file.fd = open(file.path.c_str(), O_RDONLY | O_CLOEXEC);
        must(file.fd >= 0, file.path.c_str());
        send_file(state, file, &batch);
        close(file.fd);
    }
    closedir(listing);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: floor PORT DIRECTORY BOOKMARK_FILE literal|kept|write|batch\n");
        return 1;
    }
    floor_state state = {parse_mode(argv[4]), connect_to(atoi(argv[1])), argv[3], -1};
    if (state.how == mode::kept) {
        state.kept = open(argv[3], O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        must(state.kept >= 0, argv[3]);
    }
    send_directory(&state, argv[2]);
    close(state.peer);
    printf("%llu\n", static_cast<unsigned long long>(state.events));
    return 0;
}
