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
  enum class Verdict {
    kGo,
    kWait,     // those in flight may become too many; to be asked again when one of them has ended
    kRefused,  // there were too many
  };

  // `most` within `window`, which begins with the first of them. Of `max_names` names at most, and
  // those with attempts in flight: then the one whose window began first is forgotten.
  FailureCounter(unsigned int most, Clock::duration window, std::size_t max_names)
      : most_(most), window_(window), max_names_(max_names) {}

  // What is to become of one more attempt.
  Verdict Judge(const std::string& name, Clock::time_point now) const;
  // An attempt begins; each one must end. Throws std::bad_alloc; it has not begun then.
  void Begin(const std::string& name, Clock::time_point now);
  void End(const std::string& name, bool is_failure, Clock::time_point now) noexcept;

 private:
  struct Window {
    Clock::time_point begin;
    unsigned int failures = 0;
    unsigned int in_flight = 0;
  };

  unsigned int CountFailures(const Window& window, Clock::time_point now) const;
  void ForgetOne();

  const unsigned int most_;
  const Clock::duration window_;
  const std::size_t max_names_;
  std::map<std::string, Window> windows_;
};

// Decides whether a remote client is who it says. Threads: any, several at once.
//
// - Passwords are checked in the same way and time for unknown users as for known ones. The caller
//   delays what is refused, whatever the cause.
// - After too many failures from one network address, or for one user, all attempts of these are
//   refused for the rest of the time in which they were counted, the right password included.
// - Attempts count when they have failed. Those that would be too many only if all of them failed
//   wait for one another, so that right passwords are let in however many come at a time, and no
//   more wrong ones are tried than may fail.
class Authenticator : public Common::NonCopyable {
 public:
  struct Limits {
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

 private:
  class Attempt;

  // Also for users that aren't there, at the same cost.
  bool CheckPassword(const UserHashes& users, const std::string& user, const std::string& password);

  UserFile file_;
  const Limits limits_;
  const Log log_;
  const std::string nobodys_hash_;

  std::mutex mutex_;  // guards the fields below
  std::condition_variable end_of_attempt_;
  FailureCounter addresses_;
  FailureCounter users_;
};

// The network that an address belongs to, as one that failures are counted for.
std::string GetNetwork(const std::string& address);

}  // namespace ObjProbeService
