#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "core/common/non_copyable.h"
#include "services/objprobe_service/user_file.h"

namespace ObjProbeService {

// Counts failures by a name and tells who had too many. One thread at a time.
class FailureCounter : public Common::NonCopyable {
 public:
  using Clock = std::chrono::steady_clock;

  // `most` within `window`, which begins with the first of them. Of `max_names` names at most: then
  // the one whose window began first is forgotten.
  FailureCounter(unsigned int most, Clock::duration window, std::size_t max_names)
      : most_(most), window_(window), max_names_(max_names) {}

  enum class Answer {
    kGo,       // an attempt is open now
    kWait,     // were all open ones to fail, there would be too many: ask again when one has ended
    kTooMany,  // failures there were
  };

  // Before each attempt; so that many at once aren't more guesses than one after the other.
  Answer Begin(const std::string& name, Clock::time_point now);
  // Ends an open attempt.
  void End(const std::string& name, bool has_failed);

 private:
  struct Window {
    Clock::time_point begin;
    unsigned int failures = 0;
    unsigned int open = 0;
  };

  const unsigned int most_;
  const Clock::duration window_;
  const std::size_t max_names_;
  std::map<std::string, Window> windows_;
};

// Decides whether a remote client is who it says. Threads: any, several at once.
//
// - Passwords are checked in the same way and time for unknown users as for known ones, and a
//   refusal comes a fixed time after the attempt, whatever its cause.
// - After too many failures from one network address, or for one user, all attempts of these are
//   refused for the rest of the time in which they were counted, the right password included.
class Authenticator : public Common::NonCopyable {
 public:
  struct Limits {
    std::chrono::milliseconds refusal_time{1'000};
    std::chrono::milliseconds window = std::chrono::minutes(10);
    unsigned int max_failures_of_address = 10;
    unsigned int max_failures_of_user = 50;
    std::size_t max_addresses = 10'000;
  };
  // Told of refusals and of a file that can't be read, in one line.
  using Log = std::function<void(const std::string& line)>;

  // Reads the file once. Throws what UserFile::Read throws.
  Authenticator(std::string user_file, const Limits& limits, Log log);
  explicit Authenticator(std::string user_file, Log log)
      : Authenticator(std::move(user_file), Limits(), std::move(log)) {}

  // `address` is that of the network, with or without a port; of IPv6 the first 64 bits count.
  bool Authenticate(const std::string& user, const std::string& password,
                    const std::string& address);
  // Refusals don't wait any more.
  void Stop();

 private:
  bool Check(const std::string& user, const std::string& password, const std::string& address);
  // Waits for its turn where many attempts are open. Tells which counter has refused it, null if
  // none has.
  const char* Begin(const std::string& network, const std::string& user, bool is_known);
  void End(const std::string& network, const std::string& user, bool is_known, bool has_failed);
  // Also for users that aren't there, at the same cost.
  bool CheckPassword(const UserHashes& users, const std::string& user, const std::string& password);
  void WaitUntil(FailureCounter::Clock::time_point time);

  UserFile file_;
  const Limits limits_;
  const Log log_;
  const std::string nobodys_hash_;

  std::mutex mutex_;                 // guards the fields below
  std::condition_variable changed_;  // an attempt has ended, or all are to
  bool is_stopped_ = false;
  FailureCounter addresses_;
  FailureCounter users_;
};

// The network that an address belongs to, as one that failures are counted for.
std::string GetNetwork(const std::string& address);

}  // namespace ObjProbeService
