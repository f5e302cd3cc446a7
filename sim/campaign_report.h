// What a campaign (campaign.h) shows a person: a summary for the terminal, a
// machine-readable campaign.json and a self-contained HTML report (inline
// SVG, no scripts): the flash map before and after, the clean run's flash
// operations as a timeline of stages per partition with the unbootable
// window shaded and each power cut coloured by its outcome, and the fault
// matrix as a coloured grid.
#ifndef SIM_CAMPAIGN_REPORT_H_
#define SIM_CAMPAIGN_REPORT_H_

#include <string>

#include "sim/campaign.h"

namespace campaign {

std::string SummaryText(const Setup& setup, const Result& result);
std::string CampaignJson(const Setup& setup, const Result& result);
std::string CampaignHtml(const Setup& setup, const Result& result);

}  // namespace campaign

#endif  // SIM_CAMPAIGN_REPORT_H_
