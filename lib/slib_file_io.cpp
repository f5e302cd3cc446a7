#include "lib/slib_file_io.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lib/file_mode.h"
#include "lib/slib_error.h"
#include "lib/slib_str.h"

namespace slib_file_io {

namespace {
constexpr size_t kLineStep = 8192;
constexpr size_t kTmpNameSize = 8192;
}  // namespace

LineReader::~LineReader() { free(buffer_); }

bool LineReader::Reserve(size_t needed) {
  if (needed <= capacity_) return true;
  const size_t capacity = (needed + kLineStep - 1) / kLineStep * kLineStep;
  char* grown = static_cast<char*>(realloc(buffer_, capacity));
  if (grown == nullptr) {
    SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
    return false;
  }
  buffer_ = grown;
  capacity_ = capacity;
  return true;
}

int LineReader::Next() {
  length_ = 0;
  if (!Reserve(kLineStep)) return -1;
  buffer_[0] = '\0';
  // getdelim grows the buffer itself (with realloc) for a longer line.
  errno = 0;
  const ssize_t got = getdelim(&buffer_, &capacity_, '\n', file_);
  if (got > 0) {
    length_ = static_cast<size_t>(got);
    return 1;
  }
  if (buffer_ != nullptr) buffer_[0] = '\0';
  if (errno == ENOMEM) {
    SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  if (ferror(file_)) {
    SLIBCErrSet(SLIB_ERR_READ);
    return -1;
  }
  return 0;
}

void LineReader::Rewind() {
  rewind(file_);
  length_ = 0;
}

bool IsDirectory(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool IsComment(const char* line) { return line[0] == '#' || line[0] == ';'; }

std::string Trimmed(std::string text) {
  const int length = SLIBStrTrimSpace(text.data(), nullptr);
  text.resize(length < 0 ? 0 : static_cast<size_t>(length));
  return text;
}

bool WriteBytes(FILE* file, const char* data, size_t length) {
  if (length > 0 && fwrite(data, 1, length, file) != length) {
    SLIBCErrSet(SLIB_ERR_WRITE);
    return false;
  }
  return true;
}

bool EndsWithoutNewline(FILE* file) {
  if (fseek(file, -1, SEEK_END) != 0) {
    fseek(file, 0, SEEK_END);
    return false;
  }
  const int last = getc(file);
  fseek(file, 0, SEEK_END);
  return last != EOF && last != '\n';
}

bool EndOpenLine(FILE* file, bool line_is_open) {
  return !line_is_open || WriteBytes(file, "\n", 1);
}

bool WriteLine(FILE* file, const char* text) {
  return WriteBytes(file, text, strlen(text)) && WriteBytes(file, "\n", 1);
}

bool WritePair(FILE* file, const char* format, const char* first, const char* second) {
  if (fprintf(file, format, first, second) < 0) {
    SLIBCErrSet(SLIB_ERR_WRITE);
    return false;
  }
  return true;
}

bool SyncAndClose(FILE* file) {
  bool ok = fflush(file) == 0;
  ok = fsync(fileno(file)) == 0 && ok;
  ok = fclose(file) == 0 && ok;
  if (!ok) SLIBCErrSet(SLIB_ERR_WRITE);
  return ok;
}

TmpFile::~TmpFile() {
  if (file_ != nullptr) fclose(file_);
  if (created_) remove(tmp_path_.c_str());
}

bool TmpFile::Open(const char* path) {
  char name[kTmpNameSize];
  const int length = snprintf(name, sizeof(name), "%s.tmp", path);
  if (length < 0 || static_cast<size_t>(length) >= sizeof(name)) {
    SLIBCErrSet(SLIB_ERR_OPEN);
    return false;
  }
  // The copy gets the original's mode and owner before anything is written
  // to it, so a secret file is never readable by others, not even until the
  // rename.
  struct stat original;
  const bool has_original = stat(path, &original) == 0;
  const int fd = open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, has_original ? 0600 : 0666);
  bool ready = fd >= 0;
  if (ready && has_original) {
    ready = TakeModeAndOwner(fd, original);
  }
  file_ = ready ? fdopen(fd, "w") : nullptr;
  if (file_ == nullptr) {
    if (fd >= 0) {
      close(fd);
      remove(name);
    }
    SLIBCErrSet(SLIB_ERR_OPEN);
    return false;
  }
  path_ = path;
  tmp_path_ = name;
  created_ = true;
  return true;
}

bool TmpFile::Commit() {
  FILE* file = file_;
  file_ = nullptr;
  if (!SyncAndClose(file)) return false;
  if (rename(tmp_path_.c_str(), path_.c_str()) != 0) {
    SLIBCErrSet(SLIB_ERR_WRITE);
    return false;
  }
  created_ = false;
  return true;
}

}  // namespace slib_file_io
