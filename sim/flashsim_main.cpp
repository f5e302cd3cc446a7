// filebay-flashsim STATE_DIR MOUNT_POINT [-f] [-o allow_other] [other FUSE options]
//
// Mounts the simulated flash chip of STATE_DIR: one file per partition
// (mtd0 .. mtdN, named by index) that behaves like the appliance's MTD
// character device, including its ioctls, and the control file .control.
// Without -f the program goes to the background once the mount is ready.
// It stops cleanly (status 0) on unmount or SIGTERM/SIGINT/SIGHUP; the state
// directory is kept current after every operation, so nothing is left to save
// then.
#define FUSE_USE_VERSION 31

#include <errno.h>
#include <fcntl.h>
#include <fuse.h>
#include <fuse_lowlevel.h>
#include <limits.h>
#include <mtd/mtd-user.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "sdk/flash_driver_requests.h"
#include "sim/flash_chip.h"

namespace {

static_assert(kFlashDiskPartitions == flashsim::kMSysPartitions, "flash disk partitions");

const char kControlName[] = ".control";

flashsim::FlashChip g_chip;
time_t g_mount_time = 0;

// The answer of the latest command written through one open of .control.
// It is read from offset 0, and also from the file position the command
// left, so that `exec 3<>.control; echo flash-type >&3; cat <&3` works.
struct ControlSession {
  std::string answer;
  uint64_t written_end = 0;
};

// Open sessions by file handle. The daemon owns them until their release,
// so that a stop before the kernel delivers the last release frees them too.
std::unordered_map<uint64_t, std::unique_ptr<ControlSession>> g_control_sessions;

bool IsControl(const char* path) { return path[0] == '/' && strcmp(path + 1, kControlName) == 0; }

// "/mtdN" of an existing partition gives N, anything else -1.
int DeviceOf(const char* path) {
  if (strncmp(path, "/mtd", 4) != 0) return -1;
  const char* digits = path + 4;
  size_t count = strspn(digits, "0123456789");
  if (count == 0 || count > 3 || digits[count] != '\0' || (digits[0] == '0' && count > 1)) {
    return -1;
  }
  int device = atoi(digits);
  return g_chip.DeviceSize(device) < 0 ? -1 : device;
}

void* FsInit(struct fuse_conn_info* /*connection*/, struct fuse_config* config) {
  // Every read and write must reach the chip, and sizes change with the layout.
  config->direct_io = 1;
  config->kernel_cache = 0;
  config->entry_timeout = 0;
  config->attr_timeout = 0;
  config->negative_timeout = 0;
  return nullptr;
}

int FsGetattr(const char* path, struct stat* st, struct fuse_file_info* /*fi*/) {
  memset(st, 0, sizeof(*st));
  st->st_uid = getuid();
  st->st_gid = getgid();
  st->st_atime = st->st_mtime = st->st_ctime = g_mount_time;
  if (strcmp(path, "/") == 0) {
    st->st_mode = S_IFDIR | 0755;
    st->st_nlink = 2;
    return 0;
  }
  if (IsControl(path)) {
    st->st_mode = S_IFREG | 0666;
    st->st_nlink = 1;
    return 0;
  }
  int device = DeviceOf(path);
  if (device < 0) return -ENOENT;
  st->st_mode = S_IFREG | 0666;
  st->st_nlink = 1;
  st->st_size = g_chip.DeviceSize(device);
  return 0;
}

int FsReaddir(const char* path, void* buffer, fuse_fill_dir_t filler, off_t /*offset*/,
              struct fuse_file_info* /*fi*/, enum fuse_readdir_flags /*flags*/) {
  if (strcmp(path, "/") != 0) return -ENOTDIR;
  filler(buffer, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  filler(buffer, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  for (int device : g_chip.Devices()) {
    std::string name = "mtd" + std::to_string(device);
    filler(buffer, name.c_str(), nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  }
  filler(buffer, kControlName, nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  return 0;
}

int FsOpen(const char* path, struct fuse_file_info* fi) {
  // O_TRUNC (dd of=) is ignored: a device cannot be truncated.
  fi->direct_io = 1;
  fi->keep_cache = 0;
  if (IsControl(path)) {
    auto session = std::make_unique<ControlSession>();
    fi->fh = reinterpret_cast<uint64_t>(session.get());
    g_control_sessions[fi->fh] = std::move(session);
    return 0;
  }
  int device = DeviceOf(path);
  if (device < 0) return -ENOENT;
  fi->fh = static_cast<uint64_t>(device);
  return g_chip.OpenDevice(device);
}

int FsCreate(const char* /*path*/, mode_t /*mode*/, struct fuse_file_info* /*fi*/) {
  return -EACCES;
}

int FsRelease(const char* path, struct fuse_file_info* fi) {
  if (IsControl(path)) g_control_sessions.erase(fi->fh);
  return 0;
}

int FsTruncate(const char* path, off_t /*size*/, struct fuse_file_info* /*fi*/) {
  if (IsControl(path) || DeviceOf(path) >= 0) return 0;
  return strcmp(path, "/") == 0 ? -EISDIR : -ENOENT;
}

int FsRead(const char* path, char* buffer, size_t size, off_t offset, struct fuse_file_info* fi) {
  if (offset < 0) return -EINVAL;
  if (IsControl(path)) {
    const ControlSession* session = reinterpret_cast<ControlSession*>(fi->fh);
    uint64_t at = static_cast<uint64_t>(offset);
    if (at >= session->written_end) at -= session->written_end;
    if (at >= session->answer.size()) return 0;
    size_t count = std::min<size_t>(size, session->answer.size() - at);
    memcpy(buffer, session->answer.data() + at, count);
    return static_cast<int>(count);
  }
  ssize_t result = g_chip.Read(static_cast<int>(fi->fh), static_cast<uint64_t>(offset), buffer,
                               std::min<size_t>(size, INT_MAX));
  return static_cast<int>(result);
}

int FsWrite(const char* path, const char* data, size_t size, off_t offset,
            struct fuse_file_info* fi) {
  if (offset < 0) return -EINVAL;
  if (IsControl(path)) {
    ControlSession* session = reinterpret_cast<ControlSession*>(fi->fh);
    session->answer = g_chip.Control(std::string(data, size));
    session->written_end = static_cast<uint64_t>(offset) + size;
    return static_cast<int>(size);
  }
  ssize_t result = g_chip.Write(static_cast<int>(fi->fh), static_cast<uint64_t>(offset), data,
                                std::min<size_t>(size, INT_MAX));
  return static_cast<int>(result);
}

int FsFsync(const char* /*path*/, int /*datasync*/, struct fuse_file_info* /*fi*/) { return 0; }

int FsUtimens(const char* /*path*/, const struct timespec /*times*/[2],
              struct fuse_file_info* /*fi*/) {
  return 0;
}

int DeviceIoctl(int device, unsigned int request, void* data) {
  switch (request) {
    case kFlashGetInfoRequest: {
      flashsim::DeviceInfo info;
      int result = g_chip.GetInfo(device, &info);
      if (result == 0) {
        mtd_info_user answer;
        memset(&answer, 0, sizeof(answer));
        answer.type = info.type;
        answer.flags = info.flags;
        answer.size = info.size;
        answer.erasesize = info.erasesize;
        answer.writesize = info.writesize;
        answer.oobsize = info.oobsize;
        memcpy(data, &answer, sizeof(answer));
      }
      return result;
    }
    case kFlashEraseRequest:
    case kFlashLockRequest:
    case kFlashUnlockRequest: {
      erase_info_user range;
      memcpy(&range, data, sizeof(range));
      if (request == kFlashEraseRequest) return g_chip.Erase(device, range.start, range.length);
      if (request == kFlashLockRequest) return g_chip.Lock(device, range.start, range.length);
      return g_chip.Unlock(device, range.start, range.length);
    }
    case kFlashSetExtentRequest: {
      FlashExtentRequest extent;
      memcpy(&extent, data, sizeof(extent));
      return g_chip.SetExtent(device, extent.flash_base, extent.size);
    }
    case kFlashSetFisEntryRequest: {
      FlashFisEntryRequest entry;
      memcpy(&entry, data, sizeof(entry));
      std::string name(entry.name, strnlen(entry.name, sizeof(entry.name)));
      return g_chip.SetFisEntry(device, name, entry.flash_base, entry.size, entry.data_length);
    }
    case kFlashDiskGetTableRequest: {
      FlashDiskTable table;
      int result = g_chip.GetMSysTable(device, table.pairs);
      if (result == 0) memcpy(data, &table, sizeof(table));
      return result;
    }
    default:
      return -ENOTTY;
  }
}

int FsIoctl(const char* path, int cmd, void* /*arg*/, struct fuse_file_info* fi, unsigned int flags,
            void* data) {
  if ((flags & FUSE_IOCTL_DIR) != 0 || IsControl(path)) return -ENOTTY;
  return DeviceIoctl(static_cast<int>(fi->fh), static_cast<unsigned int>(cmd), data);
}

struct fuse_operations MakeOperations() {
  struct fuse_operations operations;
  memset(&operations, 0, sizeof(operations));
  operations.init = FsInit;
  operations.getattr = FsGetattr;
  operations.readdir = FsReaddir;
  operations.open = FsOpen;
  operations.create = FsCreate;
  operations.release = FsRelease;
  operations.truncate = FsTruncate;
  operations.read = FsRead;
  operations.write = FsWrite;
  operations.fsync = FsFsync;
  operations.utimens = FsUtimens;
  operations.ioctl = FsIoctl;
  return operations;
}

// Mounts, goes to the background unless -f was given (only once the mount
// is ready), serves single-threaded so the trace keeps the order of the
// requests, and unmounts. An unmount or a SIGTERM/SIGINT/SIGHUP is a clean
// stop (0); anything else gives 1.
int Serve(std::vector<char*> fuse_argv) {
  struct fuse_args args = FUSE_ARGS_INIT(static_cast<int>(fuse_argv.size()), fuse_argv.data());
  struct fuse_cmdline_opts options;
  memset(&options, 0, sizeof(options));
  if (fuse_parse_cmdline(&args, &options) != 0) return 1;
  std::unique_ptr<char, decltype(&free)> mount_point(options.mountpoint, &free);
  std::unique_ptr<struct fuse_args, decltype(&fuse_opt_free_args)> args_guard(&args,
                                                                              &fuse_opt_free_args);
  if (mount_point == nullptr || options.show_help || options.show_version) {
    fprintf(stderr, "usage: filebay-flashsim STATE_DIR MOUNT_POINT [-f] [-o allow_other]\n");
    return 2;
  }
  struct fuse_operations operations = MakeOperations();
  std::unique_ptr<struct fuse, decltype(&fuse_destroy)> fuse(
      fuse_new(&args, &operations, sizeof(operations), nullptr), &fuse_destroy);
  if (fuse == nullptr || fuse_mount(fuse.get(), mount_point.get()) != 0) return 1;
  struct fuse_session* session = fuse_get_session(fuse.get());
  int result = 1;
  if (fuse_daemonize(options.foreground) == 0 && fuse_set_signal_handlers(session) == 0) {
    int stop = fuse_loop(fuse.get());
    fuse_remove_signal_handlers(session);
    result = (stop == 0 || stop == SIGTERM || stop == SIGINT || stop == SIGHUP) ? 0 : 1;
  }
  fuse_unmount(fuse.get());
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argv[1][0] == '-' || argv[2][0] == '-') {
    fprintf(stderr, "usage: %s STATE_DIR MOUNT_POINT [-f] [-o allow_other]\n", argv[0]);
    return 2;
  }
  // The daemon leaves the working directory, so the state directory is
  // remembered as an absolute path.
  std::unique_ptr<char, decltype(&free)> state_dir(realpath(argv[1], nullptr), &free);
  std::string error;
  if (state_dir == nullptr) {
    fprintf(stderr, "%s: %s: %s\n", argv[0], argv[1], strerror(errno));
    return 1;
  }
  if (!g_chip.Open(state_dir.get(), &error)) {
    fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
    return 1;
  }
  g_mount_time = time(nullptr);

  std::string fs_options = "fsname=filebay-flashsim,subtype=flashsim";
  std::vector<char*> fuse_argv = {argv[0]};
  for (int i = 2; i < argc; ++i) fuse_argv.push_back(argv[i]);
  fuse_argv.push_back(const_cast<char*>("-o"));
  fuse_argv.push_back(fs_options.data());
  int result = Serve(fuse_argv);
  if (!g_chip.Close(&error)) {
    fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
    if (result == 0) result = 1;
  }
  return result;
}
