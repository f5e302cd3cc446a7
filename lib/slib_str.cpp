#include "lib/slib_str.h"

#include <stdlib.h>
#include <string.h>

#include <memory>

#include "lib/slib_error.h"

namespace {

struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};
using MallocString = std::unique_ptr<char, FreeDeleter>;

// A heap copy of `str`; null with 0x200 when memory runs out.
MallocString DuplicateString(const char* str) {
  MallocString copy(strdup(str));
  if (!copy) SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
  return copy;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

size_t EncodedColonLength(const char* in) {
  size_t length = 0;
  for (const char* p = in; *p != '\0'; ++p) length += (*p == ':' || *p == ';') ? 2 : 1;
  return length;
}

size_t CountOccurrences(const char* str, const char* from, size_t from_length) {
  size_t count = 0;
  for (const char* hit = strstr(str, from); hit != nullptr; hit = strstr(hit + from_length, from)) {
    ++count;
  }
  return count;
}

}  // namespace

int SLIBStrTrimSpace(char* str, char* out) {
  if (str == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  const char* begin = str;
  while (IsBlank(*begin)) ++begin;
  const char* end = str + strlen(str);
  while (end > begin && (IsBlank(end[-1]) || end[-1] == '\0')) --end;
  if (end - begin >= 2 && begin[0] == '"' && end[-1] == '"') {
    ++begin;
    --end;
  }
  const size_t length = static_cast<size_t>(end - begin);
  char* target = out != nullptr ? out : str;
  memmove(target, begin, length);
  target[length] = '\0';
  return static_cast<int>(length);
}

int SLIBStrDecodeColon(const char* in, char* out, size_t size) {
  if (in == nullptr || out == nullptr || in == out) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  // Every ';' shortens the output, so only an input of exactly `size`
  // characters without one leaves no room for the NUL.
  const size_t input_length = strlen(in);
  if (input_length > size || (input_length == size && strchr(in, ';') == nullptr)) {
    SLIBCErrSet(SLIB_ERR_BUFFER_TOO_SMALL);
    return -1;
  }
  size_t length = 0;
  for (const char* p = in; *p != '\0'; ++p) {
    if (*p != ';') {
      out[length++] = *p;
      continue;
    }
    if (p[1] == ',') {
      out[length++] = ':';
    } else if (p[1] == ';') {
      out[length++] = ';';
    } else {
      break;  // a lone ';' cannot come from the encoder: the field ends here
    }
    ++p;
  }
  out[length] = '\0';
  return static_cast<int>(length);
}

int SLIBStrEncodeColon(const char* in, char* out, size_t size) {
  if (in == nullptr || out == nullptr || in == out) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  if (EncodedColonLength(in) + 1 > size) {
    SLIBCErrSet(SLIB_ERR_BUFFER_TOO_SMALL);
    return -1;
  }
  size_t length = 0;
  for (const char* p = in; *p != '\0'; ++p) {
    if (*p == ':') {
      out[length++] = ';';
      out[length++] = ',';
    } else if (*p == ';') {
      out[length++] = ';';
      out[length++] = ';';
    } else {
      out[length++] = *p;
    }
  }
  out[length] = '\0';
  return static_cast<int>(length);
}

int SLIBStrSep(const char* str, const char* delimiters, SLIBSZLIST** list) {
  if (str == nullptr || delimiters == nullptr || list == nullptr || *list == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  MallocString copy = DuplicateString(str);
  if (!copy) return -1;
  int count = 0;
  char* cursor = copy.get();
  while (char* token = strsep(&cursor, delimiters)) {
    if (SLIBSzListPush(list, token) < 0) return -1;
    ++count;
  }
  return count;
}

char* SLIBStrNextToken(char** cursor, const char* delimiters) {
  if (cursor == nullptr || delimiters == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return nullptr;
  }
  while (char* token = strsep(cursor, delimiters)) {
    if (*token != '\0') return token;
  }
  return nullptr;
}

int SLIBStrSplitKeyValue(const char* line, SLIBSZLIST** list) {
  if (line == nullptr || list == nullptr || *list == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  MallocString copy = DuplicateString(line);
  if (!copy) return -1;
  char* key = copy.get();
  char* value = strchr(key, '=');
  if (value == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  *value++ = '\0';
  if (SLIBStrTrimSpace(key, nullptr) == 0) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  SLIBStrTrimSpace(value, nullptr);
  if (SLIBSzListPush(list, key) < 0 || SLIBSzListPush(list, value) < 0) return -1;
  return 0;
}

int SLIBStrReplace(char* str, size_t size, const char* from, const char* to) {
  if (str == nullptr || from == nullptr || to == nullptr || *from == '\0' ||
      strnlen(str, size) == size) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  const size_t from_length = strlen(from);
  const size_t to_length = strlen(to);
  const size_t count = CountOccurrences(str, from, from_length);
  const size_t result_length = strlen(str) + count * to_length - count * from_length;
  if (result_length + 1 > size) {
    SLIBCErrSet(SLIB_ERR_BUFFER_TOO_SMALL);
    return -1;
  }
  // Built aside so that a longer `to` never overwrites text not yet scanned.
  MallocString result(static_cast<char*>(malloc(result_length + 1)));
  if (!result) {
    SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  char* write = result.get();
  const char* read = str;
  for (const char* hit = strstr(read, from); hit != nullptr; hit = strstr(read, from)) {
    memcpy(write, read, static_cast<size_t>(hit - read));
    write += hit - read;
    memcpy(write, to, to_length);
    write += to_length;
    read = hit + from_length;
  }
  strcpy(write, read);
  memcpy(str, result.get(), result_length + 1);
  return static_cast<int>(result_length);
}
