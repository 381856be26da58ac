// An update server in the test's own process: a little hawkBit with one camera, in memory, of
// either generation, that can misbehave. It listens on a port of its own at the loopback address
// from construction to destruction. Its procedures may be called from any thread.
//
// It also answers as a plain proxy does: a request for any host by http as one of its own, and
// CONNECT with 407.
//
// As the real one does: a newer action makes the older one be cancelled; an action takes 1000
// statuses; what has ended is 410 for feedback and 404 for the rest.
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
    std::string window = {};     // "available", "unavailable", or empty: there is none
    bool consent = false;        // the camera's is waited for (1.0)
    std::string elsewhere = {};  // URL of another played server that has the files; empty: this one
};

// What came in, and what was answered.
struct SimulatedRequest {
    // "poll", "attributes", "action", "cancellation", "consent", "feedback", "answer" to a
    // cancellation, "word" of consent, "file"; "" for anything else.
    std::string what = {};
    std::string id = {};             // of the action
    std::string file = {};           // its name
    std::string line = {};           // method and target
    std::string authorization = {};  // this and the next two are headers
    std::string range = {};
    std::string condition = {};  // If-Range
    std::string subject = {};    // of the client's certificate
    std::string body = {};
    int status = 0;  // that was answered
};

class SimulatedServer {
  public:
    struct Setup {
        bool old = false;                // as 0.3 is, else as 1.0
        std::string sleep = "00:00:02";  // between two polls
        std::string certificate = {};    // PEM files: the server speaks https, else http
        std::string key = {};
        std::string clients = {};  // PEM file of who vouches for clients; empty: they are not asked
        bool onlyFiles = false;    // serves files of offered actions to anybody, and nothing else
    };
    explicit SimulatedServer(const Setup& setup);
    ~SimulatedServer();

    static constexpr char TENANT[] = "DEFAULT";
    static constexpr char CONTROLLER[] = "cam 1";
    static constexpr char AUTHORIZATION[] = "TargetToken secret";  // of this camera

    [[nodiscard]] std::string url() const;  // "https://localhost:4711"

    // What the operator does.
    void offer(const SimulatedAction& action);
    void cancel(const std::string& id) { set_state(id, "cancelling"); }
    void reinstall();  // another server under the same address, which knows of no action
    void force_quit(const std::string& id) { set_state(id, "quit"); }
    void change(const std::string& id, const std::function<void(SimulatedAction& action)>& how);

    // How the server misbehaves from now on, instead of what was said before: faults with ";"
    // between them, each WHAT[:N[+]] KIND [ARGUMENT...]. WHAT is as above or "any" or, of
    // "feedback" the one that ends an action, "closed"; N, from 1, is the Nth such request from now
    // on, "+": and all behind it; else all. Kinds:
    //   status CODE [SECONDS]   that answer, with "Retry-After"
    //   redirect CODE URL       "here" in it stands for url()
    //   date TEXT               "Date"
    //   say TEXT                that content, with status 200
    //   swap OLD NEW            the first OLD in the content is NEW
    //   cut BYTES               the connection ends behind so many bytes of the content
    //   drip [MS]               the content comes as a byte each tenth of a second, or each MS
    //   flip AT                 the byte there is another one
    //   length BYTES            the content is cut or filled up to so many bytes, and says so
    //   chunked BYTES           the same, without saying how many in advance
    //   tag TEXT | range TEXT   another ETag, another Content-Range; none without TEXT
    //   no-ranges               the whole file, whatever was asked for
    // A request that is answered with another status or redirected is not taken note of.
    void misbehave(const std::string& faults);

    // What the server has seen.
    [[nodiscard]] std::vector<SimulatedRequest> requests() const;
    // Requests of this kind with this in their body.
    [[nodiscard]] size_t count(const std::string& what, const std::string& text = "") const;
    [[nodiscard]] std::map<std::string, std::string> attributes() const;
    // Where an action stands ("offered", "waiting", "cancelling", "success", "failure", "canceled",
    // "downloaded", "quit"), and " | " before each status that came: "EXECUTION FINISHED: DETAIL,
    // DETAIL".
    [[nodiscard]] std::string story(const std::string& id) const;

  private:
    void set_state(const std::string& id, const char* state);

    struct Impl;
    std::unique_ptr<Impl> impl_;
};

#endif  // TESTS_SUPPORT_SIMULATED_SERVER_H
