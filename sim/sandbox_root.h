// Building a sandbox's directory: the appliance root (busybox and its applet
// links, library directories, devices, /etc, stubs, event texts, the
// scenario's files), the flash state and sandbox.conf. Internal to the
// sandbox library; sim/sandbox.h describes what a root holds.
#ifndef SIM_SANDBOX_ROOT_H_
#define SIM_SANDBOX_ROOT_H_

#include <string>
#include <vector>

#include "sim/sandbox.h"

namespace sandbox {
namespace internal {

// Host library directories, bound read-only into the root during a run.
inline constexpr const char* kLibraryDirs[] = {
    "/lib", "/lib32", "/lib64", "/libx32", "/usr/lib", "/usr/lib32", "/usr/lib64", "/usr/libx32"};
// Host devices bound into the root's /dev during a run.
inline constexpr const char* kDevices[] = {"null", "zero", "urandom", "random", "tty"};

inline constexpr char kStubCallLog[] = "/var/log/stub-calls.log";
inline constexpr char kMessages[] = "/var/log/messages";
inline constexpr char kConfName[] = "/sandbox.conf";

// The busybox to install: `configured` when it is executable, else the first
// of /bin/busybox, /usr/bin/busybox and PATH; empty when there is none.
std::string FindBusybox(const std::string& configured);

// Builds the appliance root `root` for `scenario`, with /dev/mtdN links for
// `partitions`.
bool BuildRoot(const std::string& root, const Scenario& scenario, const std::string& busybox,
               const std::vector<int>& partitions, std::string* error);

// The partition indexes of a layout file.
bool ReadLayoutPartitions(const std::string& layout_file, std::vector<int>* partitions,
                          std::string* error);
// DIR/flash from the scenario's layout, with its fault plan.
bool CreateFlash(const std::string& dir, const Scenario& scenario, const Tools& tools,
                 std::string* error);
// The text of DIR/sandbox.conf.
std::string FormatConf(const Scenario& scenario);
bool IsEmptyOrMissingDir(const std::string& dir, std::string* error);

}  // namespace internal
}  // namespace sandbox

#endif  // SIM_SANDBOX_ROOT_H_
