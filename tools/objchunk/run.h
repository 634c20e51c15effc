#pragma once

#include <cstdint>
#include <string>

#include "core/common/error.h"
#include "core/file/backup.h"
#include "tools/common/progress.h"

namespace ChunkTool {

inline constexpr char kProgram[] = "objchunk";

// Makes the first SIGINT, SIGTERM and SIGHUP end a run in good order: the entry in the making is
// taken back, and what was done before stays.
void CatchSignals();

// What a save or restore tells while it goes on and at its end.
class Run : public Core::BackupCallback {
 public:
  // `does` names it: "saved". `adds` when blocks are told one by one and not the sum so far.
  Run(std::string does, bool adds);

  bool IsCanceled() override;
  void OnProgress(std::uint64_t bytes) override;
  std::uint32_t AskSecurityWriting(const Common::Error& error, const char16_t* path) override;

  // Begins the next entry.
  void Begin(const std::string& name);
  void Succeed();
  // Tells why the entry failed.
  void Fail(const Common::Error& error);
  void Fail(const std::string& text);
  // Something to know that is no entry's failure; `spoils` the run, too.
  void Note(const std::string& text, bool spoils);

  // The line of counts on standard output. Throws 0x4000F for a run that was cancelled, and
  // Tools::CommandFailure, when not everything went well.
  void Finish();

 private:
  std::string Describe() const;

  const std::string does_;
  const bool adds_;
  std::string name_;
  std::uint64_t entries_ = 0;
  std::uint64_t failed_ = 0;
  bool spoiled_ = false;
  std::uint64_t bytes_ = 0;    // of the entries before
  std::uint64_t current_ = 0;  // of this one
  Tools::Progress progress_;
};

}  // namespace ChunkTool
