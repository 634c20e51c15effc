#pragma once

#include <cstdint>

namespace Common {

// Reports a violated contract and returns: execution goes on behind the assertion, so every site
// decides what happens next. Safe at the lowest levels: never throws, may be called from static
// initialisers, and again while a report is under way.
//
// The environment decides what a report does. It is read at the first report of the process.
//
//   VELORIN_SAFE_ASSERT          a hexadecimal number, or blank-separated words:
//       1  break    stop in the debugger, when one is attached
//       2  debug    copy the text to a buffer on the stack, for core dumps
//       4  log      write the text to the log target
//       8  event    send the text to the trace (level 5, module 0, code 27)
//      16  msgbox   as break, for assertions with an expression
//      32  abort    end the process
//      64  stack    add the call stack to debug, log and event
//       "0" or an unknown word: assertions are off. Unset or empty: debug, log, event and stack.
//   VELORIN_SAFE_ASSERT_LOGFILE  log target: stdout, stderr (the default) or a file to append to
//
// The text is "Assertion failed: EXPRESSION, file FILE, line LINE", cut to 539 characters.
void SafeAssert(const char* expression, const char* file, int line) noexcept;

// Reports an unexpected system error:
// "PROGRAM: FILE:LINE: MESSAGE: Unexpected error: TEXT OF ERRNUM.", cut to 4095 characters.
// A null or empty `message` is left out. There is no expression: "msgbox" doesn't stop it.
void SafeAssertError(int errnum, const char* file, unsigned int line, const char* message) noexcept;

// Where "event" sends its text; null: nowhere. The trace sets it before main.
using SafeAssertEventHook = void (*)(unsigned int level, std::uint32_t module, std::uint32_t code,
                                     const char16_t* text);
void SetSafeAssertEventHook(SafeAssertEventHook hook) noexcept;

}  // namespace Common

// Evaluates the expression once and reports it as written when it is false.
#define SAFE_ASSERT(expression) \
  ((expression) ? static_cast<void>(0) : ::Common::SafeAssert(#expression, __FILE__, __LINE__))

// Reports that a place was reached, as SAFE_ASSERT(!text) of a literal would, but without the
// conversion of a literal to bool that compilers warn of.
#define SAFE_ASSERT_NOT_REACHED(text) ::Common::SafeAssert("!" #text, __FILE__, __LINE__)
