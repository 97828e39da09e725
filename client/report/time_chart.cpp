#include "client/report/time_chart.h"

#include "client/report/figures.h"
#include "client/report/html_text.h"

#include <algorithm>
#include <cmath>

// Horizontal positions are in per cent of the plot, so that text keeps its size on any screen.
// Vertical ones are in pixels, with these margins around the plot.
static constexpr double kTop = 10, kBottom = 26;

// Of axis labels and ticks, in pixels from the plot.
static constexpr double kTickLength = 4, kMomentBaseline = 18, kValueBaseline = 4;

// The least extent of an axis, so that no scale divides by zero.
static constexpr double kLeastExtent = 1e-3;

// Each bar extends this far under the next one. Rounded positions would leave hairlines.
static constexpr double kOverlap = 0.02;

// A narrow screen has room for this many labels of the time axis.
static constexpr int kMomentsNarrow = 5;

static double x_of(const time_chart &chart, double time_s)
{
    return 100 * std::clamp(time_s / chart.duration_s, 0.0, 1.0);
}

static double y_of(const time_chart &chart, double value)
{
    const double part = std::clamp((value - chart.low) / (chart.high - chart.low), 0.0, 1.0);
    return kTop + (1 - part) * chart.height;
}

// returns: the smallest of 1, 2 and 5 times a power of ten that is not below the value
static double round_step(double least)
{
    const double power = std::pow(10, std::floor(std::log10(least)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (factor * power >= least * 0.999) {
            return factor * power;
        }
    }
    return 10 * power;
}

static double time_step(double duration_s)
{
    const double least = duration_s / 10;
    for (const double step : {1.0, 2.0, 5.0, 10.0, 15.0, 30.0, 60.0, 120.0, 300.0, 600.0, 900.0,
                              1800.0, 3600.0, 7200.0}) {
        if (step >= least) {
            return step;
        }
    }
    return round_step(least);
}

static void add_line(time_chart &chart, const char *style, double x1, double y1, double x2,
                     double y2)
{
    chart.body +=
        format_text("<line class=\"%s\" x1=\"%.2f%%\" y1=\"%.1f\" x2=\"%.2f%%\" y2=\"%.1f\"/>\n",
                    style, x1, y1, x2, y2);
}

// returns: a time in whole seconds
static std::string moment_text(double time_s)
{
    std::string text = duration_text(time_s);
    return text.substr(0, text.size() - 2); // without the tenths
}

static void draw_time_axis(time_chart &chart)
{
    const double bottom = kTop + chart.height;
    const double step = time_step(chart.duration_s);
    const int moments = static_cast<int>(chart.duration_s / step) + 1;
    const int distance_narrow = (moments + kMomentsNarrow - 1) / kMomentsNarrow;
    for (int i = 0; i < moments; i++) {
        const double x = x_of(chart, i * step);
        add_line(chart, "grid", x, kTop, x, bottom + kTickLength);
        chart.body += format_text("<text%s x=\"%.2f%%\" y=\"%.1f\" text-anchor=\"middle\">",
                                  i % distance_narrow == 0 ? "" : " class=\"dense\"", x,
                                  bottom + kMomentBaseline) +
                      moment_text(i * step) + "</text>\n";
    }
    add_line(chart, "axis", 0, bottom, 100, bottom);
}

time_chart time_strip_open(double duration_s, double height)
{
    time_chart chart = {std::max(duration_s, kLeastExtent), 0, 1, height, ""};
    draw_time_axis(chart);
    return chart;
}

time_chart time_chart_open(double duration_s, double low, double high, double height)
{
    const double step = round_step(std::max(high - low, kLeastExtent) / 4);
    time_chart chart = {std::max(duration_s, kLeastExtent), std::floor(low / step) * step,
                        std::ceil(high / step) * step, height, ""};
    chart.high = std::max(chart.high, chart.low + step);
    for (double value = chart.low; value <= chart.high + step / 2; value += step) {
        const double y = y_of(chart, value);
        add_line(chart, "grid", 0, y, 100, y);
        chart.body += format_text("<text x=\"-8\" y=\"%.1f\" text-anchor=\"end\">%g</text>\n",
                                  y + kValueBaseline, std::round(value / step) * step + 0.0);
    }
    draw_time_axis(chart);
    return chart;
}

void time_chart_bar(time_chart &chart, const char *style, double begin_s, double end_s, double low,
                    double high, const std::string &tip)
{
    const double x = x_of(chart, begin_s);
    const double y = y_of(chart, high);
    const double width = std::max(x_of(chart, end_s) - x, 0.1) + kOverlap;
    const double height = std::max(y_of(chart, low) - y, 1.0);
    chart.body += format_text("<rect class=\"%s\" x=\"%.2f%%\" y=\"%.2f\" width=\"%.2f%%\" "
                              "height=\"%.2f\">",
                              style, x, y, width, height) +
                  "<title>" + html_text(tip) + "</title></rect>\n";
}

void time_chart_mark(time_chart &chart, const char *style, double time_s, const std::string &tip)
{
    const double x = x_of(chart, time_s);
    chart.body +=
        format_text("<line class=\"%s\" x1=\"%.2f%%\" y1=\"%.1f\" x2=\"%.2f%%\" y2=\"%.1f\">",
                    style, x, kTop, x, kTop + chart.height) +
        "<title>" + html_text(tip) + "</title></line>\n";
}

void time_chart_level(time_chart &chart, const char *style, double value)
{
    const double y = y_of(chart, value);
    add_line(chart, style, 0, y, 100, y);
}

std::string time_chart_svg(const time_chart &chart, const std::string &label)
{
    return format_text("<div class=\"chart\"><svg height=\"%.0f\" role=\"img\" aria-label=\"",
                       kTop + chart.height + kBottom) +
           html_text(label) + "\">\n" + chart.body + "</svg></div>\n";
}
