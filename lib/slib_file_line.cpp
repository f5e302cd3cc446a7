#include "lib/slib_file_line.h"

#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "lib/slib_error.h"
#include "lib/slib_file_io.h"
#include "lib/slib_unicode.h"

using slib_file_io::EndOpenLine;
using slib_file_io::IsComment;
using slib_file_io::IsDirectory;
using slib_file_io::LacksNewline;
using slib_file_io::LineReader;
using slib_file_io::SyncAndClose;
using slib_file_io::TmpFile;
using slib_file_io::UniqueFile;
using slib_file_io::WithoutExceptions;
using slib_file_io::WriteBytes;
using slib_file_io::WriteLine;

namespace {

int Fail(int code) {
  SLIBCErrSet(code);
  return -1;
}

struct FreeDeleter {
  void operator()(char* text) const { free(text); }
};
using UniqueText = std::unique_ptr<char, FreeDeleter>;

bool MatchAsIs(const char* line, const char* text, int flags) {
  const size_t text_length = strlen(text);
  if ((flags & SLIB_FILE_MATCH_PREFIX) != 0) return strncmp(line, text, text_length) == 0;
  if ((flags & SLIB_FILE_MATCH_SUFFIX) != 0) {
    const size_t line_length = strlen(line);
    if (line_length == 0 || line[line_length - 1] != '\n') return false;
    const size_t body_length = line_length - 1;
    return text_length <= body_length &&
           memcmp(line + body_length - text_length, text, text_length) == 0;
  }
  return strstr(line, text) != nullptr;
}

// The number (from 1) of the first matching line, or of the last one with
// SLIB_FILE_MATCH_ALL; 0 when no line matches, -1 when reading fails.
int FindMatch(LineReader* reader, const char* text, int flags) {
  int number = 0;
  int found = 0;
  int status;
  while ((status = reader->Next()) > 0) {
    ++number;
    if (!SLIBILineMatch(reader->line(), text, flags)) continue;
    found = number;
    if ((flags & SLIB_FILE_MATCH_ALL) == 0) break;
  }
  return status < 0 ? -1 : found;
}

// Copies the line without its newline, cut to `size` - 1 bytes; returns the
// bytes stored, NUL included.
int CopyWithoutNewline(const char* line, char* buffer, int size) {
  size_t length = strlen(line);
  if (length > 0 && line[length - 1] == '\n') --length;
  if (length > static_cast<size_t>(size - 1)) length = static_cast<size_t>(size - 1);
  memcpy(buffer, line, length);
  buffer[length] = '\0';
  return static_cast<int>(length) + 1;
}

int GetLine(const char* path, const char* text, char* buffer, int size, int flags) {
  UniqueFile file(fopen(path, "r"));
  if (!file) return Fail(SLIB_ERR_OPEN);
  LineReader reader(file.get());
  int stored = 0;
  int status;
  while ((status = reader.Next()) > 0) {
    if (!SLIBILineMatch(reader.line(), text, flags)) continue;
    stored = CopyWithoutNewline(reader.line(), buffer, size);
    if ((flags & SLIB_FILE_MATCH_ALL) == 0) break;
  }
  if (status < 0) return -1;
  if (stored == 0) {
    SLIBCErrSet(SLIB_ERR_NOT_FOUND);
    return 0;
  }
  return stored;
}

// Copies the file from its start to "<path>.tmp" and renames it over the
// file. Line `number` (from 1) is replaced by "%s\n" of `replacement` (or
// dropped when it is null); with `insert` the replacement goes in front of
// that line instead, or at the end when the file has fewer lines.
int RewriteAtLine(const char* path, LineReader* reader, int number, const char* replacement,
                  bool insert) {
  TmpFile tmp;
  if (!tmp.Open(path)) return -1;
  reader->Rewind();
  bool placed = false;
  bool line_is_open = false;
  int current = 0;
  int status;
  while ((status = reader->Next()) > 0) {
    line_is_open = false;
    if (++current == number) {
      placed = true;
      if (replacement != nullptr && !WriteLine(tmp.file(), replacement)) return -1;
      if (!insert) continue;
    }
    if (!WriteBytes(tmp.file(), reader->line(), reader->length())) return -1;
    line_is_open = LacksNewline(*reader);
  }
  if (status < 0) return -1;
  if (insert && !placed &&
      (!EndOpenLine(tmp.file(), line_is_open) || !WriteLine(tmp.file(), replacement))) {
    return -1;
  }
  if (!tmp.Commit()) return -1;
  return 1;
}

int SetLine(const char* path, const char* text, const char* line, int flags) {
  UniqueFile source(fopen(path, "r"));
  if (!source) {
    // Nothing to delete in a file that does not exist.
    if (line == nullptr) return Fail(SLIB_ERR_NOT_FOUND);
    const bool created =
        slib_file_io::CreateWith(path, [&](FILE* file) { return WriteLine(file, line); });
    return created ? 1 : -1;
  }
  LineReader reader(source.get());
  const int number = FindMatch(&reader, text, flags);
  if (number < 0) return -1;
  if (number == 0) return Fail(SLIB_ERR_NOT_FOUND);
  return RewriteAtLine(path, &reader, number, line, false);
}

// Writes the line at the end of a file opened for update, and closes it.
int AppendAtEnd(UniqueFile file, const char* line) {
  if (fseek(file.get(), 0, SEEK_END) != 0) return Fail(SLIB_ERR_WRITE);
  const bool line_is_open = slib_file_io::EndsWithoutNewline(file.get());
  if (!EndOpenLine(file.get(), line_is_open) || !WriteLine(file.get(), line)) return -1;
  return SyncAndClose(file.release()) ? 1 : -1;
}

int AddLine(const char* path, const char* text, const char* line, int flags) {
  UniqueFile file(fopen(path, "r+"));
  if (!file) {
    const bool created =
        slib_file_io::CreateWith(path, [&](FILE* created) { return WriteLine(created, line); });
    return created ? 1 : -1;
  }
  const bool after = (flags & OP_FIND_PREFIX) != 0;
  if (text == nullptr && after) return AppendAtEnd(std::move(file), line);
  LineReader reader(file.get());
  int insert_at = 1;
  if (text != nullptr) {
    const int found = FindMatch(&reader, text, flags);
    if (found < 0) return -1;
    if (found == 0) return Fail(SLIB_ERR_NOT_FOUND);
    insert_at = after ? found + 1 : found;
  }
  return RewriteAtLine(path, &reader, insert_at, line, true);
}

}  // namespace

int SLIBILineMatch(const char* line, const char* text, int flags) {
  if (line == nullptr || text == nullptr || flags < 0 || IsComment(line)) return 0;
  if ((flags & SLIB_FILE_MATCH_NOCASE) == 0) return MatchAsIs(line, text, flags) ? 1 : 0;
  // A line that cannot be upper-cased simply does not match; the caller's
  // error code stays as it was.
  const int saved_error = SLIBCErrGet();
  UniqueText upper_line(SzSLIBCUtf8StrUpperDup(line));
  UniqueText upper_text(SzSLIBCUtf8StrUpperDup(text));
  if (!upper_line || !upper_text) {
    SLIBCErrSet(saved_error);
    return 0;
  }
  return MatchAsIs(upper_line.get(), upper_text.get(), flags) ? 1 : 0;
}

int SLIBFileGetLine(const char* path, const char* text, char* buffer, int size, int flags) {
  if (path == nullptr || text == nullptr || buffer == nullptr || size < 1 || flags < 0) {
    return Fail(SLIB_ERR_BAD_ARGUMENT);
  }
  return WithoutExceptions([&] { return GetLine(path, text, buffer, size, flags); });
}

int SLIBFileSetLine(const char* path, const char* text, const char* line, int flags) {
  if (path == nullptr || text == nullptr || flags < 0) return Fail(SLIB_ERR_BAD_ARGUMENT);
  if (strstr(text, "defaultfs") != nullptr) {
    syslog(LOG_ERR, "szKey=%s, szLine=%s", text, line != nullptr ? line : "(null)");
  }
  return WithoutExceptions([&] { return SetLine(path, text, line, flags); });
}

int SLIBFileAddLine(const char* path, const char* text, const char* line, int flags) {
  if (path == nullptr || line == nullptr || flags < 0 || IsDirectory(path)) {
    return Fail(SLIB_ERR_BAD_ARGUMENT);
  }
  return WithoutExceptions([&] { return AddLine(path, text, line, flags); });
}

int SLIBFileAppendLine(const char* path, const char* line) {
  if (path == nullptr || line == nullptr) return Fail(SLIB_ERR_BAD_ARGUMENT);
  FILE* file = fopen(path, "a+");
  if (file == nullptr) return Fail(SLIB_ERR_OPEN);
  const bool line_is_open = slib_file_io::EndsWithoutNewline(file);
  if (!EndOpenLine(file, line_is_open) || !WriteLine(file, line)) {
    fclose(file);
    return -1;
  }
  return SyncAndClose(file) ? 0 : -1;
}

int SLIBFileTruncate(const char* path) {
  if (path == nullptr) return 0;
  FILE* file = fopen(path, "w");
  if (file == nullptr) return 0;
  fflush(file);
  fsync(fileno(file));
  return fclose(file);
}
