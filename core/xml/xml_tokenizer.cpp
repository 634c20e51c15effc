#include "core/xml/xml_tokenizer.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace Core {

namespace {

constexpr std::size_t kMagicSize = 4;
constexpr std::size_t kReadSize = 32768;
// Zeros behind the bytes that were read: blocks are read and markup is compared without a look at
// how much is there.
constexpr std::size_t kPadding = 16;
// Room in the buffer beyond what is read at a time: for a token that goes on, and the padding.
constexpr std::size_t kRoom = 1024;
// Units that are written at a time.
constexpr std::size_t kBlock = 16;

constexpr std::string_view kMagic = "BXML";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kCdataBegin = "<![CDATA[";
constexpr std::string_view kCdataEnd = "]]>";
constexpr std::string_view kDoctype = "<!DOCTYPE";

constexpr std::uint32_t kMaxCharacter = 0x10FFFF;

constexpr unsigned char kSpace = 1;
constexpr unsigned char kNameStart = 2;
constexpr unsigned char kName = 4;
// Allowed in comments, processing instructions and DOCTYPEs.
constexpr unsigned char kPassed = 8;

constexpr std::array<unsigned char, 256> MakeClasses() {
  std::array<unsigned char, 256> classes{};
  for (std::size_t byte = 0; byte < classes.size(); ++byte) {
    const auto is_between = [byte](char first, char last) {
      return byte >= static_cast<unsigned char>(first) && byte <= static_cast<unsigned char>(last);
    };
    unsigned char& its = classes[byte];
    if (byte == ' ' || byte == '\t' || byte == '\n' || byte == '\r') its |= kSpace;
    if (is_between('A', 'Z') || is_between('a', 'z') || byte == '_' || byte == ':') {
      its |= kNameStart | kName;
    }
    if (is_between('0', '9') || byte == '-' || byte == '.') its |= kName;
    if (byte >= ' ' || (its & kSpace) != 0) its |= kPassed;
  }
  return classes;
}
constexpr std::array<unsigned char, 256> kClasses = MakeClasses();

bool Is(unsigned char byte, unsigned char its_class) {
  return (kClasses[byte] & its_class) != 0;
}
bool Is(char byte, unsigned char its_class) {
  return Is(static_cast<unsigned char>(byte), its_class);
}

// The kinds of text that runs are copied from, by what ends them.
constexpr char kContent = '\0';
constexpr char kCdata = ']';

// A byte of text that is copied as it stands, wherever it stands.
template <char kStop>
bool IsOrdinary(char byte) {
  const auto value = static_cast<unsigned char>(byte);
  if (kStop == kCdata) return value >= ' ' && value < 0x80 && byte != kCdata;
  return value > ' ' && value < 0x80 && byte != '&' && byte != '<' &&
         (kStop == kContent || byte != kStop);
}

}  // namespace

void XmlTokenizer::Position::Advance(const char* from, const char* to) {
  const char* const last_feed =
      static_cast<const char*>(::memrchr(from, '\n', static_cast<std::size_t>(to - from)));
  if (last_feed != nullptr) {
    line += static_cast<std::uint32_t>(std::count(from, last_feed + 1, '\n'));
    column = 0;
    from = last_feed + 1;
  }
  while (const void* const tab = std::memchr(from, '\t', static_cast<std::size_t>(to - from))) {
    column += static_cast<std::uint32_t>(static_cast<const char*>(tab) - from);
    column = (column | 7) + 1;
    from = static_cast<const char*>(tab) + 1;
  }
  column += static_cast<std::uint32_t>(to - from);
}

void XmlTokenizer::GetPosition(unsigned int& line, unsigned int& column) const {
  Position position = position_;
  if (counted_ != token_start_) position.Advance(counted_, token_start_);
  line = position.line;
  column = position.column + 1;
}

bool XmlTokenizer::Refill() {
  if (eof_) return false;
  const std::size_t kept = static_cast<std::size_t>(end_ - token_start_);
  // A magic is read alone: what stands behind it is for others to read from the file.
  const std::size_t wanted = state_ == State::Start ? kMagicSize - kept : kReadSize;
  const std::size_t needed = kept + wanted + kPadding;
  const std::ptrdiff_t passed = cursor_ - token_start_;
  if (counted_ != token_start_) position_.Advance(counted_, token_start_);
  if (needed > capacity_) {
    const std::size_t capacity = 2 * kept + kReadSize + kRoom;
    std::unique_ptr<char[]> buffer(new char[capacity]);
    if (kept != 0) std::memcpy(buffer.get(), token_start_, kept);
    buffer_ = std::move(buffer);
    capacity_ = capacity;
  } else if (kept != 0 && token_start_ != buffer_.get()) {
    std::memmove(buffer_.get(), token_start_, kept);
  }
  char* const end = buffer_.get() + kept;
  std::uint64_t count = 0;
  file_.Read(end, wanted, count);
  count = std::min<std::uint64_t>(count, wanted);
  eof_ = count == 0;
  std::memset(end + count, 0, kPadding);
  token_start_ = counted_ = buffer_.get();
  cursor_ = token_start_ + passed;
  end_ = end + count;
  return !eof_;
}

inline bool XmlTokenizer::Fill(std::size_t count) {
  while (static_cast<std::size_t>(end_ - cursor_) < count) {
    if (!Refill()) return false;
  }
  return true;
}

inline unsigned char XmlTokenizer::Peek() {
  if (cursor_ == end_) Refill();
  return static_cast<unsigned char>(*cursor_);
}

inline unsigned char XmlTokenizer::PeekAtStart() {
  token_start_ = cursor_;
  return Peek();
}

inline unsigned char XmlTokenizer::PeekInText() {
  return single_ ? Peek() : PeekAtStart();
}

inline bool XmlTokenizer::StartsWith(std::string_view text) {
  return Fill(text.size()) && std::memcmp(cursor_, text.data(), text.size()) == 0;
}

void XmlTokenizer::ReadName() {
  const std::ptrdiff_t begin = cursor_ - token_start_;
  ++cursor_;
  for (;;) {
    while (Is(*cursor_, kName)) ++cursor_;
    if (cursor_ != end_ || !Refill()) break;
  }
  word_ = {token_start_ + begin, static_cast<std::size_t>(cursor_ - token_start_ - begin)};
}

XmlTokenizer::Token XmlTokenizer::Next() {
  word_ = {};
  while (!ReadAny()) {
  }
  return token_;
}

bool XmlTokenizer::ReadAny() {
  token_start_ = cursor_;
  switch (state_) {
    case State::Start:
      return ReadStart();
    case State::Content:
      return ReadContent();
    case State::Cdata:
      return ReadCdata();
    case State::Tag:
      return ReadTag();
    case State::DoubleQuoted:
      return ReadValue<'"'>();
    case State::SingleQuoted:
      return ReadValue<'\''>();
    case State::Comment:
      return SkipComment();
    case State::Instruction:
      return SkipInstruction();
    case State::Doctype:
      return SkipDoctype();
  }
  return SetToken(Token::Error);
}

bool XmlTokenizer::ReadStart() {
  Fill(kMagicSize);
  if (StartsWith(kMagic)) {
    cursor_ += kMagic.size();
    return SetToken(Token::BinaryMagic);
  }
  if (StartsWith(kByteOrderMark)) cursor_ += kByteOrderMark.size();
  // The mark counts no column.
  counted_ = cursor_;
  state_ = State::Content;
  return false;
}

bool XmlTokenizer::ReadContent() {
  const unsigned char byte = Peek();
  if (Is(byte, kSpace)) {
    if (preserve_) return ReadText<kContent>();
    if (pending_ == PendingSpace::Matters) pending_ = PendingSpace::Owed;
    do ++cursor_;
    while (Is(*cursor_, kSpace));
    return false;
  }
  if (byte == '<') return ReadMarkup();
  if (byte < ' ') return FailHere();
  return ReadText<kContent>();
}

// Passes the current tag's closing tag, if it is there whole and without white space.
inline bool XmlTokenizer::PassClosingTag() {
  const XmlTag* const tag = builder_.GetCurrent();
  if (tag == nullptr) return false;
  const std::string_view name = tag->GetName();
  if (static_cast<std::size_t>(end_ - cursor_) < name.size() + 3) return false;
  const char* const at = cursor_ + 2;
  if (at[name.size()] != '>' || std::memcmp(at, name.data(), name.size()) != 0) return false;
  cursor_ += name.size() + 3;
  pending_ = PendingSpace::Matters;
  return true;
}

bool XmlTokenizer::ReadMarkup() {
  const auto pay_blank = [this] {
    if (pending_ != PendingSpace::Owed) return false;
    builder_.KeepText(OpenText());
    return SetToken(Token::Text);
  };
  Fill(2);
  switch (cursor_[1]) {
    case '/':
      if (PassClosingTag()) return SetToken(Token::Closed);
      Fill(3);
      if (!Is(cursor_[2], kNameStart)) return Fail(cursor_);
      cursor_ += 2;
      ReadName();
      state_ = State::Tag;
      pending_ = PendingSpace::Matters;
      return SetToken(Token::CloseTag);
    case '?':
      cursor_ += 2;
      state_ = State::Instruction;
      return false;
    case '!':
      if (StartsWith("<!--")) {
        cursor_ += 4;
        state_ = State::Comment;
        return false;
      }
      if (StartsWith(kCdataBegin)) {
        if (pay_blank()) return true;
        cursor_ += kCdataBegin.size();
        state_ = State::Cdata;
        return false;
      }
      if (StartsWith(kDoctype) && Fill(kDoctype.size() + 1) &&
          Is(cursor_[kDoctype.size()], kSpace)) {
        cursor_ += kDoctype.size() + 1;
        state_ = State::Doctype;
        return false;
      }
      return Fail(cursor_);
    default:
      if (!Is(cursor_[1], kNameStart)) return Fail(cursor_);
      if (pay_blank()) return true;
      ++cursor_;
      ReadName();
      state_ = State::Tag;
      pending_ = PendingSpace::Dropped;
      return SetToken(Token::OpenTag);
  }
}

bool XmlTokenizer::ReadTag() {
  while (Is(PeekAtStart(), kSpace)) ++cursor_;
  switch (*cursor_) {
    case '>':
      ++cursor_;
      state_ = State::Content;
      return SetToken(Token::TagEnd);
    case '/':
      if (!StartsWith("/>")) return Fail(cursor_);
      cursor_ += 2;
      state_ = State::Content;
      pending_ = PendingSpace::Matters;
      return SetToken(Token::EmptyTagEnd);
    case '=': {
      do ++cursor_;
      while (Is(Peek(), kSpace));
      const char quote = *cursor_;
      if (quote != '"' && quote != '\'') return Fail(token_start_);
      ++cursor_;
      state_ = quote == '"' ? State::DoubleQuoted : State::SingleQuoted;
      pending_ = PendingSpace::Dropped;
      return SetToken(Token::AttributeValue);
    }
    default:
      if (!Is(*cursor_, kNameStart)) return FailHere();
      ReadName();
      return SetToken(Token::AttributeName);
  }
}

template <char kQuote>
bool XmlTokenizer::ReadValue() {
  const unsigned char byte = Peek();
  if (*cursor_ == kQuote) {
    ++cursor_;
    state_ = State::Tag;
    pending_ = PendingSpace::Dropped;
    return false;
  }
  if (Is(byte, kSpace)) {
    if (pending_ == PendingSpace::Matters) pending_ = PendingSpace::Owed;
    do ++cursor_;
    while (Is(*cursor_, kSpace));
    return false;
  }
  if (byte == '<' || byte < ' ') return FailHere();
  return ReadText<kQuote>();
}

XmlTokenizer::TextPlace XmlTokenizer::OpenText() {
  TextPlace place = builder_.OpenText();
  if (pending_ == PendingSpace::Owed) PutUnit(place, u' ');
  pending_ = PendingSpace::Matters;
  return place;
}

inline void XmlTokenizer::PutUnit(TextPlace& place, char16_t unit) {
  if (place.to == place.limit) place = builder_.GrowText(place, kBlock);
  *place.to++ = unit;
}

void XmlTokenizer::PutCharacter(TextPlace& place, std::uint32_t character) {
  if (character <= 0xFFFF) {
    PutUnit(place, static_cast<char16_t>(character));
    return;
  }
  PutUnit(place, static_cast<char16_t>((character - 0x10000) >> 10 | 0xD800));
  PutUnit(place, static_cast<char16_t>((character & 0x3FF) | 0xDC00));
}

// Text from a byte on that begins some, up to what ends it; single tokens up to their end.
template <char kQuote>
bool XmlTokenizer::ReadText() {
  const bool keeps_space = kQuote == kContent && preserve_;
  TextPlace place = OpenText();
  // A word, a run of white space or a reference each time.
  do {
    const unsigned char byte = PeekInText();
    if (Is(byte, kSpace)) {
      if (keeps_space) {
        do PutUnit(place, static_cast<unsigned char>(*cursor_++));
        while (Is(PeekInText(), kSpace));
        continue;
      }
      do ++cursor_;
      while (Is(PeekInText(), kSpace));
      if (static_cast<unsigned char>(*cursor_) < ' ' || *cursor_ == '<' || *cursor_ == kQuote) {
        pending_ = PendingSpace::Owed;
        break;
      }
      PutUnit(place, u' ');
    } else if (byte == '&') {
      if (!ReadReference(place)) return true;
    } else if (byte < ' ' || byte == '<' || *cursor_ == kQuote) {
      break;
    } else {
      for (;;) {
        CopyRun<kQuote>(place);
        if (PeekInText() >= 0x80) {
          if (!DecodeSequence(place)) return true;
        } else if (!IsOrdinary<kQuote>(*cursor_)) {
          break;
        }
      }
    }
  } while (!single_);
  builder_.KeepText(place);
  return SetToken(Token::Text);
}

bool XmlTokenizer::ReadCdata() {
  TextPlace place = OpenText();
  do {
    const unsigned char byte = PeekInText();
    if (byte == ']') {
      if (StartsWith(kCdataEnd)) {
        cursor_ += kCdataEnd.size();
        state_ = State::Content;
        break;
      }
      PutUnit(place, u']');
      ++cursor_;
    } else if (byte == '\r') {
      ++cursor_;
      if (single_) return false;
    } else if (byte == '\t' || byte == '\n') {
      PutUnit(place, byte);
      ++cursor_;
    } else if (byte < ' ') {
      return FailHere();
    } else {
      for (;;) {
        CopyRun<kCdata>(place);
        if (PeekInText() >= 0x80) {
          if (!DecodeSequence(place)) return true;
        } else if (!IsOrdinary<kCdata>(*cursor_)) {
          break;
        }
      }
    }
  } while (!single_);
  builder_.KeepText(place);
  return SetToken(Token::Text);
}

// Copies bytes below 0x80 that stand for themselves. Where white space is folded, a blank between
// two of them is one.
template <char kStop>
void XmlTokenizer::CopyRun(TextPlace& place) {
#ifdef __SSE2__
  const char* from = cursor_;
  char16_t* to = place.to;
  const bool folds = kStop != kCdata && !single_;
  const __m128i zero = _mm_setzero_si128();
  for (;;) {
    if (static_cast<std::size_t>(place.limit - to) < kBlock) {
      place = builder_.GrowText({to, place.limit}, kBlock);
      to = place.to;
    }
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
    auto* const target = reinterpret_cast<__m128i*>(to);
    _mm_storeu_si128(target, _mm_unpacklo_epi8(block, zero));
    _mm_storeu_si128(target + 1, _mm_unpackhi_epi8(block, zero));
    // Signed: bytes from 0x80 on are below as well.
    __m128i special = _mm_cmplt_epi8(block, _mm_set1_epi8(kStop == kCdata ? 0x20 : 0x21));
    if (kStop != kCdata) {
      special = _mm_or_si128(special, _mm_cmpeq_epi8(block, _mm_set1_epi8('&')));
      special = _mm_or_si128(special, _mm_cmpeq_epi8(block, _mm_set1_epi8('<')));
    }
    if (kStop != kContent) {
      special = _mm_or_si128(special, _mm_cmpeq_epi8(block, _mm_set1_epi8(kStop)));
    }
    auto stops = static_cast<unsigned int>(_mm_movemask_epi8(special));
    if (stops == 0) {
      from += kBlock;
      to += kBlock;
      continue;
    }
    unsigned int blanks = 0;
    if (folds) {
      blanks =
          static_cast<unsigned int>(_mm_movemask_epi8(_mm_cmpeq_epi8(block, _mm_set1_epi8(' '))));
      // What follows the last byte isn't known here: a blank there begins the next block.
      stops &= ~(blanks & ~(stops >> 1)) | 0x8000;
    }
    const auto count = static_cast<unsigned int>(std::countr_zero(stops | 0x10000));
    from += count;
    to += count;
    if (count == kBlock - 1 && (blanks & 0x8000) != 0) continue;
    if (count != kBlock) break;
  }
  cursor_ = from;
  place.to = to;
#else
  while (IsOrdinary<kStop>(*cursor_)) PutUnit(place, static_cast<unsigned char>(*cursor_++));
#endif
}

// At a byte from 0x80 on.
bool XmlTokenizer::DecodeSequence(TextPlace& place) {
  constexpr std::size_t kLongest = 4;
  if (static_cast<std::size_t>(end_ - cursor_) < kLongest) Fill(kLongest);
  const auto* const bytes = reinterpret_cast<const unsigned char*>(cursor_);
  const unsigned int lead = bytes[0];
  if (lead < 0xC2 || lead > 0xF4) {
    Fail(cursor_);
    return false;
  }
  // Neither longer than needed, nor surrogates, nor too large.
  unsigned int low = 0x80;
  unsigned int high = 0xBF;
  switch (lead) {
    case 0xE0:
      low = 0xA0;
      break;
    case 0xED:
      high = 0x9F;
      break;
    case 0xF0:
      low = 0x90;
      break;
    case 0xF4:
      high = 0x8F;
      break;
    default:
      break;
  }
  const std::size_t size = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  std::uint32_t character = lead & (0x7Fu >> size);
  for (std::size_t i = 1; i != size; ++i) {
    if (bytes[i] < low || bytes[i] > high) {
      Fail(cursor_ + i);
      return false;
    }
    character = character << 6 | (bytes[i] & 0x3Fu);
    low = 0x80;
    // U+FFFE and U+FFFF are no characters.
    high = i == 1 && lead == 0xEF && bytes[1] == 0xBF ? 0xBD : 0xBF;
  }
  cursor_ += size;
  PutCharacter(place, character);
  return true;
}

// At a "&".
bool XmlTokenizer::ReadReference(TextPlace& place) {
  token_start_ = cursor_;
  if (StartsWith("&#")) return ReadNumber(place);
  static constexpr struct {
    std::string_view reference;
    char16_t unit;
  } kEntities[] = {
      {"&amp;", u'&'}, {"&lt;", u'<'}, {"&gt;", u'>'}, {"&apos;", u'\''}, {"&quot;", u'"'},
  };
  for (const auto& entity : kEntities) {
    if (!StartsWith(entity.reference)) continue;
    cursor_ += entity.reference.size();
    PutUnit(place, entity.unit);
    return true;
  }
  Fail(token_start_);
  return false;
}

bool XmlTokenizer::ReadNumber(TextPlace& place) {
  cursor_ += 2;
  std::uint32_t base = 10;
  if (Peek() == 'x') {
    base = 16;
    ++cursor_;
  }
  std::uint32_t character = 0;
  bool has_digits = false;
  for (;; ++cursor_) {
    const unsigned int byte = Peek();
    std::uint32_t digit = base;
    if (byte >= '0' && byte <= '9') {
      digit = byte - '0';
    } else if ((byte | 0x20) >= 'a' && (byte | 0x20) <= 'f') {
      digit = (byte | 0x20) - 'a' + 10;
    }
    if (digit >= base) break;
    has_digits = true;
    // A value that is too large stays so.
    if (character <= kMaxCharacter) character = character * base + digit;
  }
  if (!has_digits || *cursor_ != ';' || character > kMaxCharacter) {
    Fail(token_start_);
    return false;
  }
  ++cursor_;
  PutCharacter(place, character);
  return true;
}

bool XmlTokenizer::SkipComment() {
  for (;;) {
    const unsigned char byte = PeekAtStart();
    if (!Is(byte, kPassed)) return FailHere();
    if (byte == '-' && StartsWith("-->")) break;
    ++cursor_;
  }
  cursor_ += 3;
  state_ = State::Content;
  return false;
}

bool XmlTokenizer::SkipInstruction() {
  for (;;) {
    const unsigned char byte = PeekAtStart();
    if (!Is(byte, kPassed)) return FailHere();
    if (byte == '?' && StartsWith("?>")) break;
    ++cursor_;
  }
  cursor_ += 2;
  state_ = State::Content;
  return false;
}

bool XmlTokenizer::SkipDoctype() {
  for (;;) {
    const unsigned char byte = PeekAtStart();
    // There is no reading of subsets.
    if (!Is(byte, kPassed) || byte == '[') return FailHere();
    if (byte == '>') break;
    ++cursor_;
  }
  ++cursor_;
  state_ = State::Content;
  return false;
}

}  // namespace Core
