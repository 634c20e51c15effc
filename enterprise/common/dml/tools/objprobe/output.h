#pragma once

#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "core/common/non_copyable.h"
#include "core/common/string.h"

namespace ObjProbe {

// Text on its way to a file descriptor: gathered in one buffer, handed to the system by one
// write(2) when a line ends. Text without a line end waits for the next line end or Flush, so
// everything comes out in the order in which it was appended. A line longer than the buffer goes
// out in pieces.
//
// Nothing is allocated after the constructor. Interrupted and short writes are continued, a
// descriptor that does not block is waited for.
//
// The first failed write is told to the handler; without one, or when it returns, all further text
// is dropped.
//
// Threads: one at a time.
class Output : public Common::NonCopyable {
 public:
  using FailureHandler = void (*)(int errnum);

  static constexpr std::size_t kCapacity = std::size_t{1} << 20;

  // The descriptor is borrowed.
  explicit Output(int descriptor, FailureHandler on_failure = nullptr);
  // Flushes.
  ~Output();

  void Append(char c) {
    Reserve(1);
    buffer_[size_++] = c;
  }
  void Append(std::string_view text);
  // As UTF-8, all of it, code units 0 and lone surrogates (three bytes) included.
  void Append(std::u16string_view text);
  void AppendBlanks(std::size_t count);

  template <std::integral T>
  requires(!std::same_as<T, bool> && !std::same_as<T, char>) void AppendDecimal(T value) {
    AppendNumber(value, 10);
  }
  // Lower-case digits without a prefix.
  void AppendHex(std::uint64_t value) { AppendNumber(value, 16); }
  // As "%.16g" prints it.
  void AppendDouble(double value);

  // Ends the line and flushes.
  void EndLine() {
    Append('\n');
    Flush();
  }
  void Flush();

  // errno of the first failed write, 0 while all went well.
  int GetFailure() const { return failure_; }

 private:
  template <class T>
  void AppendNumber(T value, int base) {
    constexpr std::size_t kDigits = 24;  // 64 bits in decimal with a sign, with room to spare
    Reserve(kDigits);
    char* const begin = buffer_.get() + size_;
    size_ +=
        static_cast<std::size_t>(std::to_chars(begin, begin + kDigits, value, base).ptr - begin);
  }

  // Makes room for `count` bytes, at most kCapacity.
  void Reserve(std::size_t count) {
    if (kCapacity - size_ < count) Flush();
  }

  const int descriptor_;
  const FailureHandler on_failure_;
  int failure_ = 0;
  std::size_t size_ = 0;
  const std::unique_ptr<char[]> buffer_;
};

// The standard output of the process: the echo of a query, objects and errors all go through this
// one object. Never destroyed. When a write fails the process ends at once, without running exit
// handlers, which is safe as it changes nothing: quietly with status 141 when nobody reads any more
// (what a shell shows for a program stopped by SIGPIPE), else with a message on standard error and
// status 74. Needs PrepareStandardStreams.
inline constexpr int kOutputClosedStatus = 141;
inline constexpr int kOutputFailedStatus = 74;
Output& StandardOutput();

// To be called first in main. Ignores SIGPIPE, so that a closed pipe is an error of write; opens
// those of the descriptors 0 to 2 that are closed on /dev/null, so that no file of the program
// takes their place and gets its output. Writing to an output that was closed still fails.
void PrepareStandardStreams();

}  // namespace ObjProbe
