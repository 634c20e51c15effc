#include "enterprise/common/dml/tools/objprobe/output.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

namespace ObjProbe {

namespace {

bool IsHighSurrogate(char16_t unit) {
  return (unit & 0xFC00) == 0xD800;
}
bool IsLowSurrogate(char16_t unit) {
  return (unit & 0xFC00) == 0xDC00;
}

// Writes `text` as UTF-8 to `out`, which has room for three bytes a unit. Returns the end.
char* WriteUtf8(char* out, std::u16string_view text) {
  const auto put = [&out](std::uint32_t byte) { *out++ = static_cast<char>(byte); };
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::uint32_t unit = text[i];
    if (unit < 0x80) {
      put(unit);
    } else if (unit < 0x800) {
      put(0xC0 | unit >> 6);
      put(0x80 | (unit & 0x3F));
    } else if (IsHighSurrogate(text[i]) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
      const std::uint32_t point = ((unit & 0x3FF) << 10 | (text[++i] & 0x3FFu)) + 0x10000;
      put(0xF0 | point >> 18);
      put(0x80 | (point >> 12 & 0x3F));
      put(0x80 | (point >> 6 & 0x3F));
      put(0x80 | (point & 0x3F));
    } else {
      put(0xE0 | unit >> 12);
      put(0x80 | (unit >> 6 & 0x3F));
      put(0x80 | (unit & 0x3F));
    }
  }
  return out;
}

// Writes all of it. Returns 0 or errno.
int WriteAll(int descriptor, const char* data, std::size_t size) {
  while (size != 0) {
    const ssize_t written = ::write(descriptor, data, size);
    if (written > 0) {
      data += written;
      size -= static_cast<std::size_t>(written);
    } else if (written == 0) {
      return EIO;  // a device that takes nothing would keep us here for good
    } else if (errno == EAGAIN) {
      pollfd wait{descriptor, POLLOUT, 0};
      if (::poll(&wait, 1, -1) < 0 && errno != EINTR) return errno;
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

[[noreturn]] void EndProcess(int errnum) {
  if (errnum == EPIPE) std::_Exit(kOutputClosedStatus);
  std::string message = "objprobe: cannot write to standard output: ";
  message += std::strerror(errnum);
  message += '\n';
  WriteAll(STDERR_FILENO, message.data(), message.size());
  std::_Exit(kOutputFailedStatus);
}

}  // namespace

Output::Output(int descriptor, FailureHandler on_failure)
    : descriptor_(descriptor),
      on_failure_(on_failure),
      buffer_(std::make_unique_for_overwrite<char[]>(kCapacity)) {}

Output::~Output() {
  Flush();
}

void Output::Append(std::string_view text) {
  while (text.size() > kCapacity - size_) {
    const std::size_t room = kCapacity - size_;
    std::memcpy(buffer_.get() + size_, text.data(), room);
    size_ = kCapacity;
    text.remove_prefix(room);
    Flush();
  }
  if (text.empty()) return;
  std::memcpy(buffer_.get() + size_, text.data(), text.size());
  size_ += text.size();
}

void Output::Append(std::u16string_view text) {
  constexpr std::size_t kPiece = std::size_t{1} << 14;
  while (!text.empty()) {
    std::size_t count = std::min(text.size(), kPiece);
    // The halves of a pair stay together.
    if (count < text.size() && IsHighSurrogate(text[count - 1])) --count;
    Reserve(3 * count);
    char* const end = WriteUtf8(buffer_.get() + size_, text.substr(0, count));
    size_ = static_cast<std::size_t>(end - buffer_.get());
    text.remove_prefix(count);
  }
}

void Output::AppendBlanks(std::size_t count) {
  while (count != 0) {
    const std::size_t piece = std::min(count, std::size_t{1} << 14);
    Reserve(piece);
    std::memset(buffer_.get() + size_, ' ', piece);
    size_ += piece;
    count -= piece;
  }
}

void Output::AppendDouble(double value) {
  constexpr std::size_t kDigits = 32;  // sign, 16 digits, point, zeros, exponent: 23 at most
  Reserve(kDigits);
  char* const begin = buffer_.get() + size_;
  const auto result = std::to_chars(begin, begin + kDigits, value, std::chars_format::general, 16);
  size_ += static_cast<std::size_t>(result.ptr - begin);
}

void Output::Flush() {
  if (size_ == 0) return;
  const std::size_t size = size_;
  size_ = 0;
  if (failure_ != 0) return;
  failure_ = WriteAll(descriptor_, buffer_.get(), size);
  if (failure_ != 0 && on_failure_ != nullptr) on_failure_(failure_);
}

Output& StandardOutput() {
  static Output* const output = new Output(STDOUT_FILENO, EndProcess);
  return *output;
}

void PrepareStandardStreams() {
  std::signal(SIGPIPE, SIG_IGN);
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) >= 0 || errno != EBADF) continue;
    // The lowest free descriptor is taken, so this one. Each in the direction nobody uses: a write
    // to a closed output shall fail.
    const int flags = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    if (::open("/dev/null", flags) < 0) return;
  }
}

}  // namespace ObjProbe
