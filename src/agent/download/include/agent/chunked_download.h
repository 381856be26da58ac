// Downloads a chunked image: only the chunks that the camera does not have.
//
// The image is written from its beginning to "NAME.part". Chunks that the camera has are copied,
// and the others are requested from NAME.zst by ranges (RFC 9110 chapter 14), one range in a
// request, through one connection. Every chunk is verified before it is written, so NAME.part needs
// no record: after an interruption its chunks are verified once more, and the download continues
// after the last right one. Bytes are flushed after each MiB and when the call returns. At the end
// the SHA-256 of the whole image is compared, and the file is flushed and renamed to NAME.
//
// If a server answers with the whole file, its beginning is received up to the last chunk that the
// camera does not have. At most the frames of all chunks arrive, unless a server stops to send
// ranges in the middle of a download, or sends something else.
#ifndef AGENT_CHUNKED_DOWNLOAD_H
#define AGENT_CHUNKED_DOWNLOAD_H

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

#include "agent/agent_result.h"
#include "agent/chunk_sources.h"
#include "agent/ddi.h"
#include "agent/folder.h"
#include "agent/server.h"
#include "package/manifest.h"

// Maximum number of requests for a file: a server of the 0.3 generation stores a status for each.
constexpr uint32_t CHUNK_REQUESTS_MAX = 64;

struct ChunkedImage {
    const ManifestModule& module;  // with the description of both files
    const DdiFile& frames;         // NAME.zst as the server offers it
    // Path under which the index is stored when the image is complete; empty: it is not.
    std::string storedIndex;
};

struct ChunkedCalls {
    // Called before each request. A status other than AGENT_OK ends the download with it.
    std::function<AgentStatus()> request;
    // Called when it is known how many bytes of NAME.zst have to be requested, and again if that
    // changes. `copied`: bytes of the image that the camera has.
    std::function<void(uint64_t toFetch, uint64_t copied)> plan;
    // Called for each chunk and while bytes arrive, with the number of bytes of NAME.zst that have
    // arrived. When it returns false, the download keeps the stored bytes and ends with
    // AGENT_STOPPED. It may block and use another Server.
    std::function<bool(uint64_t fetched)> progress;
};

// Makes NAME from its chunks. NAME.chunks must be in the folder, as the manifest describes it. If
// NAME exists already, it is read and checked, and nothing is downloaded. Uses the sources as
// chunk_sources.h describes; where a stored index turns out to be wrong, the source is cut. Needs
// 36 bytes of memory for each chunk and 512 KiB.
//
// A range that is not the requested one, or has bytes that are not those of the index, is requested
// once more; the former by a request for the whole file. Returns
//   AGENT_OK           NAME exists and is the image of the manifest
//   AGENT_UNREACHABLE  interrupted; stored bytes are kept. Call again, later if no byte arrived
//   AGENT_DIFFERENT    the files of server, index and manifest contradict each other
//   AGENT_MALFORMED    an answer whose code or length cannot be this file; stored bytes are kept
//   AGENT_GONE, AGENT_REFUSED, AGENT_STOPPED
//   AGENT_STORAGE      the folder cannot be read or written, or is full
AgentStatus download_chunked(Server& server, const ChunkedImage& image,
                             std::vector<ChunkSource>& sources, const OpenFolder& folder,
                             const ChunkedCalls& calls);

#endif  // AGENT_CHUNKED_DOWNLOAD_H
