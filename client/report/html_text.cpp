#include "client/report/html_text.h"

std::string html_text(const std::string &text)
{
    std::string safe;
    for (const char each : text) {
        switch (each) {
        case '&':
            safe += "&amp;";
            break;
        case '<':
            safe += "&lt;";
            break;
        case '>':
            safe += "&gt;";
            break;
        case '"':
            safe += "&quot;";
            break;
        default:
            safe += each;
        }
    }
    return safe;
}
