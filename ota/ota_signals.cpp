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
// The first crash signal, 0 while there was none: what the signal thread is woken for.
std::atomic<int> g_crash{0};

void* signal_thread(void* /*argument*/) {
    const corvo::AlternateStack crashStack;
    const sigset_t waited = corvo::signal_set(WAITED_SIGNALS);
    while (true) {
        int signo = 0;
        if (sigwait(&waited, &signo) == 0) {
            const int crash = g_crash.load();
            sig_quit(crash != 0 ? crash : signo);
        }
    }
}

// For a thread that another library has started without blocking these signals.
void pass_on(int signo) {
    pthread_kill(g_signal_thread, signo);
}

// Runs on the thread that crashed, which may hold any lock, so all work is the signal thread's,
// which is woken by a signal that it waits for. It ends the process; if it cannot, because it needs
// a lock that this thread holds, or is itself the one that crashed, the reboot is asked for without
// locks.
void crash_handler(int signo) {
    if (pthread_equal(pthread_self(), g_signal_thread) == 0) {
        int none = 0;
        g_crash.compare_exchange_strong(none, signo);
        pthread_kill(g_signal_thread, SIGQUIT);
        constexpr timespec wait = {.tv_sec = OTA_REBOOT_LONGEST_MS / 1000, .tv_nsec = 0};
        nanosleep(&wait, nullptr);
    }
    system_call_reboot_unlocked();
    _exit(EXIT_SUCCESS);
}

// None of the waited signals may cut the wait of a crash short.
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
    // Blocked on this thread from now on, and on each that it starts: a system call of an upgrade
    // that is interrupted may leave a partition half written.
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
        install(signo, pass_on, SA_RESTART);
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
