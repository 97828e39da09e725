// A media report as one HTML page without scripts that loads nothing else.
#ifndef CLIENT_REPORT_INFO_PAGE_H
#define CLIENT_REPORT_INFO_PAGE_H

#include "client/report/media_report.h"

#include <string>

// returns: the whole page
std::string info_page(const media_report &report);

// returns: "no fault found", or the number of faults
std::string verdict_text(const media_report &report);

#endif // CLIENT_REPORT_INFO_PAGE_H
