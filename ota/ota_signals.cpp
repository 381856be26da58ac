#include "ota/ota_signals.h"

#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "dbus/system_call.h"
#include "log/log_front_end.h"
#include "ota_reboot.h"

namespace {

constexpr int WAITED_SIGNALS[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};
constexpr int CRASH_SIGNALS[] = {SIGSEGV, SIGABRT};

// A little over the time that sig_quit may take on the signal thread.
constexpr time_t CRASH_WAIT_S = OTA_REBOOT_TIMEOUT_MS / 1000 + 2;
constexpr size_t CRASH_STACK_SIZE = 64 * 1024;  // bytes

pthread_t g_signal_thread;
// For a crash of the main thread by stack overflow; the other threads' stacks hold a few records.
alignas(16) char g_crash_stack[CRASH_STACK_SIZE];

void add_all(sigset_t* set, const int* first, const int* last) {
    std::for_each(first, last, [set](int signo) { sigaddset(set, signo); });
}

sigset_t set_of(bool waited, bool crash) {
    sigset_t set;
    sigemptyset(&set);
    if (waited) {
        add_all(&set, std::begin(WAITED_SIGNALS), std::end(WAITED_SIGNALS));
    }
    if (crash) {
        add_all(&set, std::begin(CRASH_SIGNALS), std::end(CRASH_SIGNALS));
    }
    return set;
}

void* signal_thread(void* /*argument*/) {
    const sigset_t all = set_of(true, true);
    while (true) {
        int signo = 0;
        if (sigwait(&all, &signo) == 0) {
            sig_quit(signo);
        }
    }
}

// Runs on the thread that crashed, which may hold any lock, so all work is the signal thread's: it
// has the crash signals blocked and waits for them. It ends the process; if it cannot, because it
// needs a lock that this thread holds, the reboot is asked for without locks.
void crash_handler(int signo) {
    pthread_kill(g_signal_thread, signo);
    const timespec wait = {.tv_sec = CRASH_WAIT_S, .tv_nsec = 0};
    nanosleep(&wait, nullptr);
    system_call_reboot_unlocked();
    _exit(EXIT_SUCCESS);
}

void install_crash_handler() {
    const stack_t stack = {.ss_sp = g_crash_stack, .ss_flags = 0, .ss_size = sizeof(g_crash_stack)};
    sigaltstack(&stack, nullptr);
    struct sigaction action = {};
    action.sa_handler = crash_handler;
    action.sa_flags = SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (const int signo : CRASH_SIGNALS) {
        sigaction(signo, &action, nullptr);
    }
}

}  // namespace

void ota_signals_block() {
    const sigset_t waited = set_of(true, false);
    pthread_sigmask(SIG_BLOCK, &waited, nullptr);
}

void ota_signals_start() {
    signal(SIGPIPE, SIG_IGN);
    // The signal thread is born with the crash signals blocked; everywhere else they must stay
    // open, for a blocked fault ends the process on the spot.
    const sigset_t crash = set_of(false, true);
    pthread_sigmask(SIG_BLOCK, &crash, nullptr);
    const int started = pthread_create(&g_signal_thread, nullptr, signal_thread, nullptr);
    if (started == 0) {
        pthread_detach(g_signal_thread);
        install_crash_handler();
    } else {
        UPGRADE_LOG("signal thread not started: %s", strerror(started));
    }
    pthread_sigmask(SIG_UNBLOCK, &crash, nullptr);
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
