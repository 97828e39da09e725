// Text within an HTML page.
#ifndef CLIENT_REPORT_HTML_TEXT_H
#define CLIENT_REPORT_HTML_TEXT_H

#include <string>

// returns: the text with the characters that are markup in HTML escaped, for an element or a quoted
//          attribute
std::string html_text(const std::string &text);

#endif // CLIENT_REPORT_HTML_TEXT_H
