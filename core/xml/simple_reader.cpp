#include "core/xml/simple_reader.h"

#include "core/xml/binary.h"
#include "core/xml/tree_builder.h"
#include "core/xml/xml_tokenizer.h"

namespace Core {

namespace {

using Token = XmlTokenizer::Token;

// Builds a tree from tokens. An element's open ancestors are known from the tree.
class ElementReader {
 public:
  ElementReader(XmlTokenizer& tokenizer, XmlDetail::TreeBuilder& builder)
      : tokenizer_(tokenizer), builder_(builder) {}

  // Behind the start of the root's opening tag. True behind the root, with its next token.
  bool Read();
  Token GetToken() const { return token_; }

 private:
  void Next() { token_ = tokenizer_.Next(); }
  // From the start of an opening tag to its end, and the content or the end of an empty one.
  bool ReadOpeningTag();
  bool ReadAttribute();
  bool ReadClosingTag();
  void CloseTag();

  XmlTokenizer& tokenizer_;
  XmlDetail::TreeBuilder& builder_;
  Token token_ = Token::OpenTag;
  // The outermost open tag that has xml:space="preserve", null for none: it holds for all inside.
  const XmlTag* preserving_ = nullptr;
};

bool ElementReader::Read() {
  if (!ReadOpeningTag()) return false;
  while (builder_.GetCurrent() != nullptr) {
    switch (token_) {
      case Token::Text:
        Next();
        break;
      case Token::OpenTag:
        builder_.CloseText();
        if (!ReadOpeningTag()) return false;
        break;
      case Token::Closed:
        builder_.CloseText();
        CloseTag();
        break;
      case Token::CloseTag:
        builder_.CloseText();
        if (!ReadClosingTag()) return false;
        break;
      default:
        return false;
    }
  }
  return true;
}

bool ElementReader::ReadOpeningTag() {
  builder_.OpenTag(builder_.Intern(tokenizer_.GetWord()));
  tokenizer_.SetSingle(false);
  if (tokenizer_.SkipTagEnd()) {
    Next();
    return true;
  }
  Next();
  while (token_ == Token::AttributeName) {
    if (!ReadAttribute()) return false;
  }
  builder_.FinishAttributes();
  if (token_ == Token::EmptyTagEnd) {
    CloseTag();
    return true;
  }
  if (token_ != Token::TagEnd) return false;
  Next();
  return true;
}

bool ElementReader::ReadAttribute() {
  XmlDetail::NameRecord* const name = builder_.Intern(tokenizer_.GetWord());
  if (!builder_.AddAttribute(name)) return false;
  Next();
  if (token_ != Token::AttributeValue) return false;
  do Next();
  while (token_ == Token::Text);
  if (builder_.CloseValue() == u"preserve" && name->Get() == "xml:space" &&
      preserving_ == nullptr) {
    preserving_ = builder_.GetCurrent();
    tokenizer_.SetPreserve(true);
  }
  return true;
}

bool ElementReader::ReadClosingTag() {
  if (tokenizer_.GetWord() != builder_.GetCurrent()->GetName()) return false;
  Next();
  if (token_ != Token::TagEnd) return false;
  CloseTag();
  return true;
}

void ElementReader::CloseTag() {
  const bool preserved = builder_.GetCurrent() == preserving_;
  builder_.CloseTag();
  if (builder_.GetCurrent() == nullptr) {
    // White space at the end of a document is never text.
    tokenizer_.SetPreserve(false);
    tokenizer_.SetSingle(true);
    Next();
  } else if (preserved) {
    // The token right behind a preserving element is still read as inside of it.
    tokenizer_.SetSingle(true);
    Next();
    tokenizer_.SetSingle(false);
    tokenizer_.SetPreserve(false);
    preserving_ = nullptr;
  } else {
    Next();
  }
}

}  // namespace

bool ReadDocument(XmlDocument& document, i_file& file, unsigned int& line, unsigned int& column) {
  line = column = 1;
  XmlDetail::TreeBuilder builder(document);
  XmlTokenizer tokenizer(file, builder);
  bool result = false;
  switch (tokenizer.Next()) {
    case Token::OpenTag: {
      ElementReader reader(tokenizer, builder);
      result = reader.Read() && reader.GetToken() == Token::End && !file.HasFailed();
      break;
    }
    case Token::BinaryMagic: {
      binary_reader receiver(builder);
      result = ReadBinaryDocument(file, receiver);
      break;
    }
    default:
      break;
  }
  tokenizer.GetPosition(line, column);
  return result;
}

}  // namespace Core
