// The XML parser and the file loader.
//
// The parser is defined as a character-at-a-time reader over an input stream:
// unformatted `get` for most characters, formatted `>>` (which skips white
// space) in end tags, attribute names and after "<!", `peek` after "<", and
// `getline` up to ";" for entities. Its results, including the stream state and
// the messages on standard error, are exactly those of that reader. It runs
// over one of three sources that reproduce those stream operations:
// - BufferSource: a cursor over a memory buffer (ParseXMLBuffer);
// - StreambufSource: the stream's buffer read directly, for ordinary streams;
// - IstreamSource: the stream's own operations, for streams whose settings the
// direct reading does
//   not reproduce (exceptions enabled, white space not skipped, another
//   locale).
// Runs of ordinary characters are taken in one step where the source allows it
// (TakeWhile); this is equivalent to reading them one by one because nothing
// else happens between them.
//
// Nesting is kept on an explicit stack of open elements, never on the call
// stack.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <istream>
#include <locale>
#include <ostream>
#include <string>
#include <vector>

#include "kt/xml.h"
#include "xmlPrivate.h"

namespace kt {

namespace {

// Character classes of the "C" locale, in which the system runs.
enum CharClass : unsigned char { kAlnum = 1, kPrint = 2, kSpace = 4, kCntrl = 8 };

struct ClassTable {
  unsigned char bits[256];
  constexpr ClassTable() : bits() {
    for (int c = 0; c < 256; ++c) {
      unsigned char b = 0;
      if ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')) b |= kAlnum;
      if (c >= 0x20 && c < 0x7f) b |= kPrint;
      if (c == ' ' || (c >= '\t' && c <= '\r')) b |= kSpace;
      if (c < 0x20 || c == 0x7f) b |= kCntrl;
      bits[c] = b;
    }
  }
};

constexpr ClassTable kClasses;

inline bool Has(char c, unsigned char classes) {
  return (kClasses.bits[static_cast<unsigned char>(c)] & classes) != 0;
}
inline bool IsAlnum(char c) { return Has(c, kAlnum); }
inline bool IsSpace(char c) { return Has(c, kSpace); }
inline bool IsPrintOrSpace(char c) { return Has(c, kPrint | kSpace); }
inline bool IsSpaceOrCntrl(char c) { return Has(c, kSpace | kCntrl); }

constexpr std::ios_base::iostate kGood = std::ios_base::goodbit;
constexpr std::ios_base::iostate kEof = std::ios_base::eofbit;
constexpr std::ios_base::iostate kFail = std::ios_base::failbit;
constexpr std::ios_base::iostate kBad = std::ios_base::badbit;

// A cursor over a memory buffer with the state bits of an std::istringstream
// over it.
class BufferSource {
 public:
  BufferSource(const char* data, std::size_t length) : p_(data), end_(data + length) {}

  bool Good() const { return state_ == kGood; }
  std::ios_base::iostate State() const { return state_; }
  void SetFail() { state_ |= kFail; }

  bool Get(char& c) {
    if (state_ != kGood) return Refuse();
    if (p_ == end_) {
      state_ |= kEof | kFail;
      return false;
    }
    c = *p_++;
    return true;
  }

  int Peek() {
    if (state_ != kGood) {
      Refuse();
      return EOF;
    }
    if (p_ == end_) {
      state_ |= kEof;
      return EOF;
    }
    return static_cast<unsigned char>(*p_);
  }

  bool Formatted(char& c) {
    if (state_ != kGood) return Refuse();
    while (p_ != end_ && IsSpace(*p_)) ++p_;
    if (p_ == end_) {
      state_ |= kEof | kFail;
      return false;
    }
    c = *p_++;
    return true;
  }

  void GetLine(std::string& out, char delimiter) {
    if (state_ != kGood) {
      Refuse();
      return;
    }
    const auto* found =
        static_cast<const char*>(std::memchr(p_, delimiter, static_cast<std::size_t>(end_ - p_)));
    if (found != nullptr) {
      out.assign(p_, found);
      p_ = found + 1;
      return;
    }
    out.assign(p_, end_);
    if (p_ == end_) state_ |= kFail;
    state_ |= kEof;
    p_ = end_;
  }

  // The usual end tag: when the input holds exactly `name` and ">", takes them (`last` becomes
  // ">") and returns true. Reading them one by one would collect the same name: none of its
  // characters is skipped as white space or ends the collection. Otherwise takes nothing.
  bool TakeEndTag(const std::string& name, char& last) {
    const std::size_t n = name.size();
    if (state_ != kGood || static_cast<std::size_t>(end_ - p_) <= n || p_[n] != '>' ||
        std::memcmp(p_, name.data(), n) != 0) {
      return false;
    }
    for (const char ch : name) {
      if (!IsPrintOrSpace(ch) || IsSpace(ch) || ch == '>') return false;
    }
    p_ += n + 1;
    last = '>';
    return true;
  }

  // Appends `last` (the character just read) and the run after it that `keep` accepts, in one
  // step; `last` becomes the run's last character.
  template <typename Keep>
  void AppendRun(std::string& out, char& last, Keep keep) {
    const char* q = p_;
    while (q != end_ && keep(*q)) ++q;
    out.append(p_ - 1, q);
    last = q[-1];
    p_ = q;
  }

  // Takes the characters that `keep` accepts up to the first one it refuses,
  // appending them to `out`; `last` becomes the last one taken.
  template <typename Keep>
  void TakeWhile(std::string& out, char& last, Keep keep) {
    const char* q = p_;
    while (q != end_ && keep(*q)) ++q;
    if (q != p_) {
      out.append(p_, q);
      last = q[-1];
      p_ = q;
    }
  }

 private:
  // What every operation does on a stream that is not good: its sentry sets the
  // failbit.
  bool Refuse() {
    state_ |= kFail;
    return false;
  }

  const char* p_;
  const char* end_;
  std::ios_base::iostate state_ = kGood;
};

// Reads an istream's buffer directly, keeping the state bits the stream
// operations would set. REQUIRES: no exceptions enabled on the stream, skipws
// set, the classic locale.
class StreambufSource {
 public:
  explicit StreambufSource(std::istream& in) : buf_(in.rdbuf()), state_(in.rdstate()) {}

  bool Good() const { return state_ == kGood; }
  std::ios_base::iostate State() const { return state_; }
  void SetFail() { state_ |= kFail; }

  bool Get(char& c) {
    if (state_ != kGood) return Refuse();
    const int next = Bump();
    if (next == EOF) {
      state_ |= (state_ & kBad) ? kFail : kEof | kFail;
      return false;
    }
    c = static_cast<char>(next);
    return true;
  }

  int Peek() {
    if (state_ != kGood) {
      Refuse();
      return EOF;
    }
    const int next = Look();
    if (next == EOF && !(state_ & kBad)) state_ |= kEof;
    return next;
  }

  bool Formatted(char& c) {
    if (state_ != kGood) return Refuse();
    int next;
    while ((next = Look()) != EOF && IsSpace(static_cast<char>(next))) Bump();
    if (next == EOF) {
      state_ |= (state_ & kBad) ? kFail : kEof | kFail;
      return false;
    }
    Bump();
    c = static_cast<char>(next);
    return true;
  }

  void GetLine(std::string& out, char delimiter) {
    if (state_ != kGood) {
      Refuse();
      return;
    }
    out.clear();
    std::size_t taken = 0;
    for (;;) {
      const int next = Bump();
      if (next == EOF) {
        if (!(state_ & kBad)) state_ |= kEof;
        break;
      }
      ++taken;
      if (static_cast<char>(next) == delimiter) break;
      out += static_cast<char>(next);
    }
    if (taken == 0) state_ |= kFail;
  }

  bool TakeEndTag(const std::string&, char&) { return false; }

  template <typename Keep>
  void AppendRun(std::string& out, char& last, Keep keep) {
    out += last;
    TakeWhile(out, last, keep);
  }

  template <typename Keep>
  void TakeWhile(std::string& out, char& last, Keep keep) {
    int next;
    while ((next = Look()) != EOF && keep(static_cast<char>(next))) {
      Bump();
      last = static_cast<char>(next);
      out += last;
    }
  }

 private:
  bool Refuse() {
    state_ |= kFail;
    return false;
  }

  // The stream operations turn an exception from the buffer into badbit (and
  // rethrow only when badbit is in the exception mask, which it is not here).
  // Once the buffer has reported its end, it is not asked again: the stream
  // would have set eofbit and read no more.
  int Look() {
    return Guarded([this] { return buf_->sgetc(); });
  }

  int Bump() {
    return Guarded([this] { return buf_->sbumpc(); });
  }

  template <typename Read>
  int Guarded(Read read) {
    if (at_end_) return EOF;
    try {
      const int next = read();
      if (next == EOF) at_end_ = true;
      return next;
    } catch (...) {
      state_ |= kBad;
      at_end_ = true;
      return EOF;
    }
  }

  std::streambuf* buf_;
  std::ios_base::iostate state_;
  bool at_end_ = false;
};

// The stream's own operations, one character at a time.
class IstreamSource {
 public:
  explicit IstreamSource(std::istream& in) : in_(in) {}

  bool Good() const { return in_.good(); }
  std::ios_base::iostate State() const { return in_.rdstate(); }
  void SetFail() { in_.setstate(kFail); }
  bool Get(char& c) { return static_cast<bool>(in_.get(c)); }
  int Peek() { return in_.peek(); }
  bool Formatted(char& c) { return static_cast<bool>(in_ >> c); }
  void GetLine(std::string& out, char delimiter) { std::getline(in_, out, delimiter); }
  bool TakeEndTag(const std::string&, char&) { return false; }
  template <typename Keep>
  void AppendRun(std::string& out, char& last, Keep) {
    out += last;
  }
  template <typename Keep>
  void TakeWhile(std::string&, char&, Keep) {}

 private:
  std::istream& in_;
};

void ReportMismatch(const std::string& endTag, const std::string& openTag) {
  std::cerr << ("End tag: " + endTag + " doesn't match open tag: " + openTag + "\n") << std::flush;
}

void ReportMissingEndTag() { std::cerr << "Missing end tag!\n" << std::flush; }

// The character an entity stands for; "&" for unknown ones (their text is
// dropped).
char DecodeEntity(const std::string& entity) {
  if (entity == "apos") return '\'';
  if (entity == "quot") return '"';
  if (entity == "amp") return '&';
  if (entity == "lt") return '<';
  if (entity == "gt") return '>';
  return '&';
}

// What became of the element being read after one character.
enum class Step {
  kContinue,  // read on
  kLeave,     // the loop ends: the after-loop checks decide (step 7)
  kReturn     // the element is finished; nothing more is checked
};

// Reads a start tag whose first character `c` (a letter or digit) has been
// read, into `e`.
template <typename Source>
Step ReadStartTag(Source& in, XMLElement& e, char& c) {
  const bool textual = e.type == Comment || e.type == Directive;
  auto nameChar = [textual](char ch) {
    return ch != '/' && ch != '>' && IsPrintOrSpace(ch) && (textual || !IsSpaceOrCntrl(ch));
  };
  for (;;) {
    in.AppendRun(e.name, c, nameChar);
    if (!in.Get(c) || !nameChar(c)) break;
  }
  if (!in.Good()) return Step::kLeave;
  if (c == '>') return textual ? Step::kReturn : Step::kContinue;
  if (c == '/') {
    while (in.Formatted(c) && c != '>') {
    }
    return Step::kReturn;
  }

  // White space (or another separator) after the name: on to the first
  // attribute. This also passes over a ">", so "<a >" is not closed there.
  while (in.Get(c) && !IsAlnum(c)) {
  }
  bool complete = false;
  while (in.Good() && c != '>' && IsPrintOrSpace(c)) {
    std::string name;
    while (in.Good() && c != '=' && IsPrintOrSpace(c)) {
      // Characters that the formatted reads would take one by one come in one run.
      in.AppendRun(name, c,
                   [](char ch) { return ch != '=' && IsPrintOrSpace(ch) && !IsSpace(ch); });
      in.Formatted(c);
    }
    char delimiter = '\0';
    in.Formatted(delimiter);
    std::string value;
    auto valueChar = [delimiter](char ch) { return ch != delimiter && IsPrintOrSpace(ch); };
    for (;;) {
      in.TakeWhile(value, c, valueChar);
      if (!in.Get(c) || !valueChar(c)) break;
      value += c;
    }
    xml_internal::AppendAttribute(e, std::move(name), std::move(value));
    if (in.Formatted(c) && (c == '/' || c == '?')) {
      complete = true;
      while (in.Formatted(c) && c != '>' && IsPrintOrSpace(c)) {
      }
    }
  }
  return complete ? Step::kReturn : Step::kContinue;
}

template <typename Source>
void Parse(Source& in, XMLElement& root) {
  xml_internal::SmallStack<XMLElement*, 32> open;
  open.Push(&root);
  XMLElement* e = &root;
  char c = '\0';
  for (;;) {
    Step step = Step::kContinue;
    if (!in.Get(c)) {
      step = Step::kLeave;
    } else if (c == '<') {
      const int next = in.Peek();
      if (next == '/') {
        in.Formatted(c);
        if (!in.TakeEndTag(e->name, c)) {
          std::string endTag;
          while (in.Formatted(c) && c != '>' && IsPrintOrSpace(c)) endTag += c;
          if (endTag != e->name) {
            ReportMismatch(endTag, e->name);
            in.SetFail();
          }
        }
        step = Step::kReturn;
      } else {
        XMLType type = Element;
        if (next == '!' || next == '?') {
          char mark = '\0';
          in.Formatted(mark);
          if (mark == '?') {
            type = Declaration;
          } else if (in.Peek() == '-') {
            in.Formatted(mark);
            in.Formatted(mark);
            type = Comment;
          } else {
            type = Directive;
          }
        }
        e = xml_internal::AppendChild(*e, type);
        open.Push(e);
        continue;
      }
    } else if (e->name.empty()) {
      if (IsAlnum(c)) step = ReadStartTag(in, *e, c);
    } else {
      if (c == '&') {
        std::string entity;
        in.GetLine(entity, ';');
        c = DecodeEntity(entity);
        e->value += c;
      } else {
        if (c != '\0') {
          in.AppendRun(e->value, c, [](char ch) { return ch != '<' && ch != '&' && ch != '\0'; });
        } else {
          e->value += c;
        }
      }
    }

    if (step == Step::kContinue && (!in.Good() || c == '\0')) step = Step::kLeave;
    if (step == Step::kContinue) continue;

    // The element is done; so is every open ancestor when the input has failed,
    // each reporting a missing end tag if it is named.
    if (step == Step::kLeave && !e->name.empty()) {
      ReportMissingEndTag();
      in.SetFail();
    }
    for (;;) {
      open.Pop();
      if (open.Empty()) return;
      e = open.Top();
      if (in.Good()) break;
      if (!e->name.empty()) {
        ReportMissingEndTag();
        in.SetFail();
      }
    }
  }
}

bool UseStreambufDirectly(std::istream& in) {
  return in.exceptions() == kGood && in.rdbuf() != nullptr &&
         (in.flags() & std::ios_base::skipws) != 0 && in.getloc() == std::locale::classic();
}

}  // namespace

std::istream& operator>>(std::istream& in, XMLElement& e) {
  if (UseStreambufDirectly(in)) {
    if (in.tie() != nullptr) in.tie()->flush();
    StreambufSource source(in);
    try {
      Parse(source, e);
    } catch (...) {
      in.setstate(source.State());
      throw;
    }
    in.setstate(source.State());
  } else {
    IstreamSource source(in);
    Parse(source, e);
  }
  return in;
}

bool ParseXMLBuffer(const char* data, std::size_t length, XMLElement& element) {
  BufferSource source(length != 0 ? data : "", length);
  Parse(source, element);
  return (source.State() & (kFail | kBad)) == 0;
}

std::istream& operator>>(std::istream& in, XMLFile& f) {
  f.root->name = "__ROOT__";
  while (in.good() && in.peek() != '<') in.get();
  if (!in.eof()) in >> *f.root;
  return in;
}

XMLFile::XMLFile() : root(xml_internal::NewElement(Element)) {}

XMLFile::~XMLFile() { xml_internal::DeleteElement(root); }

bool XMLFile::Open(const std::string& path) {
  filename = path;
  XMLElement* fresh = xml_internal::NewElement(Element);
  xml_internal::DeleteElement(root);
  root = fresh;
  std::ifstream file(path.c_str());
  const bool opened = file.is_open();
  file >> *this;
  return opened;
}

bool XMLFile::Reopen() { return Open(std::string(filename)); }

std::ostream& operator<<(std::ostream& os, const XMLFile& f) {
  return os << static_cast<const void*>(f.root);
}

}  // namespace kt
