#include "log/TextInput.h"

#include <cstring>

namespace orvcam {
namespace log {

namespace {

void appendUtf8(std::string* out, unsigned long cp) {
  if (cp < 0x80) {
    out->push_back(char(cp));
  } else if (cp < 0x800) {
    out->push_back(char(0xC0 | (cp >> 6)));
    out->push_back(char(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out->push_back(char(0xE0 | (cp >> 12)));
    out->push_back(char(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(char(0x80 | (cp & 0x3F)));
  } else {
    out->push_back(char(0xF0 | (cp >> 18)));
    out->push_back(char(0x80 | ((cp >> 12) & 0x3F)));
    out->push_back(char(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(char(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

const char* TextInput::name(Encoding e) {
  switch (e) {
    case Encoding::Utf8: return "UTF-8";
    case Encoding::Utf8WithMark: return "UTF-8 with a byte order mark";
    case Encoding::Utf16Le: return "UTF-16 little endian";
    case Encoding::Utf16Be: return "UTF-16 big endian";
  }
  return "";
}

// Looks at the first bytes: a byte order mark, or the zero bytes that ASCII text in UTF-16
// has in every other place. Bytes that are not a mark stay in the buffer as text.
void TextInput::detect() {
  detected_ = true;
  char c;
  while (buffer_.size() < 3 && in_.get(c)) buffer_.push_back(c);
  auto at = [this](size_t i) { return i < buffer_.size() ? (unsigned char)buffer_[i] : 0x100u; };
  if (at(0) == 0xEF && at(1) == 0xBB && at(2) == 0xBF) {
    encoding_ = Encoding::Utf8WithMark;
    pos_ = 3;
  } else if (at(0) == 0xFF && at(1) == 0xFE) {
    encoding_ = Encoding::Utf16Le;
    pos_ = 2;
  } else if (at(0) == 0xFE && at(1) == 0xFF) {
    encoding_ = Encoding::Utf16Be;
    pos_ = 2;
  } else if (at(0) > 0 && at(0) < 0x80 && at(1) == 0) {
    encoding_ = Encoding::Utf16Le;
  } else if (at(0) == 0 && at(1) > 0 && at(1) < 0x80) {
    encoding_ = Encoding::Utf16Be;
  }
}

bool TextInput::next(std::string* line) {
  if (!detected_) {
    detect();
    // The bytes read to detect the encoding begin the text.
    text_.assign(buffer_.begin() + long(pos_), buffer_.end());
    textEnd_ = text_.size();
  }
  if (encoding_ == Encoding::Utf16Le || encoding_ == Encoding::Utf16Be) return nextUtf16(line);
  // Lines are cut from blocks read ahead into one buffer, allocated once: one copy of each
  // line and a memchr for its end, instead of a stream call per byte.
  size_t scanned = textPos_;
  for (;;) {
    const char* base = text_.data();  // null before the first block
    const void* nl =
        textEnd_ > scanned ? std::memchr(base + scanned, '\n', textEnd_ - scanned) : nullptr;
    if (nl) {
      size_t end = size_t(static_cast<const char*>(nl) - base);
      line->assign(base + textPos_, end - textPos_);
      textPos_ = end + 1;
      return true;
    }
    if (atEnd_) {
      if (textPos_ >= textEnd_) return false;
      line->assign(base + textPos_, textEnd_ - textPos_);  // no line end after it
      textPos_ = textEnd_;
      return true;
    }
    // Keep the unfinished line, then read the next block behind it.
    size_t kept = textEnd_ - textPos_;
    if (kept > 0) std::memmove(text_.data(), base + textPos_, kept);
    if (text_.size() < kept + kBlock) text_.resize(kept + kBlock);
    in_.read(text_.data() + kept, std::streamsize(kBlock));
    size_t got = size_t(in_.gcount());
    atEnd_ = got < kBlock;
    textEnd_ = kept + got;
    textPos_ = 0;
    scanned = kept;
  }
}

long TextInput::unit() {
  if (buffer_.size() - pos_ < 2) {
    buffer_.erase(0, pos_);
    pos_ = 0;
    char chunk[1 << 16];
    in_.read(chunk, sizeof chunk);
    buffer_.append(chunk, size_t(in_.gcount()));
    if (buffer_.size() < 2) return -1;  // an odd last byte is dropped
  }
  unsigned char a = (unsigned char)buffer_[pos_], b = (unsigned char)buffer_[pos_ + 1];
  pos_ += 2;
  return encoding_ == Encoding::Utf16Le ? long(a | (b << 8)) : long((a << 8) | b);
}

bool TextInput::nextUtf16(std::string* line) {
  line->clear();
  long u = unit();
  if (u < 0) return false;
  for (; u >= 0; u = unit()) {
    if (u == '\n') return true;
    unsigned long cp = (unsigned long)u;
    if (cp >= 0xD800 && cp < 0xDC00) {
      long low = unit();
      if (low >= 0xDC00 && low < 0xE000) {
        cp = 0x10000 + ((cp - 0xD800) << 10) + (unsigned long)(low - 0xDC00);
      } else {
        cp = 0xFFFD;              // a lone surrogate
        if (low >= 0) pos_ -= 2;  // read again as the next unit
      }
    } else if (cp >= 0xDC00 && cp < 0xE000) {
      cp = 0xFFFD;
    }
    appendUtf8(line, cp);
  }
  return true;
}

}  // namespace log
}  // namespace orvcam
