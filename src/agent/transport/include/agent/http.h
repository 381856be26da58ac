// HTTP requests to the update server, and to other hosts from which files are downloaded, through
// libcurl. One handle is used for all, so that connections are reused. HTTP/1.1 (RFC 9110, RFC
// 9112), TLS 1.2 or newer.
//
// The camera's credentials (authorization header and client certificate) are sent only to the
// origin (scheme, host and port) of the configured server. A download that is redirected is fetched
// without them. If the server is configured with https, links to http are refused. A request that
// is refused with 401 is repeated when the token file contains a new token.
//
// All requests use the configured proxy; without one they are direct, and environment variables
// have no effect. A refusal by the proxy (407) is AGENT_UNREACHABLE, because the server got no
// request.
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

// Status and headers of an answer.
struct HttpHead {
    long code = 0;             // status, 200 to 599; 0: no answer was received
    std::string entityTag;     // "ETag", unchanged; empty when missing, longer than 256 characters
                               // or not printable
    std::string contentRange;  // "Content-Range", unchanged, or empty
    std::string location;      // absolute target URL of a redirect, or empty
    int64_t length = -1;       // bytes of content, -1: not announced
    uint32_t retryAfterS = 0;
};

// Receives the next bytes of an answer, at least 1. A status other than AGENT_OK ends the exchange,
// which then returns that status.
using HttpContent = std::function<AgentStatus(const HttpHead& head, std::span<const char> bytes)>;

// Returns the first 200 printable bytes of an answer, in one line for people. Each run of other
// bytes becomes one space.
std::string printable_start(std::string_view answer);

struct CurlDeleter {
    void operator()(void* handle) const;
};

// To be used from one thread only.
class Http {
  public:
    // Both arguments are described in server.h.
    Http(ServerSettings settings, const std::atomic<bool>& stop);
    // Shares open connections and TLS sessions with `other`. Both must be used from the same
    // thread; either may be destroyed first.
    Http(ServerSettings settings, const std::atomic<bool>& stop, const Http& other);
    Http(const Http&) = delete;
    Http& operator=(const Http&) = delete;

    // Sends a request to the server and receives a JSON answer. `body` is sent with POST and PUT.
    // Blocks until the answer is complete, at most `connectTimeoutS` + `stallTimeoutS` for the
    // request and for each redirect. Up to five redirects within the server's origin are followed.
    // Returns the codes listed in server.h.
    AgentStatus call(const char* method, const std::string& url, const std::string& body,
                     std::string& answer);

    // Downloads a file from any host. `headers` ("Name: value") are sent with each request; up to
    // five redirects are followed. `content` receives the bytes of an answer with status 200 or
    // 206. Blocks as long as bytes arrive. Returns a failure of `content`, or the codes listed in
    // server.h; `head` describes the last answer.
    AgentStatus fetch(const std::string& url, const std::vector<std::string>& headers,
                      HttpHead& head, const HttpContent& content);

    // As Server::reload_token().
    AgentStatus reload_token();

    [[nodiscard]] const ServerSettings& settings() const { return settings_; }
    [[nodiscard]] const std::atomic<bool>& stop() const { return stop_; }

    // Percent-encodes the text for use as one segment of a path (RFC 3986).
    [[nodiscard]] std::string path_part(const std::string& text) const;

  private:
    struct Request;
    Http(ServerSettings settings, const std::atomic<bool>& stop, std::shared_ptr<void> share);
    AgentStatus exchange(const Request& request, HttpHead& head, const HttpContent& content);
    bool has_new_token(std::string& fault);

    ServerSettings settings_;
    const std::atomic<bool>& stop_;
    std::shared_ptr<void> share_;  // a CURLSH; destroyed after the handles that use it
    std::unique_ptr<void, CurlDeleter> handle_;
};

#endif  // AGENT_HTTP_H
