// Process 1 of a sandbox run: starts the flash simulator, syslogd and the
// scenario's daemons, runs the command chrooted into the root, then stops
// the helpers and kills whatever the command left. Internal to the sandbox
// library.
#ifndef SIM_SANDBOX_RUN_H_
#define SIM_SANDBOX_RUN_H_

#include <string>
#include <vector>

namespace sandbox {
namespace internal {

// What process 1 of a run needs; everything is prepared before the fork.
struct RunPlan {
  std::string dir;
  std::string root;
  std::string flashsim;  // empty: no flash
  std::vector<std::string> daemons;
  int eth0_speed = 0;
  std::vector<std::string> argv;
  std::vector<std::string> env;
  bool capture = true;
  int timeout_seconds = 0;
  int stdin_fd = -1;  // capture only
  int stdout_fd = -1;
  int stderr_fd = -1;
  int log_fd = -1;  // DIR/run.log, for the helpers' output
  int null_fd = -1;
};
// Runs the plan as process 1 of the run's pid namespace; reports "status N",
// "timeout S" and "error TEXT" lines on `report_fd`. Returns the process's
// exit status.
int RunInit(const RunPlan& plan, int report_fd);

}  // namespace internal
}  // namespace sandbox

#endif  // SIM_SANDBOX_RUN_H_
