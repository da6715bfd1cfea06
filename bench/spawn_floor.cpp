#include "spawn_floor.h"

#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

extern char** environ;

namespace {

// A request: 's' and a path to start, 'w' to wait; a reply: pid and status.
struct Reply {
  pid_t pid;
  int status;
};

}  // namespace

bool SpawnFloor::start() {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) return false;
  client_ = fds[0];
  service_ = fds[1];
  server_ = fork();
  if (server_ == 0) {
    close(client_);
    runServer();
  }
  close(service_);
  service_ = -1;
  if (server_ < 0) {
    close(client_);
    client_ = -1;
    return false;
  }
  return true;
}

void SpawnFloor::runServer() {
  serviceThread_ = std::thread([this] { serve(); });
  agentThread_ = std::thread([this] { agent(); });
  serviceThread_.join();  // the client's end closed
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  agentThread_.join();
  _exit(0);
}

void SpawnFloor::stop() {
  if (client_ < 0) return;
  shutdown(client_, SHUT_RDWR);  // the service thread reads end-of-file
  close(client_);
  client_ = -1;
  waitpid(server_, nullptr, 0);
  server_ = -1;
}

void SpawnFloor::answer(pid_t pid, int status) {
  Reply reply{pid, status};
  (void)!send(service_, &reply, sizeof reply, MSG_NOSIGNAL);
}

void SpawnFloor::serve() {
  char request[4096];
  for (;;) {
    ssize_t n = recv(service_, request, sizeof request - 1, 0);
    if (n <= 0) return;
    request[n] = '\0';
    std::unique_lock<std::mutex> lock(mutex_);
    if (request[0] == 's') {
      path_ = request + 1;
      lock.unlock();
      wake_.notify_one();
    } else if (ended_) {
      pid_t pid = running_;
      running_ = 0;
      ended_ = false;
      int status = status_;
      lock.unlock();
      answer(pid, status);
    } else {
      waitPending_ = true;
    }
  }
}

void SpawnFloor::agent() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !path_.empty(); });
    if (stopping_) return;
    std::string path = std::move(path_);
    path_.clear();
    lock.unlock();
    char* argv[] = {path.data(), nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv, environ) != 0) pid = -1;
    answer(pid, 0);
    int status = -1;
    if (pid > 0) waitpid(pid, &status, 0);
    lock.lock();
    if (pid <= 0) continue;
    if (waitPending_) {
      waitPending_ = false;
      lock.unlock();
      answer(pid, status);
      lock.lock();
    } else {
      running_ = pid;
      ended_ = true;
      status_ = status;
    }
  }
}

pid_t SpawnFloor::spawn(const char* path) {
  std::string request = std::string("s") + path;
  Reply reply{};
  if (send(client_, request.data(), request.size(), MSG_NOSIGNAL) < 0 ||
      recv(client_, &reply, sizeof reply, 0) != static_cast<ssize_t>(sizeof reply)) {
    return -1;
  }
  return reply.pid;
}

int SpawnFloor::wait(pid_t pid) {
  Reply reply{};
  if (send(client_, "w", 1, MSG_NOSIGNAL) < 0 ||
      recv(client_, &reply, sizeof reply, 0) != static_cast<ssize_t>(sizeof reply) ||
      reply.pid != pid) {
    return -1;
  }
  return reply.status;
}
