#include "services/objprobe_service/authenticator.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "services/objprobe_service/user_file.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

namespace ObjProbeService {

namespace {

using Clock = FailureCounter::Clock;
using std::chrono::milliseconds;

// Of "Hello world!", by `openssl passwd -6` and by crypt(3) of Perl.
constexpr char kSha512[] =
    "$6$saltstring$svn8UoSVapNtMuq1ukKS4tPQd8iKwSMHWjl/O817G3uBnIFNjnQJuesI"
    "68u4OTLiBFdcbYEdFCoEOfaS35inz1";
constexpr char kYescrypt[] =
    "$y$j9T$F5Jx5fExrKuPp53xLKQ..1$42RgPIrXdXSEEs77lDi/4IqKVqFBAVaHJkzw5uD1r57";
constexpr char kPassword[] = "Hello world!";

std::uint32_t CodeOf(const auto& action) {
  try {
    action();
  } catch (const Common::Error& error) {
    return error.GetCode();
  }
  return 0;
}

class UserFileTest : public testing::Test {
 protected:
  void Write(const std::string& text, mode_t mode = 0600) {
    std::ofstream(path_) << text;
    ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
  }
  std::string ReadText() const {
    std::ostringstream text;
    text << std::ifstream(path_).rdbuf();
    return text.str();
  }
  static std::string Line(const std::string& user, const std::string& hash = kSha512) {
    return std::string(user).append(":").append(hash).append("\n");
  }

  const TestSupport::TemporaryFolder folder_;
  const std::string path_ = folder_ / "users";
};

TEST(PasswordHash, IsThatOfCrypt) {
  for (const char* hash : {kSha512, kYescrypt}) {
    EXPECT_TRUE(MatchesHash(kPassword, hash));
    EXPECT_FALSE(MatchesHash("Hello world", hash));
    EXPECT_FALSE(MatchesHash("", hash));
    EXPECT_FALSE(MatchesHash(kPassword, std::string(hash) + "x"));
  }
  const std::string made = HashPassword("p");
  EXPECT_TRUE(made.starts_with("$y$"));
  EXPECT_TRUE(MatchesHash("p", made));
  EXPECT_NE(HashPassword("p"), made);
}

TEST_F(UserFileTest, IsReadAgainWhenItChanges) {
  UserFile file(path_);
  EXPECT_EQ(CodeOf([&] { file.Read(); }), 0x40011U);
  Write(std::string("# People\n\n").append(Line("anna")).append(Line("bob \xC3\xA9", kYescrypt)));
  EXPECT_EQ(*file.Read(), (UserHashes{{"anna", kSha512}, {"bob \xC3\xA9", kYescrypt}}));
  Write(Line("carl"));
  EXPECT_EQ(*file.Read(), (UserHashes{{"carl", kSha512}}));
  // What isn't in order lets nobody in, who was in it before included.
  const std::string bad[] = {
      Line("anna") + Line("anna"), Line(""),       "anna\n",   "anna:\n",
      "anna:$1$salt$hash\n",       "anna:plain\n", "anna:*\n", Line("anna\t"),
  };
  for (const std::string& text : bad) {
    Write(text);
    EXPECT_EQ(CodeOf([&] { file.Read(); }), 0x4000DU) << text;
  }
  std::filesystem::remove(path_);
  EXPECT_EQ(CodeOf([&] { file.Read(); }), 0x40011U);
}

TEST_F(UserFileTest, IsForItsOwnerOnly) {
  UserFile file(path_);
  for (const mode_t mode : {0604U, 0602U, 0601U, 0620U, 0666U}) {
    Write(Line("anna"), mode);
    EXPECT_EQ(CodeOf([&] { file.Read(); }), 0x40023U) << std::oct << mode;
  }
  Write(Line("anna"), 0640);
  EXPECT_EQ(file.Read()->size(), 1U);
  std::filesystem::remove(path_);
  std::filesystem::create_directory(path_);
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all);
  EXPECT_EQ(CodeOf([&] { file.Read(); }), 0x40023U);
}

TEST_F(UserFileTest, PasswordsAreSetOneByOne) {
  SetPassword(path_, "anna", "one");
  Write(std::string("# People\n").append(ReadText()).append(Line("bob")));
  SetPassword(path_, "carl", "two");
  SetPassword(path_, "anna", "three");
  UserFile file(path_);
  const auto users = file.Read();
  EXPECT_EQ(users->size(), 3U);
  EXPECT_TRUE(MatchesHash("three", users->at("anna")));
  EXPECT_FALSE(MatchesHash("one", users->at("anna")));
  EXPECT_TRUE(MatchesHash("two", users->at("carl")));
  EXPECT_EQ(users->at("bob"), kSha512);
  EXPECT_TRUE(ReadText().starts_with("# People\nanna:"));
  const auto get_mode = [&] {
    struct stat status = {};
    EXPECT_EQ(::stat(path_.c_str(), &status), 0);
    return status.st_mode & 07777U;
  };
  EXPECT_EQ(get_mode(), 0600U);
  for (const mode_t mode : {0640U, 0644U}) {
    ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
    SetPassword(path_, "carl", "two");
    EXPECT_EQ(get_mode(), mode == 0640 ? 0640U : 0600U);
  }
  // A file that isn't in order stays as it is, and nothing is left beside it.
  Write("anna\n");
  EXPECT_EQ(CodeOf([&] { SetPassword(path_, "anna", "four"); }), 0x4000DU);
  EXPECT_EQ(ReadText(), "anna\n");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_.GetPath()), {}), 1);
  // What is no file isn't replaced.
  std::filesystem::remove(path_);
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(CodeOf([&] { SetPassword(path_, "anna", "four"); }), 0x40023U);
  EXPECT_TRUE(std::filesystem::is_fifo(path_));
}

TEST_F(UserFileTest, UsersSetAtATimeAreAllThere) {
  constexpr int kUsers = 8;
  std::vector<std::unique_ptr<TestSupport::ChildProcess>> processes;
  for (int i = 0; i < kUsers; ++i) {
    processes.push_back(std::make_unique<TestSupport::ChildProcess>([&] {
      SetPassword(path_, std::to_string(i), "p");
      return true;
    }));
  }
  for (const auto& process : processes) EXPECT_EQ(process->Wait(), 0);
  EXPECT_EQ(UserFile(path_).Read()->size(), std::size_t{kUsers});
}

TEST(UserName, MakesOneFieldOfALine) {
  for (const char* good : {"a", "anna maria", "\xC3\xA9", "a#"}) EXPECT_TRUE(IsUserName(good));
  for (const char* bad : {"", "a:b", "#a", "a\n", "\x7F"}) EXPECT_FALSE(IsUserName(bad));
  EXPECT_TRUE(IsUserName(std::string(256, 'a')));
  EXPECT_FALSE(IsUserName(std::string(257, 'a')));
  EXPECT_TRUE(IsPassword(std::string(511, 'a')));
  EXPECT_FALSE(IsPassword(std::string(512, 'a')));
  EXPECT_FALSE(IsPassword(""));
  EXPECT_FALSE(IsPassword(std::string("a\0b", 3)));
}

TEST(FailureCounter, CountsWithinAWindow) {
  using Verdict = FailureCounter::Verdict;
  FailureCounter counter(2, milliseconds(100), 3);
  const Clock::time_point start;
  const auto judge = [&](const char* name, int after) {
    return counter.Judge(name, start + milliseconds(after));
  };
  const auto attempt = [&](const char* name, int after, bool is_failure = true) {
    counter.Begin(name, start + milliseconds(after));
    counter.End(name, is_failure, start + milliseconds(after));
  };
  attempt("a", 0, false);
  attempt("a", 10);
  EXPECT_EQ(judge("a", 15), Verdict::kGo);
  attempt("a", 20);
  EXPECT_EQ(judge("a", 109), Verdict::kRefused);
  EXPECT_EQ(judge("b", 30), Verdict::kGo);
  // A new window. Those in flight count as failures only when they are some.
  EXPECT_EQ(judge("a", 110), Verdict::kGo);
  for (int i = 0; i < 2; ++i) counter.Begin("a", start + milliseconds(110));
  EXPECT_EQ(judge("a", 110), Verdict::kWait);
  counter.End("a", true, start + milliseconds(110));
  EXPECT_EQ(judge("a", 111), Verdict::kWait);
  counter.End("a", false, start + milliseconds(112));
  EXPECT_EQ(judge("a", 113), Verdict::kGo);
  attempt("a", 114);
  EXPECT_EQ(judge("a", 209), Verdict::kRefused);
  // With one name too many the oldest window goes: that of b, as one of a is in flight.
  counter.Begin("a", start + milliseconds(115));
  for (const char* name : {"b", "b", "c", "d"}) attempt(name, 120);
  EXPECT_EQ(judge("a", 130), Verdict::kRefused);
  EXPECT_EQ(judge("b", 130), Verdict::kGo);
  attempt("b", 130);
  EXPECT_EQ(judge("b", 130), Verdict::kGo);
}

TEST(Network, IsTheHostOrHalfOfALongAddress) {
  const std::pair<const char*, const char*> cases[] = {
      {"192.0.2.7", "192.0.2.7"},
      {"192.0.2.7:1234", "192.0.2.7"},
      {"[2001:db8:1:2:3:4:5:6]:1234", "2001:db8:1:2::"},
      {"2001:db8:1:2::9", "2001:db8:1:2::"},
      {"::ffff:192.0.2.7", "192.0.2.7"},
      {"[fe80::1%eth0]:1", "fe80::"},
      {"[", ""},
  };
  for (const auto& [address, network] : cases) EXPECT_EQ(GetNetwork(address), network);
}

class AuthenticatorTest : public UserFileTest {
 protected:
  AuthenticatorTest() { Write(Line("anna") + Line("bob", kYescrypt)); }
  std::unique_ptr<Authenticator> Make() {
    return std::make_unique<Authenticator>(path_, limits_, [this](const std::string& line) {
      const std::lock_guard lock(mutex_);
      log_ += line + "\n";
    });
  }

  int CountInLog(const std::string& text) const {
    int number = 0;
    for (auto at = log_.find(text); at != std::string::npos; at = log_.find(text, at + 1)) ++number;
    return number;
  }

  Authenticator::Limits limits_;
  std::mutex mutex_;
  std::string log_;
};

TEST_F(AuthenticatorTest, LetsInWhoHasThePassword) {
  const auto authenticator = Make();
  EXPECT_TRUE(authenticator->Authenticate("anna", kPassword, "192.0.2.1:5"));
  EXPECT_TRUE(authenticator->Authenticate("bob", kPassword, "192.0.2.1:6"));
  EXPECT_EQ(log_, "");
  EXPECT_FALSE(authenticator->Authenticate("anna", "hello world!", "192.0.2.1:5"));
  EXPECT_FALSE(authenticator->Authenticate("anna", "", "192.0.2.1:5"));
  // Nothing behind a 0 is lost.
  EXPECT_FALSE(authenticator->Authenticate("anna", std::string(kPassword) + '\0' + "x", "a"));
  EXPECT_FALSE(authenticator->Authenticate("", kPassword, "192.0.2.1:5"));
  log_.clear();
  EXPECT_FALSE(authenticator->Authenticate("no\nbody", kPassword, "192.0.2.1:5"));
  EXPECT_EQ(log_, "user \"no?body\" at 192.0.2.1:5 refused: unknown user or wrong password\n");
  // The user that stands in for unknown ones is not let in under another name, or with no users.
  EXPECT_FALSE(authenticator->Authenticate("zoe", kPassword, "192.0.2.1:5"));
  Write("");
  EXPECT_FALSE(authenticator->Authenticate("anna", kPassword, "192.0.2.1:5"));
  EXPECT_FALSE(authenticator->Authenticate("nobody", "nobody", "192.0.2.2:5"));
  Write("no\n");
  EXPECT_FALSE(authenticator->Authenticate("anna", kPassword, "192.0.2.1:5"));
  EXPECT_EQ(CodeOf([&] { Make(); }), 0x4000DU);
}

TEST_F(AuthenticatorTest, RefusesAfterTooManyFailuresAlsoOfAttemptsAtATime) {
  constexpr int kAttempts = 12;
  limits_.max_failures_of_address = 3;
  limits_.max_failures_of_user = 4;
  const auto authenticator = Make();
  // The number that are let in.
  const auto try_all = [&](const std::string& password, const std::string& address) {
    std::atomic<int> admitted{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kAttempts; ++i) {
      threads.emplace_back([&] {
        if (authenticator->Authenticate("bob", password, address)) ++admitted;
      });
    }
    for (std::thread& thread : threads) thread.join();
    return admitted.load();
  };
  // Success costs nothing, however often.
  EXPECT_EQ(try_all(kPassword, "192.0.2.1:5"), kAttempts);
  EXPECT_EQ(log_, "");
  EXPECT_EQ(try_all("wrong", "192.0.2.1:5"), 0);
  // No more passwords were tried than may be wrong; then nobody is let in from there.
  EXPECT_EQ(CountInLog("refused: unknown user or wrong password"), 3);
  EXPECT_EQ(CountInLog("refused: too many failures of the address"), kAttempts - 3);
  EXPECT_FALSE(authenticator->Authenticate("anna", kPassword, "192.0.2.1:7"));
  // From elsewhere, until the user has had too many, too.
  EXPECT_EQ(try_all(kPassword, "192.0.2.2:5"), kAttempts);
  EXPECT_EQ(try_all("wrong", "192.0.2.3:5"), 0);
  EXPECT_EQ(CountInLog("refused: too many failures of the user"), kAttempts - 1);
  EXPECT_FALSE(authenticator->Authenticate("bob", kPassword, "192.0.2.2:5"));
  EXPECT_TRUE(authenticator->Authenticate("anna", kPassword, "192.0.2.2:5"));
}

// Each attempt comes from another network, so that only the user's count can hold it up.
TEST_F(AuthenticatorTest, TriesNoMorePasswordsOfOneUserAtATimeThanMayFail) {
  constexpr int kAttempts = 12;
  constexpr int kMost = 2;
  limits_.max_failures_of_user = kMost;
  const auto authenticator = Make();
  for (const bool is_right : {true, false}) {
    std::atomic<int> admitted{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kAttempts; ++i) {
      threads.emplace_back([&, i] {
        const std::string address = std::string("192.0.2.").append(std::to_string(i));
        if (authenticator->Authenticate("bob", is_right ? kPassword : "wrong", address)) ++admitted;
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(admitted, is_right ? kAttempts : 0);
  }
  EXPECT_EQ(CountInLog("refused: unknown user or wrong password"), kMost);
  EXPECT_EQ(CountInLog("refused: too many failures of the user"), kAttempts - kMost);
}

TEST_F(AuthenticatorTest, UnknownUsersCostAHash) {
  const std::string rest(86, '.');
  Write(Line("anna", std::string("$6$rounds=60000$saltstring$").append(rest)));
  const auto authenticator = Make();
  const auto measure = [&](const char* user) {
    timespec from = {};
    timespec to = {};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &from);
    EXPECT_FALSE(authenticator->Authenticate(user, kPassword, "192.0.2.1:5"));
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &to);
    return static_cast<double>(to.tv_sec - from.tv_sec) +
           1e-9 * static_cast<double>(to.tv_nsec - from.tv_nsec);
  };
  const double known = measure("anna");
  EXPECT_GT(measure("zoe"), known / 2);
}

}  // namespace

}  // namespace ObjProbeService
