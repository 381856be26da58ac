// Files of an action, fetched into the download folder.
//
// Bytes go to "NAME.part"; what belongs to them (size, digest, the server's entity tag) lies beside
// it in "NAME.part.from", for a moment in "NAME.part.from.new". A download that was interrupted in
// any way goes on behind the bytes that are there, which are read once to be hashed, when the
// server still has the same file (Range and If-Range, RFC 9110 chapters 14 and 13.1.5), else it
// starts anew. Bytes are flushed at each MiB, and when the call returns: a power cut costs less
// than two MiB, the last whole one of which may have been flushed or not. The finished file is
// flushed, renamed to NAME and the rename flushed too: a NAME is whole and has the announced
// digest.
#ifndef AGENT_DOWNLOAD_H
#define AGENT_DOWNLOAD_H

#include <stdint.h>

#include <functional>
#include <string>

#include "agent/agent_result.h"
#include "agent/ddi.h"
#include "agent/folder.h"
#include "agent/server.h"
#include "package/content.h"

// Told the bytes of the file that are there, whenever some come; begins again when the file does.
// The download ends as AGENT_STOPPED, what came so far kept, when it returns false. May block and
// use another Server.
using DownloadProgress = std::function<bool(uint64_t bytes)>;

constexpr char PART_SUFFIX[] = ".part";

// Fetches a file into the folder. `content`, when not null, is what the manifest
// says of the file and is checked as the bytes arrive, beside the server's digest and size. A NAME
// that is there is not fetched again, but read and checked. Memory does not grow with the size.
//
// The file is asked for once; twice when the part that came is not the one that was asked for, or
// when the whole is another file than announced. That it came different is remembered, so that
// interruptions do not make it come a third time. Not one byte is asked for when the server's word
// and the manifest's cannot both be true. Returns
//   AGENT_OK           NAME is there and is what was announced
//   AGENT_UNREACHABLE  interrupted; what came so far is kept: call again, later when nothing came
//   AGENT_DIFFERENT    other bytes than announced, twice; nothing is left of them
//   AGENT_MALFORMED    an answer that is not this file, by its code or its length; what came before
//                      stays
//   AGENT_GONE, AGENT_REFUSED, AGENT_STOPPED
//   AGENT_MEDIUM       the folder takes no more
AgentStatus download_file(Server& server, const DdiFile& file, const PackageFile* content,
                          const OpenFolder& folder, const DownloadProgress& progress);

#endif  // AGENT_DOWNLOAD_H
