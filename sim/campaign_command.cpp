#include "sim/campaign_command.h"

#include <stdio.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "sim/campaign_report.h"
#include "sim/sandbox_host.h"

namespace campaign {

namespace {

// A bar that is redrawn in place on a terminal, and otherwise printed as a
// line at every tenth of the trials.
class ProgressBar {
 public:
  ProgressBar() : terminal_(isatty(STDOUT_FILENO) != 0) {}

  void Show(size_t done, size_t total) {
    const int percent = total == 0 ? 100 : static_cast<int>(done * 100 / total);
    if (!terminal_ && percent / 10 == shown_ / 10 && done != total) return;
    shown_ = percent;
    const int width = 40;
    const int filled = percent * width / 100;
    const long seconds = static_cast<long>(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count());
    printf("%s[%s%s] %3d%%  %zu/%zu trials  %ldm%02lds%s", terminal_ ? "\r" : "",
           std::string(filled, '#').c_str(), std::string(width - filled, ' ').c_str(), percent,
           done, total, seconds / 60, seconds % 60, terminal_ ? "" : "\n");
    if (terminal_ && done == total) printf("\n");
    fflush(stdout);
  }

 private:
  const bool terminal_;
  int shown_ = -10;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace

int RunCampaignCommand(const Setup& setup) {
  printf("%s on %s in %s\npreparing the sandbox and the clean run...\n",
         setup.kind == Kind::kFaults ? "fault campaign" : "power-cut sweep", setup.title.c_str(),
         setup.dir.c_str());
  fflush(stdout);
  ProgressBar bar;
  Result result;
  std::string error;
  if (!RunCampaign(
          setup, [&bar](size_t done, size_t total) { bar.Show(done, total); }, &result, &error)) {
    fprintf(stderr, "filebay-rehearse: %s\n", error.c_str());
    return 1;
  }
  printf("\n%s", SummaryText(setup, result).c_str());
  const std::string json = setup.dir + "/campaign.json";
  const std::string html = setup.dir + "/report.html";
  if (!sandbox::internal::WriteFileMode(json, CampaignJson(setup, result), 0644, &error) ||
      !sandbox::internal::WriteFileMode(html, CampaignHtml(setup, result), 0644, &error)) {
    fprintf(stderr, "filebay-rehearse: %s\n", error.c_str());
    return 1;
  }
  printf("\nreport: %s\ndata:   %s\nthe sandbox and its clean run: %s/template, %s/clean\n",
         html.c_str(), json.c_str(), setup.dir.c_str(), setup.dir.c_str());
  return CountOutcomes(result.trials).failed == 0 ? 0 : 1;
}

}  // namespace campaign
