#include "call_by_hand.h"

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

void require(bool holds) {
    if (!holds) {
        abort();
    }
}

// Returns false at the end of the stream.
bool receive(int fd, SystemCallDbusMsg* record) {
    return recv(fd, record, sizeof(*record), MSG_WAITALL) == static_cast<ssize_t>(sizeof(*record));
}

void transmit(int fd, const SystemCallDbusMsg& record) {
    require(send(fd, &record, sizeof(record), MSG_NOSIGNAL) ==
            static_cast<ssize_t>(sizeof(record)));
}

void* echo(void* argument) {
    const int fd = *static_cast<int*>(argument);
    SystemCallDbusMsg record;
    while (receive(fd, &record)) {
        transmit(fd, record);
    }
    return nullptr;
}

// A caller that waits for its reply. The record contains the address of this object.
struct Waiting {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    bool replied = false;
};

struct Job {
    int fd;
    pthread_mutex_t* sending;
    SystemCallDbusMsg record;
};

void* reply(void* argument) {
    Job* const job = static_cast<Job*>(argument);
    pthread_mutex_lock(job->sending);
    transmit(job->fd, job->record);
    pthread_mutex_unlock(job->sending);
    free(job);
    return nullptr;
}

}  // namespace

PingPong::PingPong() {
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends_) == 0);
    require(pthread_create(&echo_, nullptr, echo, &ends_[1]) == 0);
}

PingPong::~PingPong() {
    shutdown(ends_[0], SHUT_RDWR);
    pthread_join(echo_, nullptr);
    close(ends_[0]);
    close(ends_[1]);
}

void PingPong::call() {
    SystemCallDbusMsg record = {};
    transmit(ends_[0], record);
    require(receive(ends_[0], &record));
}

Relay::Relay() {
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends_) == 0);
    const auto serve = [](void* relay) -> void* {
        static_cast<Relay*>(relay)->read_calls();
        return nullptr;
    };
    const auto read = [](void* relay) -> void* {
        static_cast<Relay*>(relay)->read_replies();
        return nullptr;
    };
    require(pthread_create(&server_, nullptr, serve, this) == 0);
    require(pthread_create(&reader_, nullptr, read, this) == 0);
}

Relay::~Relay() {
    shutdown(ends_[0], SHUT_RDWR);
    pthread_join(server_, nullptr);
    pthread_join(reader_, nullptr);
    close(ends_[0]);
    close(ends_[1]);
}

void Relay::read_calls() {
    pthread_attr_t detached;
    pthread_attr_init(&detached);
    pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
    SystemCallDbusMsg record;
    while (receive(ends_[1], &record)) {
        Job* const job = static_cast<Job*>(malloc(sizeof(Job)));
        job->fd = ends_[1];
        job->sending = &sending_;
        job->record = record;
        pthread_t thread = {};
        require(pthread_create(&thread, &detached, reply, job) == 0);
    }
    pthread_attr_destroy(&detached);
}

void Relay::read_replies() {
    SystemCallDbusMsg record;
    while (receive(ends_[0], &record)) {
        Waiting* waiting = nullptr;
        memcpy(&waiting, record.data, sizeof(waiting));
        pthread_mutex_lock(&waiting->mutex);
        waiting->replied = true;
        pthread_cond_signal(&waiting->condition);
        pthread_mutex_unlock(&waiting->mutex);
    }
}

void Relay::call() {
    Waiting waiting;
    const Waiting* const address = &waiting;
    SystemCallDbusMsg record = {};
    memcpy(record.data, &address, sizeof(address));
    pthread_mutex_lock(&sending_);
    transmit(ends_[0], record);
    pthread_mutex_unlock(&sending_);
    pthread_mutex_lock(&waiting.mutex);
    while (!waiting.replied) {
        pthread_cond_wait(&waiting.condition, &waiting.mutex);
    }
    pthread_mutex_unlock(&waiting.mutex);
}
