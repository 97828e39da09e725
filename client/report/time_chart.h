// Charts over the time of a file, as SVG elements of a page, whose style sheet gives the colours.
#ifndef CLIENT_REPORT_TIME_CHART_H
#define CLIENT_REPORT_TIME_CHART_H

#include <string>

struct time_chart {
    double duration_s; // the horizontal axis begins at 0
    double low, high;  // the vertical axis
    double height;     // of the plot in pixels
    std::string body;  // elements so far
};

// Opens a chart and draws its axes.
// in: the lowest and highest value to show, and the height of the plot in pixels
time_chart time_chart_open(double duration_s, double low, double high, double height);

// As above, without a vertical axis; values are from 0 to 1.
time_chart time_strip_open(double duration_s, double height);

// Adds a rectangle from one time and value to another.
// in: a class of the style sheet, and a text to show under the pointer
void time_chart_bar(time_chart &chart, const char *style, double begin_s, double end_s, double low,
                    double high, const std::string &tip);

// Adds a line from the bottom to the top at a time.
void time_chart_mark(time_chart &chart, const char *style, double time_s, const std::string &tip);

// Adds a horizontal line across the chart.
void time_chart_level(time_chart &chart, const char *style, double value);

// in: a description of the chart for screen readers
// returns: the complete element
std::string time_chart_svg(const time_chart &chart, const std::string &label);

#endif // CLIENT_REPORT_TIME_CHART_H
