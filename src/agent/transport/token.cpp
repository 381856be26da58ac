#include "agent/token.h"

#include <sys/stat.h>

#include "package/files.h"

namespace {

constexpr size_t TOKEN_SIZE_MAX = 4096;

}  // namespace

AgentStatus read_token(const std::string& path, std::string& token) {
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        return agent_fault(AGENT_MALFORMED, path + " is accessible to other users (chmod 600)");
    }
    const PackageStatus read = read_small_file(path, TOKEN_SIZE_MAX, FileKind::REGULAR, token);
    if (!read.ok()) {
        return agent_fault(AGENT_MALFORMED, read.text);
    }
    token.erase(token.find_last_not_of(" \t\r\n") + 1);
    if (token.empty() || token.find_first_of(" \t\r\n") != std::string::npos) {
        return agent_fault(AGENT_MALFORMED, path + " must contain one token");
    }
    return {};
}
