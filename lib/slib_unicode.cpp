#include "lib/slib_unicode.h"

#include <stdlib.h>
#include <string.h>
#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utypes.h>

#include <vector>

#include "lib/slib_error.h"

namespace {

// Converts UTF-8 to UTF-16. With `strict`, an ill-formed sequence fails;
// otherwise it becomes U+FFFD.
bool ToUtf16(const char* in, bool strict, std::vector<UChar>* out) {
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  const int32_t in_length = static_cast<int32_t>(strlen(in));
  out->resize(static_cast<size_t>(in_length) + 1);
  if (strict) {
    u_strFromUTF8(out->data(), static_cast<int32_t>(out->size()), &length, in, in_length, &status);
  } else {
    u_strFromUTF8WithSub(out->data(), static_cast<int32_t>(out->size()), &length, in, in_length,
                         0xFFFD, nullptr, &status);
  }
  if (U_FAILURE(status)) return false;
  out->resize(static_cast<size_t>(length));
  return true;
}

// Upper-cases UTF-16 text; the result may grow (one "ß" becomes two "S").
bool UpperUtf16(const std::vector<UChar>& in, std::vector<UChar>* out) {
  for (size_t capacity = in.size() + 8;; capacity *= 2) {
    out->resize(capacity);
    UErrorCode status = U_ZERO_ERROR;
    const int32_t length = u_strToUpper(out->data(), static_cast<int32_t>(capacity), in.data(),
                                        static_cast<int32_t>(in.size()), "", &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) continue;
    if (U_FAILURE(status)) return false;
    out->resize(static_cast<size_t>(length));
    return true;
  }
}

// Converts UTF-16 to UTF-8 into `out` of `size` bytes; returns the length,
// -1 on overflow.
int ToUtf8(const std::vector<UChar>& in, char* out, size_t size) {
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  u_strToUTF8(out, static_cast<int32_t>(size), &length, in.data(), static_cast<int32_t>(in.size()),
              &status);
  if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING ||
      static_cast<size_t>(length) >= size) {
    return -1;
  }
  return length;
}

bool UpperToUtf16(const char* in, std::vector<UChar>* upper) {
  std::vector<UChar> wide;
  return ToUtf16(in, true, &wide) && UpperUtf16(wide, upper);
}

}  // namespace

int SLIBCUtf8StrUpper(const char* in, char* out, size_t size) {
  if (in == nullptr || out == nullptr || size == 0) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  std::vector<UChar> upper;
  if (!UpperToUtf16(in, &upper)) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  const int length = ToUtf8(upper, out, size);
  if (length < 0) SLIBCErrSet(SLIB_ERR_BUFFER_TOO_SMALL);
  return length;
}

char* SzSLIBCUtf8StrUpperDup(const char* in) {
  if (in == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return nullptr;
  }
  std::vector<UChar> upper;
  if (!UpperToUtf16(in, &upper)) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return nullptr;
  }
  // One UTF-16 unit never needs more than three UTF-8 bytes.
  const size_t size = upper.size() * 3 + 1;
  char* out = static_cast<char*>(malloc(size));
  if (out == nullptr) {
    SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  if (ToUtf8(upper, out, size) < 0) {
    free(out);
    SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  return out;
}

int SLIBCUtf8StrCaseCmp(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) return (a != nullptr) - (b != nullptr);
  std::vector<UChar> wide_a;
  std::vector<UChar> wide_b;
  ToUtf16(a, false, &wide_a);
  ToUtf16(b, false, &wide_b);
  UErrorCode status = U_ZERO_ERROR;
  const int result = u_strCaseCompare(wide_a.data(), static_cast<int32_t>(wide_a.size()),
                                      wide_b.data(), static_cast<int32_t>(wide_b.size()),
                                      U_FOLD_CASE_DEFAULT | U_COMPARE_CODE_POINT_ORDER, &status);
  if (U_FAILURE(status)) return strcmp(a, b);
  return result;
}
