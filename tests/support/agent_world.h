// A simulated camera with the real agent and the real service, and its simulated update server.
#ifndef TESTS_SUPPORT_AGENT_WORLD_H
#define TESTS_SUPPORT_AGENT_WORLD_H

#include "files.h"
#include "forgetful_storage.h"
#include "simulated_camera.h"
#include "simulated_server.h"

inline const std::string CARD_FOLDER = "/media/mmcblk0p1/ota/";
inline const std::string AGENT_FOLDER = CARD_FOLDER + "agent/";
inline const std::string STATE_FOLDER = "/config/agent/";
inline const std::string KERNEL = pattern_bytes(70000, 1);
inline const std::string LARGE_KERNEL = pattern_bytes(2500000, 3);
inline const std::string CHUNKED_KERNEL = pattern_bytes(1100000, 4);
constexpr char ID[] = "11";  // of the first action
constexpr char TRACE[] = "/run/storage.trace";

// What the server offers: see cases/agent_actions.txt.
SimulatedAction make_action(const std::string& kind, const std::string& id = ID);

class World {
  public:
    // The camera is described by the words of support/agent_camera.sh; the action is offered.
    World(const std::string& camera, const std::string& action);
    ~World();

    SimulatedServer server;
    // What the operator does, once, when the server has been asked so often.
    std::function<void()> act;
    size_t actAt = 0;

    int posted = 0;  // requests to the service
    int boots = 0;
    bool wasCut = false;  // the agent, in its last life

    // Power off and on. With a place of the agent's power cut, what it had not flushed is lost.
    void restart(int lostAt = -1);
    void start_service(std::vector<Fault> faults = {});

    static void post_empty_request();  // another sender's

    // From now on a power cut takes what the agent has not flushed. `observer` is called before
    // each operation of the agent, at the end of each life.
    void watch_storage(ForgetfulStorage::Observer observer);
    [[nodiscard]] const ForgetfulStorage& storage() const { return *storage_; }

    // One life of the agent: until it ends by itself or is cut (CORVO_CUT of agent_cuts.cpp), or
    // the camera restarts, which it does when the service has ended. Returns its exit status, -1
    // when the camera restarted or the agent was cut.
    int live(int cutAt = 0, bool powerGoesToo = false);
    // Lives until the server knows the end and no action is pending, or nothing happens any more.
    void live_to_the_end(const std::string& id = ID);

    // How often a request was posted, what is left, and what the server was told last.
    std::string summary();
    // What must hold at the end whatever has happened: the server's truth is the camera's, and
    // nothing is left that nobody needs.
    // `id` is of the action that was the last one; empty: nobody is told the end.
    void expect_promise(const std::string& id = ID);

  private:
    [[nodiscard]] bool is(const char* word) const { return contains(mode_, word); }
    void start_agent(int cutAt);
    void stop_agent();
    void observe_storage();
    void lose_power(size_t choice);
    [[nodiscard]] bool service_has_ended() const;
    void stop_service();
    void interfere();
    void count_requests(bool hasEnded);

    Camera camera_;
    std::string mode_;
    std::string kernel_;  // the image that the action has
    pid_t agent_ = -1;
    bool serves_ = false;
    bool counted_ = false;
    std::optional<ForgetfulStorage> storage_;
    ForgetfulStorage::Observer observer_;
};

#endif  // TESTS_SUPPORT_AGENT_WORLD_H
