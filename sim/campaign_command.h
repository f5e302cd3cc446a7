// The campaigns of filebay-rehearse (--campaign faults|power-cut): runs one
// with a progress bar on stdout, prints its summary and leaves
// DIR/campaign.json and DIR/report.html.
#ifndef SIM_CAMPAIGN_COMMAND_H_
#define SIM_CAMPAIGN_COMMAND_H_

#include "sim/campaign.h"

namespace campaign {

// Exit status 0 when every trial was judged, 1 when the campaign could not be
// prepared, a trial could not be judged or the files could not be written.
int RunCampaignCommand(const Setup& setup);

}  // namespace campaign

#endif  // SIM_CAMPAIGN_COMMAND_H_
