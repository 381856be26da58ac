#include "agent/ddi.h"

#include <algorithm>

#include "agent/json_text.h"
#include "base/hex.h"

namespace {

constexpr size_t DEPTH_MAX = 64;
constexpr size_t VALUES_MAX = 65536;
constexpr size_t ID_SIZE_MAX = 64;
constexpr size_t NAME_SIZE_MAX = 128;
constexpr size_t MODULE_SIZE_MAX = 512;  // the server's limit is 128 characters
constexpr size_t LINK_SIZE_MAX = 4096;
constexpr size_t DETAILS_MAX = 50;
constexpr size_t MESSAGE_SIZE_MAX = 200;
constexpr uint32_t SLEEP_MAX_S = 86400;

constexpr bool is_id_character(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_';
}

// Checks nesting depth and number of values in one pass before the text is parsed. Returns what is
// wrong, or "". The limits are not checked in a parser callback, because the parser would then scan
// all members of an object at the end of each member, which takes minutes for a megabyte. Parsing
// without limits would need forty times the text's size in memory.
std::string structure_fault(std::string_view text) {
    size_t depth = 0;
    size_t values = 0;  // objects, arrays, and all of their values except the first
    bool inString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '"') {
            inString = !inString;
        } else if (inString) {
            i += c == '\\' ? 1 : 0;  // skips the escaped character, which may be a quote
        } else if (c == '[' || c == '{') {
            ++depth;
            ++values;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        } else if (c == ',') {
            ++values;
        }
        if (depth > DEPTH_MAX) {
            return "nested deeper than " + std::to_string(DEPTH_MAX) + " levels";
        }
        if (values > VALUES_MAX) {
            return "more than " + std::to_string(VALUES_MAX) + " values";
        }
    }
    return "";
}

// Parses a text that must be a JSON object. A text beyond the limits is refused before it is
// parsed. The time needed is proportional to the text's size. Returns what is wrong, or "".
std::string read_object(std::string_view text, Json& value) {
    if (text.size() > DDI_TEXT_SIZE_MAX) {
        return "longer than " + std::to_string(DDI_TEXT_SIZE_MAX) + " bytes";
    }
    std::string fault = structure_fault(text);
    if (!fault.empty()) {
        return fault;
    }
    value = Json::parse(text, nullptr, false);
    if (value.is_discarded()) {
        return "not JSON";
    }
    return value.is_object() ? "" : "not a JSON object";
}

AgentStatus malformed(const char* answer, const std::string& fault) {
    return fault.empty() ? AgentStatus{}
                         : agent_fault(AGENT_MALFORMED,
                                       std::string("the ") + answer + " of the server: " + fault);
}

// Returns the member with this name, or null when it is missing or JSON null.
const Json* find(const Json& object, const char* name) {
    const auto found = object.find(name);
    return found == object.end() || found->is_null() ? nullptr : &*found;
}

// The take_...() functions below return what is wrong, or "".

std::string take_text(const Json& object, const char* name, size_t most, std::string& text) {
    const Json* const value = find(object, name);
    const auto* const found = value == nullptr ? nullptr : value->get_ptr<const std::string*>();
    if (found == nullptr || found->empty() || found->size() > most) {
        return std::string("expected a text of up to ") + std::to_string(most) + " bytes as \"" +
               name + "\"";
    }
    text = *found;
    return "";
}

std::string take_id(const Json& object, const char* name, std::string& id) {
    std::string fault = take_text(object, name, ID_SIZE_MAX, id);
    if (fault.empty() && !std::ranges::all_of(id, is_id_character)) {
        fault = std::string("expected letters, digits, \"-\" and \"_\" as \"") + name + "\"";
    }
    return fault;
}

// Reads an optional link; `href` stays unchanged when the link is missing.
std::string take_link(const Json& links, const char* name, std::string& href) {
    const Json* const link = find(links, name);
    if (link == nullptr) {
        return "";
    }
    std::string fault =
        link->is_object() ? take_text(*link, "href", LINK_SIZE_MAX, href) : "not an object";
    const auto unprintable = [](char c) { return c <= ' ' || c > '~'; };
    if (fault.empty() && std::ranges::any_of(href, unprintable)) {
        fault = "expected printable characters as \"href\"";
    }
    return fault.empty() ? fault : std::string("link \"") + name + "\": " + fault;
}

// Reads the polling interval, "HH:MM:SS". The interval is only a request of the server, so an
// unreadable one is ignored (0) and the rest of the answer is used.
uint32_t sleep_of(const Json& root) {
    const Json* const config = find(root, "config");
    const Json* const polling =
        config == nullptr || !config->is_object() ? nullptr : find(*config, "polling");
    std::string text;
    if (polling != nullptr && polling->is_object()) {
        // `text` stays empty if the value is not a string.
        (void)take_text(*polling, "sleep", NAME_SIZE_MAX, text);
    }
    constexpr std::string_view FORM = "00:00:00";
    uint32_t fields[3] = {};
    bool fits = text.size() == FORM.size();
    for (size_t i = 0; fits && i < FORM.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        fits = FORM[i] == ':' ? text[i] == ':' : digit;
        if (digit) {
            fields[i / 3] = fields[i / 3] * 10 + static_cast<uint32_t>(text[i] - '0');
        }
    }
    if (!fits || fields[1] > 59 || fields[2] > 59) {
        return 0;
    }
    return std::clamp(fields[0] * 3600 + fields[1] * 60 + fields[2], 1U, SLEEP_MAX_S);
}

std::string take_handling(const Json& deployment, const char* name, DdiHandling& handling) {
    struct Word {
        const char* word;
        DdiHandling handling;
    };
    std::string text;
    (void)take_text(deployment, name, ID_SIZE_MAX, text);
    for (const Word& word : {Word{"skip", DdiHandling::SKIP}, Word{"attempt", DdiHandling::ATTEMPT},
                             Word{"forced", DdiHandling::FORCED}}) {
        if (text == word.word) {
            handling = word.handling;
            return "";
        }
    }
    return std::string(R"(expected "skip", "attempt" or "forced" as ")") + name + "\"";
}

std::string take_window(const Json& deployment, bool& outside) {
    if (find(deployment, "maintenanceWindow") == nullptr) {
        return "";
    }
    std::string text;
    (void)take_text(deployment, "maintenanceWindow", ID_SIZE_MAX, text);
    outside = text == "unavailable";
    return outside || text == "available"
               ? ""
               : R"(expected "available" or "unavailable" as "maintenanceWindow")";
}

std::string take_digest(const Json& artifact, Sha256& digest) {
    const Json* const hashes = find(artifact, "hashes");
    std::string text;
    if (hashes != nullptr && hashes->is_object()) {
        (void)take_text(*hashes, "sha256", 2 * SHA256_SIZE, text);
    }
    return corvo::parse_hex(text, digest)
               ? ""
               : R"(expected 64 hexadecimal digits as "sha256" in "hashes")";
}

// Whether the name cannot be confused with the agent's temporary files (NAME.part, NAME.part.from).
bool is_fit_name(std::string_view name) {
    return name.front() != '.' && name.front() != '-' && !name.ends_with(".part") &&
           name.find(".part.") == std::string_view::npos &&
           std::ranges::all_of(name, [](char c) { return is_id_character(c) || c == '.'; });
}

std::string take_file(const Json& artifact, DdiFile& file) {
    std::string fault = take_text(artifact, "filename", NAME_SIZE_MAX, file.name);
    if (!fault.empty()) {
        return fault;
    }
    if (!is_fit_name(file.name)) {
        return R"(expected letters, digits, ".", "-" and "_" as "filename")";
    }
    const Json* const size = find(artifact, "size");
    if (size == nullptr || !size->is_number_unsigned() || size->get<uint64_t>() > INT64_MAX) {
        return file.name + ": expected a number of bytes as \"size\"";
    }
    file.size = size->get<uint64_t>();
    fault = take_digest(artifact, file.sha256);
    const Json* const links = find(artifact, "_links");
    if (fault.empty() && links != nullptr && links->is_object()) {
        fault = take_link(*links, "download", file.href);
        if (fault.empty() && file.href.empty()) {
            fault = take_link(*links, "download-http", file.href);
        }
    }
    if (fault.empty() && file.href.empty()) {
        fault = "expected a link \"download\" or \"download-http\"";
    }
    return fault.empty() ? fault : file.name + ": " + fault;
}

// The file system of memory cards does not distinguish upper and lower case.
bool same_name(std::string_view left, std::string_view right) {
    return std::ranges::equal(left, right, [](char a, char b) { return tolower(a) == tolower(b); });
}

std::string add_file(const Json& artifact, const std::string& module, std::vector<DdiFile>& files) {
    DdiFile file;
    file.module = module;
    std::string fault = artifact.is_object() ? take_file(artifact, file) : "not an object";
    if (!fault.empty()) {
        return fault;
    }
    if (files.size() == DDI_FILES_MAX) {
        return "more than " + std::to_string(DDI_FILES_MAX) + " files";
    }
    for (const DdiFile& other : files) {
        if (same_name(other.name, file.name)) {
            return "two files are named " + file.name;
        }
    }
    files.push_back(std::move(file));
    return "";
}

std::string take_files(const Json& deployment, std::vector<DdiFile>& files) {
    const Json* const chunks = find(deployment, "chunks");
    if (chunks == nullptr || !chunks->is_array()) {
        return "expected a list as \"chunks\"";
    }
    for (const Json& chunk : *chunks) {
        const Json* const artifacts = chunk.is_object() ? find(chunk, "artifacts") : &chunk;
        if (artifacts == nullptr) {
            continue;  // a software module without files
        }
        if (!artifacts->is_array()) {
            return "expected a list as \"artifacts\" of each chunk";
        }
        std::string module;
        (void)take_text(chunk, "name", MODULE_SIZE_MAX, module);
        for (const Json& artifact : *artifacts) {
            std::string fault = add_file(artifact, module, files);
            if (!fault.empty()) {
                return fault;
            }
        }
    }
    return "";
}

std::string take_action(const Json& root, DdiAction& action) {
    std::string fault = take_id(root, "id", action.id);
    if (!fault.empty()) {
        return fault;
    }
    // The answer has "confirmation" when the action waits for consent.
    const Json* deployment = find(root, "deployment");
    if (deployment == nullptr) {
        deployment = find(root, "confirmation");
    }
    if (deployment == nullptr || !deployment->is_object()) {
        return R"(expected an object as "deployment" or "confirmation")";
    }
    fault = take_handling(*deployment, "download", action.download);
    if (fault.empty()) {
        fault = take_handling(*deployment, "update", action.update);
    }
    if (fault.empty()) {
        fault = take_window(*deployment, action.outsideWindow);
    }
    return fault.empty() ? take_files(*deployment, action.files) : fault;
}

// Returns at most `most` bytes of a text and does not split a UTF-8 character.
std::string truncated(std::string_view text, size_t most) {
    if (text.size() > most) {
        size_t end = most;
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
            --end;
        }
        text = text.substr(0, end);
    }
    return std::string(text);
}

}  // namespace

AgentStatus parse_poll(std::string_view text, DdiPoll& poll) {
    poll = {};
    Json root;
    std::string fault = read_object(text, root);
    if (fault.empty()) {
        poll.sleepS = sleep_of(root);
    }
    const Json* const links = fault.empty() ? find(root, "_links") : nullptr;
    if (links == nullptr) {
        return malformed("poll's answer", fault);
    }
    if (!links->is_object()) {
        return malformed("poll's answer", "expected an object as \"_links\"");
    }
    poll.hasInstalled = find(*links, "installedBase") != nullptr;
    struct Link {
        const char* name;
        std::string& href;
    };
    for (const Link& link :
         {Link{"configData", poll.configData}, Link{"deploymentBase", poll.deployment},
          Link{"confirmationBase", poll.confirmation}, Link{"cancelAction", poll.cancellation}}) {
        fault = take_link(*links, link.name, link.href);
        if (!fault.empty()) {
            break;
        }
    }
    return malformed("poll's answer", fault);
}

AgentStatus parse_action(std::string_view text, DdiAction& action) {
    action = {};
    Json root;
    std::string fault = read_object(text, root);
    if (fault.empty()) {
        fault = take_action(root, action);
    }
    return malformed("action", fault);
}

AgentStatus parse_cancellation(std::string_view text, DdiCancellation& cancellation) {
    cancellation = {};
    Json root;
    std::string fault = read_object(text, root);
    if (fault.empty()) {
        fault = take_id(root, "id", cancellation.id);
    }
    if (fault.empty()) {
        const Json* const action = find(root, "cancelAction");
        fault = action != nullptr && action->is_object()
                    ? take_id(*action, "stopId", cancellation.stopId)
                    : "expected an object as \"cancelAction\"";
    }
    return malformed("cancellation", fault);
}

std::string error_message(std::string_view text) {
    Json root;
    std::string message;
    if (read_object(text, root).empty()) {
        (void)take_text(root, "message", DDI_TEXT_SIZE_MAX, message);
    }
    std::ranges::replace_if(
        message, [](char c) { return static_cast<unsigned char>(c) < ' '; }, ' ');
    return truncated(message, MESSAGE_SIZE_MAX);
}

std::string feedback_text(const DdiFeedback& feedback) {
    constexpr const char* EXECUTIONS[] = {"download",  "downloaded", "proceeding",
                                          "scheduled", "rejected",   "closed"};
    constexpr const char* FINISHED[] = {"none", "success", "failure"};
    Json result = {{"finished", FINISHED[static_cast<size_t>(feedback.finished)]}};
    if (feedback.of > 0) {
        result["progress"] = {{"cnt", feedback.done}, {"of", feedback.of}};
    }
    Json details = Json::array();
    for (const std::string& detail : feedback.details) {
        if (details.size() < DETAILS_MAX) {
            details.push_back(truncated(detail, DDI_DETAIL_SIZE_MAX));
        }
    }
    return text_of_json({{"id", feedback.id},
                         {"status",
                          {{"execution", EXECUTIONS[static_cast<size_t>(feedback.execution)]},
                           {"result", std::move(result)},
                           {"details", std::move(details)}}}});
}

std::string confirmation_text(bool confirmed, std::string_view detail) {
    Json details = Json::array();
    if (!detail.empty()) {
        details.push_back(truncated(detail, DDI_DETAIL_SIZE_MAX));
    }
    return text_of_json(
        {{"confirmation", confirmed ? "confirmed" : "denied"}, {"details", std::move(details)}});
}

std::string attributes_text(const DdiAttributes& attributes) {
    Json data = Json::object();
    for (const auto& [name, value] : attributes) {
        data[name] = truncated(value, DDI_ATTRIBUTE_SIZE_MAX);
    }
    return text_of_json({{"mode", "replace"}, {"data", std::move(data)}});
}

std::string installed_text(const DdiVersion& installed) {
    return text_of_json({{"name", installed.name}, {"version", installed.version}});
}
