#include "tests/config/fake_tailer.h"

#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "config/plugin_record.h"
#include "core/execution.h"
#include "core/utils.h"
#include "filetail/big_fix.h"
#include "filetail/discovery.h"
#include "filetail/filetail.h"
#include "ruv/ruvlib.h"

namespace {

std::mutex events_lock;
std::vector<std::string> events;
std::string started_with;
bool start_workers = true;

void note(const std::string &event) {
    std::lock_guard<std::mutex> guard(events_lock);
    events.push_back(event);
}

fdesc *new_file(const char *name) {
    auto *file = static_cast<fdesc *>(calloc(1, sizeof(fdesc)));
    file->n = strdup(name);
    return file;
}

}  // namespace

std::vector<std::string> fake_events() {
    std::lock_guard<std::mutex> guard(events_lock);
    return events;
}

std::string fake_started_with() {
    std::lock_guard<std::mutex> guard(events_lock);
    return started_with;
}

void fake_reset(bool starts) {
    std::lock_guard<std::mutex> guard(events_lock);
    started_with.clear();
    events.clear();
    start_workers = starts;
}

void *process(void *) {
    for (int go_on = wait_until_resumed(); go_on; go_on = wait_while_executing(1000)) {
    }
    note("worker ends");
    return nullptr;
}

int ft_init(plugin *p, const wchar_t *bm_dir, int8_t connected) {
    char *directory = wstrtostr(p->ft.ft_dir);
    char *bookmarks = wstrtostr(bm_dir);
    note(std::string("init ") + directory);
    if (strcmp(directory, "/stops/") == 0) stop_execution();
    started_with = std::string(bookmarks ? bookmarks : "") + " " + std::to_string(connected);
    free(directory);
    free(bookmarks);
    p->data = malloc(1);
    p->ft.bm = static_cast<ft_bm **>(calloc(1, sizeof(ft_bm *)));
    p->ft.bm[0] = static_cast<ft_bm *>(calloc(1, sizeof(ft_bm)));
    p->bm_count = 1;
    ft_bm *group = p->ft.bm[0];
    group->p = p;
    group->f = static_cast<fdesc **>(calloc(2, sizeof(fdesc *)));
    group->f[0] = new_file("/logs/a.log");
    group->f[1] = new_file("/logs/b.log");
    group->fc = 2;
    if (!start_workers) return 1;
    group->t = static_cast<pthread_t *>(malloc(sizeof(pthread_t)));
    return pthread_create(group->t, nullptr, process, group);
}

void free_tail_group(ft_bm *group) {
    note("free group");
    for (int i = 0; i < group->fc; ++i) {
        free(group->f[i]->n);
        free(group->f[i]);
    }
    free(group->f);
    free(group->t);
    free(group);
}

int big_fix_process_event(char **, int *, void **, fdesc *, FILE *) {
    return 1;
}

void big_fix_teardown_event(void **event_data) {
    note("teardown cutter");
    free(*event_data);
    *event_data = nullptr;
}

struct RUVDSInfo {
    std::string id;
};

RUVDSInfo *RUVAllocDSInfo(int type, const void *data) {
    const std::string id = static_cast<const char *>(data);
    note("source " + std::to_string(type) + " " + id);
    return new RUVDSInfo{id};
}

void RUVFreeDSInfo(RUVDSInfo *ds) {
    note("free source " + ds->id);
    delete ds;
}

void RUVFreeData(void *record) {
    note("free record");
    free(record);
}
