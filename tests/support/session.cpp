#include "session.h"

#include "ota/ota_message.h"

std::string run(const std::string& command) {
    FILE* stream = popen(
        ("exec 2>&1; PATH=" PROGRAMS ":$PATH; TEXTS=" TEXTS "; . " TEXTS "support/session.sh; " +
         command)
            .c_str(),
        "re");
    std::string output(1 << 16, '\0');
    output.resize(fread(output.data(), 1, output.size(), stream));
    std::string text = std::to_string(WEXITSTATUS(pclose(stream)));
    for (const std::string& line : lines_of(output)) {
        text += " / " + line;
    }
    return text;
}

void expect_session(const char* name, const std::string& before, Rows rows, int queue) {
    const auto typed = [&before, queue](std::istream& row) {
        std::string said = without_source_lines(run(before + rest_of(row)));
        said = replaced(said, R"(there are [^)]*\))", "...)");
        return replaced(said, "(otactl|hal_tool|corvo_agent|corvo_commit): .*(?=.see --help)", "") +
               posted_request(queue);
    };
    expect_cases(name, typed, rows);
}

std::string do_steps(const std::string& steps, const std::map<std::string, Step>& known) {
    std::string printed;
    for (const std::string& step : lines_of(replaced(steps, " \\| ", "\n"))) {
        std::string verb, first;
        std::istringstream words(step);
        words >> verb >> first;
        const auto found = known.find(verb);
        const std::string each = found != known.end() ? found->second(first, rest_of(words))
                                                      : replaced(run(step), "^0( / )?", "");
        printed += (printed.empty() || each.empty() ? "" : " / ") + each;
    }
    return printed.empty() ? "done" : printed;
}

std::string posted_request(int queue) {
    OtaQueueMessage queued = {};
    OtaMessage message = {};
    if (msgrcv(queue, &queued, sizeof(queued.text), 0, IPC_NOWAIT) != OTA_MSG_TEXT_SIZE) {
        return "";
    }
    memcpy(&message.packageType, queued.text, sizeof(queued.text));
    std::ostringstream text;
    text << " / type " << +message.packageType << " " << message.packageDir << message.packageFile;
    for (int i = 0; i < message.moduleCount; ++i) {
        const OtaModuleInfo info = message.moduleInfo[i];
        text << ", " << +message.moduleTypes[i] << ": " << +info.size << " at " << +info.offset;
    }
    return text.str();
}
