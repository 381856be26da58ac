// The agent's decisions, as tables; these need no server and no camera.

#include "agent/action.h"
#include "agent/camera_state.h"
#include "agent/check_settings.h"
#include "agent/delay.h"
#include "agent/judge.h"
#include "base/open_without_links.h"
#include "session.h"

namespace {

bool g_oldKernel = false;

}  // namespace

extern "C" {
long __real_syscall(long number, ...);
long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
    if (g_oldKernel && number == SYS_openat2) {
        errno = ENOSYS;
        return -1;
    }
    return __real_syscall(number, a, b, c, d, e, f);
}
}

namespace {

// Returns the record whose bytes these digits are.
std::string record_of(std::string digits) {
    std::ranges::transform(digits, digits.begin(), [](char c) { return c - '0'; });
    return digits == std::string(1, '-' - '0') ? "" : digits;
}

TEST(Judgement, FollowsFromRecordSlotAndPackage) {
    expect_cases("agent_judgements.txt", [](std::istream& row) {
        std::string before, record, package;
        StateAfterRestart seen;
        row >> before >> record >> seen.slotBefore >> seen.slot >> package >> seen.attempts;
        seen.mismatch = rest_of(row);
        seen.partitionsRead = package != "gone-unread";
        seen.recordBefore = record_of(before);
        seen.record = record_of(record);
        seen.packageComplete = package == "there";
        std::string words;
        constexpr const char* JUDGEMENTS[] = {"success: ", "failure: ", "again: "};
        const Judgement judgement = judge(seen, words);
        return JUDGEMENTS[static_cast<size_t>(judgement)] + words;
    });
}

TEST(Settings, WrongOnesAreOneLineThatNamesThem) {
    expect_session("agent_settings.txt", "write_settings; ");
}

// Returns a value as in the configuration file; empty when it is not set.
std::string text_of(const Setting& setting) {
    AgentSettings settings;
    const SettingValue value = value_of(settings, setting.field);
    if (const auto* const isOn = std::get_if<bool*>(&value)) {
        return **isOn ? "on" : "off";
    }
    std::ostringstream text;
    const auto print = [&text](const auto* each) {
        if constexpr (requires { text << *each; }) {
            text << *each;
        }
    };
    std::visit(print, value);
    return text.str();
}

// The parts of the page and of the example that follow from the table of settings. Each is compared
// with the file; with CORVO_ACCEPT in the environment the file is rewritten.
TEST(Settings, AreOnThePageAndInTheExample) {
    std::string page = "| Setting | Default | |\n|---|---|---|\n", example;
    for (const Setting& setting : SETTING_ROWS) {
        const std::string name = setting.name, value = text_of(setting);
        page += "| `" + name + "` | " +
                (setting.missing != nullptr    ? "required"
                 : setting.standard != nullptr ? setting.standard
                 : value.empty()               ? "none"
                                               : "`" + value + "`") +
                " | " + setting.help + setting.details + " |\n";
        EXPECT_TRUE(!value.empty() || setting.example != nullptr) << name << ": no example";
        example +=
            setting.section == nullptr ? "" : std::string("\n# --- ") + setting.section + "\n";
        example += std::string("# ") + setting.help + "\n" +
                   (setting.missing != nullptr || setting.isUsual ? "" : "#") + name + " = " +
                   (setting.example != nullptr ? setting.example : value) + "\n";
    }
    const std::map<std::string, std::pair<std::string, std::string>> files = {
        {"docs/fleet.md", {"| Setting |", page}}, {"examples/agent.conf", {"\n# --- ", example}}};
    for (const auto& [name, part] : files) {
        const std::string path = std::string(TEXTS) + "../" + name, text = read_file(path);
        const size_t begin = text.find(part.first);
        const size_t end = name.ends_with(".md") ? text.find("\n\n", begin) + 1 : text.size();
        ASSERT_LT(begin, end) << name;
        if (getenv("CORVO_ACCEPT") != nullptr) {
            write_file(path, text.substr(0, begin) + part.second + text.substr(end));
        } else {
            EXPECT_EQ(part.second, text.substr(begin, end - begin))
                << "the table of settings.h has changed; CORVO_ACCEPT=1 rewrites " << name;
        }
    }
}

TEST(Times, AreThoseOfTheSettingsAndTheServer) {
    expect_cases("agent_times.txt", [](std::istream& row) {
        std::string what, text;
        row >> what;
        if (what == "window") {
            DayWindow window;
            int32_t hour = 0, minute = 0;
            row >> text >> hour >> minute;
            return std::string(!parse_window(text, window)             ? "none"
                               : is_inside(window, hour * 60 + minute) ? "inside"
                                                                       : "outside");
        }
        uint32_t sleepS = 0, failures = 0, retryAfterS = 0, random = 0;
        if (what.starts_with("first")) {
            uint64_t uptimeS = 0;
            row >> sleepS >> uptimeS >> random;
            return std::to_string(first_delay_ms(sleepS, uptimeS, what == "first-idle", random));
        }
        row >> sleepS >> failures >> retryAfterS >> random;
        if (what == "trial") {
            return std::to_string(trial_interval_s(sleepS));
        }
        return std::to_string(delay_ms(sleepS, failures, retryAfterS, what == "idle", random));
    });
}

// Returns the state of the camera as an agent of this user determines it.
std::string seen_by(uid_t user) {
    const pid_t agent = fork();
    if (agent == 0) {
        const bool changed = setresgid(user, user, user) == 0 && setresuid(user, user, user) == 0;
        _exit(!changed ? 3 : upgrade_has_begun() + (service_is_busy(0) ? 10 : 0));
    }
    int status = 0;
    waitpid(agent, &status, 0);
    return std::to_string(WEXITSTATUS(status));
}

// A pid file of another user, or a process of another user with the service's name, does not count
// as an upgrade.
TEST(Camera, SeesAnUpgradeInRootsOwnFileAndProcessOnly) {
    expect_cases("agent_camera.txt", [](std::istream& row) {
        const std::string said = run("camera; " + rest_of(row));
        return (said == "0" ? "" : said + " / ") + "root sees " + seen_by(0) + ", the agent " +
               seen_by(990);
    });
}

// Tested with openat2(), and with the code for kernels without it.
TEST(Folders, LinksAreNotFollowed) {
    ASSERT_EQ("0", run("mkdir -p /run/links/folder; cd /run/links; echo text > folder/file; "
                       "ln -s folder link; ln -s file folder/link"));
    for (const bool oldKernel : {false, true}) {
        g_oldKernel = oldKernel;
        expect_cases("agent_links.txt", [](std::istream& row) {
            const std::string path = rest_of(row);
            std::string text;
            for (const int flags : {O_RDONLY, O_PATH, O_RDONLY | O_DIRECTORY}) {
                const corvo::UniqueFd file(corvo::open_without_links(path.c_str(), flags));
                text += file.valid() ? " opened" : std::string(" ") + strerrorname_np(errno);
            }
            return text.substr(1);
        });
    }
}

// The program runs as root in folders that others may write: it must not change owner or mode of
// any other file or folder.
TEST(Prepare, ChangesNothingButWhatIsTheAgents) {
    expect_cases("agent_prepare.txt",
                 [](std::istream& row) { return run("prepare '" + rest_of(row) + "'").substr(4); });
}

}  // namespace
