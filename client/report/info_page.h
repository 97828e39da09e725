// A media report as one HTML page that needs nothing else: no script, no network.
#ifndef CLIENT_REPORT_INFO_PAGE_H
#define CLIENT_REPORT_INFO_PAGE_H

#include "client/report/media_report.h"

#include <string>

std::string info_page(const media_report &report);

// "no fault found", or how many there are.
std::string verdict_text(const media_report &report);

#endif // CLIENT_REPORT_INFO_PAGE_H
