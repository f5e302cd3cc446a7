// Log lines name their source file by its own name ("file_copy.cpp"), not by
// the path the build passed for __FILE__:
//   constexpr const char* kSourceFile = SourceBaseName(__FILE__);
#ifndef LIB_SOURCE_NAME_H_
#define LIB_SOURCE_NAME_H_

constexpr const char* SourceBaseName(const char* path) {
  const char* name = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/') name = p + 1;
  }
  return name;
}

#endif  // LIB_SOURCE_NAME_H_
