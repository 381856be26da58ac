// Splits, resolves and prints URLs, through libcurl.
#ifndef AGENT_URL_H
#define AGENT_URL_H

#include <string>

struct UrlParts {
    std::string scheme;  // in lower case; empty: not a URL, or a URL with a user name
    std::string host;    // in lower case
    std::string port;    // the scheme's default port when the URL has no port

    // Whether scheme, host and port of both are equal.
    [[nodiscard]] bool same_origin(const UrlParts& other) const {
        return !scheme.empty() && scheme == other.scheme && host == other.host &&
               port == other.port;
    }
};

UrlParts url_parts(const std::string& text);

// Resolves the value of a "Location" header, which may be relative to the request's URL `base` (RFC
// 3986 chapter 5). A value that cannot be resolved is returned unchanged; url_parts() refuses it.
std::string resolved_url(const std::string& base, const std::string& location);

// Returns the URL for messages. The query is removed, because that of a signed link is a secret.
std::string shown_url(const std::string& text);

#endif  // AGENT_URL_H
