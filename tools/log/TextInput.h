#pragma once
// Lines of a text file in the encodings captures arrive in. Most are UTF-8, some with the byte
// order mark an editor on Windows adds; `adb logcat > run.log` in Windows PowerShell 5 writes
// UTF-16 (little endian, with a mark), which would otherwise read as binary data. Lines are
// handed on as UTF-8, without their line end's '\n' (a '\r' before it stays: the reader takes
// it off).
#include <istream>
#include <string>
#include <vector>

namespace orvcam {
namespace log {

class TextInput {
 public:
  enum class Encoding { Utf8, Utf8WithMark, Utf16Le, Utf16Be };

  explicit TextInput(std::istream& in) : in_(in) {}

  // The next line; false at the end of the input.
  bool next(std::string* line);

  // Known once the first line has been read.
  Encoding encoding() const { return encoding_; }
  static const char* name(Encoding e);

 private:
  void detect();
  bool nextUtf16(std::string* line);
  // The next UTF-16 code unit, or -1 at the end.
  long unit();

  std::istream& in_;
  bool detected_ = false;
  Encoding encoding_ = Encoding::Utf8;
  std::string buffer_;  // UTF-16: raw bytes read ahead, from `pos_`
  size_t pos_ = 0;
  // UTF-8: the text read ahead, [textPos_, textEnd_) not yet handed on.
  static constexpr size_t kBlock = 1 << 18;
  std::vector<char> text_;
  size_t textPos_ = 0, textEnd_ = 0;
  bool atEnd_ = false;
};

}  // namespace log
}  // namespace orvcam
