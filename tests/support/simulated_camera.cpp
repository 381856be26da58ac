#include "simulated_camera.h"

#include "files.h"

namespace {

const std::string BLOCK_DEVICES = "/dev/block/";
const std::string NAMES = BLOCK_DEVICES + "by-name/";
const std::string RUNNING = BLOCK_DEVICES + "running/";

std::mutex g_mutex;
std::vector<std::string> g_commands;

std::atomic<int> g_command_ms{0};

// Notes the command and returns "A": as a status this is 0, as output it is the boot slot.
int32_t note(const void* command, uint32_t length, void* out, uint32_t outSize) {
    {
        const std::lock_guard<std::mutex> lock(g_mutex);
        g_commands.emplace_back(static_cast<const char*>(command), length);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(g_command_ms));
    return snprintf(static_cast<char*>(out), outSize, "A\n");
}

// The LED's worker may print in the middle of another thread's line: the text before it is kept.
std::vector<std::string> comparable(const std::string& text) {
    return lines_of(
        replaced(replaced(without_source_lines(text), R"(hal error \w+,#,HAL_LED[^\n]*\n\n?)", ""),
                 R"((^|\n)\d{10}\.\d{3};)", "$1;"));
}

}  // namespace

std::unique_ptr<SimulatedDaemon> Camera::fake_daemon(int commandMs) {
    take_commands();
    g_command_ms = commandMs;
    return std::make_unique<SimulatedDaemon>(note, note);
}

std::vector<std::string> Camera::take_commands() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return std::exchange(g_commands, {});
}

bool Camera::asked(const std::string& command, int patienceMs) {
    return eventually(patienceMs, [&command] {
        return std::ranges::any_of(take_commands(), [&command](const std::string& each) {
            return each.starts_with(command);
        });
    });
}

Camera::Camera() {
    clear();
}

std::vector<std::string> Camera::partitions() {
    std::vector<std::string> names = {"nv_factory", "misc"};
    for (const OtaPackageEntry& row : package_entries()) {
        names.emplace_back(row.partitionName);
    }
    return names;
}

void Camera::make_two_copies() {
    // Starting the script again would take longer than many an upgrade.
    constexpr char RESULT_OF_THE_SCRIPT[] = "/tmp/two_copies";
    constexpr auto WITH_LINKS =
        std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks;
    if (!std::filesystem::exists(RESULT_OF_THE_SCRIPT)) {
        ASSERT_EQ(0, system("sh " TEXTS "support/two_copies.sh A dtb kernel rootfs system"));
        std::filesystem::copy(BLOCK_DEVICES, RESULT_OF_THE_SCRIPT, WITH_LINKS);
    }
    std::filesystem::remove_all(BLOCK_DEVICES);
    std::filesystem::copy(RESULT_OF_THE_SCRIPT, BLOCK_DEVICES, WITH_LINKS);
}

bool Camera::running_copies_untouched() {
    return !std::filesystem::exists(RUNNING) ||
           std::ranges::all_of(std::filesystem::directory_iterator(RUNNING), [](const auto& link) {
               const std::string name = link.path().filename();
               return read_file(link.path()) == std::string(PARTITION_SIZE, 'o') &&
                      std::filesystem::canonical(link.path()) == NAMES + name + "_a" &&
                      std::filesystem::canonical(NAMES + name) == NAMES + name + "_b";
           });
}

void Camera::clear() {
    std::filesystem::remove_all(RUNNING);
    std::filesystem::remove_all(NAMES);
    for (const std::string& name : partitions()) {
        write_file(NAMES + name, std::string(PARTITION_SIZE, 'o'));
    }
    remove("/config/ota_data.dat");
    remove("/tmp/autoflash");
    for (const auto& file : std::filesystem::directory_iterator(PACKAGE_DIR)) {
        remove(file.path().c_str());
    }
}

Camera::~Camera() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    msgctl(queue(0), IPC_RMID, nullptr);
}

std::string Camera::partition(const std::string& name) {
    return read_file(NAMES + name);
}

OtaMessage Camera::request(int32_t packageType, const std::vector<uint32_t>& moduleTypes) {
    OtaMessage message = {};
    message.mtype = 7;
    message.packageType = packageType;
    snprintf(message.packageDir, sizeof(message.packageDir), "%s", PACKAGE_DIR.c_str());
    snprintf(message.packageFile, sizeof(message.packageFile), "all.pkg");
    message.moduleCount = static_cast<int32_t>(moduleTypes.size());
    for (size_t i = 0; i < moduleTypes.size() && i < OTA_MSG_MAX_MODULES; ++i) {
        message.moduleTypes[i] = moduleTypes[i];
    }
    return message;
}

void Camera::post(const OtaMessage& message, size_t size) {
    OtaQueueMessage queued = {};
    queued.mtype = message.mtype;
    memcpy(queued.text, reinterpret_cast<const char*>(&message) + sizeof(message.mtype),
           sizeof(queued.text));
    ASSERT_EQ(msgsnd(queue(IPC_CREAT), &queued, size, 0), 0) << strerror(errno);
}

int Camera::queue(int flags) {
    return msgget(ftok(OTA_MSG_QUEUE_PATH, OTA_MSG_QUEUE_PROJECT), flags | OTA_MSG_QUEUE_MODE);
}

void Camera::start(const std::vector<Fault>& faults, bool asDelivered) {
    std::ostringstream text;
    for (const Fault& fault : faults) {
        text << fault.call << ":" << fault.ordinal << ":" << fault.effect << ":" << fault.count
             << " ";
    }
    const char* const program = asDelivered ? SERVICE_PROGRAM : SERVICE_WITH_FAULTS;
    output_.reset(memfd_create("console", MFD_CLOEXEC));
    pid_ = fork();
    if (pid_ == 0) {
        setenv(FAULTS_VARIABLE, text.str().c_str(), 1);
        // The service ends without joining its threads, which is no leak.
        setenv("TSAN_OPTIONS", "report_thread_leaks=0", 0);
        silent ? close(STDOUT_FILENO) + close(STDERR_FILENO) : dup2(output_.get(), STDOUT_FILENO);
        if (getenv("CORVO_VALGRIND") != nullptr) {
            execlp("valgrind", "valgrind", "--quiet", "--error-exitcode=99", "--leak-check=full",
                   "--errors-for-leak-kinds=definite", "--show-leak-kinds=definite", program,
                   nullptr);
        }
        execl(program, program, nullptr);
        _exit(127);
    }
}

std::string Camera::console() const {
    return read_file("/proc/self/fd/" + std::to_string(output_.get()));
}

void Camera::wait_for(const std::string& text) {
    ASSERT_TRUE(eventually(15000, [&] { return contains(console(), text); })) << text;
}

Outcome Camera::finish() {
    Outcome outcome;
    int status = 0;
    pid_t ended = 0;
    EXPECT_TRUE(eventually(60000, [&] { return (ended = waitpid(pid_, &status, WNOHANG)) != 0; }))
        << "the service hangs";
    pid_ = ended != 0 ? -1 : pid_;
    outcome.ended = ended > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    EXPECT_TRUE(outcome.ended || !WIFEXITED(status)) << "exit status " << WEXITSTATUS(status);
    outcome.text = console();
    outcome.lines = comparable(outcome.text);
    return outcome;
}

Outcome Camera::run(const OtaMessage& message, const std::vector<Fault>& faults) {
    start(faults);
    post(message);
    return finish();
}
