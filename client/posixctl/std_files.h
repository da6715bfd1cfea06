// The standard files posixctl hands to a program it runs.
//
// The server opens a program's standard files itself, by path, so posixctl names its own
// through /proc. Reopening is the same file for a terminal, a pipe or a device, but not for
// the rest: a regular file reopened has an offset of its own (the program's output would land
// where posixctl's shell writes next, and be overwritten), and a socket cannot be reopened at
// all. Such a file is relayed instead: the program gets one end of a host pipe and a thread of
// posixctl copies between the pipe and the file through posixctl's own descriptor.
#pragma once

#include <string>
#include <vector>

namespace posixctl {

class StdFiles {
 public:
  // Notes which of 0, 1, 2 are closed and occupies them; made before anything else opens.
  StdFiles();
  StdFiles(const StdFiles&) = delete;
  StdFiles& operator=(const StdFiles&) = delete;
  ~StdFiles();

  // Adds POSIX_STDIN/STDOUT/STDERR to `env` for each standard file (empty for a closed one),
  // making the pipes and starting the relays that are needed.
  void prepare(std::vector<std::string>& env);
  // The program has started: closes posixctl's ends that only the program should hold.
  void started();
  // The program has ended: waits until its output has been copied out (its last writer,
  // which may be a program it started, has closed the pipe) and stops feeding its input.
  void finish();

 private:
  struct Relay;
  std::vector<Relay*> relays_;
  bool closed_[3] = {false, false, false};
};

}  // namespace posixctl
