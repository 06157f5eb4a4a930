#include "history/tmtotals.h"

#include "core/tmcore.h"
#include "history/tmcalendar.h"
#include "history/tmstat.h"
#include "history/tmwrap.h"

void TmAddWhole(const TmTotals &t, const TmRecord &r)
{
    *t.tx += r.tx;
    *t.rx += r.rx;
    *t.time = TmWrapAdd(*t.time, r.tUsed);
}

void TmAddPart(const TmTotals &t, const TmRecord &r, int32_t part)
{
    int32_t len = TmWrapSub(r.tEnd, r.tStart);
    *t.tx = TmShareU64(*t.tx, r.tx, part, len);
    *t.rx = TmShareU64(*t.rx, r.rx, part, len);
    *t.time = TmShareI32(*t.time, r.tUsed, part, len);
}

// While a manual reset is in force, a record that straddles a bound adds
// nothing: its figures before the reset were zeroed only if it began after
// the period's start.
void TmAddFrom(const TmTotals &t, const TmRecord &r, int32_t from)
{
    if (r.tStart >= from) TmAddWhole(t, r);
    else if (from >= r.tEnd) return;
    else if (tmCore.exportData.manualResetTime == 0) TmAddPart(t, r, TmWrapSub(r.tEnd, from));
}

void TmAddBetween(const TmTotals &t, const TmRecord &r, int32_t from, int32_t to)
{
    if (from >= r.tEnd || to <= r.tStart) return;
    if (r.tStart >= from && r.tEnd <= to) {
        TmAddWhole(t, r);
        return;
    }
    if (tmCore.exportData.manualResetTime != 0) return;
    int32_t start = r.tStart < from ? from : r.tStart;
    int32_t end = r.tEnd > to ? to : r.tEnd;
    TmAddPart(t, r, TmWrapSub(end, start));
}

TmPeriodBounds TmPeriodBoundsAt(int32_t now)
{
    TmPeriodBounds b;
    b.L = tmCore.exportData.lastResetTime;
    int32_t midnight = TmDayStart(now);
    b.todayFrom = TmTodayStart(midnight, b.L);
    b.yesterdayFrom = TmYesterdayStart(midnight, b.L);
    b.yesterdayTo = midnight;
    b.weekFrom = TmThisWeekStart(midnight, b.L);
    return b;
}

TmPeriodGroups TmZeroPeriodGroups(void)
{
    TmExportData &ed = tmCore.exportData;
    ed.monthlyTx = ed.monthlyRx = ed.todayTx = ed.todayRx = ed.yesterdayTx = ed.yesterdayRx = 0;
    ed.weekTx = ed.weekRx = ed.lastMonthTailTx = ed.lastMonthTailRx = ed.hDayTx = ed.hDayRx = 0;
    ed.monthlyTime = ed.todayTime = ed.yesterdayTime = ed.weekTime = ed.lastMonthTailTime = ed.hDayTime = 0;
    TmPeriodGroups g;
    g.month = {&ed.monthlyTx, &ed.monthlyRx, &ed.monthlyTime};
    g.today = {&ed.todayTx, &ed.todayRx, &ed.todayTime};
    g.yesterday = {&ed.yesterdayTx, &ed.yesterdayRx, &ed.yesterdayTime};
    g.week = {&ed.weekTx, &ed.weekRx, &ed.weekTime};
    g.tail = {&ed.lastMonthTailTx, &ed.lastMonthTailRx, &ed.lastMonthTailTime};
    g.halfDay = {&ed.hDayTx, &ed.hDayRx, &ed.hDayTime};
    return g;
}

void TmAddToPeriods(const TmPeriodGroups &g, const TmPeriodBounds &b, const TmRecord &r, int withMonth)
{
    if (withMonth) TmAddFrom(g.month, r, b.L);
    TmAddFrom(g.today, r, b.todayFrom);
    TmAddBetween(g.yesterday, r, b.yesterdayFrom, b.yesterdayTo);
    TmAddFrom(g.week, r, b.weekFrom);
}
