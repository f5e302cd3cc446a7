// Appliance sandboxes in tests: a fresh directory for each, a fixture that
// builds one and removes it again, and the texts of a run (its lines, its
// syslog messages, a description for failure messages). For test programs
// linked with the sandbox library.
#ifndef TESTS_UNIT_SANDBOX_TEST_SUPPORT_H_
#define TESTS_UNIT_SANDBOX_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "log_lines.h"
#include "sim/sandbox.h"
#include "test_support.h"

namespace sandbox_test {

// A fresh directory "<$TMPDIR or /tmp>/<prefix>-XXXXXX" for a sandbox; ""
// when none can be made. Not a TempDir, so that a failed test's sandbox can
// be kept (FILEBAY_KEEP_SANDBOX=1).
inline std::string NewSandboxDir(const std::string& prefix) {
  const char* base = getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/" + prefix + "-XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) return "";
  return pattern;
}

// The lines of `text`, without their line feeds.
inline std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// A run as a failure message shows it: how it ended, its output, its syslog
// lines and stub calls.
inline std::string Describe(const sandbox::RunResult& result) {
  std::string text = "ok=" + std::to_string(result.ok) + " error=[" + result.error +
                     "] status=" + std::to_string(result.status) + "\nstdout:\n" + result.out +
                     "stderr:\n" + result.err + "syslog:\n";
  for (const std::string& line : result.syslog) text += line + "\n";
  text += "stub calls:\n";
  for (const std::string& line : result.stub_calls) text += line + "\n";
  return text;
}

// The messages the program `ident` logged in a run, in order, as
// "<facility.priority> <message>" ("user.err VELTNetService(N): lock
// failed"), each message testing_support::WithoutLineNumber.
inline std::vector<std::string> ProgramMessages(const sandbox::RunResult& result,
                                                const std::string& ident) {
  const std::string marker = " " + ident + ": ";
  std::vector<std::string> messages;
  for (const std::string& line : result.syslog) {
    const size_t at = line.find(marker);
    if (at == std::string::npos || at == 0) continue;
    const size_t priority = line.rfind(' ', at - 1);
    if (priority == std::string::npos) continue;
    messages.push_back(line.substr(priority + 1, at - priority - 1) + " " +
                       testing_support::WithoutLineNumber(line.substr(at + marker.size())));
  }
  return messages;
}

// A test with at most one sandbox, box_: skipped where sandboxes cannot run,
// the sandbox destroyed after the test (kept after a failure when
// FILEBAY_KEEP_SANDBOX says so).
class SandboxFixture : public ::testing::Test {
 protected:
  // Sandbox directories are named "<dir_prefix>-XXXXXX"; `need_flash`: the
  // tests need the flash simulator too.
  explicit SandboxFixture(std::string dir_prefix, sandbox::Tools tools = sandbox::Tools(),
                          bool need_flash = false)
      : dir_prefix_(std::move(dir_prefix)), tools_(std::move(tools)), need_flash_(need_flash) {}

  void SetUp() override {
    const std::string reason = sandbox::Unavailable(tools_, need_flash_);
    if (!reason.empty()) GTEST_SKIP() << reason;
  }

  void TearDown() override {
    if (box_ == nullptr) return;
    std::string error;
    EXPECT_TRUE(box_->Destroy(HasFailure(), &error)) << error;
    box_.reset();
  }

  // The sandbox of this test, built from `scenario`; null after a recorded
  // failure.
  sandbox::Sandbox* Build(const sandbox::Scenario& scenario) {
    const std::string dir = NewSandboxDir(dir_prefix_);
    std::string error;
    box_ = sandbox::Sandbox::Create(dir, scenario, tools_, &error);
    if (box_ == nullptr) {
      ADD_FAILURE() << "Create(" << dir << "): " << error;
      sandbox::DestroyDir(dir, &error);
    }
    return box_.get();
  }

  // A file of the sandbox's root; "<missing>" when it cannot be read.
  std::string RootFile(const std::string& path) const {
    std::string content;
    return box_->ReadRootFile(path, &content) ? content : "<missing>";
  }

  const std::string dir_prefix_;
  const sandbox::Tools tools_;
  const bool need_flash_;
  std::unique_ptr<sandbox::Sandbox> box_;
};

// One row of a table of module runs: a shell command line run in a sandbox
// of its own, with the module probe (tests/sandbox/probe.cpp) as "probe" and
// an /sbin/ifconfig that records its calls with arguments as a stub does.
struct ProbeCase {
  const char* name;
  std::function<void(sandbox::Scenario*)> setup;
  std::string script;
  std::string out;                       // everything the command prints
  std::vector<std::string> calls = {};   // every stub call, in order
  std::vector<std::string> errors = {};  // the probe's error messages, each by its start
};

inline void PrintTo(const ProbeCase& c, std::ostream* os) { *os << c.name; }

class ProbeTest : public SandboxFixture, public ::testing::WithParamInterface<ProbeCase> {
 protected:
  // `fast_sleep`: a library preloaded to shorten the programs' pauses;
  // `check_errors`: the probe's error messages are compared too.
  ProbeTest(std::string probe, std::string fast_sleep, bool check_errors)
      : SandboxFixture("probe-test"),
        probe_(std::move(probe)),
        fast_sleep_(std::move(fast_sleep)),
        check_errors_(check_errors) {}

  void RunCase() {
    const ProbeCase& c = GetParam();
    sandbox::Scenario scenario;
    if (c.setup) c.setup(&scenario);
    scenario.files.push_back({"/usr/bin/probe", "", probe_, 0});
    scenario.files.push_back({"/usr/local/lib/fast_sleep.so", "", fast_sleep_, 0});
    ASSERT_NE(Build(scenario), nullptr);
    // A scenario file would be written through the busybox link.
    const std::string ifconfig = box_->RootPath("/sbin/ifconfig");
    ASSERT_EQ(unlink(ifconfig.c_str()), 0);
    testing_support::WriteFile(ifconfig,
                               "#!/bin/sh\n[ $# = 1 ] || echo \"/sbin/ifconfig $*\" "
                               ">>/var/log/stub-calls.log\nexec /bin/busybox ifconfig \"$@\"\n");
    ASSERT_EQ(chmod(ifconfig.c_str(), 0755), 0);
    sandbox::RunOptions options;
    options.env = {"LD_PRELOAD=/usr/local/lib/fast_sleep.so",
                   "ASAN_OPTIONS=verify_asan_link_order=0"};
    const sandbox::RunResult result = box_->Run({"/bin/sh", "-c", c.script}, options);
    ASSERT_TRUE(result.ok) << Describe(result);
    EXPECT_EQ(result.out, c.out) << Describe(result);
    EXPECT_EQ(result.stub_calls, c.calls) << Describe(result);
    std::vector<std::string> errors;
    for (const std::string& message : ProgramMessages(result, "probe")) {
      if (message.compare(0, 9, "user.err ") == 0) errors.push_back(message.substr(9));
    }
    if (check_errors_) {
      ASSERT_EQ(errors.size(), c.errors.size()) << Describe(result);
    }
    for (size_t i = 0; i < c.errors.size() && i < errors.size(); ++i) {
      EXPECT_EQ(errors[i].rfind(c.errors[i], 0), 0u) << errors[i];
    }
  }

 private:
  const std::string probe_;
  const std::string fast_sleep_;
  const bool check_errors_;
};

}  // namespace sandbox_test

#endif  // TESTS_UNIT_SANDBOX_TEST_SUPPORT_H_
