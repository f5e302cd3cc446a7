// Appliance sandboxes in tests: a fresh directory for each, a fixture that
// builds one and removes it again, and the texts of a run (its lines, its
// syslog messages, a description for failure messages). For test programs
// linked with the sandbox library.
#ifndef TESTS_UNIT_SANDBOX_TEST_SUPPORT_H_
#define TESTS_UNIT_SANDBOX_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "log_lines.h"
#include "sim/sandbox.h"

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

// A run as a failure message shows it: how it ended, its output, its syslog
// lines and stub calls.
inline std::string Describe(const sandbox::RunResult& result) {
  std::string text = "ok=" + std::to_string(result.ok) + " error=[" + result.error +
                     "] status=" + std::to_string(result.status) + "\nstdout:\n" + result.out +
                     "stderr:\n" + result.err;
  return text + "syslog: " + testing::PrintToString(result.syslog) +
         "\nstub calls: " + testing::PrintToString(result.stub_calls) + "\n";
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

}  // namespace sandbox_test

#endif  // TESTS_UNIT_SANDBOX_TEST_SUPPORT_H_
