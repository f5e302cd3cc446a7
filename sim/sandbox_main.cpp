// filebay-sandbox: builds, enters and removes appliance sandboxes (see
// sim/sandbox.h and docs/sandbox.md).
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "sim/sandbox.h"
#include "sim/update_scenario.h"

namespace {

const char kUsage[] =
    "usage: filebay-sandbox create DIR [OPTIONS]\n"
    "       filebay-sandbox run DIR [--env NAME=VALUE]... [--timeout SECONDS] -- CMD [ARGS...]\n"
    "       filebay-sandbox shell DIR\n"
    "       filebay-sandbox destroy DIR\n"
    "       filebay-sandbox check [--flash]\n"
    "\n"
    "An appliance sandbox is a throwaway appliance root (DIR/root) with busybox, the\n"
    "appliance's settings files, stub services and, for a board with flash, a\n"
    "simulated flash chip (DIR/flash) seen as /dev/mtdN. Commands run in it with the\n"
    "appliance's fixed paths, in their own mount, pid, network, UTS and IPC\n"
    "namespaces (as root, or in a user namespace), with syslog in\n"
    "/var/log/messages and stub calls in /var/log/stub-calls.log.\n"
    "\n"
    "create DIR        builds a sandbox in DIR (which must not exist or be empty)\n"
    "  --board NAME      nor8, junior6, msys (a layout of " SANDBOX_LAYOUT_DIR
    ")\n"
    "                    or none (default: no flash); junior6 makes the board's\n"
    "                    unique \"veltara_powerpc_junior\"\n"
    "  --layout FILE     any flash layout file instead of --board\n"
    "  --version K=V     a key of /etc.defaults/VERSION (default majorversion 2,\n"
    "                    minorversion 0, buildphase 3, buildnumber 500)\n"
    "  --default-setting K=V   a key of /etc.defaults/veltinfo.conf\n"
    "  --setting K=V     a key of /etc/veltinfo.conf\n"
    "  --package DIR     copies DIR's contents into /volume1/upd@te\n"
    "  --file PATH=HOST  copies the host file or directory HOST to PATH in the root\n"
    "  --stub-status NAME=N   exit status of a stub (NAME: file name, or file name\n"
    "                    and first argument, e.g. S20pgsql.sh or S20pgsql.sh.start)\n"
    "  --fault LINE      a line of the flash fault plan (e.g. \"fault write mtd1\n"
    "                    nth=1 errno=EIO\")\n"
    "  --daemon PATH     a stub daemon running when each command starts\n"
    "                    (e.g. /usr/velt/sbin/smbd)\n"
    "  --eth0 SPEED      an eth0 whose driver reports SPEED Mbit/s (default: none)\n"
    "run DIR -- CMD...   runs CMD in the sandbox with the terminal's streams and\n"
    "                    exits with its status (125: the sandbox failed)\n"
    "  --env NAME=VALUE  adds to the environment (PATH=/bin:/sbin:/usr/bin:/usr/sbin)\n"
    "  --timeout SECONDS kills the command after SECONDS\n"
    "shell DIR           an interactive busybox sh in the sandbox\n"
    "destroy DIR         removes the sandbox DIR\n"
    "check [--flash]     says whether sandboxes (with flash) can run here\n"
    "\n"
    "The flash tools filebay-flash and filebay-flashsim are taken from the\n"
    "directory of this program. Each run starts the flash simulator and syslogd\n"
    "afresh; DIR/run.log holds their output, DIR/flash/trace.log the flash\n"
    "operations.\n";

constexpr int kSandboxFailed = 125;

int Fail(const std::string& message) {
  fprintf(stderr, "filebay-sandbox: %s\n", message.c_str());
  return kSandboxFailed;
}

bool SplitPair(const std::string& text, std::string* key, std::string* value) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0) return false;
  *key = text.substr(0, equals);
  *value = text.substr(equals + 1);
  return true;
}

sandbox::Tools Tools() { return sandbox::ToolsBeside("/proc/self/exe"); }

// Reads the create options into `scenario`; false with a message. The board
// is applied first, so that explicit settings override its defaults.
bool ParseCreate(const std::vector<std::string>& args, sandbox::Scenario* scenario,
                 std::string* error) {
  if (args.size() % 2 != 0) {
    *error = "missing value after " + args.back();
    return false;
  }
  for (size_t i = 0; i < args.size(); i += 2) {
    if (args[i] == "--board" &&
        !sandbox::ApplyBoard(args[i + 1], SANDBOX_LAYOUT_DIR, scenario, error)) {
      return false;
    }
    if (args[i] == "--layout") scenario->layout_file = args[i + 1];
  }
  for (size_t i = 0; i < args.size(); i += 2) {
    const std::string& option = args[i];
    const std::string& value = args[i + 1];
    std::string key, text;
    const bool pair = SplitPair(value, &key, &text);
    if (option == "--board" || option == "--layout") {
      continue;
    } else if (option == "--fault") {
      scenario->faults.push_back(value);
    } else if (option == "--daemon") {
      scenario->daemons.push_back(value);
    } else if (option == "--eth0") {
      scenario->eth0_speed = atoi(value.c_str());
    } else if (option == "--package") {
      scenario->files.push_back({"/volume1/upd@te", "", value, 0644});
    } else if (option != "--version" && option != "--setting" && option != "--default-setting" &&
               option != "--file" && option != "--stub-status") {
      *error = "unknown option " + option;
      return false;
    } else if (!pair) {
      *error = "expected NAME=VALUE after " + option + ", got \"" + value + "\"";
      return false;
    } else if (option == "--version") {
      sandbox::SetKeyValue(&scenario->version, key, text);
    } else if (option == "--setting") {
      sandbox::SetKeyValue(&scenario->settings, key, text);
    } else if (option == "--default-setting") {
      sandbox::SetKeyValue(&scenario->default_settings, key, text);
    } else if (option == "--file") {
      scenario->files.push_back({key, "", text, 0644});
    } else {
      scenario->stub_status.emplace_back(key, atoi(text.c_str()));
    }
  }
  return true;
}

int Create(const std::string& dir, const std::vector<std::string>& args) {
  sandbox::Scenario scenario;
  std::string error;
  if (!ParseCreate(args, &scenario, &error)) return Fail(error);
  std::unique_ptr<sandbox::Sandbox> box = sandbox::Sandbox::Create(dir, scenario, Tools(), &error);
  if (box == nullptr) return Fail("create " + dir + ": " + error + " (left behind for inspection)");
  box->Keep();
  return 0;
}

int RunIn(const std::string& dir, const std::vector<std::string>& argv,
          const sandbox::RunOptions& options) {
  std::string error;
  std::unique_ptr<sandbox::Sandbox> box = sandbox::Sandbox::Open(dir, Tools(), &error);
  if (box == nullptr) return Fail(error);
  box->Keep();
  // Like system(): a ^C belongs to the command, not to us.
  signal(SIGINT, SIG_IGN);
  signal(SIGQUIT, SIG_IGN);
  const sandbox::RunResult result = box->Run(argv, options);
  signal(SIGINT, SIG_DFL);
  signal(SIGQUIT, SIG_DFL);
  if (result.timed_out) {
    fprintf(stderr, "filebay-sandbox: killed after %d seconds\n", options.timeout_seconds);
  }
  if (!result.ok) return Fail(result.error);
  return result.status;
}

int Run(const std::string& dir, const std::vector<std::string>& args) {
  sandbox::RunOptions options;
  options.capture = false;
  options.timeout_seconds = 0;
  size_t i = 0;
  for (; i < args.size() && args[i] != "--"; ++i) {
    if (i + 1 >= args.size()) return Fail("missing value after " + args[i]);
    if (args[i] == "--env" && args[i + 1].find('=') != std::string::npos) {
      options.env.push_back(args[++i]);
    } else if (args[i] == "--timeout") {
      options.timeout_seconds = atoi(args[++i].c_str());
    } else {
      return Fail("unknown option " + args[i]);
    }
  }
  if (i + 1 >= args.size()) return Fail("run: no command after --");
  return RunIn(dir, std::vector<std::string>(args.begin() + i + 1, args.end()), options);
}

int Shell(const std::string& dir) {
  sandbox::RunOptions options;
  options.capture = false;
  options.timeout_seconds = 0;
  options.env.push_back("PS1=sandbox:\\w# ");
  return RunIn(dir, {"/bin/sh"}, options);
}

int Destroy(const std::string& dir) {
  std::string error;
  return sandbox::DestroyDir(dir, &error) ? 0 : Fail(error);
}

int Check(const std::vector<std::string>& args) {
  const bool flash = !args.empty() && args[0] == "--flash";
  const std::string reason = sandbox::Unavailable(Tools(), flash);
  if (!reason.empty()) {
    printf("%s\n", reason.c_str());
    return 1;
  }
  printf(flash ? "available, with flash\n" : "available\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "--help" || args[0] == "-h") {
    fputs(kUsage, args.empty() ? stderr : stdout);
    return args.empty() ? 2 : 0;
  }
  const std::string& command = args[0];
  if (command == "check") return Check(std::vector<std::string>(args.begin() + 1, args.end()));
  if (args.size() < 2) {
    fputs(kUsage, stderr);
    return 2;
  }
  const std::string& dir = args[1];
  const std::vector<std::string> rest(args.begin() + 2, args.end());
  if (command == "create") return Create(dir, rest);
  if (command == "run") return Run(dir, rest);
  if (command == "shell" && rest.empty()) return Shell(dir);
  if (command == "destroy" && rest.empty()) return Destroy(dir);
  fputs(kUsage, stderr);
  return 2;
}
