#include "filetail/reader.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "config/plugin_record.h"
#include "config/siem_config.h"
#include "core/execution.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"
#include "filetail/big_fix.h"
#include "filetail/bookmark.h"
#include "filetail/identity.h"
#include "filetail/owned_descriptor.h"
#include "filetail/reader_notes.h"
#include "filetail/reader_window.h"
#include "filetail/ruv.h"
#include "filetail/sight.h"
#include "filetail/tail_state.h"

namespace {

constexpr size_t kReadAheadBytes = 64 * 1024;
constexpr size_t kGroupReadAheadBytes = 512 * 1024;
/// A buffer that one long event made larger than this is given back after its file.
constexpr size_t kKeptBufferBytes = 1024 * 1024;

struct free_memory {
    void operator()(void *memory) const { free(memory); }
};
using owned_string = std::unique_ptr<char, free_memory>;

struct close_stream {
    void operator()(FILE *stream) const { fclose(stream); }
};

/// What a worker keeps from file to file.
struct reading_desk {
    std::wstring word;  ///< the delimiter word of `delim`
    bool compiled = false;
    delimiter_ptr delim;  ///< null when the word is no pattern
    read_window window;
    std::vector<group_event> group;
    reader_notes notes;
};
thread_local reading_desk desk;

/// One file being read.
struct reading {
    fdesc *file;
    plugin *p;
    int fd;
    std::unique_ptr<FILE, close_stream> stream;  ///< for the plugin's cutter only
    int handled;
    bool send_failed;
    bool rewritten;  ///< the file was written anew: only what is at hand of the old text is sent
};

/// An event as it will be sent.
struct prepared_event {
    const char *text;
    size_t length;
    bool wanted;         ///< false: nothing to send
    bool counts;         ///< false: nothing but NUL bytes
    owned_string owned;  ///< set when the plugin's cutter made the text
};

const delimiter *plugin_delimiter(const plugin *p) {
    const wchar_t *word = p->ft.ft_delim ? p->ft.ft_delim : L"";
    if (desk.compiled && desk.word == word) return desk.delim.get();
    const owned_string narrow(wstrtostr(word));
    std::string reason = "out of memory";
    desk.delim = narrow ? delimiter_compile(translate_delim(narrow.get()), &reason) : nullptr;
    desk.word = word;
    desk.compiled = true;
    if (!desk.delim) {
        logger(kLogError, "Error: invalid event delimiter %s : %s", narrow.get(), reason.c_str());
    }
    return desk.delim.get();
}

/// Opens a tailed file without ever waiting for it; -1 with errno set.
int open_tailed(const char *path) {
    int fd;
    do {
        fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

/// False for anything but a regular file, and for a file that has taken the name since the position
/// was verified: it would be read from the middle. The next scan decides where it begins.
bool is_readable_here(const struct stat &status, const file_sight &verified) {
    return S_ISREG(status.st_mode) && (verified.inode == 0 || (verified.inode == status.st_ino &&
                                                               verified.device == status.st_dev));
}

/// True when the head tells that the file was emptied and written anew, in place, since its
/// position was verified: what stands at the position is not what follows the events sent. A small
/// file's head changes whenever it grows; with its guard, its beginning is compared.
bool is_rewritten(int fd, const file_sight &verified, uint32_t head) {
    if (verified.inode == 0 || head == verified.head) return false;
    if (verified.size >= kHeadBytes) return true;
    return conf.small_file_guard == 1 && !begins_as_seen(fd, verified);
}

/// The same for a file that was opened just now; its head is read only when it has changed since.
bool is_rewritten_here(int fd, const struct stat &status, const file_sight &verified) {
    return (verified.size >= kHeadBytes || conf.small_file_guard == 1) &&
           !is_as_seen(verified, status) && is_rewritten(fd, verified, head_checksum(fd));
}

bool may_go_on() {
    return is_executing() && _connected.load(std::memory_order_relaxed) == 1;
}

/// Hands an event to the plugin's cutter, as a string of its own.
void call_cutter(reading *r, prepared_event *event) {
    if (!r->stream) {
        const int copy = fcntl(r->fd, F_DUPFD_CLOEXEC, 0);
        r->stream.reset(copy < 0 ? nullptr : fdopen(copy, "r"));
        if (!r->stream && copy >= 0) close(copy);
    }
    char *text = strndup(event->text, event->length);
    if (text == nullptr) return;
    int length = static_cast<int>(event->length);
    event->wanted = r->p->process_event(&text, &length, &r->p->process_event_data, r->file,
                                        r->stream.get()) != 0;
    event->owned.reset(text);
    event->text = text;
    event->length = length > 0 ? static_cast<size_t>(length) : strlen(text);
}

prepared_event prepare(reading *r, char *text, size_t length) {
    const size_t skip = leading_nuls(text, length);
    prepared_event event{text + skip, length - skip, length > skip, length > skip, nullptr};
    if (!event.counts) return event;
    clean_text(text + skip, length - skip);
    if (r->p->process_event != nullptr) call_cutter(r, &event);
    return event;
}

bool send_prepared(reading *r, const prepared_event &event) {
    if (!event.wanted) return true;
    if (log_enabled(kLogDebug)) {
        logger(kLogDebug, "Sending RUV data read from: %s:%.*s", tail_path(r->file),
               static_cast<int>(event.length), event.text);
    }
    return send_event(r->p, event.text, event.length) == 1;
}

/// Writes the bookmark of what was sent. When the file was emptied and written anew meanwhile, it
/// is begun anew, or its new beginning would never be sent; the old text at hand still goes first,
/// for it is nowhere else any more.
void save_position(reading *r, uint64_t stream_place) {
    if (r->rewritten) return;
    update_bookmark_at(r->fd, r->file, stream_place);
    if (!is_rewritten(r->fd, r->file->sight, r->file->h)) return;
    logger(kLogInfo, "Started reading file over cause the start of the file didn't match: %s",
           r->file->n);
    const uint64_t reached = std::exchange(r->file->l, 0);
    update_bookmark_at(r->fd, r->file, 0);
    r->file->l = reached;
    r->rewritten = true;
    desk.window.at_end = true;
}

/// Sends a batch event by event, the position and its bookmark always one event behind.
void deliver_each(reading *r, int count) {
    read_window &window = desk.window;
    char *batch = window_text(&window, r->file->l);
    uint64_t stream_place = window.read_to;
    for (int i = 0; i < count && may_go_on(); ++i) {
        const event_span span = window.events[i];
        const size_t length = span.end - span.begin;
        const prepared_event event = prepare(r, batch + span.begin, length);
        if (!send_prepared(r, event)) {
            r->send_failed = true;
            return;
        }
        r->file->l += length;
        if (event.counts) ++r->handled;
        save_position(r, stream_place);
        stream_place = r->file->l;
    }
}

/// The state of the plugin's cutter, to be put back when its events must be read again.
class cutter_state {
  public:
    explicit cutter_state(plugin *p)
        : p_(p->process_event == big_fix_process_event ? p : nullptr),
          saved_(p_ ? big_fix_copy_state(p_->process_event_data) : nullptr) {}
    ~cutter_state() { big_fix_teardown_event(&saved_); }
    cutter_state(const cutter_state &) = delete;
    cutter_state &operator=(const cutter_state &) = delete;

    void put_back() {
        if (p_ != nullptr) std::swap(p_->process_event_data, saved_);
    }

  private:
    plugin *p_;
    void *saved_;
};

/// Sends a batch as one group; the position and its bookmark move once it is confirmed. Returns
/// false when this connection cannot confirm and nothing was done.
bool deliver_group(reading *r, int count) {
    read_window &window = desk.window;
    char *batch = window_text(&window, r->file->l);
    cutter_state before(r->p);
    std::vector<owned_string> texts;
    int counted = 0;
    desk.group.clear();
    for (int i = 0; i < count; ++i) {
        const event_span span = window.events[i];
        prepared_event event = prepare(r, batch + span.begin, span.end - span.begin);
        counted += event.counts;
        if (!event.wanted) continue;
        desk.group.push_back({event.text, event.length});
        if (event.owned) texts.push_back(std::move(event.owned));
    }
    const int size = static_cast<int>(desk.group.size());
    const int sent = size == 0 ? 1 : send_group(r->p, desk.group.data(), size);
    if (sent != 1) {
        before.put_back();
        r->send_failed = sent == 0;
        return sent == 0;
    }
    r->file->l += window.events[count - 1].end;
    r->handled += counted;
    save_position(r, window.read_to);
    return true;
}

/// Cuts and delivers the next batch. Returns false when there is none.
bool next_batch(reading *r, const delimiter *delim) {
    const int group = ruv_group_limit();
    const batch_request one_by_one{delim, r->p->ft.ft_delim_end, r->file->l,  kFirstBufferBytes,
                                   false, kReadAheadBytes,       kBatchEvents};
    const batch_request grouped{delim, r->p->ft.ft_delim_end, r->file->l, kReadAheadBytes,
                                true,  kGroupReadAheadBytes,  group};
    int count = read_batch(&desk.window, r->fd, group > 0 ? grouped : one_by_one);
    if (count == 0 && desk.window.error == 0 && r->file->final) {
        count = take_rest(&desk.window, r->file->l);
    }
    if (count < 1) return false;
    if (group > 0 && deliver_group(r, count)) return true;
    deliver_each(r, count);
    if (group > 0) forget_text(&desk.window);  // it was prepared twice, and perhaps not all sent
    return true;
}

void complain(const char *path, int error) {
    if (!may_complain(&desk.notes, path)) return;
    logger(kLogError, "Error: Reading file %s : (%d)%s", path, error, strerror(error));
}

/// There is no further batch: the file's end, or trouble. What is left of a renamed file must not
/// be taken for sent on account of trouble that passes.
void end_reading(fdesc *file) {
    const read_window &window = desk.window;
    file->failed = file->drain != nullptr && (window.failure != 0 || window.error != 0);
    file->at_end = !file->failed;
    if (file->failed && window.failure != 0) complain(file->drain, window.failure);
}

void read_batches(reading *r, const delimiter *delim, int throttle) {
    while (may_go_on() && (r->handled < throttle || r->rewritten)) {
        if (!next_batch(r, delim)) {
            end_reading(r->file);
            return;
        }
        if (!r->send_failed) continue;
        // The batch's text was changed while it was prepared: it must be read again.
        forget_text(&desk.window);
        if (r->rewritten) return;
        r->send_failed = false;
        ruv_pause_after_failure();
    }
}

void read_open_file(reading *r, const delimiter *delim, int throttle) {
    struct stat status;
    if (fstat(r->fd, &status) != 0 || !is_readable_here(status, r->file->sight) ||
        is_rewritten_here(r->fd, status, r->file->sight)) {
        return;
    }
    r->file->at_end = 1;
    if (!r->file->final && is_dry(desk.notes, status, r->file->l)) return;
    r->file->at_end = 0;
    forget_text(&desk.window);
    read_batches(r, delim, throttle);
    const size_t unfinished = bytes_at_hand(desk.window, r->file->l);
    if (r->file->at_end && (desk.window.error != 0 || unfinished >= kDryBytes)) {
        note_dry(&desk.notes, status, r->file->l);
    }
    if (r->rewritten) {
        r->file->l = 0;
        r->file->at_end = 0;
    }
    if (desk.window.room > kKeptBufferBytes) desk.window = read_window();
}

}  // namespace

read_outcome read_file(fdesc *file, int throttle) {
    if (file->moved) return {0, false};  // where it begins is not known yet
    plugin *p = file->p->p;
    const delimiter *delim = plugin_delimiter(p);
    const owned_descriptor fd(open_tailed(tail_path(file)));
    if (fd.get() < 0) {
        complain(tail_path(file), errno);
        file->failed = file->drain != nullptr;
        return {0, true};
    }
    file->failed = 0;
    reading r{file, p, fd.get(), nullptr, 0, false, false};
    if (delim != nullptr) read_open_file(&r, delim, throttle);
    return {r.handled, false};
}

int read_events(fdesc *cur_bm, int throttle) {
    const read_outcome outcome = read_file(cur_bm, throttle);
    return outcome.unreadable ? 1 : outcome.handled;
}
