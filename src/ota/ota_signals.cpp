#include "ota/ota_signals.h"

#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "base/alternate_stack.h"
#include "base/signal_set.h"
#include "dbus/system_call.h"
#include "log/log_front_end.h"
#include "ota_reboot.h"

namespace {

constexpr int WAITED_SIGNALS[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};
constexpr int CRASH_SIGNALS[] = {SIGSEGV, SIGABRT};

pthread_t g_signal_thread;
// The first crash signal, or 0 before any crash. The signal thread reads it when it wakes up.
std::atomic<int> g_crash_signal{0};

void* signal_thread(void* /*argument*/) {
    const corvo::AlternateStack crashStack;
    const sigset_t waited = corvo::signal_set(WAITED_SIGNALS);
    while (true) {
        int signo = 0;
        if (sigwait(&waited, &signo) == 0) {
            const int crash = g_crash_signal.load();
            sig_quit(crash != 0 ? crash : signo);
        }
    }
}

// Forwards a signal to the signal thread. Only runs on threads that a library has started without
// blocking these signals; all threads of the service block them.
void forward_signal(int signo) {
    pthread_kill(g_signal_thread, signo);
}

// Runs on the thread that crashed. That thread may hold any lock, so this handler wakes the signal
// thread with a signal that it waits for, and the signal thread requests the reboot and ends the
// process. If the signal thread is blocked by a lock of the crashed thread, or has itself crashed,
// this handler requests the reboot without taking locks.
void crash_handler(int signo) {
    if (pthread_equal(pthread_self(), g_signal_thread) == 0) {
        int noCrash = 0;
        g_crash_signal.compare_exchange_strong(noCrash, signo);
        pthread_kill(g_signal_thread, SIGQUIT);
        constexpr timespec wait = {.tv_sec = OTA_REBOOT_LONGEST_MS / 1000, .tv_nsec = 0};
        nanosleep(&wait, nullptr);
    }
    system_call_reboot_unlocked();
    _exit(EXIT_SUCCESS);
}

// The handler runs with the waited signals blocked, so that none of them interrupts the wait in
// crash_handler().
void install(int signo, void (*handler)(int), int flags) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    action.sa_mask = corvo::signal_set(WAITED_SIGNALS);
    sigaction(signo, &action, nullptr);
}

}  // namespace

void ota_signals_start() {
    signal(SIGPIPE, SIG_IGN);
    // Block these signals on this thread and on every thread that it starts: a signal that
    // interrupts a system call during an upgrade may leave a partition half written.
    const sigset_t waited = corvo::signal_set(WAITED_SIGNALS);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &waited, &before);
    const int started = pthread_create(&g_signal_thread, nullptr, signal_thread, nullptr);
    if (started != 0) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        UPGRADE_LOG("signal thread not started: %s", strerror(started));
        return;
    }
    pthread_detach(g_signal_thread);
    for (const int signo : WAITED_SIGNALS) {
        install(signo, forward_signal, SA_RESTART);
    }
    for (const int signo : CRASH_SIGNALS) {
        install(signo, crash_handler, SA_ONSTACK);
    }
}

void sig_quit(int signo) {
    UPGRADE_LOG("sig_handler, arg = %d", signo);
    if (signo == SIGINT || signo == SIGTERM || signo == SIGQUIT) {
        UPGRADE_LOG("program exit:%d\n\n\n\n", signo);
    }
    ota_reboot();
    if (signo == SIGQUIT || signo == SIGSEGV || signo == SIGABRT) {
        _exit(EXIT_SUCCESS);
    }
}
