// The usage chart: daily download and upload as stacked bars against a megabyte
// axis, and, when the period has a volume limit, the period's running total
// against that limit on a second axis. PNG or SVG, drawn with cairo.
#ifndef KVARD_TMCTL_CHART_H
#define KVARD_TMCTL_CHART_H

#include <cstdint>
#include <string>
#include <vector>

namespace tmctl {

struct ChartDay {
    int32_t start = 0;  // local midnight of the day
    uint64_t download = 0, upload = 0;  // bytes
};

struct ChartInput {
    std::vector<ChartDay> days;  // oldest first
    uint64_t limit = 0;          // the period's volume limit in bytes; 0 for none
    bool limitCountsUpload = true;  // the limit counts upload and download, or download only
    int32_t periodStart = 0;     // start of the monthly period; 0 when not known
    std::string title;
};

// Where things land on the picture, so that a reader (and a test) can find
// them: the plot area and the scales of both axes.
struct ChartLayout {
    int width = 0, height = 0;
    double left = 0, right = 0, top = 0, bottom = 0;  // the plot area
    double dailyMax = 0;    // MB at the top of the left axis
    double runningMax = 0;  // MB at the top of the right axis (0: no right axis)
    double slot = 0;        // width of one day's slot
    double BarCentre(size_t day) const { return left + slot * (double(day) + 0.5); }
    double DailyY(double mb) const { return bottom - (bottom - top) * mb / dailyMax; }
    double RunningY(double mb) const { return bottom - (bottom - top) * mb / runningMax; }
};

ChartLayout chartLayout(const ChartInput &in);
// Writes FILE as PNG or SVG, chosen by its ending (.png, .svg). 0 done, or 1 with *error.
int drawChart(const ChartInput &in, const std::string &path, std::string *error);

// Colours (RGB 0-255), for the legend and for tests that sample the picture.
struct ChartColour { int r, g, b; };
inline constexpr ChartColour kChartDownload = {31, 119, 180}, kChartUpload = {255, 127, 14},
                             kChartLimit = {214, 39, 40}, kChartRunning = {60, 60, 60};

}  // namespace tmctl

#endif
