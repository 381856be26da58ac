// A small hawkBit in memory with one camera, of either generation: its state, and its answers
// without the transport. Its functions may be called from any thread.
//
// Like the real server, it cancels an older action when there is a newer one, accepts 1000 statuses
// for an action, and answers requests for an ended action with 410 (feedback) or 404 (others).
#ifndef TESTS_SUPPORT_SIMULATED_HAWKBIT_H
#define TESTS_SUPPORT_SIMULATED_HAWKBIT_H

#include "test.h"

struct SimulatedFile {
    std::string name;
    std::string bytes;
};

struct SimulatedAction {
    std::string id = {};
    std::vector<SimulatedFile> files = {};
    std::string download = "forced";
    std::string update = "forced";
    std::string window = {};     // maintenance window: "available", "unavailable", or empty: none
    bool consent = false;        // the server waits for the camera's consent (1.0)
    std::string elsewhere = {};  // URL of another simulated server with the files; empty: this one
};

// A request and the status of its answer.
struct SimulatedRequest {
    // "poll", "attributes", "action", "cancellation", "consent", "feedback", "answer" to a
    // cancellation, "word" of consent, "file", "installed"; "" for anything else.
    std::string what = {};
    std::string id = {};             // id of the action
    std::string file = {};           // name of the file
    std::string line = {};           // method and target
    std::string authorization = {};  // this and the next two are headers
    std::string range = {};
    std::string condition = {};  // If-Range
    std::string subject = {};    // subject of the client's certificate
    int port = 0;                // of the client: one for each connection
    std::string body = {};
    int status = 0;  // status of the answer
};

struct SimulatedAnswer {
    int status = 200;
    std::string body = {};
    std::string tag = {};    // ETag
    std::string range = {};  // Content-Range
};

class SimulatedHawkbit {
  public:
    static constexpr char CONTROLLER[] = "cam 1";  // of the tenant "DEFAULT"

    [[nodiscard]] std::string url() const { return url_; }  // "https://localhost:4711"

    // Acts of the operator. `reinstall` replaces it by another server at the same address, without
    // actions.
    void offer(const SimulatedAction& action);
    void cancel(const std::string& id) { set_state(id, "cancelling"); }
    void force_quit(const std::string& id) { set_state(id, "quit"); }
    void change(const SimulatedAction& action);  // what the action with this id offers
    void reinstall();

    // The attributes that the camera has sent, and as "installed" what it reported as installed.
    [[nodiscard]] std::map<std::string, std::string> attributes() const;
    // Returns the state of an action ("offered", "waiting", "cancelling", "success", "failure",
    // "canceled", "downloaded", "quit") and, each after " | ", the statuses that were received:
    // "EXECUTION FINISHED: DETAIL, DETAIL".
    [[nodiscard]] std::string story(const std::string& id) const;

  protected:
    explicit SimulatedHawkbit(bool old, std::string sleep) : old_(old), sleep_(std::move(sleep)) {}

    // Sets the kind of the request, its action and its file from the path.
    static void classify(SimulatedRequest& request, const std::string& path);
    SimulatedAnswer answer(const SimulatedRequest& request);

    const bool old_;  // true: behaves as version 0.3; false: as 1.0
    std::string url_ = {};

  private:
    struct Action {
        SimulatedAction offered;
        std::string state;
        std::string story = {};
        size_t statuses = 0;
        [[nodiscard]] bool ended() const {
            return state != "offered" && state != "waiting" && state != "cancelling";
        }
    };
    void set_state(const std::string& id, const char* state);
    [[nodiscard]] SimulatedAnswer poll() const;
    [[nodiscard]] SimulatedAnswer file(Action& action, const SimulatedRequest& request) const;
    SimulatedAnswer feedback(Action& action, const SimulatedRequest& request);
    SimulatedAnswer take_attributes(const std::string& body);

    mutable std::mutex mutex_ = {};  // guards the members below
    std::string sleep_;
    std::map<std::string, Action> actions_ = {};  // by id
    std::map<std::string, std::string> attributes_ = {};
    bool attributesWanted_ = true;
};

#endif  // TESTS_SUPPORT_SIMULATED_HAWKBIT_H
