#include "agent/download.h"

#include "agent/http.h"
#include "agent/part_file.h"

namespace {

struct Download {
    Http& http;
    const DownloadProgress& progress;
    PartFile part;
};

// One request for the missing bytes, and the state of its answer.
struct Fetch {
    Download& download;
    bool rest;           // the request is for the rest of the file, not for the whole
    bool begun = false;  // the headers of the answer have been checked
    bool unfit = false;  // the answer is not the requested part
};

AgentStatus different(const Download& download, const std::string& how) {
    return agent_fault(AGENT_DIFFERENT, download.part.file.name + " " + how);
}

AgentStatus report_progress(Download& download) {
    return download.progress(download.part.position) ? AgentStatus{} : agent_stopped();
}

AgentStatus begin_part(Fetch& fetch, const HttpHead& head) {
    PartFile& part = fetch.download.part;
    if (!fetch.rest) {
        return agent_fault(AGENT_MALFORMED,
                           part.file.name + ": the server sent a part instead of the whole file");
    }
    const std::string range = "bytes " + std::to_string(part.position) + "-" +
                              std::to_string(part.file.size - 1) + "/" +
                              std::to_string(part.file.size);
    const bool sameTag = head.entityTag.empty() || head.entityTag == part.record.entityTag;
    fetch.unfit = head.contentRange != range || !sameTag;
    // The text is never shown, because complete() requests the whole file now.
    return fetch.unfit ? agent_fault(AGENT_MALFORMED, "another part") : AgentStatus{};
}

AgentStatus begin_whole(Fetch& fetch, const HttpHead& head) {
    PartFile& part = fetch.download.part;
    if (head.length >= 0 && static_cast<uint64_t>(head.length) != part.file.size) {
        // The answer may be a page of a proxy. Nothing of it is stored, and stored bytes are kept.
        return agent_fault(AGENT_MALFORMED, part.file.name + " has " + std::to_string(head.length) +
                                                " bytes instead of the announced " +
                                                std::to_string(part.file.size));
    }
    return start_part(part, head.entityTag);
}

AgentStatus take_bytes(Fetch& fetch, const HttpHead& head, std::span<const char> bytes) {
    if (!fetch.begun) {
        fetch.begun = true;
        AgentStatus status = head.code == 206 ? begin_part(fetch, head) : begin_whole(fetch, head);
        if (!status.ok()) {
            return status;
        }
    }
    PartFile& part = fetch.download.part;
    if (bytes.size() > part.file.size - part.position) {
        return different(fetch.download, "is longer than the " + std::to_string(part.file.size) +
                                             " bytes that were announced");
    }
    AgentStatus status = append_part(part, bytes);
    return status.ok() ? report_progress(fetch.download) : status;
}

// Requests the missing bytes. Sets `unfit` when the answer to a request for a part was not that
// part.
AgentStatus request_rest(Download& download, bool& unfit) {
    const PartFile& part = download.part;
    Fetch fetch = {.download = download, .rest = part.position > 0};
    std::vector<std::string> headers;
    if (fetch.rest) {
        headers.push_back("Range: bytes=" + std::to_string(part.position) + "-");
        headers.push_back("If-Range: " + part.record.entityTag);
    }
    HttpHead head;
    AgentStatus status = download.http.fetch(
        part.file.href, headers, head, [&fetch](const HttpHead& of, std::span<const char> bytes) {
            return take_bytes(fetch, of, bytes);
        });
    if (status.ok() && !fetch.begun) {
        status = take_bytes(fetch, head, {});  // an empty file: libcurl delivered no bytes
    }
    unfit = fetch.unfit || (fetch.rest && head.code == 416);
    if (status.ok() && part.position < part.file.size) {
        status = different(download, "ended after " + std::to_string(part.position) + " of " +
                                         std::to_string(part.file.size) + " bytes");
    }
    return status;
}

// Downloads the missing bytes and checks the digests of the whole file.
AgentStatus complete(Download& download) {
    PartFile& part = download.part;
    AgentStatus status;
    if (part.position < part.file.size) {
        bool unfit = false;
        status = request_rest(download, unfit);
        if (unfit) {
            status = empty_part(part);
            status = status.ok() ? request_rest(download, unfit) : status;
        }
    }
    return status.ok() ? check_sums(part) : status;
}

AgentStatus fetch_file(Download& download) {
    PartFile& part = download.part;
    AgentStatus status = open_part(part);
    status = status.ok() && part.position > 0 ? report_progress(download) : status;
    if (!status.ok()) {
        return status;
    }
    status = complete(download);
    // Stored bytes or the answer may be corrupt, so the whole file is downloaded once more.
    if (status.result == AGENT_DIFFERENT && !part.record.cameDifferent) {
        part.record.cameDifferent = true;
        status = start_part(part, "");
        status = status.ok() ? complete(download) : status;
    }
    switch (status.result) {
        case AGENT_OK:
            return put_in_place(part);
        case AGENT_DIFFERENT:
            remove_part(part);
            return status;
        case AGENT_UNREACHABLE:
        case AGENT_STOPPED: {
            AgentStatus kept = keep_part(part);
            return kept.ok() ? status : kept;
        }
        default:
            return status;
    }
}

// Whether the manifest has one digest over the whole file, as the server has.
bool is_one_module(const PackageFile& content) {
    return content.modules.size() == 1 && content.modules[0].size == content.size &&
           content.modules[0].sha256 && !content.mayBeLonger;
}

}  // namespace

AgentStatus download_file(Server& server, const DdiFile& file, const PackageFile* content,
                          const OpenFolder& folder, const DownloadProgress& progress) {
    if (content != nullptr && is_one_module(*content)) {
        if (*content->modules[0].sha256 != file.sha256 || content->size != file.size) {
            return agent_fault(AGENT_DIFFERENT,
                               file.name + ": server and manifest name different digests or sizes");
        }
        content = nullptr;  // the server's digest is the manifest's, so one check is enough
    }
    Http& http = server.http();
    Download download = {
        .http = http,
        .progress = progress,
        .part = {.file = file, .content = content, .folder = folder, .stop = http.stop()}};
    AgentStatus status = check_whole_file(download.part);
    if (status.result == AGENT_DIFFERENT) {
        return fetch_file(download);
    }
    if (status.ok()) {
        remove_part(download.part);
    }
    return status;
}
