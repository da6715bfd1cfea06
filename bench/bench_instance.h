// A private server instance for the benchmarks: its own runtime directory and a posix-server
// started from the build, stopped and removed at the end.
#pragma once

#include <sys/types.h>

#include <string>

class BenchInstance {
 public:
  // Starts the server; false (with a message on stderr) when it does not answer in time.
  bool start();
  void stop();
  const std::string& runtimeDir() const { return runtimeDir_; }

 private:
  std::string runtimeDir_;
  pid_t server_ = -1;
};
