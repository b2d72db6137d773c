// SPDX-License-Identifier: Apache-2.0
// scsitool: the device map of this host or of a host snapshot, one device's identity and pages,
// the host's initiator names, and the capture of a snapshot.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "check.h"
#include "commands.h"
#include "compare.h"
#include "errors.h"
#include "map_view.h"
#include "output_file.h"
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
    "  5  the device maps compared differ, or hosts know one volume by different UDIDs";

// What --rescan-buses and --rescan-if-missing set off on the host, in order.
const char* const kRescanFooter =
    "What a rescan does:\n"
    "  every kernel: each QLogic adapter of /proc/scsi rescans its loop (3 s each)\n"
    "  2.6 kernels:  a LIP on every FC adapter (5 s), a scan of every SCSI host (5 s),\n"
    "                /bin/rescan-scsi-bus.sh\n"
    "  2.4 kernels:  \"scsi add-single-device\" for every id and LUN of every adapter\n"
    "  other kernels: no SCSI bus is scanned, and the command says so on stderr\n"
    "  then, on every kernel: \"powermt check, release, config, save\" and \"multipath -v0\"\n"
    "  where installed; the disks the kernel lists that no longer answer are removed (at\n"
    "  LUN 0 only with --remove-lun0), and the adapters are scanned once more.\n"
    "Without a rescan, map, udid, capture and diff - run \"multipath -F\" on 2.4 and 2.6\n"
    "hosts where multipathd runs: it flushes the multipath maps no longer in use.\n\n";

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
                   "write what the simulated kernel saw to FILE (- for stderr): control-file "
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
                  "rescan the SCSI buses, HBAs and multipath software first (see below)");
    map->add_flag("--bus-scan", mapOptions.busScan,
                  "handed to the bus rescan (the Linux rescan accepts it and does not use it)");
    map->add_flag("--remove-lun0", mapOptions.removeLun0,
                  "let the rescan remove dead devices at LUN 0 too");
    map->add_flag("--volumes", mapOptions.volumes,
                  "one entry per UDID with its paths and pseudo-devices");
    map->footer(std::string(kRescanFooter) + kFooter);
    CLI::Option* columns =
        map->add_option(
               "-o,--output", mapOptions.table.columns,
               "the columns, comma-separated (+LIST adds to the default): " + mapColumnNames())
            ->type_name("LIST");
    CLI::Option* raw =
        map->add_flag("--raw", mapOptions.table.style.raw, "one row a line, cells one blank apart");
    CLI::Option* pairs = map->add_flag("--pairs", mapOptions.table.style.pairs,
                                       "one row a line of NAME=\"value\" pairs");
    map->add_flag("-n,--noheadings", mapOptions.table.style.noHeadings, "no line of column names");
    CLI::Option* list =
        map->add_flag("--list", mapOptions.table.list, "--volumes as a list rather than a tree");
    CLI::Option* mapJson = map->get_option("--json");
    mapJson->excludes(columns)->excludes(raw)->excludes(pairs);
    raw->excludes(pairs);
    list->needs(map->get_option("--volumes"));
    columns->excludes(map->get_option("--volumes"));  // the tree has its own columns

    std::string device;
    bool rescanIfMissing = false;
    CLI::App* udid = app.add_subcommand("udid", "the UDID of one device");
    udid->add_option("DEVICE", device, "the device node, e.g. /dev/sdc or sdc")->required();
    udid->add_flag("--rescan-if-missing", rescanIfMissing,
                   "rescan the buses when the device is not in the map (see below)");
    udid->footer(std::string(kRescanFooter) + kFooter);

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
        "diff",
        "what changed between two device maps: remapped names, new identities, devices that "
        "stopped answering, new addresses, moves");
    diff->add_option("BEFORE AFTER", sides, "two captures (- for this host now)")
        ->required()
        ->expected(2);
    diff->add_flag("--json", compareJson,
                   "a JSON object: the sides compared, then one array per kind of finding");

    std::vector<std::string> captures;
    CLI::App* fleet = app.add_subcommand(
        "fleet", "the volumes that several captured hosts share (5: a volume with two UDIDs)");
    fleet->add_option("CAPTURE", captures, "captures of the hosts")->type_name("FILE");
    fleet->add_flag("--json", compareJson, "a JSON object");
    bool replayFleet = false;
    fleet->add_flag("--replay", replayFleet,
                    "recompute each capture's map with this build instead of reading the one "
                    "recorded, and warn where they differ");

    bool anonymise = false;
    capture->add_flag("--anonymise", anonymise,
                      "replace the host name, machine id, iSCSI initiator name and FC port names "
                      "by pseudonyms, the same for this host every time");

    CheckOptions checkOptions;
    CLI::App* check = app.add_subcommand(
        "check", "capture this host into DIR and compare it with the capture before (5: differs)");
    check->add_option("--state-dir", checkOptions.stateDir, "where the captures are kept")
        ->required()
        ->type_name("DIR");
    check->add_option("--keep", checkOptions.keep, "the captures kept (default 30)")
        ->type_name("N")
        ->check(CLI::Range(1, 1000000));
    check->add_flag("--journal", checkOptions.journal,
                    "put each line behind its priority for the journal (<3> remapped, ...)");

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
            app.exit(e);  // --help, --version
            // Help that did not reach its reader is a failed write like any other output's.
            if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
                reportError(std::string("standard output: ") + std::strerror(errno));
                return kExitBadInput;
            }
            return kExitSuccess;
        }
        reportError(e.what());
        return kExitUsage;
    }
    if (app.get_subcommands().empty()) {
        reportError(
            "a subcommand is required: map, udid, show, initiators, capture, verify, diff, "
            "fleet or check");
        return kExitUsage;
    }
    if (fleet->parsed() && captures.empty()) {
        reportError("fleet: no captures given");
        return kExitUsage;
    }
    if (verify->parsed()) {
        if (!global.hostFile.empty()) {
            reportError("verify replays its CAPTURE: --host is not taken");
            return kExitUsage;
        }
        global.hostFile = verifyFile;
    }

    installSignalHandlers();
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
            bool conflicts = false;
            output = runFleet(session, captures, compareJson, replayFleet, conflicts);
            exitCode = conflicts ? kExitDiffers : kExitSuccess;
        } else if (check->parsed()) {
            bool differ = false;
            output = runCheck(session, checkOptions, differ);
            exitCode = differ ? kExitDiffers : kExitSuccess;
        } else if (verify->parsed()) {
            bool same = true;
            output = runVerify(session, verifyFile, same);
            exitCode = same ? kExitSuccess : kExitDiffers;
        }
        session.finish();
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
