// What the update server and a camera say to each other: the JSON texts of Eclipse hawkBit's Direct
// Device Integration, as records. No network, no files; texts from the server may be any bytes.
//
// Both generations of the server are read (0.3 and 1.0). What a text must have and has not, or has
// in another type, is AGENT_MALFORMED with what was expected; what is not known is passed over.
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
constexpr size_t DDI_DETAIL_SIZE_MAX = 512;     // bytes: longer ones would count as several
constexpr size_t DDI_ATTRIBUTE_SIZE_MAX = 128;  // bytes of a value: a longer one has all refused

// The answer to a poll. A link is the URL to follow as it stands, empty when it was not given.
struct DdiPoll {
    uint32_t sleepS = 0;  // until the next poll, 1 to 86400; 0: not said, or not readable
    std::string configData;
    std::string deployment;
    std::string confirmation;
    std::string cancellation;
};

enum class DdiHandling { SKIP, ATTEMPT, FORCED };

struct DdiFile {
    std::string name;   // letters, digits, ".", "-", "_"; at most 128, no ".part" at the end
    uint64_t size = 0;  // bytes, at most INT64_MAX
    Sha256 sha256 = {};
    std::string href;  // https when the server has one, else http
};

// An action: what "deploymentBase" or "confirmationBase" answers.
struct DdiAction {
    std::string id;  // letters, digits, "-", "_"; at most 64
    DdiHandling download = DdiHandling::SKIP;
    DdiHandling update = DdiHandling::SKIP;
    bool outsideWindow = false;  // the server's maintenance window is there and closed
    std::vector<DdiFile> files;  // of all chunks, in their order; no two of one name, in upper or
                                 // lower case
};

struct DdiCancellation {
    std::string id;      // of the cancellation, for its feedback
    std::string stopId;  // of the action that is to stop
};

enum class DdiExecution { DOWNLOAD, DOWNLOADED, PROCEEDING, SCHEDULED, REJECTED, CLOSED };
enum class DdiFinished { NONE, SUCCESS, FAILURE };

struct DdiFeedback {
    std::string id;  // of the action or of the cancellation
    DdiExecution execution = DdiExecution::PROCEEDING;
    DdiFinished finished = DdiFinished::NONE;
    uint32_t done = 0;  // progress: so many of `of` steps; `of` 0: not said
    uint32_t of = 0;
    std::vector<std::string> details;  // the first 50 are sent; longer ones are cut, other bytes
                                       // than UTF-8 are replaced
};

using DdiAttributes = std::vector<std::pair<std::string, std::string>>;

// All return AGENT_OK or AGENT_MALFORMED.
AgentStatus parse_poll(std::string_view text, DdiPoll& poll);
AgentStatus parse_action(std::string_view text, DdiAction& action);
AgentStatus parse_cancellation(std::string_view text, DdiCancellation& cancellation);

// What the server says of a request that it refuses, at most 200 bytes in one line; "" when the
// text does not hold it.
std::string error_message(std::string_view text);

// The texts that a camera sends. Attributes replace all that the server knew; longer values are
// cut.
std::string feedback_text(const DdiFeedback& feedback);
std::string confirmation_text(bool confirmed, std::string_view detail);
std::string attributes_text(const DdiAttributes& attributes);

#endif  // AGENT_DDI_H
