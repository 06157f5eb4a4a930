#include "tools/tmctl/chart.h"

#include <cairo-svg.h>
#include <cairo.h>
#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>

namespace tmctl {
namespace {

constexpr int kWidth = 960, kHeight = 440;
constexpr double kMB = 1000000.0;

// The smallest of 1, 2, 5 times a power of ten that splits max into at most five steps.
double TickStep(double max)
{
    double power = std::pow(10.0, std::floor(std::log10(max / 5.0)));
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (max / (m * power) <= 5.0) return m * power;
    return 10.0 * power;
}
// max rounded up to a whole number of steps, and never below 1 MB.
double AxisTop(double max)
{
    max = std::max(max, 1.0);
    double step = TickStep(max);
    return std::ceil(max / step) * step;
}

std::string Number(double mb)
{
    char out[32];
    snprintf(out, sizeof out, mb >= 100 || mb == std::floor(mb) ? "%.0f" : "%.1f", mb);
    return out;
}

std::string Local(int32_t t, const char *format)
{
    time_t v = t;
    struct tm tm;
    char out[32];
    strftime(out, sizeof out, format, localtime_r(&v, &tm));
    return out;
}

// The bytes that count against the limit on each day from the period's start on, added up.
std::vector<double> RunningTotals(const ChartInput &in)
{
    std::vector<double> running;
    double sum = 0;
    for (const ChartDay &d : in.days) {
        if (in.periodStart != 0 && d.start < in.periodStart) {
            running.push_back(-1);
            continue;
        }
        sum += double(d.download + (in.limitCountsUpload ? d.upload : 0)) / kMB;
        running.push_back(sum);
    }
    return running;
}

void Colour(cairo_t *cr, ChartColour c) { cairo_set_source_rgb(cr, c.r / 255.0, c.g / 255.0, c.b / 255.0); }

void Text(cairo_t *cr, double x, double y, const std::string &text, double alignX)
{
    cairo_text_extents_t e;
    cairo_text_extents(cr, text.c_str(), &e);
    cairo_move_to(cr, x - e.width * alignX - e.x_bearing, y);
    cairo_show_text(cr, text.c_str());
}

void Draw(cairo_t *cr, const ChartInput &in, const ChartLayout &l)
{
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_paint(cr);
    cairo_select_font_face(cr, "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, 12);

    // Grid and left axis: megabytes per day.
    double step = TickStep(l.dailyMax);
    cairo_set_line_width(cr, 1);
    for (double mb = 0; mb <= l.dailyMax + step / 2; mb += step) {
        double y = std::round(l.DailyY(mb)) + 0.5;
        cairo_set_source_rgb(cr, 0.88, 0.88, 0.88);
        cairo_move_to(cr, l.left, y);
        cairo_line_to(cr, l.right, y);
        cairo_stroke(cr);
        cairo_set_source_rgb(cr, 0.2, 0.2, 0.2);
        Text(cr, l.left - 6, y + 4, Number(mb), 1.0);
    }
    cairo_save(cr);
    cairo_translate(cr, 16, (l.top + l.bottom) / 2);
    cairo_rotate(cr, -M_PI / 2);
    Text(cr, 0, 0, "MB per day (1 MB = 1,000,000 bytes)", 0.5);
    cairo_restore(cr);

    // The bars: download below, upload on top.
    double barWidth = std::max(1.0, l.slot * 0.7);
    for (size_t i = 0; i < in.days.size(); i++) {
        double x = l.BarCentre(i) - barWidth / 2;
        double down = double(in.days[i].download) / kMB, up = double(in.days[i].upload) / kMB;
        Colour(cr, kChartDownload);
        cairo_rectangle(cr, x, l.DailyY(down), barWidth, l.bottom - l.DailyY(down));
        cairo_fill(cr);
        Colour(cr, kChartUpload);
        cairo_rectangle(cr, x, l.DailyY(down + up), barWidth, l.DailyY(down) - l.DailyY(down + up));
        cairo_fill(cr);
    }

    // Day labels under the axis, at most about sixteen of them.
    size_t every = std::max<size_t>(1, (in.days.size() + 15) / 16);
    cairo_set_source_rgb(cr, 0.2, 0.2, 0.2);
    for (size_t i = 0; i < in.days.size(); i += every) {
        Text(cr, l.BarCentre(i), l.bottom + 16, Local(in.days[i].start, "%d"), 0.5);
        if (i == 0 || Local(in.days[i].start, "%d") == "01" || i < every)
            Text(cr, l.BarCentre(i), l.bottom + 30, Local(in.days[i].start, "%b %Y"), 0.5);
    }
    cairo_set_source_rgb(cr, 0.2, 0.2, 0.2);
    cairo_move_to(cr, l.left, l.bottom + 0.5);
    cairo_line_to(cr, l.right, l.bottom + 0.5);
    cairo_stroke(cr);

    // The period's start, where it falls among the days shown.
    for (size_t i = 0; in.periodStart != 0 && i < in.days.size(); i++) {
        if (in.days[i].start + 86400 <= in.periodStart || in.days[i].start > in.periodStart) continue;
        double x = l.left + l.slot * (double(i) + double(in.periodStart - in.days[i].start) / 86400.0);
        double dash[] = {4, 3};
        cairo_set_dash(cr, dash, 2, 0);
        cairo_set_source_rgb(cr, 0.45, 0.45, 0.45);
        cairo_move_to(cr, x, l.top);
        cairo_line_to(cr, x, l.bottom);
        cairo_stroke(cr);
        cairo_set_dash(cr, nullptr, 0, 0);
        Text(cr, x + 4, l.top + 12, "period start " + Local(in.periodStart, "%d %b %H:%M"), 0.0);
    }

    // Right axis: the period's running total against the limit.
    if (l.runningMax > 0) {
        double rstep = TickStep(l.runningMax);
        cairo_set_source_rgb(cr, 0.2, 0.2, 0.2);
        for (double mb = 0; mb <= l.runningMax + rstep / 2; mb += rstep)
            Text(cr, l.right + 6, l.RunningY(mb) + 4, Number(mb), 0.0);
        cairo_save(cr);
        cairo_translate(cr, kWidth - 14, (l.top + l.bottom) / 2);
        cairo_rotate(cr, M_PI / 2);
        Text(cr, 0, 0, "MB in the period", 0.5);
        cairo_restore(cr);

        std::vector<double> running = RunningTotals(in);
        Colour(cr, kChartRunning);
        cairo_set_line_width(cr, 2);
        bool drawing = false;
        for (size_t i = 0; i < running.size(); i++) {
            if (running[i] < 0) continue;
            double x = l.BarCentre(i), y = l.RunningY(running[i]);
            drawing ? cairo_line_to(cr, x, y) : cairo_move_to(cr, x, y);
            drawing = true;
        }
        cairo_stroke(cr);

        double y = std::round(l.RunningY(double(in.limit) / kMB)) + 0.5;
        Colour(cr, kChartLimit);
        cairo_set_line_width(cr, 2);
        cairo_move_to(cr, l.left, y);
        cairo_line_to(cr, l.right, y);
        cairo_stroke(cr);
        // The label on a white ground, so that bars behind it do not hide it.
        std::string label = "limit " + Number(double(in.limit) / kMB) + " MB";
        cairo_text_extents_t e;
        cairo_text_extents(cr, label.c_str(), &e);
        cairo_set_source_rgb(cr, 1, 1, 1);
        cairo_rectangle(cr, l.right - 8 - e.width, y - 20, e.width + 8, 15);
        cairo_fill(cr);
        Colour(cr, kChartLimit);
        Text(cr, l.right - 4, y - 8, label, 1.0);
    }

    // Title and legend.
    cairo_set_source_rgb(cr, 0, 0, 0);
    cairo_set_font_size(cr, 14);
    Text(cr, l.left, 22, in.title, 0.0);
    cairo_set_font_size(cr, 12);
    double x = l.left + 380;
    struct { ChartColour c; const char *name; bool line; } keys[] = {
        {kChartDownload, "download", false}, {kChartUpload, "upload", false},
        {kChartRunning, "period total", true}, {kChartLimit, "limit", true}};
    for (const auto &k : keys) {
        if (k.line && l.runningMax == 0) continue;
        Colour(cr, k.c);
        k.line ? cairo_rectangle(cr, x, 15, 14, 3) : cairo_rectangle(cr, x, 9, 14, 14);
        cairo_fill(cr);
        cairo_set_source_rgb(cr, 0.2, 0.2, 0.2);
        Text(cr, x + 19, 21, k.name, 0.0);
        x += 110;
    }
}

}  // namespace

ChartLayout chartLayout(const ChartInput &in)
{
    ChartLayout l;
    l.width = kWidth;
    l.height = kHeight;
    l.left = 70;
    l.right = kWidth - 70;
    l.top = 40;
    l.bottom = kHeight - 50;
    double most = 0;
    for (const ChartDay &d : in.days) most = std::max(most, double(d.download + d.upload) / kMB);
    l.dailyMax = AxisTop(most * 1.05);
    if (in.limit != 0) {
        std::vector<double> running = RunningTotals(in);
        double top = double(in.limit) / kMB;
        for (double r : running) top = std::max(top, r);
        l.runningMax = AxisTop(top * 1.1);
    }
    l.slot = (l.right - l.left) / double(std::max<size_t>(1, in.days.size()));
    return l;
}

int drawChart(const ChartInput &in, const std::string &path, std::string *error)
{
    auto ends = [&](const char *suffix) {
        size_t n = strlen(suffix);
        return path.size() > n && path.compare(path.size() - n, n, suffix) == 0;
    };
    bool svg = ends(".svg");
    if (!svg && !ends(".png")) {
        *error = "'" + path + "': the chart is written as .png or .svg";
        return 1;
    }
    ChartLayout l = chartLayout(in);
    cairo_surface_t *surface = svg ? cairo_svg_surface_create(path.c_str(), l.width, l.height)
                                   : cairo_image_surface_create(CAIRO_FORMAT_RGB24, l.width, l.height);
    if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) {
        *error = path + ": " + cairo_status_to_string(cairo_surface_status(surface));
        cairo_surface_destroy(surface);
        return 1;
    }
    cairo_t *cr = cairo_create(surface);
    Draw(cr, in, l);
    cairo_destroy(cr);
    // A PNG is written from the finished drawing; an SVG is written as it is drawn, and finishing flushes it.
    cairo_status_t status = svg ? CAIRO_STATUS_SUCCESS : cairo_surface_write_to_png(surface, path.c_str());
    cairo_surface_finish(surface);
    if (status == CAIRO_STATUS_SUCCESS) status = cairo_surface_status(surface);
    cairo_surface_destroy(surface);
    // The font machinery keeps caches for the life of the process; one picture is all a run draws.
    cairo_debug_reset_static_data();
    FcFini();
    if (status != CAIRO_STATUS_SUCCESS) {
        *error = path + ": " + cairo_status_to_string(status);
        return 1;
    }
    return 0;
}

}  // namespace tmctl
