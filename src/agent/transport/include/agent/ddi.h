// Parses and writes the JSON messages of Eclipse hawkBit's Direct Device Integration. Uses neither
// the network nor files. A message from the server may be any bytes.
//
// Messages of both server generations (0.3 and 1.0) are accepted. A required member that is missing
// or has the wrong type yields AGENT_MALFORMED and a text that names what was expected. Unknown
// members are ignored.
#ifndef AGENT_DDI_H
#define AGENT_DDI_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/agent_result.h"
#include "package/manifest.h"

constexpr size_t DDI_TEXT_SIZE_MAX = 1048576;   // bytes of an answer
constexpr size_t DDI_FILES_MAX = 64;            // files of an action
constexpr size_t DDI_DETAIL_SIZE_MAX = 512;     // bytes: the server counts a longer one as several
constexpr size_t DDI_ATTRIBUTE_SIZE_MAX = 128;  // bytes of a value: one longer value makes the
                                                // server refuse all attributes

// The answer to a poll. Each link is a complete URL, or empty when the answer has no such link.
struct DdiPoll {
    uint32_t sleepS = 0;  // seconds until the next poll, 1 to 86400; 0: missing or unreadable
    std::string configData;
    std::string deployment;
    std::string confirmation;
    std::string cancellation;
    // The answer names an installed distribution set. Servers of the 0.3 generation never do.
    bool hasInstalled = false;
};

enum class DdiHandling { SKIP, ATTEMPT, FORCED };

struct DdiFile {
    std::string name;   // letters, digits, ".", "-", "_"; at most 128; does not end in ".part"
    uint64_t size = 0;  // bytes, at most INT64_MAX
    Sha256 sha256 = {};
    std::string href = {};    // the https link if the server gives one, else the http link
    std::string module = {};  // name of its software module; empty: missing or too long
};

// An action, as "deploymentBase" or "confirmationBase" returns it.
struct DdiAction {
    std::string id;  // letters, digits, "-", "_"; at most 64
    DdiHandling download = DdiHandling::SKIP;
    DdiHandling update = DdiHandling::SKIP;
    bool outsideWindow = false;  // the action has a maintenance window, which is closed now
    std::vector<DdiFile> files;  // of all chunks, in their order; names are unique, ignoring case
};

struct DdiCancellation {
    std::string id;      // of the cancellation; its feedback carries this id
    std::string stopId;  // of the action to be canceled
};

enum class DdiExecution { DOWNLOAD, DOWNLOADED, PROCEEDING, SCHEDULED, REJECTED, CLOSED };
enum class DdiFinished { NONE, SUCCESS, FAILURE };

struct DdiFeedback {
    std::string id;  // of the action or of the cancellation
    DdiExecution execution = DdiExecution::PROCEEDING;
    DdiFinished finished = DdiFinished::NONE;
    uint32_t done = 0;  // progress: `done` of `of` steps; with `of` 0 no progress is sent
    uint32_t of = 0;
    // The first 50 are sent. Each is truncated to DDI_DETAIL_SIZE_MAX; invalid UTF-8 is replaced.
    std::vector<std::string> details;
};

// The name and the version of a distribution set.
struct DdiVersion {
    std::string name = {};
    std::string version = {};
};

using DdiAttributes = std::vector<std::pair<std::string, std::string>>;

// All return AGENT_OK or AGENT_MALFORMED.
AgentStatus parse_poll(std::string_view text, DdiPoll& poll);
AgentStatus parse_action(std::string_view text, DdiAction& action);
AgentStatus parse_cancellation(std::string_view text, DdiCancellation& cancellation);

// Extracts the error message from the server's answer to a refused request: one line, at most 200
// bytes. Returns "" when the text has no such message.
std::string error_message(std::string_view text);

// Write the messages that a camera sends. Attributes replace all that the server has stored; values
// are truncated to DDI_ATTRIBUTE_SIZE_MAX.
std::string feedback_text(const DdiFeedback& feedback);
std::string confirmation_text(bool confirmed, std::string_view detail);
std::string attributes_text(const DdiAttributes& attributes);
std::string installed_text(const DdiVersion& installed);

#endif  // AGENT_DDI_H
