#include "lib/velt_log.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "lib/slib_error.h"
#include "lib/slib_file.h"
#include "lib/slib_file_io.h"
#include "lib/slib_hash.h"
#include "lib/slib_pause.h"
#include "lib/slib_str.h"
#include "lib/source_name.h"
#include "lib/unique_fd.h"
#include "lib/velt_log_ring.h"

using slib_file_io::UniqueFile;
using velt_log_ring::Record;

namespace {

constexpr const char* kSourceFile = SourceBaseName(__FILE__);

constexpr char kConfPath[] = "/etc/veltlog.conf";
constexpr char kTextsFormat[] = "/usr/velt/veltsdk/texts/%s/events";
constexpr char kSourceSection[] = "11000000";
constexpr char kUnknownSource[] = "Unknown";
constexpr int kTries = 10;
constexpr unsigned int kMicrosecondsBetweenTries = 1000000;  // a second
constexpr size_t kMaxUserName = 255;

// One log of the configuration file, in the order the created file lists them.
struct LogConf {
  const char* file_key;
  const char* default_file;
  const char* size_key;
};

constexpr LogConf kSystemLog = {"syslogfile", "/var/log/veltsys.log", "syslogfilesize_MAX"};
constexpr LogConf kManagementLog = {"manlogfile", "/var/log/veltman1.log", "manlogfilesize_MAX"};
constexpr LogConf kConnectionLog = {"connlogfile", "/var/log/veltconn.log", "connlogfilesize_MAX"};
constexpr LogConf kBackupLog = {"bkplogfile", "/var/log/veltbackup.log", "bkplogfilesize_MAX"};
constexpr LogConf kCopyLog = {"copylogfile", "/var/log/veltcopy.log", "copylogfilesize_MAX"};
constexpr LogConf kNetBackupLog = {"netbkplogfile", "/var/log/veltnetbkp.log",
                                   "netbkplogfilesize_MAX"};
constexpr const LogConf* kConfOrder[] = {&kSystemLog, &kManagementLog, &kConnectionLog,
                                         &kBackupLog, &kCopyLog,       &kNetBackupLog};

struct LogClass {
  int number;
  const LogConf* conf;
  uint32_t fallback_size;
  bool announces_open;  // logs "VELT : log file %s opened" before reading its size
};

constexpr LogClass kLogClasses[] = {
    {1, &kSystemLog, VELT_LOG_SYSTEM_FALLBACK_SIZE, false},
    {2, &kSystemLog, VELT_LOG_SYSTEM_FALLBACK_SIZE, false},
    {3, &kConnectionLog, VELT_LOG_FALLBACK_SIZE, true},
    {5, &kBackupLog, VELT_LOG_FALLBACK_SIZE, true},
    {6, &kCopyLog, VELT_LOG_FALLBACK_SIZE, true},
    {7, &kNetBackupLog, VELT_LOG_FALLBACK_SIZE, true},
};

// Null, with "logclass error!" logged, for a class that has no log.
const LogClass* FindLogClass(int number) {
  for (const LogClass& log_class : kLogClasses) {
    if (log_class.number == number) return &log_class;
  }
  syslog(LOG_ERR, "logclass error!");
  SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
  return nullptr;
}

// Puts the library error code back on scope exit: for look-ups whose
// failure is an expected answer, not a failure of the caller.
class KeepErrorCode {
 public:
  KeepErrorCode() : saved_(SLIBCErrGet()) {}
  ~KeepErrorCode() { SLIBCErrSet(saved_); }
  KeepErrorCode(const KeepErrorCode&) = delete;
  KeepErrorCode& operator=(const KeepErrorCode&) = delete;

 private:
  int saved_;
};

struct FreeDeleter {
  void operator()(char* text) const { free(text); }
};
using UniqueText = std::unique_ptr<char, FreeDeleter>;

// Owns a hash whose address the hash calls may change.
struct HashHolder {
  SLIBSZHASH* hash;
  ~HashHolder() { SLIBSzHashFree(hash); }
};

bool FileExists(const char* path) { return access(path, F_OK) == 0; }

bool WriteConfLines(FILE* file) {
  for (const LogConf* conf : kConfOrder) {
    if (fprintf(file, "%s\t=\t\"%s\"\n", conf->file_key, conf->default_file) < 0 ||
        fprintf(file, "%s\t=\t\"%d\"\n", conf->size_key, VELT_LOG_FALLBACK_SIZE) < 0) {
      SLIBCErrSet(SLIB_ERR_WRITE);
      return false;
    }
  }
  return true;
}

// A half-written file is removed again: the next call creates it anew.
bool CreateConf() {
  UniqueFile file(fopen(kConfPath, "w+"));
  if (!file) {
    SLIBCErrSet(SLIB_ERR_OPEN);
    return false;
  }
  if (WriteConfLines(file.get()) && slib_file_io::SyncAndClose(file.release())) return true;
  remove(kConfPath);
  return false;
}

// The positive size of the configuration file's `key`, or 0.
uint32_t ConfiguredSize(const char* key) {
  KeepErrorCode keep;
  char value[11];
  if (SLIBFileGetKeyValue(kConfPath, key, value, sizeof(value), 0) <= 0) return 0;
  const long long size = strtoll(value, nullptr, 10);
  return size > 0 ? static_cast<uint32_t>(std::min<long long>(size, INT_MAX)) : 0;
}

// The size limit of the class's log for this write, creating the
// configuration file when it is missing; 0 when that fails. The log is
// shrunk to the limit after creating the file and for a configured size,
// not for the fallback of an existing file without the size key.
uint32_t ChooseLimit(const LogClass& log_class) {
  const uint32_t fallback = log_class.fallback_size;
  if (!FileExists(kConfPath)) {
    if (!CreateConf()) {
      syslog(LOG_ERR, "%s:%d(%s) creating %s failed", kSourceFile, __LINE__, __func__, kConfPath);
      return 0;
    }
    VELTLogChangeSize(static_cast<int>(fallback), log_class.number);
    return fallback;
  }
  if (log_class.announces_open) syslog(LOG_INFO, "VELT : log file %s opened", kConfPath);
  const uint32_t configured = ConfiguredSize(log_class.conf->size_key);
  if (configured == 0) return fallback;
  VELTLogChangeSize(static_cast<int>(configured), log_class.number);
  return configured;
}

std::string LogFilePath(const LogClass& log_class) {
  KeepErrorCode keep;
  char path[32];
  if (SLIBFileGetKeyValue(kConfPath, log_class.conf->file_key, path, sizeof(path), 0) > 1) {
    return path;
  }
  return log_class.conf->default_file;
}

std::string PasswdName(uid_t uid) {
  UniqueFile file(fopen("/etc/passwd", "r"));
  if (!file) return "";
  struct passwd entry;
  struct passwd* found = nullptr;
  std::vector<char> buffer(16384);
  while (fgetpwent_r(file.get(), &entry, buffer.data(), buffer.size(), &found) == 0) {
    if (found->pw_uid == uid) return found->pw_name;
  }
  return "";
}

std::string RecordedUserName() {
  const char* from_environment = getenv("USERNAME");
  const std::string name = from_environment != nullptr
                               ? std::string(from_environment).substr(0, kMaxUserName)
                               : PasswdName(geteuid());
  return name == "root" ? "admin" : name;
}

const char* OrEmpty(const char* text) { return text != nullptr ? text : ""; }

// flock with `operation`, tried up to ten times a second apart.
bool LockWithRetries(int fd, int operation) {
  for (int attempt = 1; attempt <= kTries; ++attempt) {
    if (flock(fd, operation | LOCK_NB) == 0) return true;
    if (attempt < kTries) SLIBPause(kMicrosecondsBetweenTries);
  }
  return false;
}

int OpenForWriting(const std::string& path) {
  for (int attempt = 1; attempt <= kTries; ++attempt) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) return fd;
    if (attempt < kTries) SLIBPause(kMicrosecondsBetweenTries);
  }
  syslog(LOG_ERR, "logfile %s open error while writing!", path.c_str());
  SLIBCErrSet(SLIB_ERR_OPEN);
  return -1;
}

int WriteRecordToLog(const LogClass& log_class, const Record& record) {
  const uint32_t limit = ChooseLimit(log_class);
  if (limit == 0) return -1;
  const std::string path = LogFilePath(log_class);
  const std::vector<uint8_t> bytes = velt_log_ring::EncodeRecord(record);
  UniqueFd fd(OpenForWriting(path));
  if (fd.get() < 0) return -1;
  // A writer that cannot get the lock in time writes anyway.
  const bool locked = LockWithRetries(fd.get(), LOCK_EX);
  int result = velt_log_ring::AppendRecord(fd.get(), limit, bytes);
  if (locked) flock(fd.get(), LOCK_UN);
  if (fd.Close() != 0 && result == 0) {
    SLIBCErrSet(SLIB_ERR_WRITE);
    result = -1;
  }
  chmod(path.c_str(), 0600);
  return result;
}

// The per-language caches of event texts, never freed: texts once read stay
// for the life of the process. A "[section]" key records that the section was
// read.
SLIBSZHASH** LanguageCache(const std::string& lang) {
  static auto* caches = new std::map<std::string, SLIBSZHASH*>;
  SLIBSZHASH*& cache = (*caches)[lang];
  if (cache == nullptr) {
    cache = PshSLIBSzHashAlloc(4096);
    if (cache == nullptr) {
      syslog(LOG_ERR, "malloc event hash failed");
      caches->erase(lang);
      return nullptr;
    }
  }
  return &cache;
}

// The text of `key` in `section` of the language's events file, reading the
// section on its first miss; an unknown key is cached as "". False when the
// path is too long or memory runs out.
bool LookUpText(const char* lang, const char* section, const char* key, std::string* text) {
  char path[128];
  const int length = snprintf(path, sizeof(path), kTextsFormat, lang);
  if (length < 0 || static_cast<size_t>(length) >= sizeof(path)) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return false;
  }
  SLIBSZHASH** cache = LanguageCache(lang);
  if (cache == nullptr) return false;
  const char* cached = SzSLIBSzHashGetValue(*cache, key);
  const std::string section_mark = std::string("[") + section + "]";
  if (cached == nullptr && SzSLIBSzHashGetValue(*cache, section_mark.c_str()) == nullptr) {
    const int before = (*cache)->nEntry;
    {
      KeepErrorCode keep;
      if (SLIBFileGetSection(path, section, cache) <= before) {
        syslog(LOG_ERR, "section %s not found in %s", section, path);
      }
    }
    if (SLIBSzHashSetValue(cache, section_mark.c_str(), "") < 0) return false;
    cached = SzSLIBSzHashGetValue(*cache, key);
  }
  if (cached == nullptr) {
    syslog(LOG_ERR, "event %s not found in %s", key, path);
    if (SLIBSzHashSetValue(cache, key, "") < 0) return false;
    cached = "";
  }
  *text = cached;
  return true;
}

// Replaces every "@<digit>" with `arg` in the malloc'ed `*text` of `*size`
// bytes, growing it when a placeholder appears more than once.
bool ReplacePlaceholder(UniqueText* text, size_t* size, const char* placeholder, const char* arg) {
  KeepErrorCode keep;
  while (SLIBStrReplace(text->get(), *size, placeholder, arg) < 0) {
    if (SLIBCErrGet() != SLIB_ERR_BUFFER_TOO_SMALL) return false;
    const size_t grown = *size * 2 + strlen(arg);
    char* bigger = static_cast<char*>(realloc(text->get(), grown));
    if (bigger == nullptr) return false;
    text->release();
    text->reset(bigger);
    *size = grown;
  }
  return true;
}

char* FillPlaceholders(const std::string& text, const char* const args[4]) {
  size_t size = text.size() + 1;
  for (int i = 0; i < 4; ++i) size += strlen(OrEmpty(args[i]));
  UniqueText filled(static_cast<char*>(malloc(size)));
  if (!filled) {
    SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  memcpy(filled.get(), text.c_str(), text.size() + 1);
  const char* const placeholders[4] = {"@1", "@2", "@3", "@4"};
  for (int i = 0; i < 4; ++i) {
    if (OrEmpty(args[i])[0] == '\0') continue;
    if (!ReplacePlaceholder(&filled, &size, placeholders[i], args[i])) {
      SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
      return nullptr;
    }
  }
  return filled.release();
}

std::string EventKey(unsigned long event) {
  char key[32];
  snprintf(key, sizeof(key), "%lX", event);
  return key;
}

char* EventText(const char* lang, unsigned long event, const char* const args[4]) {
  char section[32];
  snprintf(section, sizeof(section), "%08lX", event & ~0xFFFFUL);
  std::string text;
  if (!LookUpText(lang, section, EventKey(event).c_str(), &text)) return nullptr;
  if (text.empty()) {
    SLIBCErrSet(SLIB_ERR_NOT_FOUND);
    return nullptr;
  }
  return FillPlaceholders(text, args);
}

char* SourceText(int source, const char* lang) {
  std::string text;
  if (lang != nullptr && source >= 1 && source <= 3) {
    const std::string key = "1100000" + std::to_string(source);
    if (!LookUpText(lang, kSourceSection, key.c_str(), &text)) text.clear();
  } else if (lang != nullptr) {
    if (!LookUpText(lang, kSourceSection, kSourceSection, &text)) text.clear();
  }
  char* copy = strdup(text.empty() ? kUnknownSource : text.c_str());
  if (copy == nullptr) SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
  return copy;
}

// Writes the export line of one record: 1 when written, 0 when the record has
// no event text, -1 when writing fails.
int ExportRecord(FILE* out, const char* lang, const Record& record) {
  UniqueText source(VELTLogGetSourceText(record.source, lang));
  if (!source) return -1;
  const char* const args[4] = {record.args[0].c_str(), record.args[1].c_str(),
                               record.args[2].c_str(), record.args[3].c_str()};
  UniqueText event;
  {
    KeepErrorCode keep;
    event.reset(EventText(lang, record.event, args));
  }
  if (!event) {
    syslog(LOG_ERR,
           "Can not get the log szEvent id = %s, szLang = %s, szArg1 = [%s], szArg2 = [%s], "
           "szArg3 = [%s], szArg4 = [%s], szSource = %s",
           EventKey(record.event).c_str(), lang, args[0], args[1], args[2], args[3], source.get());
    return 0;
  }
  const time_t when = static_cast<time_t>(record.time);
  struct tm local;
  char time_text[32] = "";
  if (localtime_r(&when, &local) != nullptr) {
    strftime(time_text, sizeof(time_text), "%Y/%m/%d %H:%M:%S", &local);
  }
  if (fprintf(out, "%d\t%s\t%s\t%s\t%s\t%s\n", record.level, source.get(), time_text, event.get(),
              record.user.c_str(), record.program.c_str()) < 0) {
    SLIBCErrSet(SLIB_ERR_WRITE);
    return -1;
  }
  return 1;
}

// Reads every record of the log under a shared lock into `records`; false
// when locking or reading fails. `*whole` tells whether the log ended well
// or at a malformed record.
bool ReadLog(int fd, std::vector<Record>* records, bool* whole) {
  if (!LockWithRetries(fd, LOCK_SH)) {
    syslog(LOG_ERR, "log file lock failed");
    SLIBCErrSet(SLIB_ERR_LOCK);
    return false;
  }
  int bad_record = 0;
  const velt_log_ring::ReadResult result = velt_log_ring::ReadRecords(fd, records, &bad_record);
  flock(fd, LOCK_UN);
  *whole = result == velt_log_ring::ReadResult::kOk;
  if (result == velt_log_ring::ReadResult::kIoError) return false;
  if (!*whole) {
    syslog(LOG_ERR, "Log format error line%d", bad_record);
    SLIBCErrSet(SLIB_ERR_READ);
  }
  return true;
}

int Export(const LogClass& log_class, const char* lang, const char* out_path) {
  const std::string path = LogFilePath(log_class);
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    syslog(LOG_ERR, "Veltara log file %s not exist", path.c_str());
    SLIBCErrSet(SLIB_ERR_OPEN);
    return -1;
  }
  UniqueFile out(fopen(out_path, "w"));
  if (!out) {
    syslog(LOG_ERR, "output log file open failed [%d].\n", errno);
    SLIBCErrSet(SLIB_ERR_OPEN);
    return -1;
  }
  std::vector<Record> records;
  bool whole = false;
  if (!ReadLog(fd.get(), &records, &whole)) return -1;
  int lines = 0;
  for (const Record& record : records) {
    const int written = ExportRecord(out.get(), lang, record);
    if (written < 0) return -1;
    lines += written;
  }
  if (fclose(out.release()) != 0) {
    SLIBCErrSet(SLIB_ERR_WRITE);
    return -1;
  }
  return whole ? lines : -1;
}

int ChangeSize(int size, const LogClass& log_class) {
  const std::string path = LogFilePath(log_class);
  UniqueFd fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
  if (fd.get() < 0) {
    if (errno != ENOENT) {
      SLIBCErrSet(SLIB_ERR_OPEN);
      return -1;
    }
    syslog(LOG_INFO, "VELTLogChangeSize : logfile %s not existed", path.c_str());
    return 0;
  }
  // Only a file that is too large waits for the lock; the shrink checks the
  // size again under it.
  struct stat status;
  if (fstat(fd.get(), &status) == 0 && status.st_size <= size) return 0;
  const bool locked = LockWithRetries(fd.get(), LOCK_EX);
  const int result = velt_log_ring::ShrinkRing(fd.get(), static_cast<uint32_t>(size));
  if (locked) flock(fd.get(), LOCK_UN);
  return result;
}

int SetSize(const char* key, const char* value) {
  if (!FileExists(kConfPath)) {
    if (!CreateConf()) {
      syslog(LOG_ERR, "logconf file created error while set size coz the logconf not exist!");
      return -1;
    }
    syslog(LOG_INFO, "logconf file not exist! created one!");
  }
  // Written through the hash so that a replaced line gets the key, not the
  // old line, in front of the new value.
  HashHolder holder{PshSLIBSzHashAlloc(512)};
  if (holder.hash == nullptr || SLIBSzHashSetValue(&holder.hash, key, value) < 0) return -1;
  if (SLIBFileSetKeys(kConfPath, holder.hash, "%s=\t\"%s\"\n") < 0) {
    syslog(LOG_ERR, "error occured in setkeyvalue in %s.", kConfPath);
    return -1;
  }
  return 0;
}

// Runs `body`, turning a failed allocation into `failed` with 0x200.
template <typename Result, typename Body>
Result WithoutBadAlloc(Result failed, Body body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
    return failed;
  }
}

}  // namespace

int VELTLogWrite(int logClass, int level, unsigned long event, const char* arg1, const char* arg2,
                 const char* arg3, const char* arg4) {
  if (logClass == 4) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  const LogClass* log_class = FindLogClass(logClass);
  if (log_class == nullptr) return -1;
  return WithoutBadAlloc(-1, [&] {
    Record record;
    record.time = static_cast<uint32_t>(time(nullptr));
    record.level = static_cast<uint16_t>(level);
    record.source = static_cast<uint8_t>(logClass);
    record.event = static_cast<uint32_t>(event);
    record.user = RecordedUserName();
    record.program = program_invocation_short_name;
    const char* const args[4] = {arg1, arg2, arg3, arg4};
    for (int i = 0; i < 4; ++i) record.args[i] = OrEmpty(args[i]);
    return WriteRecordToLog(*log_class, record);
  });
}

int VELTLogChangeSize(int size, int logClass) {
  const LogClass* log_class = FindLogClass(logClass);
  if (log_class == nullptr) return -1;
  if (size < VELT_LOG_HEADER_SIZE) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  return WithoutBadAlloc(-1, [&] { return ChangeSize(size, *log_class); });
}

int VELTLogSetSize(const char* key, const char* value) {
  if (key == nullptr || value == nullptr || key[0] == '\0') {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  return WithoutBadAlloc(-1, [&] { return SetSize(key, value); });
}

char* VELTLogGetEventText(const char* lang, unsigned long event, const char* arg1, const char* arg2,
                          const char* arg3, const char* arg4) {
  if (lang == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return nullptr;
  }
  const char* const args[4] = {arg1, arg2, arg3, arg4};
  return WithoutBadAlloc<char*>(nullptr, [&] { return EventText(lang, event, args); });
}

char* VELTLogGetSourceText(int source, const char* lang) {
  return WithoutBadAlloc<char*>(nullptr, [&] { return SourceText(source, lang); });
}

int VELTLogExport(int logClass, const char* lang, const char* outPath) {
  if (lang == nullptr || outPath == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  const LogClass* log_class = FindLogClass(logClass);
  if (log_class == nullptr) return -1;
  return WithoutBadAlloc(-1, [&] { return Export(*log_class, lang, outPath); });
}
