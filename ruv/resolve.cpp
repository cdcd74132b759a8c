#include "ruv/resolve.h"

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "ruv/wait.h"

namespace ruv {
namespace {

// One question, shared by who asks and who waits; whichever leaves last frees it.
struct question {
    pthread_mutex_t guard;
    pthread_cond_t answered;
    bool done;       ///< guarded: `code` and `list` are there
    bool abandoned;  ///< guarded: nobody waits any more
    int code;
    addrinfo *list;
    addrinfo hints;
    char *host;
};

void free_question(question *q) {
    if (q->list) freeaddrinfo(q->list);
    pthread_cond_destroy(&q->answered);
    pthread_mutex_destroy(&q->guard);
    free(q->host);
    free(q);
}

void *ask(void *arg) {
    auto *q = static_cast<question *>(arg);
    addrinfo *list = nullptr;
    const int code = os.resolve(q->host, nullptr, &q->hints, &list);
    pthread_mutex_lock(&q->guard);
    q->code = code;
    q->list = code == 0 ? list : nullptr;
    q->done = true;
    const bool abandoned = q->abandoned;
    pthread_cond_signal(&q->answered);
    pthread_mutex_unlock(&q->guard);
    if (abandoned) free_question(q);
    return nullptr;
}

// The process's signals are for the threads that it knows of.
bool start_quiet_thread(question *q) {
    sigset_t all, before;
    sigfillset(&all);
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) return false;
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread;
    const int result = pthread_create(&thread, &attributes, ask, q);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    return result == 0;
}

question *begin_question(const char *host, const addrinfo &hints) {
    auto *q = static_cast<question *>(calloc(1, sizeof(question)));
    if (!q) return nullptr;
    pthread_mutex_init(&q->guard, nullptr);
    pthread_cond_init(&q->answered, nullptr);
    q->hints = hints;
    q->host = strdup(host);
    if (q->host && start_quiet_thread(q)) return q;
    free_question(q);
    return nullptr;
}

// Waits for a slice; the caller holds the guard.
void wait_slice(question *q) {
    timespec end = {};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_nsec += kSliceMs * 1'000'000L;
    end.tv_sec += end.tv_nsec / 1'000'000'000;
    end.tv_nsec %= 1'000'000'000;
    pthread_cond_clockwait(&q->answered, &q->guard, CLOCK_MONOTONIC, &end);
}

// True with the answer in `q`, which is the caller's then; false when interrupted.
bool wait_for_answer(const RUVConn *conn, question *q) {
    pthread_mutex_lock(&q->guard);
    while (!q->done) {
        wait_slice(q);
        if (q->done) break;
        pthread_mutex_unlock(&q->guard);
        const bool stop = stop_requested(conn);
        pthread_mutex_lock(&q->guard);
        if (!stop || q->done) continue;
        q->abandoned = true;
        break;
    }
    const bool answered = q->done;
    pthread_mutex_unlock(&q->guard);
    return answered;
}

}  // namespace

bool resolve(const RUVConn *conn, const addrinfo &hints, int *code, addrinfo **list) {
    question *q = conn->stopping ? begin_question(conn->host, hints) : nullptr;
    if (!q) {
        *code = os.resolve(conn->host, nullptr, &hints, list);
        return true;
    }
    if (!wait_for_answer(conn, q)) return false;
    *code = q->code;
    *list = q->list;
    q->list = nullptr;
    free_question(q);
    return true;
}

}  // namespace ruv
