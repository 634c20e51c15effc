#pragma once

#include <cstdint>
#include <iosfwd>
#include <iostream>
#include <memory>

#include "core/common/non_copyable.h"
#include "enterprise/common/por/parser/por_format.h"

namespace Utils {

// Codes of the parser's errors. They stand by themselves, without a module, and so show as the exit
// status of a program that fails with them.
inline constexpr std::uint32_t kInputIsOver = 1;
inline constexpr std::uint32_t kSymbolNotFound = 2;
inline constexpr std::uint32_t kNotAQword = 3;
inline constexpr std::uint32_t kUnknownStatement = 6;
inline constexpr std::uint32_t kNotAGuid = 7;
inline constexpr std::uint32_t kNotASqword = 8;

// A further step between the parser and its caller.
class UnitStage : public Common::NonCopyable {
 public:
  virtual ~UnitStage() = default;
  // `unit` may be null.
  virtual Por::OwnedUnit Process(Por::OwnedUnit unit,
                                 const Por::Construction::UnitFactory& factory) = 0;
};

// Units as text: a flat run of statements that read like chained builder calls,
//
//   .Composite().Trait("Is").String("Task").End().Property("Runs").DWord(5).End().End()
//
//   text      = {blank} {statement {blank}}       blank: space, tab, CR, LF
//   statement = ["."] name "(" argument ")"       name: all up to the "(", blanks included
//   argument  = nothing | quoted | word | number | guid, by the name
//   quoted    = quote {not a quote} quote         quote: " or ', in any mixture; no escapes
//   number    = ["-"] (digits | "0x" hexdigits | hexdigits "h"), cut to the statement's width
//
// So it is meant; in fact any character opens a quoted text and any one closes a statement, and a
// ")" right behind the "(" is an empty argument.
//
// Input is taken as one character a byte, undecoded; names are encoded from these characters again.
class UnitConstructionFormat final : public PorFormat {
 public:
  // What is read is echoed on `echo`, which must outlive this object and is flushed after the
  // prefix and after the line; a failure leaves the echo line open.
  explicit UnitConstructionFormat(std::ostream& echo = std::cout,
                                  std::unique_ptr<UnitStage> next = nullptr);

  // Whether to echo; true at first.
  void SetTrace(bool trace) { trace_ = trace; }

  // The last root unit of the text, null if it closes none, through the next stage if there is one.
  // Throws Common::Error with one of the codes above, what the reader throws, and what
  // Por::Util::UnitAccumulator throws for statements in the wrong place.
  Por::OwnedUnit Read(DataReader& reader, const Por::Construction::UnitFactory& factory) override;

  // The text of the unit as UTF-16 code units in memory order, without a mark or an end. Doubles,
  // blobs, errors and text with quotes do not read back.
  void Write(const Por::View::Unit& unit, Por::Util::BinaryDataConsumer& sink) override;

 private:
  std::ostream* echo_;
  std::unique_ptr<UnitStage> next_;
  bool trace_ = true;
};

}  // namespace Utils
