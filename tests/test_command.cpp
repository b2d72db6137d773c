// SPDX-License-Identifier: Apache-2.0
// The scsitool command where one command line is not enough to show it: JSON answers checked
// field by field, runs that need a shell around them (file-size limits, the environment), a
// capture followed by its replay, and the host's own rescan semaphore beside a replay. Everything
// one command line shows is a scenario file under tests/scenarios/.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "temp_dir.h"

namespace {

const std::string kBinary = std::string(SCSITOOL_BINARY_DIR) + "/tools/scsitool/scsitool";
const std::string kSource = SCSITOOL_SOURCE_DIR;
const std::string kExamples = kSource + "/examples/hosts/";

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs the command with `args`; stdout and stderr are kept apart, stdin is empty. `shell` runs
// before it, in the same shell (limits, traps).
Result run(const std::vector<std::string>& args, const std::string& shell = "")
{
    TempDir dir;
    std::string command = shell + "'" + kBinary + "'";
    for (const std::string& arg : args)
        command += " '" + arg + "'";
    command += " </dev/null >" + dir.file("out") + " 2>" + dir.file("err");
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
            readFile(dir.file("out")), readFile(dir.file("err"))};
}

std::string describe(const std::vector<std::string>& args)
{
    std::string text = "scsitool";
    for (const std::string& arg : args)
        text += " " + arg;
    return text;
}

const std::string kDatacenter = kExamples + "datacenter.json";

nlohmann::json parseJson(const std::string& text)
{
    return nlohmann::json::parse(text, nullptr, false);
}

// A minimal snapshot: one host adapter and the given devices (JSON objects).
std::string snapshotWith(const std::string& devices)
{
    return R"({"format": 1, "hostname": "test01", "kernel_release": "2.6.18-8.el5",
               "proc_scsi": true, "devices": [)" +
           devices + R"(], "adapters": [{"host": 0, "driver": "mptspi"}]})";
}

// INQUIRY data of a direct-access device with the given vendor (8) and product (16) fields.
std::string inquiryHex(const std::string& vendor, const std::string& product)
{
    std::string text = "00 00 05 02 1f 00 00 32";
    std::string fields = vendor + std::string(8 - vendor.size(), ' ') + product +
                         std::string(16 - product.size(), ' ') + "0001";
    char byte[4];
    for (unsigned char c : fields) {
        std::snprintf(byte, sizeof byte, " %02x", c);
        text += byte;
    }
    return text;
}

// A command line, its exit code and all it writes on stderr; stdout stays empty on failure.
struct ErrorCase {
    std::vector<std::string> args;
    int status;
    std::string err;
};

// Each command line: its exit status, its stderr whole, and nothing on stdout when it fails.
void expectErrors(const std::vector<ErrorCase>& cases)
{
    for (const ErrorCase& c : cases) {
        Result result = run(c.args);
        EXPECT_EQ(result.status, c.status) << describe(c.args);
        EXPECT_EQ(result.err, c.err) << describe(c.args);
        if (c.status != 0) {
            EXPECT_EQ(result.out, "") << describe(c.args);
        }
    }
}

}  // namespace

TEST(CommandReplay, LeavesTheRealRescanSemaphoreAlone)
{
    // A framework process of this machine holds the host-wide rescan semaphore set.
    const int id = semget(1001, 1, IPC_CREAT | 0666);
    ASSERT_GE(id, 0);
    for (const char* flag : {"--rescan-buses", "--json"}) {
        Result result = run({"--host", kDatacenter, "map", flag});
        EXPECT_EQ(result.status, 0) << flag << ": " << result.err;
        EXPECT_EQ(semget(1001, 1, 0), id) << flag << ": the replay removed the real set";
        EXPECT_EQ(semctl(id, 0, GETVAL), 0) << flag;
    }
}

TEST(CommandAccess, NodesThatDoNotOpenAreNamedWithTheReason)
{
    TempDir dir;
    const std::string disk = R"("address": [0, 0, 0, LUN], "inquiry": ")" +
                             inquiryHex("ACME", "DISK") +
                             R"(", "vpd": {"00": "00 00 00 01 83",
        "83": "00 83 00 0c 01 03 00 08 60 0a 98 00 00 00 00 0N"})";
    auto device = [&](const std::string& name, int lun, const std::string& state) {
        std::string text = disk;
        text.replace(text.find("LUN"), 3, std::to_string(lun));
        text.replace(text.find("0N"), 2, "0" + std::to_string(lun));
        return R"({"name": ")" + name + R"(", "state": ")" + state + R"(", )" + text + "}";
    };
    writeFile(dir.file("root.json"),
              snapshotWith(device("sda", 0, "denied") + ", " + device("sdb", 1, "denied")));
    writeFile(dir.file("mixed.json"),
              snapshotWith(device("sda", 0, "running") + ", " + device("sdb", 1, "denied")));
    const std::string root = dir.file("root.json"), mixed = dir.file("mixed.json");
    const std::string sdaDenied = "scsitool: /dev/sda: cannot open: Permission denied\n";
    const std::string sdbDenied = "scsitool: /dev/sdb: cannot open: Permission denied\n";
    // clang-format off
    const std::vector<ErrorCase> cases = {
        {{"--host", root, "map"}, 3, sdaDenied + sdbDenied + "scsitool: no device could be queried: permission denied (the command needs root to open the disk nodes)\n"},
        {{"--host", root, "map", "--volumes"}, 3, sdaDenied + sdbDenied + "scsitool: no device could be queried: permission denied (the command needs root to open the disk nodes)\n"},
        {{"--host", root, "udid", "sda"}, 3, sdaDenied},
        {{"--host", root, "show", "sdb"}, 3, sdbDenied},
        {{"--host", root, "capture", dir.file("c.json")}, 3, sdaDenied + sdbDenied + "scsitool: capture refused: 2 disk nodes cannot be opened (the capture needs root to open every disk node)\n"},
        {{"--host", mixed, "map"}, 0, sdbDenied},
        {{"--host", mixed, "udid", "sda"}, 0, "scsitool: note: /dev/sda: host-local: it names the device on this host only\n"},
    };
    // clang-format on
    expectErrors(cases);
    EXPECT_FALSE(std::ifstream(dir.file("c.json")).good()) << "a refused capture wrote a file";
    EXPECT_EQ(
        run({"--host", mixed, "map"}).out,
        "HCTL    DEVICE   KIND VENDOR PRODUCT SIZE STATE   UDID                              NOTE\n"
        "0:0:0:0 /dev/sda disk ACME   DISK    10G  running UDID##ACME##DISK##/DEV/SDA@TEST01 "
        "host-local\n"
        "-       /dev/sdb disk -      -       10G  denied  -                                 not "
        "in the library's map\n");
}

TEST(CommandOutput, AWriteThatFailsExitsTwoAndLeavesTheOldFile)
{
    TempDir dir;
    const std::string file = dir.file("out");
    // Files may grow to one block: every write beyond fails with EFBIG.
    const std::string small = "trap '' XFSZ; ulimit -f 1; ";
    struct Case {
        std::vector<std::string> args;
        std::string what;
    };
    const std::vector<Case> cases = {
        {{"--host", kDatacenter, "capture", file}, "cannot write the snapshot"},
        {{"--host", kDatacenter, "--trace", file, "--trace-level", "5", "udid", "sda"},
         "cannot write the trace"},
    };
    for (const Case& c : cases) {
        writeFile(file, "the previous file\n");
        Result result = run(c.args, small);
        EXPECT_EQ(result.status, 2) << c.what;
        EXPECT_EQ(result.err, "scsitool: " + file + ": " + c.what + ": File too large\n");
        EXPECT_EQ(readFile(file), "the previous file\n");
        std::vector<std::string> left;
        if (DIR* listing = opendir(dir.file("").c_str())) {
            while (struct dirent* entry = readdir(listing))
                if (entry->d_name[0] != '.')
                    left.push_back(entry->d_name);
            closedir(listing);
        }
        EXPECT_EQ(left, std::vector<std::string>{"out"}) << c.what << ": a temporary file was left";
    }

    Result result = run({"--host", kDatacenter, "map", "--json"}, small);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, run({"--host", kDatacenter, "map", "--json"}).err +
                              "scsitool: standard output: File too large\n");

    // A complete capture replaces the old file.
    ASSERT_EQ(run({"--host", kDatacenter, "capture", file}, "SOURCE_DATE_EPOCH=0 ").status, 0);
    EXPECT_EQ(readFile(file),
              run({"--host", kDatacenter, "capture", "-"}, "SOURCE_DATE_EPOCH=0 ").out);
}

TEST(CommandVerify, TheReplayOfACaptureGivesItsRecordedMap)
{
    TempDir dir;
    // A device-mapper node that is no multipath map (an LVM volume) fronts no device.
    nlohmann::json host = parseJson(readFile(kExamples + "modern.json"));
    host["multipath_maps"].push_back({{"name", "vg0-home"}, {"device", ""}});
    writeFile(dir.file("lvm.json"), host.dump());
    const std::string capture = dir.file("capture.json");
    ASSERT_EQ(
        run({"--host", dir.file("lvm.json"), "capture", capture}, "SOURCE_DATE_EPOCH=0 ").status,
        0);
    nlohmann::json captured = parseJson(readFile(capture));
    EXPECT_EQ(captured["capture"]["time"], "1970-01-01T00:00:00Z");
    EXPECT_EQ(captured["capture"]["scsitool_version"], SCSITOOL_VERSION);
    EXPECT_EQ(captured["capture"]["anonymised"], false);
    EXPECT_EQ(captured["capture"]["map"],
              parseJson(run({"--host", dir.file("lvm.json"), "map", "--json"}).out));
    EXPECT_EQ(captured["multipath_maps"][1],
              nlohmann::json::parse(R"({"name": "vg0-home", "device": ""})"));

    // The recorded map, changed: one UDID, one device left out.
    nlohmann::json changed = captured;
    changed["capture"]["map"][3]["Uid"] = "UDID##X";
    changed["capture"]["map"].erase(2);
    writeFile(dir.file("changed.json"), changed.dump());
    nlohmann::json unrecorded = captured;
    unrecorded.erase("capture");
    writeFile(dir.file("unrecorded.json"), unrecorded.dump());

    // What is compared comes first: the capture as recorded, and the version that replays it.
    auto context = [](const std::string& file) {
        return "recorded: " + file +
               ": host node7, kernel 5.10.0-23-amd64, captured 1970-01-01T00:00:00Z by "
               "scsitool " SCSITOOL_VERSION "\nreplayed: by scsitool " SCSITOOL_VERSION "\n";
    };
    Result same = run({"verify", capture});
    EXPECT_EQ(same.status, 0) << same.err;
    EXPECT_EQ(same.out, context(capture) + "the replay gives the recorded map: 4 devices\n");
    Result differs = run({"verify", dir.file("changed.json")});
    EXPECT_EQ(differs.status, 5) << differs.err;
    EXPECT_EQ(differs.out, context(dir.file("changed.json")) +
                               "/dev/sda: in the replay, not recorded\n"
                               "/dev/sdb: Uid recorded \"UDID##X\", replayed \"" +
                               captured["capture"]["map"][3]["Uid"].get<std::string>() + "\"\n");
    expectErrors({
        {{"verify", dir.file("unrecorded.json")},
         2,
         "scsitool: " + dir.file("unrecorded.json") +
             ": no recorded map: the snapshot was not written by capture\n"},
        {{"--host", capture, "verify", capture},
         1,
         "scsitool: verify replays its CAPTURE: --host is not taken\n"},
    });
}

TEST(CommandCapture, AnonymisedCaptureReplacesHostNamesConsistently)
{
    TempDir dir;
    // The datacenter host with a machine id, and a second host that differs only by it.
    nlohmann::json host = parseJson(readFile(kDatacenter));
    host["files"]["/etc/machine-id"] = "5f0c9a4e2b7d4c1e8a3f6b2d9e0c7a14\n";
    writeFile(dir.file("host.json"), host.dump());
    host["files"]["/etc/machine-id"] = "c3a1e7f09b2d4e6a8c5b1f3e7d9a2c40\n";
    writeFile(dir.file("other.json"), host.dump());
    const std::string capture = dir.file("anonymous.json");
    ASSERT_EQ(run({"--host", dir.file("host.json"), "capture", "--anonymise", capture}).status, 0);
    const std::string text = readFile(capture);
    for (const char* name :
         {"dbhost01", "DBHOST01", "dc01a7f3e2b1", "21000024ff2c3d4e", "5f0c9a4e2b7d4c1e"})
        EXPECT_EQ(text.find(name), std::string::npos) << name << " is still in the capture";
    nlohmann::json initiators = parseJson(run({"--host", capture, "initiators", "--json"}).out);
    const std::string iqn = initiators["iscsi_initiator"];
    EXPECT_TRUE(std::regex_match(iqn, std::regex("iqn\\.2000-01\\.invalid\\.example:[0-9a-f]{16}")))
        << iqn;
    ASSERT_EQ(initiators["fc_port_names"].size(), 1u);
    const std::string port = initiators["fc_port_names"][0];
    EXPECT_TRUE(std::regex_match(port, std::regex("2[0-9a-f]{15}"))) << port;
    // The host-local UDIDs of the recorded map carry the pseudonym too: the replay agrees.
    EXPECT_EQ(run({"verify", capture}).status, 0);
    const std::string hostName = parseJson(text)["hostname"];
    EXPECT_TRUE(std::regex_match(hostName, std::regex("host-[0-9a-f]{16}\\.example\\.invalid")))
        << hostName;
    std::string upper = hostName;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    EXPECT_NE(run({"--host", capture, "udid", "sdn"}).out.find("@" + upper), std::string::npos);

    // The same host anonymises the same way again; another machine id gives other pseudonyms.
    const std::string again = dir.file("again.json");
    ASSERT_EQ(run({"--host", dir.file("host.json"), "capture", "--anonymise", again}).status, 0);
    EXPECT_EQ(parseJson(readFile(again))["hostname"], hostName);
    EXPECT_EQ(parseJson(readFile(again))["files"], parseJson(text)["files"]);
    const std::string other = dir.file("other-anonymous.json");
    ASSERT_EQ(run({"--host", dir.file("other.json"), "capture", "--anonymise", other}).status, 0);
    const nlohmann::json second = parseJson(readFile(other));
    EXPECT_NE(second["hostname"], hostName);
    EXPECT_NE(second["capture"]["machine_id"], parseJson(text)["capture"]["machine_id"]);
    EXPECT_NE(second["files"]["/etc/iscsi/initiatorname.iscsi"],
              parseJson(text)["files"]["/etc/iscsi/initiatorname.iscsi"]);
}

namespace {

// The names in `dir` but the dot entries.
std::vector<std::string> listing(const std::string& dir)
{
    std::vector<std::string> names;
    if (DIR* handle = opendir(dir.c_str())) {
        while (struct dirent* entry = readdir(handle))
            if (std::string(entry->d_name) != "." && std::string(entry->d_name) != "..")
                names.push_back(entry->d_name);
        closedir(handle);
    }
    std::sort(names.begin(), names.end());
    return names;
}

mode_t typeOf(const std::string& path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0 ? (status.st_mode & S_IFMT) : 0;
}

}  // namespace

TEST(CommandOutput, PathsThatAreNoRegularFileAreWrittenInPlace)
{
    const std::string capture =
        run({"--host", kDatacenter, "capture", "-"}, "SOURCE_DATE_EPOCH=0 ").out;
    ASSERT_FALSE(capture.empty());
    TempDir dir;
    // A device node of the test's own: the null device, written and left a device.
    ASSERT_EQ(mknod(dir.file("null").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    Result result =
        run({"--host", kDatacenter, "--trace", dir.file("null"), "capture", dir.file("null")});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(typeOf(dir.file("null")), static_cast<mode_t>(S_IFCHR));

    // A FIFO: its reader gets the capture whole, and the FIFO stays.
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    result = run({"--host", kDatacenter, "capture", dir.file("fifo")},
                 "(cat '" + dir.file("fifo") + "' > '" + dir.file("from-fifo") +
                     "' &) ; SOURCE_DATE_EPOCH=0 ");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(typeOf(dir.file("fifo")), static_cast<mode_t>(S_IFIFO));
    for (int i = 0; i < 100 && readFile(dir.file("from-fifo")).size() < capture.size(); ++i)
        usleep(20000);
    EXPECT_EQ(readFile(dir.file("from-fifo")), capture);

    // A symbolic link, relative: its target is replaced, the link stays a link. A dangling one
    // creates its target.
    writeFile(dir.file("target"), "the previous file\n");
    ASSERT_EQ(symlink("target", dir.file("link").c_str()), 0);
    ASSERT_EQ(symlink("new", dir.file("dangling").c_str()), 0);
    for (const char* name : {"link", "dangling"}) {
        result = run({"--host", kDatacenter, "capture", dir.file(name)}, "SOURCE_DATE_EPOCH=0 ");
        EXPECT_EQ(result.status, 0) << name << ": " << result.err;
        EXPECT_EQ(typeOf(dir.file(name)), static_cast<mode_t>(S_IFLNK)) << name;
        EXPECT_EQ(readFile(dir.file(name)), capture) << name;
    }

    // /dev/stdout and a process substitution (a /dev/fd/N pipe): written, never replaced.
    result = run({"--host", kDatacenter, "capture", "/dev/stdout"}, "SOURCE_DATE_EPOCH=0 ");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, capture);
    const std::string command = "SOURCE_DATE_EPOCH=0 bash -c \"'" + kBinary + "' --host '" +
                                kDatacenter + "' capture >(cat > '" + dir.file("from-pipe") +
                                "'); wait \\$!\"";
    EXPECT_EQ(std::system(command.c_str()), 0);
    for (int i = 0; i < 100 && readFile(dir.file("from-pipe")).size() < capture.size(); ++i)
        usleep(20000);
    EXPECT_EQ(readFile(dir.file("from-pipe")), capture);

    // A directory is no place for a file: one line, exit 2, nothing left behind.
    mkdir(dir.file("directory").c_str(), 0700);
    result = run({"--host", kDatacenter, "capture", dir.file("directory")});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "scsitool: " + dir.file("directory") +
                              ": cannot write the snapshot: Is a directory\n");
    EXPECT_EQ(listing(dir.path()),
              (std::vector<std::string>{"dangling", "directory", "fifo", "from-fifo", "from-pipe",
                                        "link", "new", "null", "target"}));
}

TEST(CommandOutput, ASignalPutsTheTraceInPlaceAndRemovesTheRest)
{
    const struct {
        int signal;
        int status;
    } cases[] = {{SIGINT, 130}, {SIGTERM, 143}, {SIGHUP, 129}};
    for (const auto& c : cases) {
        TempDir dir;
        writeFile(dir.file("trace"), "the previous trace\n");
        ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
        // The capture waits for a reader of its FIFO that never comes: the signal finds the
        // trace of the whole enumeration written and the events staged.
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            // The capture dies with this test, whatever stops the test: a capture left waiting
            // for a reader of its FIFO would hold up whoever runs the tests.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            // The command keeps a signal that was ignored when it started (nohup): the runner
            // of these tests may have started them so, and this test sends each signal for real.
            for (int s : {SIGINT, SIGTERM, SIGHUP})
                signal(s, SIG_DFL);
            const int null = open("/dev/null", O_RDWR);
            dup2(null, 0);
            dup2(null, 1);
            dup2(null, 2);
            execl(kBinary.c_str(), "scsitool", "--host", kDatacenter.c_str(), "--events",
                  dir.file("events").c_str(), "--trace", dir.file("trace").c_str(), "--trace-level",
                  "4", "capture", dir.file("fifo").c_str(), (char*)nullptr);
            _exit(127);
        }
        struct Reaper {
            pid_t pid;
            ~Reaper()
            {
                if (pid > 0) {
                    kill(pid, SIGKILL);
                    waitpid(pid, nullptr, 0);
                }
            }
        } reaper{pid};
        // Up to a minute: under valgrind on a loaded machine the enumeration is slow.
        std::string staged;
        for (int i = 0; i < 3000 && staged.empty(); ++i) {
            for (const std::string& name : listing(dir.path()))
                if (name.compare(0, 6, "trace.") == 0 &&
                    readFile(dir.file(name)).find("Printing m_deviceMap") != std::string::npos)
                    staged = name;
            usleep(20000);
        }
        ASSERT_FALSE(staged.empty()) << "the trace never reached its staged file";
        usleep(200000);
        kill(pid, c.signal);
        int status = 0;
        waitpid(pid, &status, 0);
        reaper.pid = -1;
        ASSERT_TRUE(WIFEXITED(status)) << c.signal;
        EXPECT_EQ(WEXITSTATUS(status), c.status);
        const std::string trace = readFile(dir.file("trace"));
        EXPECT_NE(trace.find("L3 Printing m_deviceMap\n"), std::string::npos) << c.signal;
        EXPECT_EQ(trace.back(), '\n') << c.signal << ": a line cut short";
        EXPECT_EQ(listing(dir.path()), (std::vector<std::string>{"fifo", "trace"}))
            << c.signal << ": the events' staged file stayed, or the trace's";
    }
}

TEST(CommandOutput, HelpAndVersionThatCannotBeWrittenExitTwo)
{
    TempDir dir;
    for (const char* args : {"--help", "--version", "map --help", "udid --help"}) {
        const std::string command =
            "'" + kBinary + "' " + std::string(args) + " >/dev/full 2>'" + dir.file("err") + "'";
        const int status = std::system(command.c_str());
        ASSERT_TRUE(WIFEXITED(status)) << args;
        EXPECT_EQ(WEXITSTATUS(status), 2) << args;
        EXPECT_EQ(readFile(dir.file("err")), "scsitool: standard output: No space left on device\n")
            << args;
    }
}
