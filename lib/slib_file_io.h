// Reading and rewriting settings files line by line, shared by the key/value
// calls (lib/slib_file.cpp) and the line calls (lib/slib_file_line.cpp).
// Internal to the library: every failure sets the library error code, and
// callers only pass the -1 on.
#ifndef LIB_SLIB_FILE_IO_H_
#define LIB_SLIB_FILE_IO_H_

#include <stddef.h>
#include <stdio.h>

#include <memory>
#include <new>
#include <string>

#include "lib/slib_error.h"

namespace slib_file_io {

struct FileCloser {
  void operator()(FILE* file) const {
    if (file != nullptr) fclose(file);
  }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

// Reads a file one line at a time. The buffer starts at 8192 bytes and
// getdelim doubles it for a longer line, so lines of any length are read whole.
class LineReader {
 public:
  explicit LineReader(FILE* file) : file_(file) {}
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // Reads the next line, newline included (the last line of a file may lack
  // it). Returns 1 for a line, 0 at the end of the file, -1 when reading fails
  // (0xA00) or the buffer cannot grow (0x200).
  int Next();
  // Goes back to the start of the file.
  void Rewind();

  // The line just read, NUL-terminated; `length()` counts every byte read,
  // including any NUL bytes inside the line.
  char* line() const { return buffer_; }
  size_t length() const { return length_; }

 private:
  bool Reserve(size_t needed);

  FILE* file_;
  char* buffer_ = nullptr;
  size_t capacity_ = 0;
  size_t length_ = 0;
};

// True when `path` names a directory (links followed).
bool IsDirectory(const char* path);

// True for a comment line: "#" or ";" as its first character.
bool IsComment(const char* line);

// Cleans `text` with SLIBStrTrimSpace.
std::string Trimmed(std::string text);

// True when the line just read is the file's last line and lacks its newline.
inline bool LacksNewline(const LineReader& reader) {
  return reader.length() > 0 && reader.line()[reader.length() - 1] != '\n';
}

// True when the file (open for reading) is not empty and its last byte is not
// a newline. Leaves the position at the end of the file.
bool EndsWithoutNewline(FILE* file);

// Writes the newline that a copied last line lacked, so that a line appended
// after it starts a line of its own instead of extending that one; false with
// 0xB00.
bool EndOpenLine(FILE* file, bool line_is_open);

// Writes `length` bytes; false with 0xB00.
bool WriteBytes(FILE* file, const char* data, size_t length);
// Writes "%s\n" of `text`; false with 0xB00.
bool WriteLine(FILE* file, const char* text);
// Writes `format` applied to two strings; false with 0xB00.
bool WritePair(FILE* file, const char* format, const char* first, const char* second);

// Flushes, fsyncs and closes `file` (always closed); false with 0xB00 when
// any of the three fails.
bool SyncAndClose(FILE* file);

// Creates (or empties) `path`, lets `write(FILE*)` fill it, then flushes,
// fsyncs and closes it. Returns false with 0x900 when the file cannot be
// created, or with the writer's code or 0xB00; a file left half-written is
// removed again.
template <typename Writer>
bool CreateWith(const char* path, Writer write) {
  FILE* file = fopen(path, "w");
  if (file == nullptr) {
    SLIBCErrSet(SLIB_ERR_OPEN);
    return false;
  }
  if (!write(file)) {
    fclose(file);
    remove(path);
    return false;
  }
  if (!SyncAndClose(file)) {
    remove(path);
    return false;
  }
  return true;
}

// Runs `body` and turns a failed allocation inside it into -1 with 0x200, so
// that no exception leaves a public function.
template <typename Body>
int WithoutExceptions(Body body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
}

// "<path>.tmp", written in full and then renamed over <path>. Until Commit
// succeeds the destructor closes and removes it, so the original file stays
// byte for byte as it was.
class TmpFile {
 public:
  TmpFile() = default;
  ~TmpFile();
  TmpFile(const TmpFile&) = delete;
  TmpFile& operator=(const TmpFile&) = delete;

  // Opens "<path>.tmp" (named in an 8192-byte buffer) for writing, with the
  // mode and owner of <path> when it exists (so they survive the rename);
  // false with 0x900.
  bool Open(const char* path);
  FILE* file() const { return file_; }

  // Flushes, fsyncs and closes the temporary file and renames it over the
  // original; false with 0xB00 (the temporary file is removed).
  bool Commit();

 private:
  std::string path_;
  std::string tmp_path_;
  FILE* file_ = nullptr;
  bool created_ = false;
};

}  // namespace slib_file_io

#endif  // LIB_SLIB_FILE_IO_H_
