#include "process/process_agent.h"

#include <posix/wire.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>

#include "common/request_log.h"
#include "platform/error.h"
#include "platform/binary.h"
#include "process/agent_threads.h"
#include "process/process_log.h"

namespace posix {
LogModule agentLog;
}

namespace {
using Clock = std::chrono::steady_clock;

// A program start that took longer than this is given up: its requester has most likely
// stopped waiting, and nobody would know the program. A start that waits for nothing takes
// milliseconds; one that took this long was handed something nobody answered.
constexpr auto kStartLimit = std::chrono::milliseconds(5000);
// How long the process service waits for the agent of a program that connected before it
// was linked. The agent links right after the start returns, before the program can have
// gone far: this bound only matters when the agent's thread is not scheduled.
constexpr uint32_t kLinkWaitMs = 2000;

// What a record keeps of its program's path and arguments, in bytes: a longer text is cut to
// its start and ends with "...". An ended program's record lives as long as its parent does
// not collect it, and its arguments may have filled a frame.
constexpr size_t kProgramTextMax = 4096;

// The path, then the arguments after the first (the program's name), separated by spaces.
Ref<String> programText(const ProgramStart& start) {
  std::string text = start.path->c_str();
  for (size_t i = 1; i < start.arguments.size() && text.size() <= kProgramTextMax; ++i) {
    text += ' ';
    text += start.arguments[i] ? start.arguments[i]->c_str() : "";
  }
  if (text.size() > kProgramTextMax) {
    size_t cut = kProgramTextMax - 3;
    // Cut before a whole character, not inside one.
    while (cut > 0 && (static_cast<uint8_t>(text[cut]) & 0xC0) == 0x80) --cut;
    text.resize(cut);
    text += "...";
  }
  return String::create(text.c_str(), static_cast<int64_t>(text.size()));
}

// Posted after each link while the process service waits in awaitLinked (its one thread).
std::atomic<uint32_t> g_linkWaiters{0};
Ref<Sem>& linkedSignal() {
  static Ref<Sem>* sem = new Ref<Sem>(Sem::create(0));  // never destroyed: agents outlive main
  return *sem;
}
}  // namespace
using posix::agentLog;
using posix::LogNum;

ProcessAgent::ProcessAgent(Ref<PosixProcess> parent, Ref<PosixProcess> child, ProgramStart start,
                           Ref<InMsg> request)
    : parent_(std::move(parent)), process_(std::move(child)), start_(std::move(start)),
      request_(std::move(request)) {}

template <class T>
void ProcessAgent::answer(uint32_t code, T value) {
  Ref<OutMsg> reply = OutMsg::create();
  reply->setCode(code);
  reply->write(&value, sizeof value);
  request_->reply(reply);
  RequestLog::noteLate(PX_DIAG_PROCESS_SERVICE, request_, code);
  request_.reset();
}

bool ProcessAgent::start() {
  const Clock::time_point began = Clock::now();
  uint64_t pid = Binary::create(start_.path, start_.startFlags, start_.arguments.data(),
                                start_.arguments.size(), start_.environment, &start_.files,
                                parent_->pid(), &program_);
  if (pid == 0) {
    uint32_t error = Error::get();
    POSIX_LOG(agentLog.handle, 2, "Could not create new process for " << start_.path);
    answer(PX_RESULT_FAILED, error);
    return false;
  }
  // The program is the server's child and not collected: its pid cannot name another process
  // yet, so the identity read now is its own. It runs as the server's user.
  ProcIdentity identity = Proc::identity(program_);
  if (!identity) {
    POSIX_LOG(agentLog.handle, 2, "Could not read the identity of process " << LogNum{pid});
    identity = ProcIdentity{pid, 0};  // host signals will find nobody of this identity
  }
  process_->identity_ = identity;
  process_->level_ = Proc::levelOfUser(Proc::uid());
  process_->started_ = true;
  process_->program_ = programText(start_);
  if (Clock::now() - began > kStartLimit) {
    POSIX_LOG(agentLog.handle, 2, "Program start given up after "
                                      << LogNum{static_cast<uint64_t>(kStartLimit.count())}
                                      << " ms: " << start_.path);
    Proc::send(identity, HostSignal::Kill, true);
    Proc::wait(program_);
    answer(PX_RESULT_FAILED, uint32_t{ETIMEDOUT});
    return false;
  }
  process_->linkTo(parent_);
  if (g_linkWaiters.load(std::memory_order_acquire) != 0) linkedSignal()->up();
  answer(PX_RESULT_DONE, pid);
  program_.dropPidfd();  // after the answer: closing a pidfd takes microseconds
  POSIX_LOG(agentLog.handle, 1,
            "Process " << LogNum{parent_->pid()} << " created new child process " << start_.path
                       << " with pid: " << LogNum{pid});
  parent_.reset();  // the child keeps its parent weakly from here on
  return true;
}

void ProcessAgent::run() {
  bool running = start();
  // The path, arguments and environment served the start: a running program keeps only its
  // record's program text.
  start_ = ProgramStart{};
  // Off the spawn's path now: a thread for the next spawn's agent.
  AgentThreads::keepSpare();
  if (!running) {
    parent_->dropStart();
    parent_.reset();
    process_.reset();
    return;
  }
  // The end is noted before the program is collected: until markEnded() a signal sender may
  // still use the pid and the group id the program leads.
  uint32_t exitCode = Proc::awaitEnd(program_);
  process_->markEnded(exitCode);
  process_->unlinkEnded();
  // Free for the next agent before the parent hears of the end (and perhaps starts another).
  AgentThreads::finishing();
  if (Ref<PosixProcess> parent = process_->parent()) parent->childExited(process_);
  // Collected once the parent has been told: the pid stays the program's until then, and
  // nothing the parent learns waits for the host to free it.
  Proc::wait(program_);
  // Logged once the parent has been told: a waiting parent is not kept waiting for the log.
  POSIX_LOG(agentLog.handle, 1,
            "Process " << process_->program() << " (" << LogNum{process_->pid()}
                       << ") terminated with exitcode " << LogNum{exitCode});
  process_.reset();
}

Ref<PosixProcess> ProcessAgent::awaitLinked(const ProcIdentity& identity) {
  Ref<ProcInfo> info = Proc::info(identity.pid);
  if (!info || info->parentPid() != Proc::current()) return nullptr;
  g_linkWaiters.fetch_add(1, std::memory_order_acq_rel);
  const Clock::time_point until = Clock::now() + std::chrono::milliseconds(kLinkWaitMs);
  Ref<PosixProcess> process;
  for (;;) {
    process = PosixProcess::find(identity);
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
    if (process || left.count() <= 0) break;
    linkedSignal()->down(static_cast<uint32_t>(left.count()) + 1);
  }
  g_linkWaiters.fetch_sub(1, std::memory_order_acq_rel);
  return process;
}
