// tmctl config, the installed tool beside the daemon in the box: every
// setting with values kvard reads exactly and values it would misread, all or
// nothing on the stored object, the update datagram and each answer kvard can
// give to it, and the period start kvard publishes after a change of the reset.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test;
using nlohmann::json;

CommandResult Tmctl(Sandbox &box, std::vector<std::string> args)
{
    args.insert(args.begin(), {"exec", box.Dir(), "--", "tmctl"});
    return box.Runner(args);
}
CommandResult Set(Sandbox &box, std::vector<std::string> args)
{
    args.insert(args.begin(), {"config", "set"});
    return Tmctl(box, args);
}
std::string Settings(const Sandbox &box) { return box.ReadFile("var/lib/kvard/mdm/2888").value_or("(none)"); }
size_t SettingsLines(const Sandbox &box)  // the daemon prints one each time it reads the settings
{
    std::string out = box.Stdout();
    size_t n = 0;
    for (size_t at = 0; (at = out.find("traffic_on =", at)) != std::string::npos; at++) n++;
    return n;
}
bool Has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// A box whose program is no daemon: the store is seeded, and nothing listens on the port.
SandboxOptions Idle() { return {.time = "2026-03-10 10:00:00", .zone = meter::kZone, .command = {"/bin/sleep", "120"}}; }

TEST(TmctlConfig, values_kvard_would_misread_are_refused_naming_field_value_and_accepted_form_and_nothing_is_written)
{
    Sandbox box(Idle());
    box.Start();
    // A store with a volume and a time limit in force, so that mark is checked against both.
    box.UpdateObject("2888", {{"volume_monthly_limit", "1000"}, {"timecontrl", "false"}});
    const std::string before = Settings(box);
    const struct {
        std::vector<std::string> args;
        std::vector<std::string> says;   // each in the one error line of the field
    } rows[] = {
        {{"volume_monthly_limit=unlimited"},
         {"volume_monthly_limit: 'unlimited' is not a number of megabytes (0 to 9223372036854)",
          "set contrl_type=\"No limit\" or volcontrl=false"}},
        {{"volume_monthly_limit=50GB"},
         {"volume_monthly_limit: '50GB' is not a whole number of megabytes; for 50 GB write 50000, or use limit=50GB"}},
        {{"volume_monthly_limit=-5"}, {"'-5' is not a number of megabytes"}},
        {{"volume_monthly_limit= 50"}, {"' 50' is not a number of megabytes"}},
        {{"volume_monthly_limit=9223372036855"}, {"'9223372036855' is out of range: megabytes from 0 to 9223372036854"}},
        {{"conntime_monthly_limit=596524"}, {"conntime_monthly_limit: '596524' is out of range: hours from 0 to 596523"}},
        {{"conntime_monthly_limit=40h"}, {"'40h' is not a whole number of hours; for 40h write 40, or use time-limit=40h"}},
        {{"round_up_volume=2147483648"}, {"round_up_volume: '2147483648' is not a number of bytes (0 to 2147483647"}},
        {{"day=0"}, {"day: '0' is not a day of the month (1 to 31"}},
        {{"day=32"}, {"day: '32' is not a day of the month"}},
        {{"hour=24"}, {"hour: '24' is not an hour (0 to 23; 0 to 11 with ampm_sel=true)"}},
        {{"hour=12", "ampm_sel=true"}, {"hour: '12' with ampm_sel=true is read as 24:00"}},
        {{"min=60"}, {"min: '60' is not a minute (0 to 59)"}},
        {{"min=5x"}, {"min: '5x' is not a minute"}},
        {{"traffic_on=maybe"}, {"traffic_on: 'maybe' is not a switch: true or false"}},
        {{"block_on="}, {"block_on: '' is not a switch"}},
        {{"contrl_type=upload"}, {"contrl_type: 'upload' is not a limit type: \"No limit\" (none), \"Download only\""}},
        {{"mark=1000"}, {"mark: '1000' is not below the volume limit of 1000 MB"}},
        {{"mark=5GB"}, {"mark: '5GB' is not a whole number of megabytes; for 5 GB write 5000, or use warn=5GB"}},
        {{"limit=50XB"}, {"limit: '50XB' is not a size such as 800MB, 50GB or 1.5TB"}},
        {{"limit=2GiB"}, {"limit: '2GiB' is in binary units"}},
        {{"limit=0.0005GB"}, {"limit: '0.0005GB' is not a whole number of megabytes"}},
        {{"timecontrl=on", "conntime_monthly_limit=24", "mark=24"},
         {"mark: '24' is not below the connection-time limit of 24 hours", "(1 problem)"}},
        {{"timecontrl=on", "conntime_monthly_limit=24", "mark=2000"},
         {"mark: '2000' is not below the connection-time limit", "mark: '2000' is not below the volume limit of 1000 MB"}},
        {{"warn=2x"}, {"warn: '2x' is not a size such as 5GB or a number of hours such as 2h"}},
        {{"reset=15 25:00"}, {"reset: '15 25:00' is not DAY or \"DAY HH:MM\""}},
        {{"reset=x 10:00"}, {"day (from reset=x 10:00): 'x' is not a day of the month"}},
        {{"warn=1GB"}, {"mark (from warn=1GB): '1000' is not below the volume limit of 1000 MB"}},
        {{"reset-time=7:3"}, {"reset-time: '7:3' is not a time HH:MM"}},
        {{"markStatus=0"}, {"markStatus: '0' is kvard's own output"}},
        {{"counter=a\nb"}, {"counter: 'a\nb' holds a control character"}},
        {{"volume=5"}, {"volume: is no setting"}},
        {{"day"}, {"day: needs a value"}},
        {{"day=5", "reset-day=6"}, {"day: '6' is a second value for day in this command (first '5')"}},
        // One good, one bad: neither is written.
        {{"day=15", "hour=99"}, {"hour: '99' is not an hour"}},
        // Every bad field is reported, not only the first.
        {{"min=99", "day=99", "led_on=2"}, {"min: '99'", "day: '99'", "led_on: '2'", "nothing written (3 problems)"}},
    };
    for (const auto &row : rows) {
        CommandResult r = Set(box, row.args);
        EXPECT_EQ(r.status, 2) << row.args[0] << "\n" << r.out;
        for (const std::string &s : row.says) EXPECT_TRUE(Has(r.out, "tmctl: " + s) || Has(r.out, s)) << s << "\n" << r.out;
        EXPECT_TRUE(Has(r.out, "tmctl: nothing written")) << r.out;
        EXPECT_EQ(Settings(box), before) << row.args[0] << ": the store file is byte for byte as it was";
    }

    // ampm_sel=true over an absent hour: kvard would reset at 00:00, not at noon.
    StoreObject noHour = box.ReadObject("2888").value();
    noHour.erase("hour");
    box.WriteObject("2888", noHour);
    const std::string withoutHour = Settings(box);
    CommandResult r = Set(box, {"ampm_sel=true"});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(Has(r.out, "tmctl: ampm_sel: 'true' needs an hour: with no hour kvard resets at 00:00, not 12:00")) << r.out;
    EXPECT_EQ(Settings(box), withoutHour);
}

// tmctl on the host, on the store DIR, with ENV before it; stdout and stderr together.
CommandResult Host(const std::string &dir, const std::string &args, const std::string &env = "")
{
    std::string cmd = "env KVARD_MDM_DIR='" + dir + "' " + env + " '" + InstalledPrefix() + "/bin/tmctl' " + args + " 2>&1";
    CommandResult result;
    FILE *pipe = popen(cmd.c_str(), "r");
    char buffer[4096];
    for (size_t n; pipe && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.out.append(buffer, n);
    int status = pipe ? pclose(pipe) : -1;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

TEST(TmctlConfig, no_store_no_settings_object_or_a_held_lock_fail_with_exit_1_and_create_nothing)
{
    Sandbox box(Idle());
    const std::string store = box.Path("var/lib/kvard/mdm"), missing = box.Path("nothing-here");
    for (const char *args : {"config show", "config set day=2"}) {
        CommandResult r = Host(missing, args);
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_EQ(r.out, "tmctl: no store at " + missing + " (is KVARD_MDM_DIR right?)\n");
    }
    EXPECT_FALSE(box.ReadFile("nothing-here").has_value() || access(missing.c_str(), F_OK) == 0) << "not created";

    // Another process holds the store lock for longer than tmctl waits.
    int lock = open((store + "/.lock").c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    const std::string before = Settings(box);
    for (const char *args : {"config set day=2", "config show"}) {
        CommandResult held = Host(store, args, "KVARD_MDM_LOCK_MAX_MS=200");
        EXPECT_EQ(held.status, 1) << args << "\n" << held.out;
        EXPECT_TRUE(Has(held.out, "tmctl: the store lock " + store + "/.lock is held by another process")) << held.out;
    }
    close(lock);
    EXPECT_EQ(Settings(box), before);

    box.RemoveFile("var/lib/kvard/mdm/2888");
    for (const char *args : {"config show", "config set day=2"}) {
        CommandResult r = Host(store, args);
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_EQ(r.out, "tmctl: object 2888 (MDMOID_ORNA_TRAFFIC_METER) is not in the store " + store + "\n");
    }
    EXPECT_FALSE(box.ReadFile("var/lib/kvard/mdm/2888").has_value()) << "set does not create the settings";
}

TEST(TmctlConfig, good_values_and_aliases_are_written_in_the_form_kvard_compares_with)
{
    Sandbox box(Idle());
    box.Start();
    const struct {
        std::vector<std::string> args;
        StoreObject written;   // these fields afterwards
        std::string shown;     // in the output
    } rows[] = {
        {{"traffic_on=OFF", "led_on=Yes", "block_on=1", "volcontrl=on", "timecontrl=No"},
         {{"traffic_on", "false"}, {"led_on", "true"}, {"block_on", "true"}, {"volcontrl", "true"}, {"timecontrl", "false"}},
         "traffic_on: 'true' -> 'false'"},
        {{"contrl_type=BOTH"}, {{"contrl_type", "Download & Upload"}}, "contrl_type: 'No limit' -> 'Download & Upload'"},
        {{"contrl_type=download"}, {{"contrl_type", "Download only"}}, ""},
        {{"contrl_type=No Limit"}, {{"contrl_type", "No limit"}}, ""},
        {{"limit=50GB", "warn=5GB"}, {{"volume_monthly_limit", "50000"}, {"mark", "5000"}},
         "volume_monthly_limit: '0' -> '50000'  (50GB = 50,000 MB)"},
        {{"limit=1.5TB"}, {{"volume_monthly_limit", "1500000"}}, "(1.5TB = 1,500,000 MB)"},
        {{"limit=800 mb", "mark=0"}, {{"volume_monthly_limit", "800"}, {"mark", "0"}}, ""},
        {{"volume_monthly_limit=9223372036854", "mark=0"}, {{"volume_monthly_limit", "9223372036854"}}, ""},
        {{"timecontrl=true", "time-limit=40h", "warn=2h", "volume_monthly_limit=1000"},
         {{"conntime_monthly_limit", "40"}, {"mark", "2"}}, "mark: '0' -> '2'  (2h = 2 hours)"},
        {{"conntime_monthly_limit=596523", "timecontrl=false"}, {{"conntime_monthly_limit", "596523"}}, ""},
        {{"reset=15 23:30"}, {{"day", "15"}, {"hour", "23"}, {"min", "30"}, {"ampm_sel", "false"}}, "day: '1' -> '15'"},
        {{"hour=11", "ampm_sel=true"}, {{"hour", "11"}, {"ampm_sel", "true"}}, ""},
        {{"hour=0"}, {{"hour", "0"}, {"ampm_sel", "true"}}, ""},   // noon
        {{"reset-time=07:05", "reset-day=31"}, {{"hour", "7"}, {"min", "5"}, {"ampm_sel", "false"}, {"day", "31"}}, ""},
        {{"reset=1 "}, {{"day", "1"}, {"hour", "7"}}, ""},
        {{"round_up_volume=2147483647", "counter=42 sessions"}, {{"round_up_volume", "2147483647"}, {"counter", "42 sessions"}}, ""},
        {{"day=1"}, {{"day", "1"}}, "no field changes"},
    };
    for (const auto &row : rows) {
        std::vector<std::string> args = {"--no-notify"};
        args.insert(args.end(), row.args.begin(), row.args.end());
        CommandResult r = Set(box, args);
        EXPECT_EQ(r.status, 0) << row.args[0] << "\n" << r.out;
        EXPECT_TRUE(Has(r.out, row.shown)) << r.out;
        EXPECT_TRUE(Has(r.out, "kvard not told (--no-notify)")) << r.out;
        StoreObject now = box.ReadObject("2888").value();
        for (const auto &[field, value] : row.written) EXPECT_EQ(now[field], value) << row.args[0] << ": " << field;
    }
    EXPECT_EQ(box.ReadObject("2888").value()["markStatus"], "0") << "fields not named stay";

    // --dry-run shows the change and writes nothing.
    const std::string before = Settings(box);
    CommandResult dry = Set(box, {"--dry-run", "day=20"});
    EXPECT_EQ(dry.status, 0) << dry.out;
    EXPECT_EQ(dry.out, "day: '1' -> '20'\nnothing written (--dry-run)\n");
    EXPECT_EQ(Settings(box), before);

    // Nothing listens: saved, and said so, with its own exit status.
    CommandResult saved = Set(box, {"day=3"});
    EXPECT_EQ(saved.status, 3) << saved.out;
    EXPECT_TRUE(Has(saved.out, "saved; kvard did not answer (nothing listens on 127.0.0.1:22724)")) << saved.out;
    EXPECT_EQ(box.ReadObject("2888").value()["day"], "3");
}

TEST(TmctlConfig, a_stored_value_kvard_misreads_is_shown_and_blocks_a_save_until_it_is_fixed)
{
    Sandbox box(Idle());
    box.Start();
    box.UpdateObject("2888", {{"volume_monthly_limit", "unlimited"}, {"contrl_type", "Download only"}, {"hour", "11"},
                              {"ampm_sel", "true"}, {"block_on", "true"}});
    CommandResult show = Tmctl(box, {"config", "show"});
    EXPECT_EQ(show.status, 0) << show.out;
    for (const char *line : {"volume_monthly_limit=unlimited", "limit 0 bytes (0 bytes)",
                             "! is not a number of megabytes", "hour=11", "-> resets at 23:00",
                             "the WAN is taken down at the limit", "1 problem: tmctl config set refuses"})
        EXPECT_TRUE(Has(show.out, line)) << line << "\n" << show.out;

    CommandResult js = Tmctl(box, {"config", "show", "--json"});
    ASSERT_EQ(js.status, 0) << js.out;
    json j = json::parse(js.out);
    EXPECT_EQ(j["fields"].size(), 16u);
    EXPECT_EQ(j["fields"]["volume_monthly_limit"]["value"], "unlimited");
    EXPECT_FALSE(j["fields"]["volume_monthly_limit"]["problem"].is_null());
    EXPECT_TRUE(j["fields"]["day"]["problem"].is_null());
    EXPECT_EQ(j["config"]["limitVol"], 0) << "what kvard's own reader makes of it";
    EXPECT_EQ(j["config"]["resetHour"], 23);
    EXPECT_EQ(j["config"]["limitType"], 1);
    EXPECT_EQ(j["reset"], json::parse(R"({"day":1,"time":"23:00"})"));
    EXPECT_EQ(j["problems"], 1);

    const std::string before = Settings(box);
    CommandResult refused = Set(box, {"day=2"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_TRUE(Has(refused.out, "volume_monthly_limit: 'unlimited' (in the store) is not a number of megabytes")) << refused.out;
    EXPECT_EQ(Settings(box), before);
    CommandResult fixed = Set(box, {"--no-notify", "day=2", "limit=50GB"});
    EXPECT_EQ(fixed.status, 0) << fixed.out;
    j = json::parse(Tmctl(box, {"config", "show", "--json"}).out);
    EXPECT_EQ(j["config"]["limitVol"], 50000000000ull);
    EXPECT_EQ(j["problems"], 0);
}

TEST(TmctlConfig, kvard_is_told_and_its_answer_reported_and_a_new_reset_day_moves_the_published_period_start)
{
    Sandbox box(meter::At("2026-03-10 10:00:00"));
    meter::Go(box, {{"eth0.1", 0, 0}});
    ASSERT_TRUE(box.WaitStdout("traffic_on ="));
    EXPECT_EQ(box.ReadObject("2889").value()["start_data_time"], meter::Asc(meter::T("2026-03-01 00:00:00")));

    // A mixed command: nothing written, no datagram (kvard reads no settings).
    const std::string before = Settings(box);
    size_t reads = SettingsLines(box);
    CommandResult mixed = Set(box, {"day=5", "limit=unlimited"});
    EXPECT_EQ(mixed.status, 2) << mixed.out;
    EXPECT_EQ(Settings(box), before);
    ASSERT_EQ(box.Send(kHeartbeat, std::string("mark\0", 5)), 0);   // the daemon has handled all before it
    ASSERT_TRUE(box.WaitStdout("Heart Beat: mark"));
    EXPECT_EQ(SettingsLines(box), reads) << "no update datagram";

    CommandResult applied = Set(box, {"day=5", "--timeout=5000"});
    EXPECT_EQ(applied.status, 0) << applied.out;
    EXPECT_EQ(applied.out, "day: '1' -> '5'\napplied: kvard took the new settings\n");
    EXPECT_EQ(SettingsLines(box), reads + 1);
    EXPECT_EQ(box.ReadObject("2889").value()["start_data_time"], meter::Asc(meter::T("2026-03-05 00:00:00")));

    CommandResult later = Set(box, {"--timeout", "5000", "reset=12 06:30"});
    EXPECT_EQ(later.status, 0) << later.out;
    EXPECT_EQ(box.ReadObject("2889").value()["start_data_time"], meter::Asc(meter::T("2026-02-12 06:30:00")))
        << "the reset of March 12 is still to come";
}

TEST(TmctlConfig, with_the_clock_not_synchronised_a_moved_reset_is_answered_0_and_explained)
{
    Sandbox box(meter::At("2026-03-10 10:00:00"));
    box.UpdateObject("1045", {{"status", "Unsynchronized"}});
    meter::Go(box);
    CommandResult moved = Set(box, {"day=20"});
    EXPECT_EQ(moved.status, 3) << moved.out;
    EXPECT_TRUE(Has(moved.out, "saved; kvard answered 0: the clock is not synchronised (object 1045 status "
                               "'Unsynchronized')")) << moved.out;
    EXPECT_TRUE(Has(moved.out, "the period moves to the new reset moment once the clock is set")) << moved.out;
    EXPECT_EQ(box.ReadObject("2888").value()["day"], "20");

    // The reset moment as it was: kvard applies the rest at once.
    CommandResult other = Set(box, {"block_on=true"});
    EXPECT_EQ(other.status, 0) << other.out;
    EXPECT_TRUE(Has(other.out, "applied")) << other.out;
}

}  // namespace
