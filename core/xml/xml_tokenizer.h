#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "core/common/non_copyable.h"
#include "core/include/file/file.h"
#include "core/xml/tree_builder.h"

namespace Core {

// Cuts XML in UTF-8 into tokens. Not all of XML: no namespaces, no DTD but a DOCTYPE without a
// subset, no entities but the five standard ones and numbers, no names outside ASCII.
//
// White space has a rule of its own. In content it is folded: what stands behind a start tag or
// before an end tag is nothing, any other run is one blank. A comment, a processing instruction and
// a DOCTYPE are nothing. Attribute values are folded in the same way. Numeric references and CDATA
// sections are text and not white space, and where a run of white space in content is to be kept
// (`xml:space="preserve"`) it is text as it stands. In CDATA carriage returns are dropped.
//
// Text goes to the builder's open text.
class XmlTokenizer : public Common::NonCopyable {
 public:
  enum class Token : std::uint32_t {
    End = 0,
    Error = 1,
    OpenTag = 2,         // "<" and a name, the word
    TagEnd = 3,          // ">"
    EmptyTagEnd = 4,     // "/>"
    CloseTag = 5,        // "</" and a name, the word
    AttributeName = 6,   // the word
    AttributeValue = 7,  // "=" and the opening quote
    Text = 8,
    BinaryMagic = 9,  // "BXML"; nothing behind it was read
    Closed = 10,      // CloseTag with the current tag's name, and TagEnd, in one
  };

  XmlTokenizer(i_file& file, XmlDetail::TreeBuilder& builder) : file_(file), builder_(builder) {}

  // The next token. Behind the end and an error there is none.
  Token Next();
  // Behind OpenTag: passes a TagEnd that stands right there. False, and nothing done, elsewhere.
  bool SkipTagEnd() {
    if (*cursor_ != '>') return false;
    ++cursor_;
    state_ = State::Content;
    return true;
  }
  // The name of the last token, until the next one.
  std::string_view GetWord() const { return word_; }

  // Runs of white space in content are text.
  void SetPreserve(bool preserve) { preserve_ = preserve; }
  // A text token is a word, a run of white space or a reference; otherwise it may be everything up
  // to the next markup. So it is to begin with.
  void SetSingle(bool single) { single_ = single; }

  // Where the last token begins; behind an error in UTF-8, the first bad byte.
  void GetPosition(unsigned int& line, unsigned int& column) const;

 private:
  using TextPlace = XmlDetail::TreeBuilder::TextPlace;

  enum class State : std::uint32_t {
    Start = 0,
    Content = 1,
    Cdata = 2,
    Tag = 3,
    DoubleQuoted = 4,
    SingleQuoted = 5,
    Comment = 6,
    Instruction = 7,
    Doctype = 8,
  };
  // What a run of white space comes to.
  enum class PendingSpace : std::uint32_t {
    Matters = 0,  // a blank, if something follows
    Owed = 1,     // there was one
    Dropped = 2,  // nothing
  };

  struct Position {
    std::uint32_t line;
    std::uint32_t column;

    // Goes on over the bytes.
    void Advance(const char* from, const char* to);
  };

  // Reads on and drops what stands before the token. False: there is no more.
  bool Refill();
  // Reads until there are `count` bytes at the cursor. False: there are fewer.
  bool Fill(std::size_t count);
  // The byte at the cursor, a 0 behind the last one.
  unsigned char Peek();
  // The same; what was passed is no part of the token.
  unsigned char PeekAtStart();
  // The same in text, which is passed as it is copied, but for single tokens.
  unsigned char PeekInText();
  bool StartsWith(std::string_view text);
  // At a character that begins a name: it becomes the word.
  void ReadName();

  // Each of the following says whether there is a token now.
  bool SetToken(Token token) {
    token_ = token;
    return true;
  }
  bool Fail(const char* at) {
    token_start_ = at;
    return SetToken(Token::Error);
  }
  // At a byte that nothing may begin with.
  bool FailHere() { return SetToken(cursor_ == end_ ? Token::End : Token::Error); }
  bool ReadAny();
  bool ReadStart();
  bool ReadContent();
  bool ReadMarkup();
  bool PassClosingTag();
  bool ReadTag();
  template <char kQuote>
  bool ReadValue();
  template <char kQuote>
  bool ReadText();
  bool ReadCdata();
  bool SkipComment();
  bool SkipInstruction();
  bool SkipDoctype();

  // Of text. Those with a result: false, and the token is an error.
  TextPlace OpenText();
  void PutUnit(TextPlace& place, char16_t unit);
  void PutCharacter(TextPlace& place, std::uint32_t character);
  template <char kStop>
  void CopyRun(TextPlace& place);
  bool DecodeSequence(TextPlace& place);
  bool ReadReference(TextPlace& place);
  bool ReadNumber(TextPlace& place);

  i_file& file_;
  XmlDetail::TreeBuilder& builder_;
  std::unique_ptr<char[]> buffer_;
  std::size_t capacity_ = 0;
  const char* counted_ = nullptr;  // up to here, position_ has counted
  const char* token_start_ = nullptr;
  const char* cursor_ = nullptr;
  const char* end_ = nullptr;  // kPadding zeros behind it
  Position position_{1, 0};
  State state_ = State::Start;
  PendingSpace pending_ = PendingSpace::Dropped;
  bool eof_ = false;
  bool preserve_ = false;
  bool single_ = true;
  Token token_ = Token::End;
  std::string_view word_;
};

}  // namespace Core
