// Charts over the time of a file, as SVG elements of a page; their colours are classes of its style
// sheet.
#ifndef CLIENT_REPORT_TIME_CHART_H
#define CLIENT_REPORT_TIME_CHART_H

#include <string>

struct time_chart {
    double duration_s; // the horizontal axis begins at 0
    double low, high;  // the vertical axis
    double height;     // of the plot in pixels
    std::string body;  // elements so far
};

// Opens a chart and draws its axes. in: the lowest and highest value that it has to hold.
time_chart time_chart_open(double duration_s, double low, double high, double height);

// The same without a vertical axis.
time_chart time_strip_open(double duration_s, double height);

// A rectangle from one moment and value to another, with a text that shows under the pointer.
void time_chart_bar(time_chart &chart, const char *style, double begin_s, double end_s, double low,
                    double high, const std::string &tip);

// A line from the bottom to the top at a moment.
void time_chart_mark(time_chart &chart, const char *style, double time_s, const std::string &tip);

// A level line across the whole chart.
void time_chart_level(time_chart &chart, const char *style, double value);

// The whole element. in: what the chart shows, for those who cannot see it.
std::string time_chart_svg(const time_chart &chart, const std::string &label);

#endif // CLIENT_REPORT_TIME_CHART_H
