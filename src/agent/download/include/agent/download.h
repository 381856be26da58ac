// Downloads the files of an action into the download folder.
//
// Bytes are written to "NAME.part". Their record (size, digest, the server's entity tag) is stored
// in "NAME.part.from", and while it is written in "NAME.part.from.new". An interrupted download
// continues after the bytes that are already stored, if the server still has the same file (Range
// and If-Range, RFC 9110 chapters 14 and 13.1.5); the stored bytes are read once to compute their
// digest. Otherwise the download starts again. Bytes are flushed after each MiB and when the call
// returns, so that a power cut loses less than two MiB. The complete file is flushed and renamed to
// NAME, and the rename is flushed too: a file called NAME is always complete and has the announced
// digest.
#ifndef AGENT_DOWNLOAD_H
#define AGENT_DOWNLOAD_H

#include <stdint.h>

#include <functional>

#include "agent/agent_result.h"
#include "agent/ddi.h"
#include "agent/folder.h"
#include "agent/server.h"
#include "package/content.h"

// Called with the number of bytes that are stored, each time bytes arrive. The number restarts at 0
// when the download starts again. When the function returns false, the download keeps the stored
// bytes and ends with AGENT_STOPPED. The function may block and use another Server.
using DownloadProgress = std::function<bool(uint64_t bytes)>;

constexpr char PART_SUFFIX[] = ".part";

// Downloads a file into the folder. `content` is the manifest's description of the file, or null.
// It is checked while the bytes arrive, in addition to the server's digest and size. If NAME exists
// already, it is read and checked but not downloaded. Memory use does not depend on the file's
// size.
//
// The file is requested once. It is requested a second time when the received part is not the
// requested one, or when the complete file differs from the announced one. That a different file
// came is stored in the record, so that interruptions cannot lead to a third request. Nothing is
// requested when the descriptions of server and manifest contradict each other. Returns
//   AGENT_OK           NAME exists and is the announced file
//   AGENT_UNREACHABLE  interrupted; stored bytes are kept. Call again, later if no byte arrived
//   AGENT_DIFFERENT    received twice, and twice not the announced file; all bytes were removed
//   AGENT_MALFORMED    an answer whose code or length cannot be this file; stored bytes are kept
//   AGENT_GONE, AGENT_REFUSED, AGENT_STOPPED
//   AGENT_STORAGE      the folder cannot be read or written, or is full
AgentStatus download_file(Server& server, const DdiFile& file, const PackageFile* content,
                          const OpenFolder& folder, const DownloadProgress& progress);

#endif  // AGENT_DOWNLOAD_H
