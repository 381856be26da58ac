// State and answers of the simulated server for its one camera. Only for simulated_server.cpp,
// which locks.
#ifndef TESTS_SUPPORT_SIMULATED_HAWKBIT_H
#define TESTS_SUPPORT_SIMULATED_HAWKBIT_H

#include "simulated_server.h"

struct SimulatedAnswer {
    int status = 200;
    std::string body = {};
    std::string tag = {};    // ETag
    std::string range = {};  // Content-Range
};

struct SimulatedHawkbit {
    struct Action {
        SimulatedAction offered;
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
    SimulatedAnswer answer(const SimulatedRequest& request);

    SimulatedAnswer poll() const;
    SimulatedAnswer offer(const Action& action, const char* name) const;
    SimulatedAnswer file(Action& action, const SimulatedRequest& request) const;
    SimulatedAnswer feedback(Action& action, const SimulatedRequest& request);
    SimulatedAnswer take_attributes(const std::string& body);
};

// Sets the kind of the request, its action and its file from the path.
void classify(SimulatedRequest& request, const std::string& path);

#endif  // TESTS_SUPPORT_SIMULATED_HAWKBIT_H
