// The command line every tmctl verb shares, against a running daemon in the
// box: --help and --version with no side effect, options as getopt_long takes
// them (--name=value, --name value, --), clear errors with exit status 2, and
// message names in any case and spelling.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test;

CommandResult Tmctl(Sandbox &box, std::vector<std::string> args)
{
    args.insert(args.begin(), {"exec", box.Dir(), "--", "tmctl"});
    return box.Runner(args);
}

struct Split {
    int status;
    std::string out, err;
};

// The installed tmctl on the host, on the box's store, with stdout and stderr apart.
Split Host(const Sandbox &box, const std::string &args)
{
    std::string out = box.Path("cli.out"), err = box.Path("cli.err");
    std::string cmd = "env KVARD_MDM_DIR='" + box.Path("var/lib/kvard/mdm") + "' '" + InstalledPrefix() +
                      "/bin/tmctl' " + args + " >'" + out + "' 2>'" + err + "'";
    int raw = std::system(cmd.c_str());
    auto slurp = [](const std::string &path) {
        std::ifstream in(path);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(out), slurp(err)};
}

// Every file of the store, by name, with its bytes.
std::map<std::string, std::string> Store(const Sandbox &box)
{
    std::map<std::string, std::string> files;
    for (const auto &e : std::filesystem::directory_iterator(box.Path("var/lib/kvard/mdm"))) {
        std::ifstream in(e.path());
        files[e.path().filename()] = std::string(std::istreambuf_iterator<char>(in), {});
    }
    return files;
}

size_t Lines(const std::string &s) { return std::count(s.begin(), s.end(), '\n'); }
// What the daemon printed between two looks at its stdout was only the second heartbeat of Settled().
bool OnlyTheMarker(const std::string &before, const std::string &after)
{
    std::string added = after.substr(before.size());
    return Lines(added) == 1 && added.rfind("Heart Beat: settled ", 0) == 0;
}

class TmctlCli : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        box_ = new Sandbox(meter::At("2026-03-10 10:00:00"));
        meter::Go(*box_, {{"eth0.1", 0, 0}});
    }
    static void TearDownTestSuite() { delete box_; }
    // Waits until the daemon has handled everything sent before, by a heartbeat it prints.
    static std::string Settled()
    {
        static int n = 0;
        std::string text = "settled " + std::to_string(++n);
        EXPECT_EQ(box_->Send(kHeartbeat, text + std::string(1, '\0')), 0);
        EXPECT_TRUE(box_->WaitStdout("Heart Beat: " + text));
        return box_->Stdout();
    }
    static Sandbox *box_;
};
Sandbox *TmctlCli::box_ = nullptr;

const std::vector<std::vector<std::string>> kVerbs = {
    {"send", "heartbeat", "--text", "x"}, {"raw", "2da5 0100 0000 0000"},  {"mdm", "set", "2888", "day=9"},
    {"flash", "decode", "/nonexistent"},  {"history", "/nonexistent"},      {"chart", "/nonexistent", "-o", "/tmp/c.png"},
    {"stats"},                            {"config", "set", "day=9"},
};

TEST_F(TmctlCli, help_and_version_of_every_verb_print_to_stdout_exit_0_and_touch_nothing)
{
    std::string version = Host(*box_, "--version").out;
    ASSERT_EQ(version.rfind("tmctl ", 0), 0u) << version;
    ASSERT_EQ(Lines(version), 1u);
    auto store = Store(*box_);
    std::string daemon = Settled();
    for (std::vector<std::string> words : kVerbs) {
        for (const char *option : {"--help", "--version"}) {
            // After the verb's own arguments, which would otherwise act.
            std::vector<std::string> args = words;
            args.push_back(option);
            CommandResult r = Tmctl(*box_, args);
            EXPECT_EQ(r.status, 0) << words[0] << " " << option << "\n" << r.out;
            if (std::string(option) == "--version")
                EXPECT_EQ(r.out, version) << words[0];
            else
                EXPECT_EQ(r.out.rfind("usage: tmctl " + words[0], 0), 0u) << words[0] << "\n" << r.out;
            std::string line;
            for (const std::string &w : args) line += "'" + w + "' ";
            Split h = Host(*box_, line);
            EXPECT_EQ(h.status, 0) << line;
            EXPECT_EQ(h.err, "") << line << ": stdout only";
            EXPECT_EQ(h.out, r.out) << line;
        }
    }
    EXPECT_EQ(Store(*box_), store) << "no store write";
    EXPECT_TRUE(OnlyTheMarker(daemon, Settled())) << "no datagram reached the daemon";
}

TEST_F(TmctlCli, options_take_their_value_joined_or_apart_and_double_dash_ends_them)
{
    for (std::vector<std::string> args : {
             std::vector<std::string>{"send", "--timeout=500", "heartbeat", "--text=joined"},
             {"send", "heartbeat", "--timeout", "500", "--text", "apart"},
             {"send", "--text", "-dash", "heartbeat"},
             {"send", "heartbeat", "--text=--double"},
         }) {
        CommandResult r = Tmctl(*box_, args);
        EXPECT_EQ(r.status, 0) << args[1] << "\n" << r.out;
        EXPECT_EQ(r.out, "0\n");
    }
    for (const char *text : {"joined", "apart", "-dash", "--double"})
        EXPECT_TRUE(box_->WaitStdout(std::string("Heart Beat: ") + text + "\n"));

    // After --, a word that starts with '-' is an operand, not an option.
    CommandResult operand = Tmctl(*box_, {"send", "--", "-1"});
    EXPECT_EQ(operand.status, 2);
    EXPECT_EQ(operand.out, "tmctl: send: unknown message code '-1' (try 'tmctl send --help')\n");
    CommandResult option = Tmctl(*box_, {"send", "-1"});
    EXPECT_EQ(option.status, 2);
    EXPECT_EQ(option.out, "tmctl: send: unknown option -1 (try 'tmctl send --help')\n");
    CommandResult counter = Tmctl(*box_, {"config", "set", "--no-notify", "--", "counter=-x"});
    EXPECT_EQ(counter.status, 0) << counter.out;
    EXPECT_EQ(box_->ReadObject("2888").value()["counter"], "-x");
}

TEST_F(TmctlCli, an_unknown_option_or_a_missing_value_is_one_line_with_exit_2_and_nothing_happens)
{
    auto store = Store(*box_);
    std::string daemon = Settled();
    const struct {
        std::vector<std::string> args;
        std::string line;
    } rows[] = {
        {{"send", "heartbeat", "--bogus"}, "tmctl: send: unknown option --bogus (try 'tmctl send --help')\n"},
        {{"send", "heartbeat", "--timeout"}, "tmctl: send: option --timeout needs a value (try 'tmctl send --help')\n"},
        {{"send", "heartbeat", "--timeout=soon"}, "tmctl: send: --timeout needs milliseconds, not 'soon' (try 'tmctl send --help')\n"},
        {{"send", "heartbeat", "--text=a", "--hex=00"}, "tmctl: send: give one of --text and --hex (try 'tmctl send --help')\n"},
        {{"raw", "2da5", "--no-reply=yes"}, "tmctl: raw: unknown option --no-reply=yes (try 'tmctl raw --help')\n"},
        {{"raw", "--timeout"}, "tmctl: raw: option --timeout needs a value (try 'tmctl raw --help')\n"},
        {{"mdm", "get", "2888", "--all"}, "tmctl: mdm: unknown option --all (try 'tmctl mdm --help')\n"},
        {{"config", "set", "day=9", "--force"}, "tmctl: config: unknown option --force (try 'tmctl config --help')\n"},
        {{"config", "set", "day=9", "--timeout"}, "tmctl: config: option --timeout needs a value (try 'tmctl config --help')\n"},
        {{"config", "show", "--dry-run"}, "tmctl: config show takes only --json (try 'tmctl config --help')\n"},
        {{"config"}, "tmctl: config: show or set? (try 'tmctl config --help')\n"},
        {{"stats", "--loud"}, "tmctl: stats: unknown option --loud (try 'tmctl stats --help')\n"},
        {{"history", "/x", "--at"}, "tmctl: --at needs a value (try 'tmctl history --help')\n"},
        {{"chart", "/x", "-o"}, "tmctl: -o needs a value (try 'tmctl chart --help')\n"},
        {{"flash", "decode", "/x", "--page-size"}, "tmctl: flash decode: --page-size needs a value (try 'tmctl flash --help')\n"},
        {{"flash", "--bogus"}, "tmctl: flash: unknown option --bogus (try 'tmctl flash --help')\n"},
        {{"--bogus"}, "tmctl: unknown option --bogus (try 'tmctl --help')\n"},
    };
    for (const auto &row : rows) {
        CommandResult r = Tmctl(*box_, row.args);
        EXPECT_EQ(r.status, 2) << row.args[0] << " " << row.args.back();
        EXPECT_EQ(r.out, row.line);
    }
    EXPECT_EQ(Store(*box_), store);
    EXPECT_TRUE(OnlyTheMarker(daemon, Settled())) << "no datagram reached the daemon";
}

TEST_F(TmctlCli, message_names_in_any_case_with_or_without_the_prefix_and_with_dash_or_underscore)
{
    const struct {
        const char *name;
        const char *reply;
    } rows[] = {
        {"heartbeat", "0\n"},        {"HEARTBEAT", "0\n"},           {"tm_msg_heartbeat", "0\n"},
        {"Tm-Msg-Heartbeat", "0\n"}, {"TM_MSG_HEARTBEAT", "0\n"},    {"1", "0\n"},
        {"time-wake", "1\n"},        {"TIME_WAKE", "1\n"},           {"tm_msg_time_wake", "1\n"},
        {"0x7", "1\n"},              {"write-statistic", "1\n"},     {"99", "0\n"},
    };
    for (const auto &row : rows) {
        CommandResult r = Tmctl(*box_, {"send", row.name});
        EXPECT_EQ(r.status, 0) << row.name << "\n" << r.out;
        EXPECT_EQ(r.out, row.reply) << row.name;
    }
    for (const char *bad : {"heartbeats", "TM_MSG_", "time wake", "tm-msg", "65536", ""}) {
        CommandResult r = Tmctl(*box_, {"send", bad});
        EXPECT_EQ(r.status, 2) << bad;
        EXPECT_EQ(r.out, std::string("tmctl: send: unknown message code '") + bad + "' (try 'tmctl send --help')\n");
    }
}

}  // namespace
