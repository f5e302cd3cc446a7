#include "lib/slib_file.h"

#include <string.h>
#include <syslog.h>

#include <string>

#include "lib/slib_error.h"
#include "lib/slib_file_io.h"
#include "lib/slib_hash.h"
#include "lib/slib_list.h"

using slib_file_io::EndOpenLine;
using slib_file_io::IsComment;
using slib_file_io::IsDirectory;
using slib_file_io::LacksNewline;
using slib_file_io::LineReader;
using slib_file_io::TmpFile;
using slib_file_io::Trimmed;
using slib_file_io::UniqueFile;
using slib_file_io::WithoutExceptions;
using slib_file_io::WriteBytes;
using slib_file_io::WritePair;

namespace {

constexpr char kDefaultFormat[] = "%s=%s\n";

int Fail(int code) {
  SLIBCErrSet(code);
  return -1;
}

const char* OrNull(const char* text) { return text != nullptr ? text : "(null)"; }

// The cleaned text before the first "=" of a line (all of a line without
// one: a key without a value part); false for a comment, which has no key.
bool KeyOfLine(const char* line, std::string* key) {
  if (IsComment(line)) return false;
  const char* equals = strchr(line, '=');
  *key = Trimmed(equals != nullptr ? std::string(line, equals) : std::string(line));
  return true;
}

bool LineHasKey(const char* line, const char* key) {
  // Most lines are told apart without cleaning a copy: the cleaned key
  // begins with the line's first non-blank character, or after it when that
  // is a quote.
  const char* first = line;
  while (*first == ' ' || *first == '\t' || *first == '\r' || *first == '\n') ++first;
  if (key[0] != '\0' && *first != key[0] && *first != '"') return false;
  std::string line_key;
  return KeyOfLine(line, &line_key) && line_key == key;
}

// The cleaned text after the first "=" up to the line's newline; false for a
// line without a value part.
bool ValueOfLine(const char* line, std::string* value) {
  const char* equals = strchr(line, '=');
  if (equals == nullptr) return false;
  *value = Trimmed(std::string(equals + 1, strcspn(equals + 1, "\n")));
  return true;
}

int GetKeyValue(const char* path, const char* key, char* buffer, int size, int flags) {
  UniqueFile file(fopen(path, "r"));
  if (!file) return Fail(SLIB_ERR_OPEN);
  LineReader reader(file.get());
  bool found = false;
  int result = 0;
  int status;
  while ((status = reader.Next()) > 0) {
    if (!LineHasKey(reader.line(), key)) continue;
    found = true;
    // A bare key matches but leaves the result as it was.
    std::string value;
    if (ValueOfLine(reader.line(), &value)) {
      result = static_cast<int>(value.size()) + 1;
      if (buffer != nullptr && result <= size) memcpy(buffer, value.c_str(), value.size() + 1);
    }
    if ((flags & SLIB_FILE_MATCH_ALL) == 0) break;
  }
  if (status < 0) return -1;
  if (!found) {
    SLIBCErrSet(SLIB_ERR_NOT_FOUND);
    return 0;
  }
  if (result > size) return Fail(SLIB_ERR_BUFFER_TOO_SMALL);
  return result;
}

// Copies `source` to the temporary file with the first line holding `key`
// replaced and every later one dropped; appends the key when no line had it.
int RewriteKeyValue(FILE* source, TmpFile* tmp, const char* key, const char* value,
                    const char* format) {
  LineReader reader(source);
  bool replaced = false;
  bool line_is_open = false;
  int status;
  while ((status = reader.Next()) > 0) {
    line_is_open = false;
    if (!LineHasKey(reader.line(), key)) {
      if (!WriteBytes(tmp->file(), reader.line(), reader.length())) return -1;
      line_is_open = LacksNewline(reader);
      continue;
    }
    if (replaced) continue;
    replaced = true;
    // A caller's format gets the old line, not the key (only here).
    const char* first = format != nullptr ? reader.line() : key;
    if (!WritePair(tmp->file(), format != nullptr ? format : kDefaultFormat, first, value)) {
      return -1;
    }
  }
  if (status < 0) return -1;
  if (!replaced &&
      (!EndOpenLine(tmp->file(), line_is_open) ||
       !WritePair(tmp->file(), format != nullptr ? format : kDefaultFormat, key, value))) {
    return -1;
  }
  return 0;
}

int SetKeyValue(const char* path, const char* key, const char* value, const char* format) {
  if (IsDirectory(path)) return Fail(SLIB_ERR_BAD_ARGUMENT);
  const char* line_format = format != nullptr ? format : kDefaultFormat;
  UniqueFile source(fopen(path, "r"));
  if (!source) {
    const bool created = slib_file_io::CreateWith(
        path, [&](FILE* file) { return WritePair(file, line_format, key, value); });
    return created ? 1 : -1;
  }
  TmpFile tmp;
  if (!tmp.Open(path)) return -1;
  if (RewriteKeyValue(source.get(), &tmp, key, value, format) < 0) return -1;
  if (!tmp.Commit()) return -1;
  return 1;
}

// True for the header line "[section]": it begins with "[" and, cleaned with
// SLIBStrTrimSpace (so trailing blanks and a CR do not count), equals "[section]".
bool IsSectionHeader(const char* line, const std::string& header) {
  return line[0] == '[' && Trimmed(line) == header;
}

int GetSection(const char* path, const char* section, SLIBSZHASH** hash) {
  UniqueFile file(fopen(path, "r"));
  if (!file) return Fail(SLIB_ERR_OPEN);
  const std::string header = std::string("[") + section + "]";
  LineReader reader(file.get());
  bool inside = false;
  int status;
  while ((status = reader.Next()) > 0) {
    const char* line = reader.line();
    if (line[0] == '[') {
      if (inside) break;
      inside = IsSectionHeader(line, header);
      continue;
    }
    if (!inside) continue;
    const char* equals = strchr(line, '=');
    if (equals == nullptr) continue;
    const std::string key = Trimmed(std::string(line, equals));
    if (key.empty()) continue;
    const std::string value = Trimmed(equals + 1);
    if (SLIBSzHashSetValue(hash, key.c_str(), value.c_str()) < 0) return -1;
  }
  if (status < 0) return -1;
  return (*hash)->nEntry;
}

struct ListHolder {
  SLIBSZLIST* list = nullptr;
  ~ListHolder() { SLIBSzListFree(list); }
};

// Appends the keys still in the hash after the last line of the file; they
// stay in the hash.
bool AppendRemainingKeys(FILE* tmp, SLIBSZHASH* hash, const char* format) {
  ListHolder keys;
  keys.list = PslSLIBSzListAlloc(512);
  if (keys.list == nullptr) return false;
  const int count = SLIBSzHashEnumKey(hash, &keys.list);
  if (count < 0) {
    syslog(LOG_ERR, "SLIBFileSetKeys(): SLIBSzHashEnumKey(pshHash, &pslList) failed!");
    return false;
  }
  for (int i = 0; i < count; ++i) {
    const char* key = SzSLIBSzListGet(keys.list, i);
    const char* value = SzSLIBSzHashGetValue(hash, key);
    if (key == nullptr || value == nullptr) continue;
    if (!WritePair(tmp, format != nullptr ? format : kDefaultFormat, key, value)) return false;
  }
  return true;
}

int SetKeys(const char* path, SLIBSZHASH* hash, const char* format) {
  UniqueFile source(fopen(path, "r"));
  if (!source) return Fail(SLIB_ERR_OPEN);
  TmpFile tmp;
  if (!tmp.Open(path)) return -1;
  LineReader reader(source.get());
  bool line_is_open = false;
  int status;
  while ((status = reader.Next()) > 0) {
    const int moved = SLIBILineKeyMoveHash2File(tmp.file(), reader.line(), hash, format);
    if (moved < 0) {
      syslog(LOG_ERR,
             "SLIBFileSetKeys(): \t\t\t\t   SLIBILineKeyMoveHash2File(pfTmp, szBuf, pHash, "
             "szFormat) failed! \t\t\t\t   szBuf=%s, szFormat=%s",
             reader.line(), OrNull(format));
      return -1;
    }
    if (moved == 0 && !WriteBytes(tmp.file(), reader.line(), reader.length())) return -1;
    line_is_open = moved == 0 && LacksNewline(reader);
  }
  if (status < 0) return -1;
  if (hash->nEntry > 0 && !EndOpenLine(tmp.file(), line_is_open)) return -1;
  if (!AppendRemainingKeys(tmp.file(), hash, format)) return -1;
  if (!tmp.Commit()) return -1;
  return 1;
}

int MoveHashKeyToFile(FILE* tmp, const char* line, SLIBSZHASH* hash, const char* format) {
  const std::string cleaned = Trimmed(line);
  if (cleaned.empty() || cleaned[0] == '#' || cleaned[0] == ';' || cleaned[0] == '\n') return 0;
  const size_t equals = cleaned.find('=');
  if (equals == std::string::npos) return 0;
  const std::string key = Trimmed(cleaned.substr(0, equals));
  if (key.empty()) return 0;
  const char* value = SzSLIBSzHashGetValue(hash, key.c_str());
  if (value == nullptr) return 0;
  if (!WritePair(tmp, format != nullptr ? format : kDefaultFormat, key.c_str(), value)) return -1;
  if (SzSLIBSzHashRemoveKey(hash, key.c_str()) == nullptr) {
    syslog(LOG_ERR,
           "SLIBILineKeyMoveHash2File(): SzSLIBSzHashRemoveKey(pshHash, szKey) \t\t\t   szKey=%s",
           key.c_str());
    return Fail(SLIB_ERR_NOT_FOUND);
  }
  return 1;
}

}  // namespace

int SLIBFileGetKeyValue(const char* path, const char* key, char* buffer, int size, int flags) {
  if (path == nullptr || key == nullptr || (buffer == nullptr && size != 0) || size < 0 ||
      flags < 0) {
    return Fail(SLIB_ERR_BAD_ARGUMENT);
  }
  return WithoutExceptions([&] { return GetKeyValue(path, key, buffer, size, flags); });
}

int SLIBFileSetKeyValue(const char* path, const char* key, const char* value, const char* format) {
  if (path == nullptr || key == nullptr || value == nullptr) return Fail(SLIB_ERR_BAD_ARGUMENT);
  if (strcmp(key, "defaultfs") == 0) syslog(LOG_ERR, "szKey=%s, szValue=%s", key, value);
  return WithoutExceptions([&] { return SetKeyValue(path, key, value, format); });
}

int SLIBFileGetSection(const char* path, const char* section, SLIBSZHASH** hash) {
  if (path == nullptr || section == nullptr || hash == nullptr || *hash == nullptr) {
    return Fail(SLIB_ERR_BAD_ARGUMENT);
  }
  return WithoutExceptions([&] { return GetSection(path, section, hash); });
}

int SLIBFileSetKeys(const char* path, SLIBSZHASH* hash, const char* format) {
  if (path == nullptr || hash == nullptr) return Fail(SLIB_ERR_BAD_ARGUMENT);
  return WithoutExceptions([&] { return SetKeys(path, hash, format); });
}

int SLIBILineKeyMoveHash2File(FILE* tmp, const char* line, SLIBSZHASH* hash, const char* format) {
  if (tmp == nullptr || line == nullptr || hash == nullptr) return Fail(SLIB_ERR_BAD_ARGUMENT);
  return WithoutExceptions([&] { return MoveHashKeyToFile(tmp, line, hash, format); });
}

int SLIBFileSetQuotedKeyValue(const char* path, const char* key, const char* value) {
  if (path == nullptr || key == nullptr || value == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  // The probe sets an error code even when the key is there; a success must
  // leave the caller's code unchanged.
  const int saved_error = SLIBCErrGet();
  const int found = SLIBFileGetKeyValue(path, key, nullptr, 0, 0);
  SLIBCErrSet(saved_error);
  if (found == 0) return SLIBFileSetKeyValue(path, key, value, "%s=\"%s\"\n");
  // Present (the zero-size read reports "too small") or unreadable (missing):
  // the plain "%s=%s\n" form keeps the key.
  const std::string quoted = std::string("\"") + value + "\"";
  return SLIBFileSetKeyValue(path, key, quoted.c_str(), nullptr);
}
