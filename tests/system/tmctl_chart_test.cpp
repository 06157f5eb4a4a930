// tmctl chart on a crafted image: twelve days of half-day records with known totals and a
// 5000 MB limit in the settings. The PNG is read back and sampled inside each bar, above it,
// and on the limit line, at the places the chart's layout gives for these totals; a wrong
// total moves the scale or a bar's top and shows as a wrong colour.
#include <cairo.h>
#include <sys/wait.h>

#include <cmath>
#include <fstream>

#include "tests/system/meter_util.h"
#include "tools/tmctl/chart.h"

namespace {

using namespace kvard::test::meter;
using tmctl::ChartColour;

constexpr uint64_t kMB = 1000000;

// `tmctl chart ARGS` with the box's store (or STORE) in the box's zone; the exit status, *err its stderr.
int Tmctl(const Sandbox &box, const std::string &args, std::string *err, const std::string &store = "")
{
    std::string errPath = box.Path("chart.err");
    std::string cmd = "env TZ=" + std::string(kZone) + " KVARD_MDM_DIR='" +
                      (store.empty() ? box.Path("var/lib/kvard/mdm") : store) + "' '" + InstalledPrefix() +
                      "/bin/tmctl' chart " + args + " >'" + box.Path("chart.out") + "' 2>'" + errPath + "'";
    int raw = std::system(cmd.c_str());
    std::ifstream in(errPath);
    *err = std::string(std::istreambuf_iterator<char>(in), {});
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

struct Png {
    cairo_surface_t *s;
    explicit Png(const std::string &path) : s(cairo_image_surface_create_from_png(path.c_str())) {}
    ~Png() { cairo_surface_destroy(s); }
    bool Ok() const { return cairo_surface_status(s) == CAIRO_STATUS_SUCCESS; }
    ChartColour At(double x, double y) const
    {
        const uint8_t *row = cairo_image_surface_get_data(s) + cairo_image_surface_get_stride(s) * int(y);
        uint32_t px = reinterpret_cast<const uint32_t *>(row)[int(x)];
        return {int(px >> 16 & 255), int(px >> 8 & 255), int(px & 255)};
    }
};
bool Same(ChartColour a, ChartColour b) { return a.r == b.r && a.g == b.g && a.b == b.b; }
std::string Name(ChartColour c) { return std::to_string(c.r) + "," + std::to_string(c.g) + "," + std::to_string(c.b); }

TEST(TmctlChart, bars_and_the_limit_line_stand_where_the_days_totals_put_them)
{
    Sandbox box(At("2026-03-12 18:00:00"));
    box.UpdateObject("2888", {{"contrl_type", "Both"}, {"volume_monthly_limit", "5000"}, {"mark", "500"}});
    // Day d of March: a morning of (d + 1) * 100 MB down and 10 MB up, an afternoon of 50 and 5;
    // the 12th has only its morning so far.
    tmctl::ChartInput want;
    want.limit = 5000 * kMB;
    want.periodStart = T("2026-03-01 00:00:00");
    Image image;
    uint32_t page = kHDayStart;
    for (int d = 0; d < 12; d++) {
        int32_t day = T("2026-03-" + std::string(d < 9 ? "0" : "") + std::to_string(d + 1) + " 00:00:00");
        image.Put(page++, {day, day + 43200, 10 * kMB, (d + 1) * 100 * kMB, 0});
        if (d < 11) image.Put(page++, {day + 43200, day + 86400, 5 * kMB, 50 * kMB, 0});
        want.days.push_back({day, (d + 1) * 100 * kMB + (d < 11 ? 50 : 0) * kMB, (d < 11 ? 15 : 10) * kMB});
    }
    image.WriteTo(box);
    std::string err, img = box.Path("sandbox/mtd.img"), at = " --at '2026-03-12 18:00:00'";
    ASSERT_EQ(Tmctl(box, "'" + img + "' -o '" + box.Path("c.png") + "' --days 12" + at, &err), 0) << err;
    ASSERT_EQ(Tmctl(box, "'" + img + "' -o '" + box.Path("c.svg") + "' --days 12" + at, &err), 0) << err;
    EXPECT_NE(box.ReadFile("c.svg").value_or("").find("<svg"), std::string::npos);

    Png png(box.Path("c.png"));
    ASSERT_TRUE(png.Ok());
    const tmctl::ChartLayout l = tmctl::chartLayout(want);
    EXPECT_EQ(cairo_image_surface_get_width(png.s), l.width);
    EXPECT_EQ(cairo_image_surface_get_height(png.s), l.height);
    EXPECT_EQ(l.runningMax, 10000) << "the period's 8525 MB and the limit on a 2000 MB grid";
    for (size_t i = 0; i < want.days.size(); i++) {
        SCOPED_TRACE("day " + std::to_string(i + 1));
        double x = l.BarCentre(i), down = double(want.days[i].download) / kMB, up = double(want.days[i].upload) / kMB;
        EXPECT_EQ(Name(png.At(x, l.DailyY(down) + 3)), Name(tmctl::kChartDownload)) << "inside the download bar";
        EXPECT_EQ(Name(png.At(x, l.DailyY(down + up) + 2)), Name(tmctl::kChartUpload)) << "the upload on top";
        ChartColour above = png.At(x - 3, l.DailyY(down + up) - 4);
        EXPECT_FALSE(Same(above, tmctl::kChartDownload) || Same(above, tmctl::kChartUpload)) << "above the bar";
    }
    // The limit line, in the gap before the second day's bar.
    EXPECT_EQ(Name(png.At(l.left + l.slot + 2, std::round(l.RunningY(5000)))), Name(tmctl::kChartLimit));

    // Bad requests: a picture format it cannot write, no output, a missing image, a store with no settings.
    struct { std::string args; int status; std::string store = ""; } bad[] = {
        {"'" + img + "' -o '" + box.Path("c.gif") + "'", 2},
        {"'" + img + "'", 2},
        {"'" + img + "' -o x.png --days 63", 2},
        {"'" + box.Path("missing.img") + "' -o '" + box.Path("m.png") + "'", 1},
        {"'" + img + "' -o '" + box.Path("m.png") + "'", 1, box.Path("no-store")},
    };
    for (const auto &b : bad) {
        EXPECT_EQ(Tmctl(box, b.args, &err, b.store), b.status) << b.args;
        EXPECT_EQ(err.rfind("tmctl: ", 0), 0u) << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    }
    EXPECT_EQ(Tmctl(box, "--help", &err), 0);
    EXPECT_EQ(box.ReadFile("chart.out").value_or("").rfind("usage: tmctl chart", 0), 0u);
}

}  // namespace
