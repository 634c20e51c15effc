#include "services/objprobe_service/authenticator.h"

#include <arpa/inet.h>

#include <algorithm>
#include <utility>

#include "core/common/error.h"
#include "platform/console/error_text.h"

namespace ObjProbeService {

namespace {

// Takes the place of what can't be a password.
const std::string kNobodysPassword = "nobody";

}  // namespace

FailureCounter::Verdict FailureCounter::Judge(const std::string& name,
                                              Clock::time_point now) const {
  const auto found = windows_.find(name);
  const Window window = found != windows_.end() ? found->second : Window();
  const unsigned int failures = CountFailures(window, now);
  if (failures >= most_) return Verdict::kRefused;
  return window.in_flight < most_ - failures ? Verdict::kGo : Verdict::kWait;
}

void FailureCounter::Begin(const std::string& name, Clock::time_point now) {
  const auto [found, is_new] = windows_.try_emplace(name);
  if (is_new) found->second.begin = now;
  ++found->second.in_flight;
  if (windows_.size() > max_names_) ForgetOne();
}

void FailureCounter::End(const std::string& name, bool is_failure, Clock::time_point now) noexcept {
  const auto found = windows_.find(name);
  if (found == windows_.end()) return;
  Window& window = found->second;
  --window.in_flight;
  window.failures = CountFailures(window, now);
  if (is_failure && window.failures++ == 0) window.begin = now;
  if (window.in_flight == 0 && window.failures == 0) windows_.erase(found);
}

unsigned int FailureCounter::CountFailures(const Window& window, Clock::time_point now) const {
  return now - window.begin < window_ ? window.failures : 0;
}

void FailureCounter::ForgetOne() {
  auto oldest = windows_.end();
  for (auto window = windows_.begin(); window != windows_.end(); ++window) {
    if (window->second.in_flight != 0) continue;
    if (oldest == windows_.end() || window->second.begin < oldest->second.begin) oldest = window;
  }
  if (oldest != windows_.end()) windows_.erase(oldest);
}

// One check of a password; a failure unless it is said to be none.
class Authenticator::Attempt : public Common::NonCopyable {
 public:
  Attempt(Authenticator& owner, const std::string& network, const std::string& user)
      : owner_(owner), network_(network), user_(user) {}
  ~Attempt() {
    const std::lock_guard lock(owner_.mutex_);
    const auto now = FailureCounter::Clock::now();
    if (is_of_address_) owner_.addresses_.End(network_, is_failure_, now);
    if (is_of_user_) owner_.users_.End(user_, is_failure_, now);
    owner_.end_of_attempt_.notify_all();
  }

  // Waits until it may begin. What there were too many failures of; null when it has begun. `user`
  // counts if it is known.
  const char* Begin(bool is_known) {
    using Verdict = FailureCounter::Verdict;
    std::unique_lock lock(owner_.mutex_);
    for (;;) {
      const auto now = FailureCounter::Clock::now();
      const Verdict address = owner_.addresses_.Judge(network_, now);
      if (address == Verdict::kRefused) return "address";
      const Verdict user = is_known ? owner_.users_.Judge(user_, now) : Verdict::kGo;
      if (user == Verdict::kRefused) return "user";
      if (address == Verdict::kGo && user == Verdict::kGo) {
        owner_.addresses_.Begin(network_, now);
        is_of_address_ = true;
        if (!is_known) return nullptr;
        owner_.users_.Begin(user_, now);
        is_of_user_ = true;
        return nullptr;
      }
      owner_.end_of_attempt_.wait(lock);
    }
  }
  void Forgive() { is_failure_ = false; }

 private:
  Authenticator& owner_;
  const std::string& network_;
  const std::string& user_;
  bool is_of_address_ = false;
  bool is_of_user_ = false;
  bool is_failure_ = true;
};

Authenticator::Authenticator(std::string user_file, const Limits& limits, Log log)
    : file_(std::move(user_file)),
      limits_(limits),
      log_(std::move(log)),
      nobodys_hash_(HashPassword(kNobodysPassword)),
      addresses_(limits.max_failures_of_address, limits.window, limits.max_addresses),
      users_(limits.max_failures_of_user, limits.window, limits.max_addresses) {
  file_.Read();
}

bool Authenticator::Authenticate(const std::string& user, const std::string& password,
                                 const std::string& address) {
  // Of a longer name, which is no user's, the beginning is enough for the log.
  const std::string who = Platform::Console::MakePrintable(
      std::string("user \"").append(user, 0, kMaxUserName).append("\" at ").append(address));
  std::shared_ptr<const UserHashes> users;
  try {
    users = file_.Read();
  } catch (const Common::Error& error) {
    log_(who + " refused: " + Platform::Console::DescribeError(error));
    return false;
  }
  const std::string network = GetNetwork(address);
  Attempt attempt(*this, network, user);
  // Names that anybody can think of don't fill the counter.
  const char* const too_many = attempt.Begin(users->contains(user));
  if (too_many != nullptr) {
    log_(who + " refused: too many failures of the " + too_many);
    return false;
  }
  if (!CheckPassword(*users, user, password)) {
    log_(who + " refused: unknown user or wrong password");
    return false;
  }
  attempt.Forgive();
  return true;
}

bool Authenticator::CheckPassword(const UserHashes& users, const std::string& user,
                                  const std::string& password) {
  const auto found = users.find(user);
  const bool is_known = found != users.end() && IsPassword(password);
  // The cost of a hash is written in it, so that of another user is the best stand-in.
  const std::string& stand_in = users.empty() ? nobodys_hash_ : users.begin()->second;
  const std::string& tried = IsPassword(password) ? password : kNobodysPassword;
  const bool is_match = MatchesHash(tried, found != users.end() ? found->second : stand_in);
  return is_match && is_known;
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
