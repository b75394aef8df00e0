// hostrixctl: the command-line client of the hostrix daemon. This file holds the
// command table, the help texts and the dispatch; the commands live beside it.
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "core/paths.h"
#include "format.h"

namespace {

struct Command {
    std::string_view name;
    std::string_view synopsis;
    std::string_view help;
    Outcome (*run)(const CommandLine &);
    unsigned options;
    bool inform = false;  // new, left, changed: their help adds kInformHelp
};

constexpr std::string_view kInformHelp =
    "Asks the daemon until every pending report is collected and prints one row\n"
    "per host (--json: one object per host and line, fields named as in the\n"
    "944-byte host record). Each report is given out once: another program that\n"
    "polls the same daemon will not see the hosts shown here.\n";

constexpr Command kCommands[] = {
    {"new", "new [--json]", "Hosts that came online since the last query.\n", runNew, kOptJson,
     true},
    {"left", "left [--json]",
     "Hosts that went offline since the last query. The daemon frees their entries\n"
     "(a blocked host is kept, with its connection data cleared).\n",
     runLeft, kOptJson, true},
    {"changed", "changed [--json]",
     "Hosts whose attributes (address, name, Wi-Fi data) changed since the last query.\n",
     runChanged, kOptJson, true},
    {"list", "list [--newest] [--json]",
     "Every online host, from the host file that hostrix rewrites every 30 s and\n"
     "on SIGUSR2, read under the daemon's file lock. The longest online come first;\n"
     "--newest puts the latest arrivals first. Changes nothing in the daemon.\n",
     runList, kOptJson | kOptNewest},
    {"watch", "watch [--json] [--interval S] [--count N]",
     "Polls new, left and changed every second (--interval S, e.g. 0.5) and prints\n"
     "one line per event: local time, NEW, LEFT or CHANGED, MAC, IPv4, name,\n"
     "interface and IPv6. --json: one object per event with \"event\" and \"time\"\n"
     "before the host fields. --count N stops after N events. Ends on Ctrl-C or\n"
     "SIGTERM (exit 0) or when hostrix becomes unreachable (exit 3).\n"
     "When hostrix-agent runs (its socket exists), watch reads its event stream and\n"
     "takes nothing from the daemon; --interval then has no use. Otherwise watch\n"
     "consumes the pending reports: another agent polling the same daemon misses the\n"
     "events that watch shows. Either way it says on stderr which source it uses.\n",
     runWatch, kOptJson | kOptInterval | kOptCount},
    {"get", "get ATTRIBUTE [MAC] [--json]",
     "Per host (MAC):\n"
     "  controlled MAC      0 or 1\n"
     "  access MAC          internet and other access bytes (internet 0 = blocked)\n"
     "  type MAC            device type code\n"
     "  brand|model|os MAC  profile texts\n"
     "  name MAC            device name, from the host file (online hosts only)\n"
     "Daemon-wide:\n"
     "  max-hosts           the host table's limit (0..256)\n"
     "  max-controlled      the stored limit of controlled hosts (0..256)\n"
     "  hosts               entries in use\n"
     "  controlled-count    hosts marked controlled\n"
     "--json prints one small object named after the record's fields.\n",
     runGet, kOptJson},
    {"set", "set ATTRIBUTE [MAC] VALUE...",
     "  controlled MAC 0|1\n"
     "  access MAC INTERNET OTHER   bytes 0..255; INTERNET 0 blocks the host and takes\n"
     "                              it offline; unless INTERNET > 1 and OTHER > 0, the\n"
     "                              host also becomes controlled\n"
     "  type MAC N                  0..255\n"
     "  brand|model|os|name MAC TEXT  at most 63 bytes are kept; a TEXT that\n"
     "                              starts with '-' goes after '--'\n"
     "  max-hosts N                 0..256; a lower limit may empty the table\n"
     "  max-controlled N            0..256\n"
     "Fails (exit 1) when no host has the MAC (access always succeeds).\n",
     runSet, 0},
    {"port-down", "port-down PORT",
     "Tells hostrix that the LAN port with switch port id PORT (0..255, phy.IFNAME\n"
     "in mib.conf) lost its link: every host on it is taken offline. Fails (exit 1)\n"
     "when no LAN port has that id.\n",
     runPortDown, 0},
    {"release", "release MAC",
     "Tells hostrix that the host released its DHCP lease: its ARP entry is\n"
     "deleted and it is taken offline. Succeeds also when no host has the MAC.\n",
     runRelease, 0},
    {"history", "history [MAC] [--json]",
     "What hostrix-agent remembers, from its database (history_db in agent.conf):\n"
     "every device with its first and last sighting, vendor, name, OS family and\n"
     "last addresses, the most recent first. With a MAC: that device and the MACs\n"
     "linked with it, each with its online sessions. --json: one object per device.\n",
     runHistory, kOptJson},
    {"log", "log LEVEL",
     "Sets the daemon's debug flags (dbg_level) through its debug FIFO. LEVEL is\n"
     "decimal or 0x hex, e.g. 0x20 for the host dumps, 0 for quiet.\n",
     runLog, 0},
};

constexpr std::string_view kOverviewFooter =
    "\n"
    "MAC: aa:bb:cc:dd:ee:ff or aa-bb-cc-dd-ee-ff. Numbers: decimal or 0x hex.\n"
    "Exit status: 0 done, 1 hostrix reported failure, 2 usage error,\n"
    "3 hostrix not reachable. 'hostrixctl help COMMAND' for details.\n";

int outputErrno = 0;  // the first failure writing standard output

const Command *findCommand(std::string_view name) {
    for (const Command &command : kCommands)
        if (command.name == name) return &command;
    return nullptr;
}

void printOverview() {
    std::string text = "usage: hostrixctl COMMAND [ARGUMENTS] [OPTIONS]\n\ncommands:\n";
    for (const Command &command : kCommands) text += "  " + std::string(command.synopsis) + "\n";
    text += "  help [COMMAND]\n\nfiles ($HOSTRIX_ROOT prefixes them):\n";
    text += "  control socket " + escapeText(hostrixPath(HostrixFile::ControlSocket)) + "\n";
    text += "  host file      " + escapeText(hostrixPath(HostrixFile::HostInfo)) + "\n";
    text += "  debug FIFO     " + escapeText(hostrixPath(HostrixFile::Fifo)) + "\n";
    emitText(text + std::string(kOverviewFooter));
}

void printCommandHelp(const Command &command) {
    std::string text = "usage: hostrixctl " + std::string(command.synopsis) + "\n\n";
    text += command.help;
    if (command.inform) text += "\n" + std::string(kInformHelp);
    emitText(text);
}

// Prints OUTCOME's message on one line; usage errors point at the help.
int report(const Outcome &outcome, std::string_view command) {
    if (outcome.message.empty()) return outcome.code;
    std::string text = "hostrixctl: " + outcome.message;
    if (outcome.code == kExitUsage)
        text += command.empty() || !findCommand(command)
                    ? "; see 'hostrixctl help'"
                    : "; see 'hostrixctl help " + std::string(command) + "'";
    // Messages quote the command line and paths; escaped, they stay one plain line.
    std::fprintf(stderr, "%s\n", escapeText(text).c_str());
    return outcome.code;
}

int runHelp(const CommandLine &line) {
    if (line.args.empty()) {
        printOverview();
        return kExitOk;
    }
    const Command *command = findCommand(line.args[0]);
    if (line.args.size() > 1) return report(Outcome::usage("help takes at most one command"), "");
    if (!command) return report(Outcome::usage("no command '" + line.args[0] + "'"), "");
    printCommandHelp(*command);
    return kExitOk;
}

int dispatch(const CommandLine &line) {
    if (line.command.empty() || line.command == "help") {
        if (line.command.empty() && !line.help)
            return report(Outcome::usage("no command given"), "");
        return runHelp(line);
    }
    const Command *command = findCommand(line.command);
    if (!command) return report(Outcome::usage("unknown command '" + line.command + "'"), "");
    if (line.help) {
        printCommandHelp(*command);
        return kExitOk;
    }
    std::string_view refused = firstDisallowedOption(line.seen, command->options);
    if (!refused.empty())
        return report(Outcome::usage(line.command + " does not take " + std::string(refused)),
                      line.command);
    return report(command->run(line), line.command);
}

// A reader that went away (a closed pipe) ends the output quietly.
int finish(int code) {
    if (flushOutput() || outputErrno == EPIPE) return code;
    std::fprintf(stderr, "hostrixctl: cannot write the output: %s\n", std::strerror(outputErrno));
    return code == kExitOk ? kExitFailed : code;
}

}  // namespace

Outcome expectArgs(const CommandLine &line, size_t count, std::string_view synopsis) {
    if (line.args.size() == count) return Outcome::success();
    std::string problem = line.args.size() < count ? "missing argument" : "too many arguments";
    return Outcome::usage(problem + "; usage: hostrixctl " + std::string(synopsis));
}

Outcome badMac(std::string_view text) {
    return Outcome::usage("bad MAC '" + std::string(text) +
                          "': expected six two-digit hex groups like aa:bb:cc:dd:ee:ff");
}

void emitText(std::string_view text) {
    bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (!written && outputErrno == 0) outputErrno = errno;
}

void emitLine(std::string_view text) {
    emitText(text);
    emitText("\n");
}

bool flushOutput() {
    if (std::fflush(stdout) != 0 && outputErrno == 0) outputErrno = errno;
    return outputErrno == 0 && !std::ferror(stdout);
}

int main(int argc, char **argv) {
    // Writes to a closed pipe fail with EPIPE instead of killing the client.
    signal(SIGPIPE, SIG_IGN);
    std::vector<std::string_view> words(argv + 1, argv + argc);
    CommandLine line;
    Outcome parsed = parseCommandLine(words, line);
    int code = parsed.ok() ? dispatch(line) : report(parsed, line.command);
    return finish(code);
}
