// HTTP with the update server and with the hosts that it sends a camera to for files, by libcurl:
// one handle, so that a connection is used again. HTTP/1.1 (RFC 9110, RFC 9112), TLS 1.2 or newer.
//
// What proves who the camera is, the authorization header and the client certificate, goes to the
// origin (scheme, host and port) of the configured server only, and with files not along a
// redirect. A server that is reached by https leads nowhere to http. A request that is refused with
// 401 is made once more when the token's file has another token by now.
//
// Everything goes through the proxy of the settings, or through none: environment variables have no
// effect. What a proxy refuses (407) is AGENT_UNREACHABLE: the server was not asked.
#ifndef AGENT_HTTP_H
#define AGENT_HTTP_H

#include <stdint.h>

#include <atomic>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "agent/agent_result.h"
#include "agent/server.h"

// What an answer says before its content comes.
struct HttpHead {
    long code = 0;             // status, 200 to 599; 0: there is no answer
    std::string entityTag;     // as it came; empty when there is none, or one of more than 256
                               // characters or of other than printable ones
    std::string contentRange;  // as it came, or empty
    std::string location;      // where a redirect leads, or empty
    int64_t length = -1;       // bytes of content, -1: not said
    uint32_t retryAfterS = 0;
};

// Takes the next bytes of an answer, at least 1. A fault ends the exchange and is what it returns.
using HttpContent = std::function<AgentStatus(const HttpHead& head, std::span<const char> bytes)>;

// The answer's first 200 printable bytes for people, in one line: each run of others is a space.
std::string printable_start(std::string_view answer);

struct CurlDeleter {
    void operator()(void* handle) const;
};

// For one thread.
class Http {
  public:
    // See server.h for both.
    Http(ServerSettings settings, const std::atomic<bool>& stop);
    Http(const Http&) = delete;
    Http& operator=(const Http&) = delete;

    // Asks the server for JSON. `body` goes along with POST and PUT. Blocks until all of the answer
    // is there, at most `connectTimeoutS` and `stallTimeoutS` together for each redirect. Redirects
    // are followed five times within the server's origin. Returns as server.h has it.
    AgentStatus call(const char* method, const std::string& url, const std::string& body,
                     std::string& answer);

    // Fetches a file, from whatever host. `headers` ("Name: value") go along with each redirect, of
    // which five are followed. `content` gets what comes with 200 or 206. Blocks as long as bytes
    // come. Returns what `content` returned, or as server.h has it; `head` is that of the last
    // answer.
    AgentStatus fetch(const std::string& url, const std::vector<std::string>& headers,
                      HttpHead& head, const HttpContent& content);

    // See server.h.
    AgentStatus reload_token();

    [[nodiscard]] const ServerSettings& settings() const { return settings_; }
    [[nodiscard]] const std::atomic<bool>& stop() const { return stop_; }

    // The text as a part of a path, percent-encoded (RFC 3986).
    [[nodiscard]] std::string path_part(const std::string& text) const;

  private:
    struct Request;
    AgentStatus exchange(const Request& request, HttpHead& head, const HttpContent& content);
    bool has_new_token(std::string& fault);

    ServerSettings settings_;
    const std::atomic<bool>& stop_;
    std::unique_ptr<void, CurlDeleter> handle_;
};

#endif  // AGENT_HTTP_H
