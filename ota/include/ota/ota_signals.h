// What the service does when it is told to stop or crashes: it asks for a reboot, since a camera
// whose upgrade service is gone can only be brought back by a restart.
//
//   SIGHUP, SIGINT, SIGTERM   reboot asked, the service goes on until it comes
//   SIGQUIT                   reboot asked, then the process ends with 0
//   SIGSEGV, SIGABRT          the same, also for a crash of the service itself
//   SIGPIPE                   ignored
#ifndef OTA_OTA_SIGNALS_H
#define OTA_OTA_SIGNALS_H

// Starts the thread that waits for the signals and runs sig_quit, and installs the handlers; until
// then every signal does what it does to any process. Call once, on the main thread, when the
// system-call client has been initialised. A thread that is to survive the use-up of its stack long
// enough for the reboot needs a corvo::AlternateStack. When the signal thread cannot be started, it
// says so and every signal but SIGPIPE stays as it was.
void ota_signals_start();

// The reaction to one signal: logs, asks for the reboot (OTA_REBOOT_LONGEST_MS at the most) and,
// for SIGQUIT, SIGSEGV and SIGABRT, ends the process with _exit(0). Takes the locks of the output
// stream and of the transport, so it runs on a thread of its own, never as a signal handler.
void sig_quit(int signo);

#endif  // OTA_OTA_SIGNALS_H
