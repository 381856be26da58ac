// Fuzzes the parsers of all answers of the update server. Each must either refuse the text with a
// message of one line, or return a record that fulfils the contract in the header. The replies of
// the agent must be valid UTF-8 of limited size. The CPU time must not grow faster than the text's
// size.
#include <ctype.h>
#include <time.h>

#include "agent/ddi.h"
#include "fuzz_input.h"

namespace {

// Under the sanitizers all parsers together need a few hundred nanoseconds per byte.
constexpr uint64_t NS_PER_BYTE_MAX = 10000;
constexpr uint64_t NS_MAX = 20000000;  // in addition, for work that does not depend on the size
constexpr uint64_t NS_PER_S = 1000000000;

// CPU time instead of wall-clock time, since the machine may be busy.
uint64_t cpu_time_ns() {
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<uint64_t>(time.tv_sec) * NS_PER_S + static_cast<uint64_t>(time.tv_nsec);
}

bool is_id(const std::string& id) {
    return !id.empty() && id.size() <= 64 && std::all_of(id.begin(), id.end(), [](unsigned char c) {
        return isalnum(c) || c == '-' || c == '_';
    });
}

bool is_link(const std::string& href) {
    return std::all_of(href.begin(), href.end(),
                       [](unsigned char c) { return c > ' ' && c < 127; });
}

bool read(const AgentStatus& status) {
    fuzz_expect(status.ok() == status.text.empty() &&
                (status.ok() || status.result == AGENT_MALFORMED) && status.text.size() < 300);
    return status.ok();
}

void expect_action(const DdiAction& action) {
    fuzz_expect(is_id(action.id) && action.files.size() <= DDI_FILES_MAX);
    for (const DdiFile& file : action.files) {
        fuzz_expect(!file.name.empty() && file.name.size() <= 128 && file.name[0] != '.' &&
                    file.name.find('/') == std::string::npos && !file.name.ends_with(".part"));
        fuzz_expect(file.size <= INT64_MAX && !file.href.empty() && is_link(file.href));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const uint64_t start = cpu_time_ns();
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    DdiPoll poll;
    if (read(parse_poll(input, poll))) {
        fuzz_expect(poll.sleepS <= 86400 && is_link(poll.configData + poll.deployment) &&
                    is_link(poll.confirmation + poll.cancellation));
    }
    DdiAction action;
    if (read(parse_action(input, action))) {
        expect_action(action);
    }
    DdiCancellation cancellation;
    if (read(parse_cancellation(input, cancellation))) {
        fuzz_expect(is_id(cancellation.id) && is_id(cancellation.stopId));
    }
    fuzz_expect(error_message(input).size() <= 200);

    // A JSON escape needs at most six bytes for one byte.
    const std::string text(input);
    const std::string feedback = feedback_text({.id = text, .details = {text, text}});
    fuzz_expect(feedback.size() <= 6 * (size + 2 * DDI_DETAIL_SIZE_MAX) + 256);
    fuzz_expect(confirmation_text(false, input).size() <= 6 * DDI_DETAIL_SIZE_MAX + 256);
    (void)attributes_text({{text, text}});
    fuzz_expect(cpu_time_ns() - start <= NS_MAX + size * NS_PER_BYTE_MAX);
    return 0;
}
