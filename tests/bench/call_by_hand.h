// What a method call is measured against. All of it aborts when the machine refuses a socket or a
// thread: there is no figure then.
#ifndef BENCH_CALL_BY_HAND_H
#define BENCH_CALL_BY_HAND_H

#include <pthread.h>

#include "dbus/dbus_socket_common.h"

// A record to and fro over a socket pair, a thread at each end.
class PingPong {
  public:
    PingPong();
    ~PingPong();
    PingPong(const PingPong&) = delete;
    PingPong& operator=(const PingPong&) = delete;

    void call();  // returns when the record is back

  private:
    int ends_[2];
    pthread_t echo_;
};

// The threads that a call by the transport passes through, and nothing else: a thread at the server
// reads, a new one per record replies; at the client one thread reads all replies and wakes the
// caller that waits for its own. Any number of threads may call.
class Relay {
  public:
    Relay();
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    void call();

    // For its threads only.
    void read_calls();
    void read_replies();

  private:
    int ends_[2];
    pthread_mutex_t sending_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_t server_;
    pthread_t reader_;
};

#endif  // BENCH_CALL_BY_HAND_H
