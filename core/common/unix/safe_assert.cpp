#include "core/common/unix/safe_assert.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "core/common/non_copyable.h"
#include "core/common/unix/program_path.h"
#include "core/common/unix/safe_close.h"
#include "core/common/unix/stack_walk.h"
#include "core/common/unix/static_mutex.h"

namespace Common {
namespace {

// Keeps errno over a scope.
class ErrnoGuard : NonCopyable {
 public:
  ErrnoGuard() = default;
  ~ErrnoGuard() { errno = saved_; }

 private:
  const int saved_ = errno;
};

constexpr std::uint32_t kBreak = 1;
constexpr std::uint32_t kDebug = 2;
constexpr std::uint32_t kLog = 4;
constexpr std::uint32_t kEvent = 8;
constexpr std::uint32_t kMsgbox = 16;
constexpr std::uint32_t kAbort = 32;
constexpr std::uint32_t kStack = 64;
constexpr std::uint32_t kOff = ~0U;

struct ModeWord {
  std::string_view word;
  std::uint32_t bit;
};
constexpr ModeWord kModeWords[] = {
    {"break", kBreak},   {"debug", kDebug}, {"log", kLog},     {"event", kEvent},
    {"msgbox", kMsgbox}, {"abort", kAbort}, {"stack", kStack},
};

constexpr std::size_t kMaxWords = 127;      // characters of the word form that count
constexpr std::size_t kMaxAssertion = 539;  // characters of an assertion's text
constexpr std::size_t kMaxError = 4095;     // characters of an error's text
constexpr std::size_t kDebugSize = 539;
constexpr unsigned int kMaxFrames = 32;
constexpr unsigned int kSkippedFrames = 2;  // the walk and Report
constexpr std::size_t kGatherStep = 1024;   // bytes

constexpr unsigned int kEventLevel = 5;
constexpr std::uint32_t kEventModule = 0;
constexpr std::uint32_t kEventCode = 27;

// The settings. Written once, under `settings_mutex`, before `settings_are_read` is set; an
// assertion that comes up while they are read is reported by their starting values.
constinit std::uint32_t mode = kDebug | kLog | kEvent | kStack;
constinit int target = STDERR_FILENO;
constinit int log_file = -1;  // `target` when it is a file
constinit bool settings_are_being_read = false;
constinit std::atomic<bool> settings_are_read{false};
constinit StaticMutex settings_mutex;
// Held for one line: the log file may be closed at any time once the process is ending.
constinit StaticMutex target_mutex;

constinit std::atomic<SafeAssertEventHook> event_hook{nullptr};

// A report is on its way to the trace on this thread. A sink that asserts isn't sent its own
// report.
constinit thread_local bool in_event = false;

void CloseLogFile() {
  const StaticMutexLock lock(target_mutex);
  if (log_file < 0) return;
  target = STDERR_FILENO;
  SafeClose(std::exchange(log_file, -1));
}

// Once in a process.
void ChooseTarget() {
  const char* const name = std::getenv("VELORIN_SAFE_ASSERT_LOGFILE");
  if (name == nullptr) return;
  int chosen = -1;
  int opened = -1;
  if (std::strcmp(name, "stdout") == 0) {
    chosen = STDOUT_FILENO;
  } else if (std::strcmp(name, "stderr") == 0) {
    chosen = STDERR_FILENO;
  } else {
    // Opening a pipe that nobody reads fails instead of waiting.
    opened = open(name, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    if (opened < 0) return;
    fcntl(opened, F_SETFL, O_APPEND);
    std::atexit(CloseLogFile);
    chosen = opened;
  }
  const StaticMutexLock lock(target_mutex);
  target = chosen;
  log_file = opened;
}

// A whole hexadecimal number; a number that is too large is all ones. False if there is none.
bool ParseHex(std::string_view text, std::uint32_t& number) {
  if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
  std::uint64_t value = 0;
  for (const char c : text) {
    const bool is_digit = c >= '0' && c <= '9';
    const char letter = static_cast<char>(c | 0x20);
    if (!is_digit && (letter < 'a' || letter > 'f')) return false;
    const int digit = is_digit ? c - '0' : letter - 'a' + 10;
    value = std::min<std::uint64_t>(value * 16 + static_cast<std::uint64_t>(digit), ~0U);
  }
  number = static_cast<std::uint32_t>(value);
  return !text.empty();
}

// The bits of blank-separated words; all ones if one is unknown.
std::uint32_t ParseWords(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  std::uint32_t bits = 0;
  bool target_is_chosen = false;
  text = text.substr(0, kMaxWords);
  for (;;) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    if (text.empty()) return bits;
    const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
    const auto known = std::find_if(std::begin(kModeWords), std::end(kModeWords),
                                    [word](const ModeWord& row) { return row.word == word; });
    const std::uint32_t added = known != std::end(kModeWords) ? known->bit : kOff;
    if (added == kLog && !std::exchange(target_is_chosen, true)) ChooseTarget();
    bits |= added;
    text.remove_prefix(word.size());
  }
}

void ReadSettings() {
  const char* const value = std::getenv("VELORIN_SAFE_ASSERT");
  if (value == nullptr || *value == 0) {
    ChooseTarget();
    return;
  }
  std::uint32_t number = 0;
  if (ParseHex(value, number) && number != 0) {
    mode = number;
    if ((number & kLog) != 0) ChooseTarget();
  } else {
    mode = ParseWords(value);
  }
}

void EnsureSettings() {
  if (settings_are_read.load(std::memory_order_acquire)) return;
  const StaticMutexLock lock(settings_mutex);
  // The mutex is recursive: only an assertion out of ReadSettings itself finds the flag set.
  if (settings_are_being_read || settings_are_read.load(std::memory_order_relaxed)) return;
  settings_are_being_read = true;
  ReadSettings();
  settings_are_being_read = false;
  settings_are_read.store(true, std::memory_order_release);
}

void WriteAll(int descriptor, const char* data, std::size_t size) {
  while (size != 0) {
    const ssize_t written = write(descriptor, data, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      return;
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
}

// Writes the text and a line feed, with one call of the system.
void Log(const char* text) {
  char line[kMaxError + 3];  // as long as the longest frame, 4096 characters
  const std::size_t size = std::min(std::strlen(text), sizeof line - 2);
  std::memcpy(line, text, size);
  line[size] = '\n';
  const StaticMutexLock lock(target_mutex);
  WriteAll(target, line, size + 1);
}

// A 16-bit text that grows in steps; bytes are widened one by one. Without memory the rest is lost.
class WideText : NonCopyable {
 public:
  ~WideText() { std::free(units_); }

  void Append(const char* text) {
    for (; *text != 0; ++text) Append(static_cast<unsigned char>(*text));
  }
  void Append(char16_t unit) {
    // One place stays for the terminator.
    if ((size_ + 1) * sizeof(char16_t) >= capacity_ && !Grow()) return;
    units_[size_++] = unit;
    units_[size_] = 0;
  }
  bool IsEmpty() const { return size_ == 0; }
  const char16_t* Get() const { return size_ != 0 ? units_ : u""; }

 private:
  bool Grow() {
    void* const grown = std::realloc(units_, capacity_ + kGatherStep);
    if (grown == nullptr) return false;
    units_ = static_cast<char16_t*>(grown);
    capacity_ += kGatherStep;
    return true;
  }

  char16_t* units_ = nullptr;
  std::size_t size_ = 0;      // units
  std::size_t capacity_ = 0;  // bytes
};

void SendEvent(const WideText& text) {
  const SafeAssertEventHook hook = event_hook.load(std::memory_order_acquire);
  if (hook == nullptr || in_event) return;
  in_event = true;
  try {
    hook(kEventLevel, kEventModule, kEventCode, text.Get());
  } catch (...) {
    // A sink's failure is no business of who asserts.
  }
  in_event = false;
}

// The copy of a report that a core dump shows.
struct DebugCopy {
  void Append(const char* text) {
    const std::size_t added = std::min(std::strlen(text), sizeof data - 1 - size);
    std::memcpy(data + size, text, added);
    size += added;
    data[size] = 0;
  }

  char data[kDebugSize] = "";
  std::size_t size = 0;
};

// Where the lines of the stack go.
struct FrameOutput {
  std::uint32_t outputs;
  DebugCopy* debug;
  WideText* event;
};

bool TakeFrame(unsigned int frame, const char* text, void* context) {
  if (frame < kSkippedFrames) return true;
  const FrameOutput& output = *static_cast<FrameOutput*>(context);
  if ((output.outputs & kDebug) != 0) {
    output.debug->Append("\n");
    output.debug->Append(text);
  }
  if ((output.outputs & kLog) != 0) Log(text);
  if ((output.outputs & kEvent) != 0) {
    if (!output.event->IsEmpty()) output.event->Append(u'\n');
    output.event->Append(text);
  }
  return true;
}

bool IsDebuggerAttached() {
  const int status = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
  if (status < 0) return false;
  char text[1024 + 1];
  const ssize_t size = read(status, text, sizeof text - 1);
  SafeClose(status);
  if (size <= 0) return false;
  text[size] = 0;
  constexpr char kLabel[] = "TracerPid:";
  const char* const label = std::strstr(text, kLabel);
  return label != nullptr && std::strtol(label + sizeof kLabel - 1, nullptr, 10) != 0;
}

// Never inlined: it is the second frame that the stack leaves out.
[[gnu::noinline]] void Report(const char* text, bool has_expression) {
  const ErrnoGuard guard;
  EnsureSettings();
  const std::uint32_t bits = mode;
  if (bits == kOff) return;

  DebugCopy debug;
  if (text != nullptr) {
    if ((bits & kDebug) != 0) debug.Append(text);
    if ((bits & kLog) != 0) Log(text);
    if ((bits & kEvent) != 0) {
      WideText event;
      event.Append(text);
      SendEvent(event);
    }
  }
  if ((bits & kStack) != 0 && (bits & (kDebug | kLog | kEvent)) != 0) {
    WideText event;
    FrameOutput output{bits, &debug, &event};
    WalkStack({kMaxFrames, &TakeFrame, &output});
    if ((bits & kEvent) != 0) SendEvent(event);
  }
  // Keeps the copy in this frame up to here, where a debugger or a core dump meets it.
  asm volatile("" : : "r"(&debug) : "memory");
  if ((has_expression && (bits & kMsgbox) != 0) || (bits & kBreak) != 0) {
    if (IsDebuggerAttached()) std::raise(SIGTRAP);
  }
  if ((bits & kAbort) != 0) std::abort();
}

std::string GetNameForReport() {
  try {
    return GetProgramName();
  } catch (const std::exception&) {
    return std::string();
  }
}

}  // namespace

void SafeAssert(const char* expression, const char* file, int line) noexcept {
  char text[kMaxAssertion + 1];
  std::snprintf(text, sizeof text, "Assertion failed: %s, file %s, line %d", expression, file,
                line);
  Report(text, true);
}

void SafeAssertError(int errnum, const char* file, unsigned int line,
                     const char* message) noexcept {
  const ErrnoGuard guard;
  const bool has_message = message != nullptr && *message != 0;
  char reason[256];
  char text[kMaxError + 1];
  std::snprintf(text, sizeof text, "%s: %s:%u: %s%sUnexpected error: %s.",
                GetNameForReport().c_str(), file, line, has_message ? message : "",
                has_message ? ": " : "", strerror_r(errnum, reason, sizeof reason));
  Report(text, false);
}

void SetSafeAssertEventHook(SafeAssertEventHook hook) noexcept {
  event_hook.store(hook, std::memory_order_release);
}

}  // namespace Common
