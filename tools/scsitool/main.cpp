// scsitool: the device map of this host or of a host snapshot, one device's identity and pages,
// the host's initiator names, and the capture of a snapshot.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"
#include "compare.h"
#include "errors.h"
#include "session.h"

using namespace scsitool_cli;

namespace {

const char* const kFooter =
    "Exit codes:\n"
    "  0  success\n"
    "  1  usage: a bad option or argument\n"
    "  2  bad input: a snapshot, configuration, trace or output file that cannot be used\n"
    "  3  device not found, cannot be opened (the reason is named), or it does not answer\n"
    "  4  the library failed unexpectedly\n"
    "  5  the device maps compared differ";

// One line on stderr, whatever the message held.
void reportError(const std::string& message)
{
    std::string line = message;
    for (char& c : line) {
        if (c == '\n' || c == '\r') {
            c = ' ';
        }
    }
    std::fprintf(stderr, "scsitool: %s\n", line.c_str());
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"SCSI disks and their unique device ids (UDIDs)", "scsitool"};
    app.footer(kFooter);
    app.set_version_flag("--version", "scsitool " SCSITOOL_VERSION);
    // Global options are taken after the subcommand too: the subcommands made below pass what
    // they do not know on to the command.
    app.fallthrough();
    // At most one; none is reported after parsing, so that a misspelt one is named.
    app.require_subcommand(0, 1);

    GlobalOptions global;
    CLI::Option* host = app.add_option("--host", global.hostFile,
                                       "run on a host snapshot through the simulated host")
                            ->type_name("FILE");
    app.add_option("--events", global.eventsFile,
                   "write what the simulated kernel saw to FILE (- for stdout): control-file "
                   "writes, commands run, sleeps")
        ->type_name("FILE")
        ->needs(host);
    CLI::Option* trace =
        app.add_option("--trace", global.traceFile, "write the trace log to FILE (- for stderr)")
            ->type_name("FILE");
    app.add_option("--trace-level", global.traceLevel,
                   "trace levels up to N: 1 errors ... 6 function entry and exit (default 3)")
        ->type_name("N")
        ->check(CLI::Range(0, 6))
        ->needs(trace);
    app.add_option("--config", global.configFile, "the devicefi configuration file to use")
        ->type_name("FILE");

    MapOptions mapOptions;
    CLI::App* map = app.add_subcommand("map", "the device map: every disk and its UDID");
    map->add_flag("--json", mapOptions.json, "a JSON array, one object per device");
    map->add_flag("--rescan-buses", mapOptions.rescanBuses,
                  "rescan the SCSI buses, HBAs and multipath software first");
    map->add_flag("--bus-scan", mapOptions.busScan,
                  "handed to the bus rescan (the Linux rescan accepts it and does not use it)");
    map->add_flag("--remove-lun0", mapOptions.removeLun0,
                  "let the rescan remove dead devices at LUN 0 too");
    map->add_flag("--volumes", mapOptions.volumes,
                  "one entry per UDID with its paths and pseudo-devices");

    std::string device;
    bool rescanIfMissing = false;
    CLI::App* udid = app.add_subcommand("udid", "the UDID of one device");
    udid->add_option("DEVICE", device, "the device node, e.g. /dev/sdc or sdc")->required();
    udid->add_flag("--rescan-if-missing", rescanIfMissing,
                   "rescan the buses when the device is not in the map");

    bool showJson = false;
    CLI::App* show = app.add_subcommand(
        "show", "one device: decoded pages, generator, UDID and the bytes each part came from");
    show->add_option("DEVICE", device, "the device node, e.g. /dev/sdc or sdc")->required();
    show->add_flag("--json", showJson, "a JSON object");

    bool initiatorsJson = false;
    CLI::App* initiators =
        app.add_subcommand("initiators", "the iSCSI initiator name and FC port names");
    initiators->add_flag("--json", initiatorsJson, "a JSON object");

    std::string captureFile;
    CLI::App* capture = app.add_subcommand("capture", "write a snapshot of this host to FILE");
    capture->add_option("FILE", captureFile, "the snapshot to write (- for stdout)")
        ->required()
        ->type_name("FILE");

    std::vector<std::string> sides;
    bool compareJson = false;
    CLI::App* diff = app.add_subcommand(
        "diff", "what changed between two device maps: remapped names, new identities, moves");
    diff->add_option("BEFORE AFTER", sides, "two captures (- for this host now)")
        ->required()
        ->expected(2);
    diff->add_flag("--json", compareJson, "a JSON object, one array per kind of finding");

    std::vector<std::string> captures;
    CLI::App* fleet = app.add_subcommand("fleet", "the volumes that several captured hosts share");
    fleet->add_option("CAPTURE", captures, "captures of the hosts")->type_name("FILE");
    fleet->add_flag("--json", compareJson, "a JSON object");

    bool anonymise = false;
    capture->add_flag("--anonymise", anonymise,
                      "replace the host name, iSCSI initiator name and FC port names");

    std::string verifyFile;
    CLI::App* verify = app.add_subcommand(
        "verify", "replay a capture and compare its map with the one recorded (5: differs)");
    verify->add_option("CAPTURE", verifyFile, "a snapshot written by capture")
        ->required()
        ->type_name("FILE");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {
            return app.exit(e);  // --help
        }
        reportError(e.what());
        return kExitUsage;
    }
    if (app.get_subcommands().empty()) {
        reportError(
            "a subcommand is required: map, udid, show, initiators, capture, verify, diff or "
            "fleet");
        return kExitUsage;
    }
    if (verify->parsed()) {
        if (!global.hostFile.empty()) {
            reportError("verify replays its CAPTURE: --host is not taken");
            return kExitUsage;
        }
        global.hostFile = verifyFile;
    }

    try {
        Session session(global);
        std::string output;
        int exitCode = kExitSuccess;
        if (map->parsed()) {
            output = runMap(session, mapOptions);
        } else if (udid->parsed()) {
            output = runUdid(session, device, rescanIfMissing);
        } else if (show->parsed()) {
            output = runShow(session, device, showJson);
        } else if (initiators->parsed()) {
            output = runInitiators(session, initiatorsJson);
        } else if (capture->parsed()) {
            output = runCapture(session, captureFile, anonymise);
        } else if (diff->parsed()) {
            bool differ = false;
            output = runDiff(session, sides[0], sides[1], compareJson, differ);
            exitCode = differ ? kExitDiffers : kExitSuccess;
        } else if (fleet->parsed()) {
            output = runFleet(session, captures, compareJson);
        } else if (verify->parsed()) {
            bool same = true;
            output = runVerify(session, verifyFile, same);
            exitCode = same ? kExitSuccess : kExitDiffers;
        }
        output += session.finish();
        std::fwrite(output.data(), 1, output.size(), stdout);
        if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
            reportError(std::string("standard output: ") + std::strerror(errno));
            return kExitBadInput;
        }
        return exitCode;
    } catch (const CommandError& e) {
        reportError(e.what());
        return e.exitCode();
    } catch (const std::exception& e) {
        reportError(std::string("unexpected failure: ") + e.what());
    } catch (...) {
        reportError("unexpected failure");
    }
    return kExitFailure;
}
