// A simulated camera for the real service: partitions as files, a package, the outcome record, the
// request queue, and a daemon that records the commands that it receives.
#ifndef TESTS_SUPPORT_SIMULATED_CAMERA_H
#define TESTS_SUPPORT_SIMULATED_CAMERA_H

#include "base/unique_fd.h"
#include "faults.h"
#include "ota/ota_message.h"
#include "package/modules.h"
#include "simulated_daemon.h"
#include "test.h"

struct Outcome {
    bool ended = false;  // true: ended by itself with status 0; false: it was killed
    std::string text;    // standard output, unchanged
    // Its lines without time stamps, source line numbers and the lines of the LED's worker, whose
    // position is not fixed.
    std::vector<std::string> lines;
};

class Camera {
  public:
    static constexpr size_t PARTITION_SIZE = 96 * 1024;
    static inline const std::string PACKAGE_DIR = "/media/mmcblk0p1/";

    Camera();
    ~Camera();

    // Creates a daemon that runs no commands: each succeeds after `commandMs`, and the current slot
    // is A. Only one daemon may exist at a time.
    static std::unique_ptr<SimulatedDaemon> fake_daemon(int commandMs = 0);
    std::unique_ptr<SimulatedDaemon> daemon = fake_daemon();
    static std::vector<std::string> take_commands();  // the commands since the last call
    // Returns whether a command that begins with this text was received. Waits for at most
    // `patienceMs`, because the daemon may receive it only after the service has ended.
    static bool asked(const std::string& command, int patienceMs);

    static std::vector<std::string> partitions();

    static void clear();  // fills all partitions with "o"; removes record, package, auto-flash
    // Gives the camera two copies of the partitions that a slot starts, and starts slot A. Removed
    // by clear().
    static void make_two_copies();
    // Whether the copies of slot A have not been written to, and no name leads to them. True with
    // one copy.
    static bool running_copies_untouched();
    static std::string partition(const std::string& name);  // content of a partition

    // Returns a request for these module types.
    static OtaMessage request(int32_t packageType, const std::vector<uint32_t>& moduleTypes);
    // Posts `size` bytes of the request's text to the queue.
    static void post(const OtaMessage& message, size_t size = OTA_MSG_TEXT_SIZE);
    static int queue(int flags = 0);  // identifier of the queue; negative: there is no queue

    bool silent = false;  // start the service with standard output and error closed

    // Starts the service: the build with these faults, or the unmodified program.
    void start(const std::vector<Fault>& faults = {}, bool asDelivered = false);
    [[nodiscard]] pid_t pid() const { return pid_; }
    // Waits until the service has printed a line that contains the text.
    void wait_for(const std::string& text);
    // Waits at most 60 s for the end of the service.
    Outcome finish();

    // start(), post(), finish().
    Outcome run(const OtaMessage& message, const std::vector<Fault>& faults = {});

  private:
    [[nodiscard]] std::string console() const;  // output of the service so far

    pid_t pid_ = -1;
    corvo::UniqueFd output_;
};

#endif  // TESTS_SUPPORT_SIMULATED_CAMERA_H
