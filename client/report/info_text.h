// A media report as text and as JSON.
#ifndef CLIENT_REPORT_INFO_TEXT_H
#define CLIENT_REPORT_INFO_TEXT_H

#include "client/report/media_report.h"

#include <string>

// returns: lines for people
std::string info_text(const media_report &report);

// returns: the same figures, and all gaps, as one JSON object and a newline
std::string info_json(const media_report &report);

// returns: a track's coding and form, such as "AAC-LC, 48000 Hz, stereo"
std::string track_text(const track_report &track);

// returns: the range as text, such as "sound 12 to 60 ms before its picture"
std::string lead_text(const lead_range &lead);

#endif // CLIENT_REPORT_INFO_TEXT_H
