// URLs taken apart, by libcurl.
#ifndef AGENT_URL_H
#define AGENT_URL_H

#include <string>

struct UrlParts {
    std::string scheme;  // in lower case; empty: the text is no URL, or one with a user's name
    std::string host;    // in lower case
    std::string port;    // the scheme's own when the URL says none

    // Whether both lead to the same server.
    [[nodiscard]] bool same_origin(const UrlParts& other) const {
        return !scheme.empty() && scheme == other.scheme && host == other.host &&
               port == other.port;
    }
};

UrlParts url_parts(const std::string& text);

// Where a "Location" leads that came with an answer of `base`, which it may be relative to (RFC
// 3986 chapter 5). What cannot be read as one is returned as it stands, for url_parts() to refuse.
std::string resolved_url(const std::string& base, const std::string& location);

// The URL for people: without the query, which makes a signed link a secret.
std::string shown_url(const std::string& text);

#endif  // AGENT_URL_H
