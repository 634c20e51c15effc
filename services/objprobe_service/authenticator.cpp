#include "services/objprobe_service/authenticator.h"

#include <arpa/inet.h>

#include <algorithm>
#include <utility>

#include "core/common/error.h"
#include "tools/objprobe_store/error_text.h"

namespace ObjProbeService {

FailureCounter::Answer FailureCounter::Begin(const std::string& name, Clock::time_point now) {
  const auto [found, is_new] = windows_.try_emplace(name);
  Window& window = found->second;
  if (is_new || now - window.begin >= window_) {
    window.begin = now;
    window.failures = 0;
  }
  if (window.failures >= most_) return Answer::kTooMany;
  if (window.failures + window.open >= most_) return Answer::kWait;
  ++window.open;
  if (windows_.size() > max_names_) {
    windows_.erase(std::min_element(windows_.begin(), windows_.end(), [](auto& a, auto& b) {
      return a.second.begin < b.second.begin;
    }));
  }
  return Answer::kGo;
}

void FailureCounter::End(const std::string& name, bool has_failed) {
  const auto found = windows_.find(name);
  if (found == windows_.end()) return;
  Window& window = found->second;
  if (window.open > 0) --window.open;
  if (has_failed) ++window.failures;
  if (window.failures == 0 && window.open == 0) windows_.erase(found);
}

Authenticator::Authenticator(std::string user_file, const Limits& limits, Log log)
    : file_(std::move(user_file)),
      limits_(limits),
      log_(std::move(log)),
      nobodys_hash_(HashPassword("nobody")),
      addresses_(limits.max_failures_of_address, limits.window, limits.max_addresses),
      users_(limits.max_failures_of_user, limits.window, limits.max_addresses) {
  file_.Read();
}

bool Authenticator::Authenticate(const std::string& user, const std::string& password,
                                 const std::string& address) {
  const auto refusal = FailureCounter::Clock::now() + limits_.refusal_time;
  if (Check(user, password, address)) return true;
  WaitUntil(refusal);
  return false;
}

bool Authenticator::Check(const std::string& user, const std::string& password,
                          const std::string& address) {
  const std::string who = StoreTool::MakePrintable(
      std::string("user \"").append(user).append("\" at ").append(address));
  std::shared_ptr<const UserHashes> users;
  try {
    users = file_.Read();
  } catch (const Common::Error& error) {
    log_(who + " refused: " + StoreTool::DescribeError(error));
    return false;
  }
  const std::string network = GetNetwork(address);
  // Names that anybody can think of don't fill the counter.
  const bool is_known = users->contains(user);
  const char* const refusal = Begin(network, user, is_known);
  if (refusal != nullptr) {
    log_(who + " refused: " + refusal);
    return false;
  }
  bool is_right = false;
  try {
    is_right = CheckPassword(*users, user, password);
  } catch (...) {
    End(network, user, is_known, true);
    throw;
  }
  End(network, user, is_known, !is_right);
  if (!is_right) log_(who + " refused: unknown user or wrong password");
  return is_right;
}

const char* Authenticator::Begin(const std::string& network, const std::string& user,
                                 bool is_known) {
  using Answer = FailureCounter::Answer;
  std::unique_lock lock(mutex_);
  while (!is_stopped_) {
    const auto now = FailureCounter::Clock::now();
    Answer answer = addresses_.Begin(network, now);
    if (answer == Answer::kTooMany) return "too many failures of the address";
    if (answer == Answer::kGo && is_known) {
      answer = users_.Begin(user, now);
      if (answer != Answer::kGo) addresses_.End(network, answer == Answer::kTooMany);
      if (answer == Answer::kTooMany) return "too many failures of the user";
    }
    if (answer == Answer::kGo) return nullptr;
    changed_.wait(lock);
  }
  return "the service ends";
}

void Authenticator::End(const std::string& network, const std::string& user, bool is_known,
                        bool has_failed) {
  const std::lock_guard lock(mutex_);
  addresses_.End(network, has_failed);
  if (is_known) users_.End(user, has_failed);
  changed_.notify_all();
}

bool Authenticator::CheckPassword(const UserHashes& users, const std::string& user,
                                  const std::string& password) {
  const auto found = users.find(user);
  const bool is_known = found != users.end() && IsPassword(password);
  // The cost of a hash is written in it, so that of another user is the best stand-in.
  const std::string& stand_in = users.empty() ? nobodys_hash_ : users.begin()->second;
  const bool is_match = MatchesHash(IsPassword(password) ? password : std::string("nobody"),
                                    found != users.end() ? found->second : stand_in);
  return is_match && is_known;
}

void Authenticator::Stop() {
  const std::lock_guard lock(mutex_);
  is_stopped_ = true;
  changed_.notify_all();
}

void Authenticator::WaitUntil(FailureCounter::Clock::time_point time) {
  std::unique_lock lock(mutex_);
  changed_.wait_until(lock, time, [this] { return is_stopped_; });
}

std::string GetNetwork(const std::string& address) {
  std::string host = address;
  if (host.starts_with('[')) {
    host = host.substr(1, host.find(']') - 1);
  } else if (std::count(host.begin(), host.end(), ':') == 1) {
    host.resize(host.find(':'));
  }
  host.resize(std::min(host.find('%'), host.size()));
  in6_addr six = {};
  if (::inet_pton(AF_INET6, host.c_str(), &six) != 1) return host;
  if (IN6_IS_ADDR_V4MAPPED(&six)) {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &six.s6_addr[12], text, sizeof text);
    return text;
  }
  std::fill(std::begin(six.s6_addr) + 8, std::end(six.s6_addr), std::uint8_t{0});
  char text[INET6_ADDRSTRLEN] = "";
  ::inet_ntop(AF_INET6, &six, text, sizeof text);
  return text;
}

}  // namespace ObjProbeService
