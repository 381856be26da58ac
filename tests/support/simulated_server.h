// A simulated update server in the process of the test: a small hawkBit in memory with one camera,
// of either generation, that can misbehave. It listens on a free port of the loopback address from
// construction to destruction. Its functions may be called from any thread.
//
// It also acts as a simple proxy: it answers an http request for any host as one for itself, and
// CONNECT with 407.
//
// Like the real server, it cancels an older action when there is a newer one, accepts 1000 statuses
// for an action, and answers requests for an ended action with 410 (feedback) or 404 (others).
#ifndef TESTS_SUPPORT_SIMULATED_SERVER_H
#define TESTS_SUPPORT_SIMULATED_SERVER_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

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
    // cancellation, "word" of consent, "file"; "" for anything else.
    std::string what = {};
    std::string id = {};             // id of the action
    std::string file = {};           // name of the file
    std::string line = {};           // method and target
    std::string authorization = {};  // this and the next two are headers
    std::string range = {};
    std::string condition = {};  // If-Range
    std::string subject = {};    // subject of the client's certificate
    std::string body = {};
    int status = 0;  // status of the answer
};

class SimulatedServer {
  public:
    struct Setup {
        bool old = false;                // true: behaves as version 0.3; false: as 1.0
        std::string sleep = "00:00:02";  // polling interval
        std::string certificate = {};    // PEM files: the server speaks https, else http
        std::string key = {};
        std::string clients =
            {};  // PEM file of the authority for client certificates; empty: none needed
        bool onlyFiles = false;  // serves only files of offered actions, without authentication
    };
    explicit SimulatedServer(const Setup& setup);
    ~SimulatedServer();

    static constexpr char TENANT[] = "DEFAULT";
    static constexpr char CONTROLLER[] = "cam 1";
    static constexpr char AUTHORIZATION[] = "TargetToken secret";  // this camera's

    [[nodiscard]] std::string url() const;  // "https://localhost:4711"

    // Acts of the operator.
    void offer(const SimulatedAction& action);
    void cancel(const std::string& id) { set_state(id, "cancelling"); }
    void reinstall();  // replaces it by another server at the same address, without actions
    void force_quit(const std::string& id) { set_state(id, "quit"); }
    void change(const std::string& id, const std::function<void(SimulatedAction& action)>& how);

    // Sets the faults from now on, replacing earlier ones: faults separated by ";", each
    // WHAT[:N[+]] KIND [ARGUMENT...]. WHAT is a kind of request as above, or "any", or "closed" for
    // the feedback that ends an action. N: only the Nth such request from now on (from 1); "N+":
    // this and all later ones; without N: all. Kinds:
    //   status CODE [SECONDS]   answers with this status, and with "Retry-After"
    //   redirect CODE URL       "here" in it stands for url()
    //   date TEXT               sets the header "Date"
    //   say TEXT                answers with this content and status 200
    //   swap OLD NEW            replaces the first OLD in the content by NEW
    //   cut BYTES               closes the connection after so many bytes of the content
    //   drip [MS]               sends one byte of the content every MS milliseconds (default 100)
    //   flip AT                 changes the byte at this offset
    //   length BYTES            truncates or pads the content to so many bytes (Content-Length)
    //   chunked BYTES           the same with chunked encoding, without Content-Length
    //   tag TEXT | range TEXT   sets ETag or Content-Range; removes it without TEXT
    //   no-ranges               sends the whole file, whatever range was requested
    // A request that is answered with another status or redirected has no effect.
    void misbehave(const std::string& faults);

    // The requests so far.
    [[nodiscard]] std::vector<SimulatedRequest> requests() const;
    // Counts the requests of this kind whose body contains the text.
    [[nodiscard]] size_t count(const std::string& what, const std::string& text = "") const;
    [[nodiscard]] std::map<std::string, std::string> attributes() const;
    // Returns the state of an action ("offered", "waiting", "cancelling", "success", "failure",
    // "canceled", "downloaded", "quit") and, each after " | ", the statuses that were received:
    // "EXECUTION FINISHED: DETAIL, DETAIL".
    [[nodiscard]] std::string story(const std::string& id) const;

  private:
    void set_state(const std::string& id, const char* state);

    struct Impl;
    std::unique_ptr<Impl> impl_;
};

#endif  // TESTS_SUPPORT_SIMULATED_SERVER_H
