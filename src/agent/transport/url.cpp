#include "agent/url.h"

#include <ctype.h>
#include <curl/curl.h>

#include <memory>

namespace {

struct UrlDeleter {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using OwnedUrl = std::unique_ptr<CURLU, UrlDeleter>;

// Parses the URL, or returns null. User names are not allowed: libcurl would send them as
// credentials.
OwnedUrl parse(const std::string& text) {
    OwnedUrl url(curl_url());
    if (url &&
        curl_url_set(url.get(), CURLUPART_URL, text.c_str(), CURLU_DISALLOW_USER) != CURLUE_OK) {
        url.reset();
    }
    return url;
}

std::string part_of(CURLU* url, CURLUPart part, unsigned flags) {
    char* text = nullptr;
    if (curl_url_get(url, part, &text, flags) != CURLUE_OK) {
        return "";
    }
    std::string copy = text;
    curl_free(text);
    return copy;
}

std::string lower_case(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

}  // namespace

UrlParts url_parts(const std::string& text) {
    const OwnedUrl url = parse(text);
    if (!url) {
        return {};
    }
    return {.scheme = lower_case(part_of(url.get(), CURLUPART_SCHEME, 0)),
            .host = lower_case(part_of(url.get(), CURLUPART_HOST, 0)),
            .port = part_of(url.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT)};
}

std::string resolved_url(const std::string& base, const std::string& location) {
    const OwnedUrl url = parse(base);
    // Callers refuse unknown schemes and user names. Spaces are encoded, as browsers do it.
    const unsigned flags = CURLU_NON_SUPPORT_SCHEME | CURLU_URLENCODE;
    const bool known =
        url && curl_url_set(url.get(), CURLUPART_URL, location.c_str(), flags) == CURLUE_OK;
    const std::string resolved = known ? part_of(url.get(), CURLUPART_URL, 0) : "";
    return resolved.empty() ? location : resolved;
}

std::string shown_url(const std::string& text) {
    const OwnedUrl url = parse(text);
    if (!url) {
        return "a link that is not a plain URL";
    }
    curl_url_set(url.get(), CURLUPART_QUERY, nullptr, 0);
    curl_url_set(url.get(), CURLUPART_FRAGMENT, nullptr, 0);
    return part_of(url.get(), CURLUPART_URL, 0);
}
