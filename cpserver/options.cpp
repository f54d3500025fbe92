// CLI11 does the work; here are the words.
#include "options.h"

#include <CLI/CLI.hpp>

#include "vellb/client.h"

namespace cpserver
{

std::optional<options> parse_options(int argc, char **argv, int &status)
{
    options wanted;
    wanted.socket = vellb::DEFAULT_SOCKET;
    bool check = false;
    bool dry_run = false;
    bool once = false;
    CLI::App app("Control server of vellb2: makes the forwarder what one YAML file says, and keeps "
                 "it so.",
                 "cpserver");
    app.add_option("-c,--config", wanted.file,
                   "the configuration; conf.d/*.yaml beside it belongs to it")
        ->type_name("FILE")
        ->capture_default_str();
    app.add_option("--socket", wanted.socket, "the forwarder's command socket")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_option("--run-dir", wanted.run_directory, "where the lock against a second one stands")
        ->type_name("DIR")
        ->capture_default_str();
    auto *modes = app.add_option_group("mode", "What to do instead of serving");
    modes->add_flag("--check", check, "read the file and say what is wrong with it; no daemon");
    modes->add_flag("--dry-run", dry_run, "print what would be changed; change nothing");
    modes->add_flag("--once", once, "make it so and end");
    modes->require_option(0, 1);
    app.add_flag("-v,--verbose", wanted.verbose, "log passes that change nothing, too");
    app.set_version_flag("--version", "cpserver " VELL_VERSION);
    app.footer(
        "SIGHUP reads the file again, as any change of it does; SIGUSR1 asks for a takeover; "
        "SIGTERM ends.\nThe forwarder goes on as it is. See cpserver(8).");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        status = app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
        return std::nullopt;
    }
    wanted.mode = check     ? mode_e::CHECK
                  : dry_run ? mode_e::DRY_RUN
                  : once    ? mode_e::ONCE
                            : mode_e::SERVE;
    return wanted;
}

} // namespace cpserver
