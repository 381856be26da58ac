#include "agent/publish.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "agent/json_text.h"
#include "base/replace_file.h"

namespace {

constexpr char RUN_FOLDER[] = "/run/corvo-agent/";
constexpr char RUN_FILE_NEW[] = "/run/corvo-agent/status.json.new";
constexpr mode_t RUN_FOLDER_MODE = 0755;
constexpr mode_t RUN_FILE_MODE = 0644;  // all users may read it; only its owner may write it

}  // namespace

void publish_status(const Agent& agent, const AgentStatus& lastPoll) {
    Json json = {{"pid", getpid()},
                 {"poll",
                  {{"time", time(nullptr)},
                   {"result", static_cast<int32_t>(lastPoll.result)},
                   {"trouble", lastPoll.text}}},
                 {"waits",
                  {{"id", agent.waiting.id},
                   {"for", agent.waiting.reason},
                   {"offer", agent.waiting.offer}}}};
    const Polling& polling = agent.polling;
    if (polling.bytesToFetch > 0) {
        json["download"] = {
            {"id", agent.action.id}, {"done", polling.bytesFetched}, {"of", polling.bytesToFetch}};
    }
    (void)mkdir(RUN_FOLDER, RUN_FOLDER_MODE);
    // The folder belongs to the agent's user, and this process may be root. The file is created
    // anew, so that no link in the folder is followed.
    (void)unlink(RUN_FILE_NEW);
    if (corvo::create_flushed_file(AT_FDCWD, RUN_FILE_NEW, RUN_FILE_MODE, text_of_json(json, 1))) {
        (void)rename(RUN_FILE_NEW, RUN_FILE);
    }
}
