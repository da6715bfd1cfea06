// posixctl: starts, stops and queries the instance's server, and runs programs through it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace posixctl {

// Exit codes of posixctl itself.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// Prints "posixctl: <text>" on standard error; answers kExitUsage, for `return usage(...)`.
int usage(const std::string& text);
// Prints "posixctl: <what>: <strerror(err)>" on standard error; answers kExitFailure.
int failure(const std::string& what, int err);

// Replaces or adds the NAME=VALUE `entry` in `env`.
void setEnvEntry(std::vector<std::string>& env, const std::string& entry);

// Parses a whole decimal integer; false for anything else.
bool parseInt(const char* s, int64_t* out);

// The pid of the server that answers a round trip on the runtime directory, or 0.
int64_t answeringServer();

// Starts a server in the background unless one answers. `serverPath` may be empty.
// `quiet` prints nothing on success. Answers an exit code.
int startServer(const std::string& serverPath, bool quiet);

int cmdStart(const std::vector<std::string>& args);
int cmdStop(const std::vector<std::string>& args);
int cmdStatus(const std::vector<std::string>& args);
int cmdFds(const std::vector<std::string>& args);
int cmdCat(const std::vector<std::string>& args);
int cmdRun(const std::vector<std::string>& args);
int cmdKill(const std::vector<std::string>& args);
int cmdKillpg(const std::vector<std::string>& args);
int cmdPgid(const std::vector<std::string>& args);
int cmdPpid(const std::vector<std::string>& args);

}  // namespace posixctl
