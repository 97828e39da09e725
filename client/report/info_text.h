// A media report as text and as data; both end in a newline.
#ifndef CLIENT_REPORT_INFO_TEXT_H
#define CLIENT_REPORT_INFO_TEXT_H

#include "client/report/media_report.h"

#include <string>

std::string info_text(const media_report &report);
std::string info_json(const media_report &report);

// What a track is, in a line: "H.264 Baseline 1.3, 320x240", "AAC-LC, 48000 Hz, stereo".
std::string track_text(const track_report &track);

// How the sound stood to the picture: "sound 12 to 60 ms ahead of the picture".
std::string lead_text(const lead_range &lead);

#endif // CLIENT_REPORT_INFO_TEXT_H
