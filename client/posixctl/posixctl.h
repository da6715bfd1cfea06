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

// Prints "posixctl: <text> (see '<see>')" on standard error; answers kExitUsage, for
// `return usage(...)`.
int usage(const std::string& text, const char* see = "posixctl help");
// Prints "posixctl: <what>: <strerror(err)>" on standard error; answers kExitFailure.
int failure(const std::string& what, int err);
// Prints "posixctl: <command>: no process <pid>", the one wording of that fact for every
// command; answers kExitFailure.
int noProcess(const char* command, int64_t pid);

// Replaces or adds the NAME=VALUE `entry` in `env`.
void setEnvEntry(std::vector<std::string>& env, const std::string& entry);

// Parses a whole decimal integer; false for anything else.
bool parseInt(const char* s, int64_t* out);
// "--name VALUE" taken out of `args` into *value; false when absent (*bad when VALUE is missing).
bool takeOption(std::vector<std::string>* args, const char* name, std::string* value, bool* bad);
// The flag `name` taken out of `args`; true when it was there.
bool takeFlag(std::vector<std::string>* args, const char* name);

// The pid of the server that answers a round trip on the runtime directory, or 0 with *err
// (may be null) set to the library's errno.
int64_t answeringServer(int* err = nullptr);

// Prints "posixctl: <what>: <reason>" for a library call that failed with `err`, naming the
// runtime directory when no server answers there (with how to start one), when it is refused
// (and why) or when its server hangs. Answers kExitFailure.
int callFailure(const std::string& what, int err);
// Why the library refuses the runtime directory or the server on it, as a sentence; "" when
// it does not (or the directory does not exist).
std::string runtimeRefusal();
// Opens the runtime directory for making files in it: a directory of our own, checked as the
// library and the server check it. The descriptor, or -1 with a message in *error.
int openRuntimeDir(std::string* error);
// Moves `fd` above 2 (close-on-exec) when it took a closed standard descriptor, so that no
// file of posixctl's own becomes a standard file of a program; -1 with errno (fd closed).
int aboveStandardFds(int fd);

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
// What the introspection service tells (diag_commands.cpp, diag_live.cpp).
// The signals of `mask` (bit s-1 for signal s) by name, or number when they have none:
// "CHLD,15"; "-" when empty.
std::string signalList(uint32_t mask);

int cmdPs(const std::vector<std::string>& args);
int cmdFdsOf(uint64_t pid, bool json);
int cmdPipes(const std::vector<std::string>& args);
int cmdTop(const std::vector<std::string>& args);
int cmdMonitor(const std::vector<std::string>& args);

}  // namespace posixctl
