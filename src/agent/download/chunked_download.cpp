#include "agent/chunked_download.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>

#include "agent/http.h"
#include "agent/part_file.h"
#include "agent/stored_file.h"
#include "package/chunked.h"
#include "package/files.h"

namespace {

// Two ranges are requested as one if the bytes between them cost less than another request. If
// there are too many ranges, larger gaps are joined, too.
constexpr uint64_t FIRST_GAP_MAX = 16384;
// A source that changes more often while it is copied is not used any more. A file system that is
// mounted writable changes a few chunks.
constexpr uint32_t DIFFERENCES_MAX = 16;

struct Assembly {
    Http& http;
    const ChunkedImage& image;
    std::vector<ChunkSource>& sources;
    const ChunkedCalls& calls;
    PartFile part;
    ChunkIndex index = {};
    ChunkReader reader = {};
    // Too large for the stack of a small system.
    std::unique_ptr<char[]> frame = std::make_unique_for_overwrite<char[]>(FRAME_SIZE_MAX);
    std::unique_ptr<char[]> chunk = std::make_unique_for_overwrite<char[]>(CHUNK_SIZE_MAX);

    std::vector<ChunkPlace> places = {};
    uint32_t next = 0;       // number of the first chunk that is not stored
    uint64_t nextFrame = 0;  // offset of its frame in NAME.zst
    uint64_t gapMax = 0;     // bytes between two ranges that are requested, too
    uint64_t fetched = 0;    // bytes of NAME.zst that have arrived
    uint32_t requests = 0;
    std::string entityTag = {};  // of NAME.zst, from its first answer
    bool whole = false;          // the server does not send the requested ranges
    bool cameDifferent = false;  // bytes arrived that are not those of the index
};

AgentStatus different(const Assembly& assembly, const std::string& how) {
    return agent_fault(AGENT_DIFFERENT, assembly.image.frames.name + " " + how);
}

AgentStatus report_progress(const Assembly& assembly) {
    return assembly.calls.progress(assembly.fetched) ? AgentStatus{} : agent_stopped();
}

ChunkEntry entry_of(const Assembly& assembly, uint32_t number) {
    return chunk_entry(assembly.index, number);
}

// Frames that follow each other in NAME.zst.
struct FrameRange {
    uint32_t first = 0;
    uint32_t last = 0;
    uint64_t bytes = 0;
};

// Returns the first range from chunk `from` on whose chunks the camera does not have, with those
// between them that `gapMax` allows; `first` is the number of chunks if the camera has all of them.
FrameRange find_range(const Assembly& assembly, uint32_t from) {
    const uint32_t count = assembly.index.count;
    FrameRange range = {.first = from};
    while (range.first < count && assembly.places[range.first] != NOT_ON_CAMERA) {
        ++range.first;
    }
    uint64_t gap = 0;
    for (uint32_t i = range.first; i < count && gap <= assembly.gapMax; ++i) {
        gap += entry_of(assembly, i).frameSize;
        if (assembly.places[i] == NOT_ON_CAMERA) {
            range.last = i;
            range.bytes += gap;
            gap = 0;
        }
    }
    return range;
}

struct Need {
    uint32_t ranges = 0;
    uint64_t bytes = 0;
};

Need sum_ranges(const Assembly& assembly) {
    Need need;
    for (FrameRange range = find_range(assembly, assembly.next); range.bytes > 0;
         range = find_range(assembly, range.last + 1)) {
        ++need.ranges;
        need.bytes += range.bytes;
    }
    return need;
}

// Decides which ranges are joined: no more than necessary.
void plan_ranges(Assembly& assembly) {
    const uint32_t left = CHUNK_REQUESTS_MAX - std::min(assembly.requests, CHUNK_REQUESTS_MAX - 1);
    // A binary search, because a list of all gaps could be as large as the index.
    uint64_t tooSmall = FIRST_GAP_MAX - 1;
    uint64_t enough = std::max(assembly.index.framesSize, FIRST_GAP_MAX);
    assembly.gapMax = FIRST_GAP_MAX;
    while (enough - tooSmall > 1) {
        (sum_ranges(assembly).ranges > left ? tooSmall : enough) = assembly.gapMax;
        assembly.gapMax = tooSmall + (enough - tooSmall) / 2;
    }
    assembly.gapMax = enough;
    const Need need = sum_ranges(assembly);
    uint64_t copied = 0;
    for (uint32_t i = assembly.next; i < assembly.index.count; ++i) {
        copied += assembly.places[i] == NOT_ON_CAMERA ? 0 : entry_of(assembly, i).size;
    }
    assembly.calls.plan(assembly.fetched + need.bytes, assembly.part.position + copied);
}

AgentStatus search_and_plan(Assembly& assembly) {
    find_chunks(assembly.sources, assembly.index, assembly.next, assembly.reader,
                assembly.http.stop(), assembly.places);
    if (assembly.http.stop()) {
        return agent_stopped();
    }
    plan_ranges(assembly);
    return {};
}

// Appends the verified chunk `next`.
AgentStatus append_chunk(Assembly& assembly, const ChunkEntry& entry) {
    AgentStatus status = append_part(assembly.part, {assembly.chunk.get(), entry.size});
    if (status.ok()) {
        ++assembly.next;
        assembly.nextFrame += entry.frameSize;
    }
    return status;
}

// Copies the chunk `next` from its place. If other bytes are there, a stored index is wrong, and
// the source is searched anew; or the source is changing, and the chunk is fetched.
AgentStatus copy_chunk(Assembly& assembly) {
    const ChunkEntry entry = entry_of(assembly, assembly.next);
    const ChunkPlace place = assembly.places[assembly.next];
    const std::span<char> chunk(assembly.chunk.get(), entry.size);
    if (read_place(assembly.sources, place, chunk) &&
        check_chunk(assembly.reader, entry, chunk) == CHUNKS_OK) {
        AgentStatus status = append_chunk(assembly, entry);
        return status.ok() ? report_progress(assembly) : status;
    }
    ChunkSource& source = source_of(assembly.sources, place);
    if (!source.storedIndex.empty()) {
        source.storedIndex.clear();
        return search_and_plan(assembly);
    }
    assembly.places[assembly.next] = NOT_ON_CAMERA;
    if (++source.differences > DIFFERENCES_MAX) {
        for (ChunkPlace& other : assembly.places) {
            if (other != NOT_ON_CAMERA && &source_of(assembly.sources, other) == &source) {
                other = NOT_ON_CAMERA;
            }
        }
    }
    plan_ranges(assembly);
    return {};
}

// One request, and the state of its answer.
struct Fetch {
    Assembly& assembly;
    FrameRange range;  // what was requested, and is expected
    bool begun = false;
    bool unfit = false;    // the answer is not the requested range
    bool isWhole = false;  // the answer is the whole file
    bool enough = false;   // of which the rest is not needed
    uint32_t number = 0;   // of the frame that arrives
    uint32_t filled = 0;   // bytes of it that have arrived
};

AgentStatus begin_range(Fetch& fetch, const HttpHead& head) {
    Assembly& assembly = fetch.assembly;
    const std::string& name = assembly.image.frames.name;
    if (assembly.whole) {
        return agent_fault(AGENT_MALFORMED,
                           name + ": the server sent a part instead of the whole file");
    }
    const std::string range = "bytes " + std::to_string(assembly.nextFrame) + "-" +
                              std::to_string(assembly.nextFrame + fetch.range.bytes - 1) + "/" +
                              std::to_string(assembly.index.framesSize);
    const bool sameTag = head.entityTag.empty() || assembly.entityTag.empty() ||
                         head.entityTag == assembly.entityTag;
    fetch.unfit = head.contentRange != range || !sameTag;
    // The text is never shown, because fetch_range() requests the whole file now.
    return fetch.unfit ? agent_fault(AGENT_MALFORMED, "another part") : AgentStatus{};
}

AgentStatus begin_whole(Fetch& fetch, const HttpHead& head) {
    Assembly& assembly = fetch.assembly;
    const uint64_t size = assembly.index.framesSize;
    if (head.length >= 0 && static_cast<uint64_t>(head.length) != size) {
        // The answer may be a page of a proxy.
        return agent_fault(AGENT_MALFORMED,
                           assembly.image.frames.name + " has " + std::to_string(head.length) +
                               " bytes instead of the announced " + std::to_string(size));
    }
    fetch.isWhole = true;
    fetch.number = 0;
    fetch.range = {.last = assembly.next};
    uint64_t position = 0;
    for (uint32_t i = 0; i < assembly.index.count; ++i) {
        position += entry_of(assembly, i).frameSize;
        if (i >= assembly.next && assembly.places[i] == NOT_ON_CAMERA) {
            fetch.range.last = i;
            fetch.range.bytes = position;
        }
    }
    assembly.calls.plan(assembly.fetched + fetch.range.bytes, assembly.part.position);
    return {};
}

// A frame has arrived. Those of stored chunks are not needed.
AgentStatus end_frame(Fetch& fetch) {
    Assembly& assembly = fetch.assembly;
    const uint32_t number = fetch.number++;
    const ChunkEntry entry = entry_of(assembly, number);
    fetch.filled = 0;
    if (number < assembly.next) {
        return {};
    }
    const ChunkResult result =
        restore_chunk(assembly.reader, entry, {assembly.frame.get(), entry.frameSize},
                      {assembly.chunk.get(), entry.size});
    if (result == CHUNKS_NO_MEMORY) {
        throw std::bad_alloc();
    }
    return result == CHUNKS_OK ? append_chunk(assembly, entry)
                               : different(assembly, "chunk " + std::to_string(number) + ": " +
                                                         chunk_result_text(result));
}

AgentStatus take_bytes(Fetch& fetch, const HttpHead& head, std::span<const char> bytes) {
    Assembly& assembly = fetch.assembly;
    AgentStatus status;
    if (!fetch.begun) {
        fetch.begun = true;
        status = head.code == 206 ? begin_range(fetch, head) : begin_whole(fetch, head);
        if (!status.ok()) {
            return status;
        }
        assembly.entityTag = head.entityTag;
    }
    while (!bytes.empty() && status.ok()) {
        if (fetch.number > fetch.range.last && fetch.isWhole) {
            fetch.enough = true;
            return agent_stopped();  // ends the transfer
        }
        if (fetch.number > fetch.range.last) {
            return different(assembly, "is longer than the requested " +
                                           std::to_string(fetch.range.bytes) + " bytes");
        }
        const uint32_t size = entry_of(assembly, fetch.number).frameSize;
        const auto taken =
            static_cast<uint32_t>(std::min<size_t>(bytes.size(), size - fetch.filled));
        memcpy(assembly.frame.get() + fetch.filled, bytes.data(), taken);
        fetch.filled += taken;
        assembly.fetched += taken;
        bytes = bytes.subspan(taken);
        status = fetch.filled == size ? end_frame(fetch) : AgentStatus{};
    }
    return status.ok() ? report_progress(assembly) : status;
}

// Requests a range that begins with the chunk `next`, or the whole file. Sets `unfit` when the
// answer was not that range.
AgentStatus request_frames(Assembly& assembly, bool& unfit) {
    AgentStatus status = assembly.calls.request();
    if (!status.ok()) {
        return status;
    }
    ++assembly.requests;
    Fetch fetch = {.assembly = assembly,
                   .range = find_range(assembly, assembly.next),
                   .number = assembly.next};
    std::vector<std::string> headers;
    if (!assembly.whole) {
        headers.push_back("Range: bytes=" + std::to_string(assembly.nextFrame) + "-" +
                          std::to_string(assembly.nextFrame + fetch.range.bytes - 1));
        // A weak tag is not allowed there (RFC 9110, chapter 13.1.5); servers then send the whole
        // file. Every frame is verified anyway.
        if (!assembly.entityTag.empty() && !assembly.entityTag.starts_with("W/")) {
            headers.push_back("If-Range: " + assembly.entityTag);
        }
    }
    HttpHead head;
    status = assembly.http.fetch(assembly.image.frames.href, headers, head,
                                 [&fetch](const HttpHead& of, std::span<const char> bytes) {
                                     return take_bytes(fetch, of, bytes);
                                 });
    unfit = fetch.unfit || (!assembly.whole && head.code == 416);
    if (fetch.enough) {
        return {};
    }
    if (status.ok() && fetch.number <= fetch.range.last) {
        status = different(assembly, "ended too early");
    }
    return status;
}

AgentStatus fetch_range(Assembly& assembly) {
    bool unfit = false;
    AgentStatus status = request_frames(assembly, unfit);
    if (unfit && !assembly.whole) {
        assembly.whole = true;
        status = request_frames(assembly, unfit);
    }
    // The file may have been replaced, or the answer may be damaged, so the rest is requested once
    // more.
    if (status.result == AGENT_DIFFERENT && !assembly.cameDifferent) {
        assembly.cameDifferent = true;
        assembly.entityTag.clear();
        plan_ranges(assembly);
        return {};
    }
    return status;
}

AgentStatus read_stored_chunks(Assembly& assembly) {
    PartFile& part = assembly.part;
    uint64_t stored = 0;
    AgentStatus status = open_unrecorded_part(part, stored);
    while (status.ok() && assembly.next < assembly.index.count) {
        const ChunkEntry entry = entry_of(assembly, assembly.next);
        const std::span<char> chunk(assembly.chunk.get(), entry.size);
        if (stored - part.position < entry.size ||
            pread(part.descriptor.get(), chunk.data(), chunk.size(),
                  static_cast<off_t>(part.position)) != static_cast<ssize_t>(chunk.size()) ||
            check_chunk(assembly.reader, entry, chunk) != CHUNKS_OK) {
            break;
        }
        status = part.stop ? agent_stopped() : take_stored(part, chunk);
        ++assembly.next;
        assembly.nextFrame += entry.frameSize;
    }
    return status.ok() ? cut_part(part) : status;
}

AgentStatus assemble(Assembly& assembly) {
    AgentStatus status = read_stored_chunks(assembly);
    status = status.ok() ? search_and_plan(assembly) : status;
    while (status.ok() && assembly.next < assembly.index.count) {
        status = assembly.places[assembly.next] == NOT_ON_CAMERA ? fetch_range(assembly)
                                                                 : copy_chunk(assembly);
    }
    return status;
}

// Stores the index of the image that will be in the partition. Without it the partition is cut and
// hashed by the next download, so a failure is of no importance.
void store_index(const ChunkedImage& image, const std::string& bytes) {
    if (!image.storedIndex.empty() && !store_file(image.storedIndex, bytes).ok()) {
        (void)remove_stored_file(fresh_path(image.storedIndex));
    }
}

AgentStatus make_image(Assembly& assembly, const std::string& index) {
    PartFile& part = assembly.part;
    AgentStatus status = assemble(assembly);
    if (!status.ok()) {
        if (status.result == AGENT_UNREACHABLE || status.result == AGENT_STOPPED) {
            AgentStatus kept = flush_part(part);
            return kept.ok() ? status : kept;
        }
        return status;
    }
    const Sha256 found = part.sha256.take();
    if (found != part.file.sha256) {
        remove_part(part);
        return agent_fault(AGENT_DIFFERENT, part.file.name + " has the SHA-256 " +
                                                digest_text(found) + ", expected " +
                                                digest_text(part.file.sha256));
    }
    store_index(assembly.image, index);
    return put_in_place(part);
}

// Whether the server offers the file that the manifest describes.
AgentStatus check_offered(const ChunkedImage& image) {
    const ManifestFile& frames = image.module.chunked->frames;
    return frames.size == image.frames.size && frames.sha256 == image.frames.sha256
               ? AgentStatus{}
               : agent_fault(
                     AGENT_DIFFERENT,
                     image.frames.name + ": server and manifest name different digests or sizes");
}

}  // namespace

AgentStatus download_chunked(Server& server, const ChunkedImage& image,
                             std::vector<ChunkSource>& sources, const OpenFolder& folder,
                             const ChunkedCalls& calls) {
    AgentStatus status = check_offered(image);
    if (!status.ok()) {
        return status;
    }
    Http& http = server.http();
    const ManifestModule& module = image.module;
    const DdiFile whole = {.name = module.file, .size = module.size, .sha256 = *module.sha256};
    Assembly assembly = {
        .http = http,
        .image = image,
        .sources = sources,
        .calls = calls,
        .part = {.file = whole, .content = nullptr, .folder = folder, .stop = http.stop()}};
    status = check_whole_file(assembly.part);
    if (status.result != AGENT_DIFFERENT) {
        return status;
    }
    const std::string path = folder.path + module.chunked->index.name;
    const auto size = static_cast<size_t>(module.chunked->index.size);
    std::string bytes;
    bytes.reserve(size + 1);  // for the byte by which a longer file is noticed
    PackageStatus read = read_small_file(path, size, FileKind::NO_LINK, bytes);
    if (!read.ok()) {
        return agent_fault(AGENT_STORAGE, read.text);
    }
    read = read_index(path, bytes, module, assembly.index);
    if (!read.ok()) {
        return agent_fault(AGENT_DIFFERENT, read.text);
    }
    if (make_chunk_reader(assembly.reader) != CHUNKS_OK) {
        throw std::bad_alloc();
    }
    return make_image(assembly, bytes);
}
