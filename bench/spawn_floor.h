// The smallest server that starts and collects programs for a client: what px_spawn +
// px_waitpid through the POSIX server cannot beat, measured beside it.
//
// A process of its own, as the server is: its service thread reads requests from a Unix socket
// (the same kind the server's channels use);
// a start goes to an agent thread that already waits for one, which posix_spawns the program,
// answers the start with the pid on the socket and waits for the program's end. A wait request
// is answered by the service thread when the program has ended already, else by the agent when
// it ends. One program at a time; no paths resolved, no records, no environment handling.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

class SpawnFloor {
 public:
  SpawnFloor() = default;
  ~SpawnFloor() { stop(); }
  SpawnFloor(const SpawnFloor&) = delete;
  SpawnFloor& operator=(const SpawnFloor&) = delete;

  bool start();
  void stop();

  // The client's side: a start request and a wait request, each a round trip on the socket.
  // The pid, or -1; the program's exit status (as waitpid's), or -1.
  pid_t spawn(const char* path);
  int wait(pid_t pid);

 private:
  void serve();
  void agent();
  // Writes a reply of the pid and status on the service socket.
  void answer(pid_t pid, int status);

  // The server process's life: its two threads until the client's end closes.
  [[noreturn]] void runServer();

  int client_ = -1;  // the client's end of the socket pair
  int service_ = -1;  // the server process's end
  pid_t server_ = -1;
  std::thread serviceThread_;
  std::thread agentThread_;

  std::mutex mutex_;  // guards everything below
  std::condition_variable wake_;
  std::string path_;         // the start handed to the agent; empty when none
  bool stopping_ = false;
  pid_t running_ = 0;        // the agent's program, until collected
  bool ended_ = false;
  int status_ = 0;
  bool waitPending_ = false;  // a wait request came before the end
};
