#include "lib/slib_unicode.h"

#include <stdlib.h>
#include <string.h>
#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utypes.h>

#include <vector>

#include "lib/slib_error.h"

namespace {

// Converts UTF-8 to UTF-16; an ill-formed sequence fails.
bool ToUtf16(const char* in, std::vector<UChar>* out) {
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  const int32_t in_length = static_cast<int32_t>(strlen(in));
  out->resize(static_cast<size_t>(in_length) + 1);
  u_strFromUTF8(out->data(), static_cast<int32_t>(out->size()), &length, in, in_length, &status);
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

// Without a branch: letters of random case would defeat its prediction.
int FoldAscii(unsigned char c) {
  return c + (static_cast<int>(static_cast<unsigned>(c - 'A') < 26u) << 5);
}

// UTF-8 text as UTF-16 (ill-formed sequences as U+FFFD), in a buffer on the
// stack for the short names lists hold and on the heap beyond.
class WideText {
 public:
  explicit WideText(const char* text) {
    const int32_t length = static_cast<int32_t>(strlen(text));
    if (length < kStackUnits) {
      ok_ = Convert(text, length, stack_, kStackUnits);
      data_ = stack_;
      return;
    }
    heap_.resize(static_cast<size_t>(length) + 1);
    ok_ = Convert(text, length, heap_.data(), static_cast<int32_t>(heap_.size()));
    data_ = heap_.data();
  }
  WideText(const WideText&) = delete;
  WideText& operator=(const WideText&) = delete;

  bool ok() const { return ok_; }
  const UChar* data() const { return data_; }
  int32_t length() const { return length_; }

 private:
  static constexpr int32_t kStackUnits = 256;

  // One UTF-16 unit per byte at most: `capacity` above the byte count fits.
  bool Convert(const char* text, int32_t length, UChar* out, int32_t capacity) {
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8WithSub(out, capacity, &length_, text, length, 0xFFFD, nullptr, &status);
    return U_SUCCESS(status);
  }

  UChar stack_[kStackUnits];
  std::vector<UChar> heap_;
  const UChar* data_ = nullptr;
  int32_t length_ = 0;
  bool ok_ = false;
};

// Full case folding, code point order; byte order when ICU fails. Kept out
// of line: its buffers would otherwise make every ASCII comparison pay for
// a large stack frame.
__attribute__((noinline)) int FoldedCompare(const char* a, const char* b) {
  const WideText wide_a(a);
  const WideText wide_b(b);
  if (!wide_a.ok() || !wide_b.ok()) return strcmp(a, b);
  UErrorCode status = U_ZERO_ERROR;
  const int result =
      u_strCaseCompare(wide_a.data(), wide_a.length(), wide_b.data(), wide_b.length(),
                       U_FOLD_CASE_DEFAULT | U_COMPARE_CODE_POINT_ORDER, &status);
  return U_FAILURE(status) ? strcmp(a, b) : result;
}

bool UpperToUtf16(const char* in, std::vector<UChar>* upper) {
  std::vector<UChar> wide;
  return ToUtf16(in, &wide) && UpperUtf16(wide, upper);
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
  // Case folding maps every code point on its own, so strings whose ASCII
  // beginnings fold alike compare as the rest of them does.
  // Equal bytes fold alike: the C library tells those many at a time (a
  // search ends on them), after one byte has rejected most other pairs.
  if (a[0] == b[0] && strcmp(a, b) == 0) return 0;
  size_t i = 0;
  for (;; ++i) {
    const unsigned char byte_a = static_cast<unsigned char>(a[i]);
    const unsigned char byte_b = static_cast<unsigned char>(b[i]);
    if ((byte_a | byte_b) >= 0x80) break;
    const int folded_a = FoldAscii(byte_a);
    const int folded_b = FoldAscii(byte_b);
    if (folded_a != folded_b) return folded_a - folded_b;
    if (byte_a == '\0') return 0;
  }
  return FoldedCompare(a + i, b + i);
}
