// A simulated update server in the process of the test, which can misbehave. It listens on a free
// port of the loopback address from construction to destruction. Its functions may be called from
// any thread.
//
// It also acts as a simple proxy: it answers an http request for any host as one for itself, and
// CONNECT with 407.
#ifndef TESTS_SUPPORT_SIMULATED_SERVER_H
#define TESTS_SUPPORT_SIMULATED_SERVER_H

#include "simulated_hawkbit.h"

class SimulatedServer : public SimulatedHawkbit {
  public:
    struct Setup {
        bool old = false;                // true: behaves as version 0.3; false: as 1.0
        std::string sleep = "00:00:02";  // polling interval
        std::string certificate = {};    // PEM files: the server speaks https, else http
        std::string key = {};
        std::string clients =
            {};                  // PEM file of the authority for client certificates; may be empty
        bool onlyFiles = false;  // serves only files of offered actions, without authentication
    };
    explicit SimulatedServer(const Setup& setup);
    ~SimulatedServer();

    static constexpr char AUTHORIZATION[] = "TargetToken secret";  // this camera's

    // Sets the faults from now on, replacing earlier ones: faults separated by ";", each
    // WHAT[:N[+]] KIND [ARGUMENT...]. WHAT is a kind of request (SimulatedRequest), or "any", or
    // "closed" for the feedback that ends an action. N: only the Nth such request from now on (from
    // 1); "N+": this and all later ones; without N: all. Kinds:
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

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

#endif  // TESTS_SUPPORT_SIMULATED_SERVER_H
