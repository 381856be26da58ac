// What the played server knows of its one camera, and what it answers. Private to
// played_server.cpp, which locks.
#ifndef TESTS_SUPPORT_PLAYED_HAWKBIT_H
#define TESTS_SUPPORT_PLAYED_HAWKBIT_H

#include "played_server.h"

struct PlayedAnswer {
    int status = 200;
    std::string body = {};
    std::string tag = {};    // ETag
    std::string range = {};  // Content-Range
};

struct PlayedHawkbit {
    struct Action {
        PlayedAction offered;
        std::string state;
        std::string story = {};
        size_t statuses = 0;

        [[nodiscard]] bool ended() const {
            return state != "offered" && state != "waiting" && state != "cancelling";
        }
    };

    bool old = false;
    std::string url;
    std::string sleep;
    std::vector<Action> actions = {};
    std::map<std::string, std::string> attributes = {};
    bool attributesWanted = true;

    Action* find(const std::string& id);
    PlayedAnswer answer(const PlayedRequest& request);

    PlayedAnswer poll() const;
    PlayedAnswer offer(const Action& action, const char* name) const;
    PlayedAnswer file(Action& action, const PlayedRequest& request) const;
    PlayedAnswer feedback(Action& action, const PlayedRequest& request);
    PlayedAnswer take_attributes(const std::string& body);
};

// Sets what is asked for, and of which action and file, by the path.
void classify(PlayedRequest& request, const std::string& path);

#endif  // TESTS_SUPPORT_PLAYED_HAWKBIT_H
