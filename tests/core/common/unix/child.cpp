#include "tests/core/common/unix/child.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "core/common/unix/safe_close.h"

namespace {

std::string ReadAll(std::FILE* file) {
  std::string text;
  std::rewind(file);
  for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file)) text += static_cast<char>(c);
  Common::SafeFClose(file);
  return text;
}

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

ChildResult RunChild(const std::vector<std::string>& arguments, const ChildOptions& options) {
  std::vector<std::string> argument_texts{options.name};
  argument_texts.insert(argument_texts.end(), arguments.begin(), arguments.end());
  std::vector<std::string> environment_texts = options.environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, "VELORIN_", 8) != 0) environment_texts.push_back(*entry);
  }
  // The leak checker can't work under a debugger.
  if (options.traced)
    environment_texts.insert(environment_texts.begin(), "LSAN_OPTIONS=detect_leaks=0");
  const std::vector<char*> argv = Pointers(argument_texts);
  const std::vector<char*> envp = Pointers(environment_texts);
  std::FILE* const out = std::tmpfile();
  std::FILE* const err = std::tmpfile();

  const pid_t child = fork();
  if (child == 0) {
    dup2(fileno(out), STDOUT_FILENO);
    dup2(fileno(err), STDERR_FILENO);
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    if (!options.folder.empty() && chdir(options.folder.c_str()) != 0) _exit(126);
    if (options.traced && ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(125);
    execve(options.program.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  EXPECT_GT(child, 0);

  ChildResult result;
  bool is_loaded = false;
  int status = 0;
  while (waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
    // The first stop is that of the exec itself.
    const bool is_trap = WSTOPSIG(status) == SIGTRAP;
    if (is_trap && is_loaded) ++result.stops;
    if (is_trap) is_loaded = true;
    ptrace(PTRACE_CONT, child, nullptr, is_trap ? 0L : static_cast<long>(WSTOPSIG(status)));
  }
  result.status = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  result.out = ReadAll(out);
  result.err = ReadAll(err);
  return result;
}
