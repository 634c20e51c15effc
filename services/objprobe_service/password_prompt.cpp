#include "services/objprobe_service/password_prompt.h"

#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <stdexcept>

#include "core/common/non_copyable.h"
#include "services/objprobe_service/user_file.h"

namespace ObjProbeService {

namespace {

constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGQUIT, SIGHUP};

termios shown_settings;

void RestoreAndEnd(int signal_number) {
  ::tcsetattr(STDIN_FILENO, TCSANOW, &shown_settings);
  ::raise(signal_number);  // by now with its default meaning
}

// The terminal shows nothing of what is typed while this lives, and shows it again should a signal
// end the program.
class HiddenInput : public Common::NonCopyable {
 public:
  HiddenInput() {
    if (::tcgetattr(STDIN_FILENO, &shown_settings) != 0) {
      throw std::runtime_error("The terminal can't be told to hide the password.");
    }
    struct sigaction action = {};
    action.sa_handler = RestoreAndEnd;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (std::size_t i = 0; i < std::size(kEndingSignals); ++i) {
      ::sigaction(kEndingSignals[i], &action, &former_[i]);
    }
    termios hidden = shown_settings;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    hidden.c_lflag |= ECHONL;
    if (::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden) != 0) {
      Restore();
      throw std::runtime_error("The terminal can't be told to hide the password.");
    }
  }
  ~HiddenInput() { Restore(); }

 private:
  void Restore() {
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &shown_settings);
    for (std::size_t i = 0; i < std::size(kEndingSignals); ++i) {
      ::sigaction(kEndingSignals[i], &former_[i], nullptr);
    }
  }

  struct sigaction former_[std::size(kEndingSignals)] = {};
};

// Byte by byte, so that nothing of it stays in a buffer.
void ReadLine(Common::Secret& secret) {
  std::string& line = secret.Fill();
  line.reserve(kMaxPassword + 1);
  for (;;) {
    char c = 0;
    const ssize_t count = ::read(STDIN_FILENO, &c, 1);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw std::runtime_error("The password can't be read.");
    if (count == 0 || c == '\n') return;
    line += c;
    if (line.size() > kMaxPassword) throw std::runtime_error("The password is too long.");
  }
}

}  // namespace

void AskForPassword(const std::string& user, Common::Secret& password) {
  if (::isatty(STDIN_FILENO) == 1) {
    const HiddenInput hidden;
    std::fprintf(stderr, "New password of %s: ", user.c_str());
    ReadLine(password);
    std::fputs("Again: ", stderr);
    Common::Secret again;
    ReadLine(again);
    if (again.Get() != password.Get()) throw std::runtime_error("The two passwords differ.");
  } else {
    ReadLine(password);
  }
  if (!IsPassword(password.Get())) throw std::runtime_error("There is no password in the input.");
}

}  // namespace ObjProbeService
