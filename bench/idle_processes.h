#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <vector>

#include "platform/linux/file_descriptor.h"

namespace volorn::bench {

// Interpreters that wait: some fifty mappings each, of which half a dozen are libraries. They end with this.
class IdleProcesses {
 public:
  explicit IdleProcesses(int count) {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    const linux_host::FileDescriptor answers(ready[0]);
    const linux_host::FileDescriptor answer(ready[1]);
    for (int i = 0; i < count; ++i) start(answer.get());
    char byte = 0;
    for (int i = 0; i < count; ++i) {
      if (read(answers.get(), &byte, 1) != 1) throw std::runtime_error("/usr/bin/python3 does not run");
    }
  }
  ~IdleProcesses() {
    for (const pid_t pid : pids_) kill(pid, SIGKILL);
    for (const pid_t pid : pids_) waitpid(pid, nullptr, 0);
  }
  IdleProcesses(const IdleProcesses&) = delete;
  IdleProcesses& operator=(const IdleProcesses&) = delete;

 private:
  void start(int answer_fd) {
    const char* const arguments[] = {
        "python3", "-c", "import os, signal, random, json, ssl; os.write(1, b'.'); signal.pause()", nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, answer_fd, STDOUT_FILENO);
    pid_t pid = 0;
    const int failure =
        posix_spawn(&pid, "/usr/bin/python3", &actions, nullptr, const_cast<char**>(arguments), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) throw std::runtime_error("cannot start /usr/bin/python3");
    pids_.push_back(pid);
  }

  std::vector<pid_t> pids_;
};

}  // namespace volorn::bench
