// Baselines for a method call. All functions abort if a socket or a thread cannot be created: then
// there is no figure.
#ifndef BENCH_CALL_BY_HAND_H
#define BENCH_CALL_BY_HAND_H

#include <pthread.h>

#include "dbus/dbus_socket_common.h"

// Sends a record over a socket pair and back, with a thread at each end.
class PingPong {
  public:
    PingPong();
    ~PingPong();
    PingPong(const PingPong&) = delete;
    PingPong& operator=(const PingPong&) = delete;

    void call();  // returns when the record has come back

  private:
    int ends_[2];
    pthread_t echo_;
};

// Only the threads through which a call of the transport passes: at the server one thread reads
// records and starts a new thread for each reply; at the client one thread reads all replies and
// wakes the caller of each. Any number of threads may use call() at the same time.
class Relay {
  public:
    Relay();
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    void call();

    // Called only by the threads of this object.
    void read_calls();
    void read_replies();

  private:
    int ends_[2];
    pthread_mutex_t sending_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_t server_;
    pthread_t reader_;
};

#endif  // BENCH_CALL_BY_HAND_H
