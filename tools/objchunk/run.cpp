#include "tools/objchunk/run.h"

#include <csignal>
#include <cstdio>
#include <utility>

#include "core/include/file/file_codes.h"
#include "platform/console/error_text.h"
#include "tools/common/program.h"

namespace ChunkTool {
namespace {

constexpr Common::SourceFile kSource{"tools/objchunk/run"};
constexpr std::uint64_t kMebibyte = 1 << 20;

volatile std::sig_atomic_t stopped = 0;

}  // namespace

void CatchSignals() {
  struct sigaction action = {};
  action.sa_handler = [](int) { stopped = 1; };
  // Reads and writes go on: a read that is cut short would be a failure. The second signal kills.
  action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(number, &action, nullptr);
}

Run::Run(std::string does, bool adds)
    : does_(std::move(does)), adds_(adds), progress_([this] { return Describe(); }) {}

std::string Run::Describe() const {
  return std::to_string(entries_) + " entries, " + std::to_string((bytes_ + current_) / kMebibyte) +
         " MiB " + does_;
}

bool Run::IsCanceled() {
  return stopped != 0;
}

void Run::OnProgress(std::uint64_t bytes) {
  current_ = adds_ ? current_ + bytes : bytes;
  progress_.Step();
}

std::uint32_t Run::AskSecurityWriting(const Common::Error& error, const char16_t*) {
  Note(name_ + ": " + Platform::Console::DescribeError(error), true);
  return kForgive;
}

void Run::Begin(const std::string& name) {
  name_ = name;
  bytes_ += std::exchange(current_, 0);
  progress_.Step();
}

void Run::Succeed() {
  ++entries_;
}

void Run::Fail(const Common::Error& error) {
  Fail(Platform::Console::DescribeError(error));
}

void Run::Fail(const std::string& text) {
  ++failed_;
  Note(name_ + ": " + text, true);
}

void Run::Note(const std::string& text, bool spoils) {
  progress_.Finish();
  Tools::Tell(kProgram, text);
  spoiled_ |= spoils;
}

void Run::Finish() {
  progress_.Finish();
  std::printf("%llu entries %s, %llu failed\n", static_cast<unsigned long long>(entries_),
              does_.c_str(), static_cast<unsigned long long>(failed_));
  if (IsCanceled()) throw Core::MakeFileError(Core::kFileCanceled, kSource.At("Finish", 10));
  if (spoiled_) throw Tools::CommandFailure("Not everything could be " + does_ + ".");
}

}  // namespace ChunkTool
