// The reaction of the service to signals. When a signal asks it to stop, or when it crashes, the
// service requests a reboot, because only a restart starts the upgrade service again.
//
//   SIGHUP, SIGINT, SIGTERM   request a reboot; the service continues until the camera restarts
//   SIGQUIT                   requests a reboot, then the process exits with status 0
//   SIGSEGV, SIGABRT          as SIGQUIT, whether sent or raised by a crash of the service
//   SIGPIPE                   ignored
#ifndef OTA_OTA_SIGNALS_H
#define OTA_OTA_SIGNALS_H

// Starts the thread that waits for the signals and runs sig_quit, and installs the signal handlers.
// Before this call every signal has its default effect. Call once, on the main thread, after
// system_call_init(). A thread needs a corvo::AlternateStack to be able to request the reboot after
// a stack overflow. If the signal thread cannot be started, logs that and leaves every signal
// except SIGPIPE as it was.
void ota_signals_start();

// Handles one signal: logs it, requests the reboot (blocks for at most OTA_REBOOT_LONGEST_MS) and,
// for SIGQUIT, SIGSEGV and SIGABRT, ends the process with _exit(0). Takes the locks of the output
// stream and of the transport, so it must be called on a separate thread, never from a signal
// handler.
void sig_quit(int signo);

#endif  // OTA_OTA_SIGNALS_H
