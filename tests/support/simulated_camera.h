// A camera around the real service program: partitions as files, a package, the outcome record, the
// request queue and a daemon that notes the commands it is asked to run.
#ifndef TESTS_SUPPORT_SIMULATED_CAMERA_H
#define TESTS_SUPPORT_SIMULATED_CAMERA_H

#include <sys/types.h>

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "faults.h"
#include "ota/ota_message.h"
#include "ota/ota_package.h"
#include "simulated_daemon.h"

struct Outcome {
    bool ended = false;  // by itself with status 0; else it was killed
    std::string text;    // standard output, as it came
    // Its lines without time stamps, source line numbers and the LED worker's lines, whose place
    // among the others is open.
    std::vector<std::string> lines;
};

class Camera {
  public:
    static constexpr size_t PARTITION_SIZE = 96 * 1024;
    static inline const std::string PACKAGE_DIR = "/media/mmcblk0p1/";

    Camera();
    ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    // Succeeds in whatever it is asked to run, without running it, after so many milliseconds; slot
    // A is up. One at a time.
    static std::unique_ptr<SimulatedDaemon> fake_daemon(int commandMs = 0);
    std::unique_ptr<SimulatedDaemon> daemon = fake_daemon();
    static std::vector<std::string> take_commands();  // what it was asked for since the last time
    // Whether one that begins so is among them. The daemon may come to it only when the service, in
    // a hurry, is gone: so many milliseconds later at the most.
    static bool asked(const std::string& command, int patienceMs);

    // The rows of the package table, and their partitions and those of others.
    static std::span<const OtaPackageEntry> rows();
    static std::vector<std::string> partitions();

    static void clear();  // all partitions full of "o", no record, no package, no auto-flash
    static std::string partition(const std::string& name);  // its content

    // A request for these package module types.
    static OtaMessage request(int32_t packageType, const std::vector<uint32_t>& moduleTypes);
    // Puts `size` bytes of the request's text on the queue.
    static void post(const OtaMessage& message, size_t size = OTA_MSG_TEXT_SIZE);
    static int queue(int flags = 0);  // its identifier; negative: there is none

    bool silent = false;  // the service starts without standard output and error

    // Starts the service, with these faults behind its calls or as it is delivered.
    void start(const std::vector<Fault>& faults = {}, bool asDelivered = false);
    [[nodiscard]] pid_t pid() const { return pid_; }
    // Waits until the service has printed a line that contains this.
    void wait_for(const std::string& text);
    // Waits for its end, 60 s at the most.
    Outcome finish();

    // start(), post(), finish().
    Outcome run(const OtaMessage& message, const std::vector<Fault>& faults = {});

  private:
    [[nodiscard]] std::string console() const;  // what the service has printed

    pid_t pid_ = -1;
    corvo::UniqueFd output_;
};

#endif  // TESTS_SUPPORT_SIMULATED_CAMERA_H
