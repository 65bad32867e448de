// vorlink: the Vorlink message dictionary on the command line. This file only
// wires the subcommands; each lives in its own source file.

#include "Command.h"
#include "Dictionary.h"
#include "VorlinkVersion.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#ifndef VORLINK_SONAME
#define VORLINK_SONAME "libVorlink.so"
#endif

namespace {

const char *const footer = R"(Bus-log line: <time> <sequence> <id> <payload>, e.g.
  1700000000.123 7 0x0100 02000000010000003c0000000500
time in seconds since 1970 (UTC, up to 9 decimals, kept to the millisecond),
sequence 0 to 65535 in decimal, id in hexadecimal, payload in hexadecimal ('-'
when empty). Blank lines and lines starting with '#' are skipped.

'vorlink <command> --help' shows a command's options, formats and examples.
Exit status: 0 success, 1 some input was rejected (or output failed), 2 misuse.)";

} // namespace

int main(int argc, char **argv)
{
    using namespace vorlink;
    installMessageHandler();
    // A closed pipe shows as EPIPE from write(), which the commands handle.
    std::signal(SIGPIPE, SIG_IGN);
    CLI::App app("The Vorlink message dictionary on the command line.", "vorlink");
    app.footer(footer);
    app.set_version_flag("--version", [] {
        return std::string("vorlink ") + VORLINK_VERSION_STRING + " (" VORLINK_SONAME ", " +
               std::to_string(Dictionary::instance().rows().size()) + " messages)";
    });
    const std::vector<Command> commands = {addDecodeCommand(app), addEncodeCommand(app), addStatsCommand(app),
                                           addListCommand(app), addSynthCommand(app), addPlotCommand(app),
                                           addMakeCommand(app), addMonitorCommand(app)};

    // "vorlink help decode" is "vorlink decode --help".
    std::vector<std::string> args(argv + 1, argv + argc);
    if (!args.empty() && args.front() == "help") {
        args.erase(args.begin());
        args.emplace_back("--help");
    }
    std::reverse(args.begin(), args.end());   // CLI11 takes the arguments last first
    try {
        app.parse(args);
    } catch (const CLI::Success &e) {   // --help, --version
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        const CLI::App *where = &app;
        for (const CLI::App *sub : app.get_subcommands())
            where = sub;
        return misuse(*where, parseErrorText(*where, e));
    }
    for (const Command &command : commands)
        if (command.app->parsed())
            return command.run();
    std::fputs(app.help().c_str(), stderr);
    return exitMisuse;
}
