// SPDX-License-Identifier: Apache-2.0
// Judges what the test guest sent back (run-vm.sh unpacks it into WORK/out): the raw INQUIRY and
// VPD answers that sg3-utils read on a real kernel, and what scsitool made of the same disks.
// Every verdict is printed as "@@CHECK <name> PASS|FAIL <detail>"; the exit code is 0 when all
// passed, 1 when one failed and 77 when the guest could not run on this machine.
//
// Usage: vm_check WORK DISKS_CONF GROUP   (GROUP: boot, sg3, map, pages, capture, lock, rescan)
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;

std::string outDir;
int failures = 0;

void verdict(const std::string& name, bool pass, const std::string& detail)
{
    std::cout << "@@CHECK " << name << (pass ? " PASS " : " FAIL ") << detail << "\n";
    if (!pass)
        ++failures;
}

// The file's bytes; `found` tells whether it could be read.
std::string readFile(const std::string& path, bool* found = nullptr)
{
    std::ifstream in(path, std::ios::binary);
    if (found)
        *found = bool(in);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string text(const std::string& name)
{
    return readFile(outDir + "/" + name);
}

bool have(const std::string& name)
{
    bool found = false;
    readFile(outDir + "/" + name, &found);
    return found;
}

// An exit code file: its text without the line end.
std::string exitCode(const std::string& name)
{
    std::string t = text(name);
    return t.erase(t.find_last_not_of(" \t\n\v\f\r") + 1);
}

Bytes bytes(const std::string& name)
{
    std::string t = text(name);
    return Bytes(t.begin(), t.end());
}

std::string hex(const Bytes& b, size_t from, size_t count, bool upper, const char* sep = "")
{
    std::string s;
    char buf[4];
    for (size_t i = from; i < from + count && i < b.size(); ++i) {
        std::snprintf(buf, sizeof buf, upper ? "%02X" : "%02x", b[i]);
        s += buf;
        s += sep;
    }
    return s;
}

std::string upper(std::string s)
{
    for (char& c : s)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

// An INQUIRY text field as the library reads it: up to the first null byte, trailing blanks off.
std::string field(const Bytes& inq, size_t from, size_t count)
{
    std::string s;
    for (size_t i = from; i < from + count && i < inq.size() && inq[i] != 0; ++i)
        s += char(inq[i]);
    return s.erase(s.find_last_not_of(' ') + 1);
}

// The bytes the library keeps of an answer: a VPD page to its page-length byte 3 plus the 4-byte
// header, the standard INQUIRY to its additional-length byte 4 plus 5.
Bytes kept(const Bytes& raw, bool inquiry)
{
    if (raw.size() < 5)
        return Bytes();
    size_t n = inquiry ? raw[4] + 5u : raw[3] + 4u;
    return Bytes(raw.begin(), raw.begin() + std::min(n, raw.size()));
}

std::vector<int> supportedPages(const std::string& dev)
{
    Bytes p = bytes(dev + ".vpd.00");
    std::vector<int> codes;
    for (size_t i = 4; p.size() > 3 && i < 4u + p[3] && i < p.size(); ++i)
        codes.push_back(p[i]);
    return codes;
}

Bytes page(const std::string& dev, int code)
{
    char name[64];
    std::snprintf(name, sizeof name, "%s.vpd.%02x", dev.c_str(), code);
    return kept(bytes(name), false);
}

std::vector<std::string> split(const std::string& s, char sep)
{
    std::vector<std::string> parts;
    std::string cur;
    std::istringstream in(s);
    while (std::getline(in, cur, sep))
        parts.push_back(cur);
    if (!s.empty() && s.back() == sep)
        parts.push_back("");
    return parts;
}

// The device names the guest listed: sdX and mpatha.
std::vector<std::string> guestDevices()
{
    std::vector<std::string> names;
    for (const std::string& dev : split(text("devices"), ' '))
        if (!dev.empty())
            names.push_back(dev.substr(dev.rfind('/') + 1));
    return names;
}

struct Disk {
    std::string generator, vendor, product, serial, wwn, portWwn, deviceId;
    std::string dev;  // guest block name, found by its address 0:0:<index>:0
};

std::vector<Disk> readDisks(const std::string& conf)
{
    std::vector<Disk> disks;
    std::istringstream in(readFile(conf));
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        std::vector<std::string> f = split(line, '|');
        f.resize(7);
        Disk d{f[0], f[1], f[2], f[3], f[4], f[5], f[6], ""};
        std::string want = "0:0:" + std::to_string(disks.size()) + ":0";
        for (const std::string& dev : guestDevices())
            if (text(dev + ".hctl") == want)
                d.dev = dev;
        disks.push_back(d);
    }
    return disks;
}

std::string nodeOf(const std::string& name)
{
    return name == "mpatha" ? "/dev/mapper/mpatha" : "/dev/" + name;
}

std::vector<std::string> mapPaths()
{
    return split(text("dm_paths").substr(1), ' ');
}

// What the UDID of a device must be, worked out from the raw answers the guest's sg3-utils read.
// Only the families the guest's disks are built for are known here. The Clariion disk has no
// page 0xC0, so its array serial comes from page 0x80.
std::string expectedUdid(const std::string& dev, const std::string& host)
{
    Bytes inq = kept(bytes(dev + ".inquiry"), true);
    std::string vendor = field(inq, 8, 8), product = field(inq, 16, 16);
    std::vector<int> sup = supportedPages(dev);
    auto listed = [&](int c) { return std::find(sup.begin(), sup.end(), c) != sup.end(); };
    Bytes p80 = listed(0x80) ? page(dev, 0x80) : Bytes(),
          p83 = listed(0x83) ? page(dev, 0x83) : Bytes();

    std::string def = "UDID##" + vendor + "##";
    for (char c : product)
        def += c == ' ' ? '_' : c;
    def += "##";
    if (listed(0) && !vendor.empty() && (!p83.empty() || !p80.empty())) {
        std::string body = hex(p83.empty() ? p80 : p83, 0, 4096, false);
        while (!body.empty() && body.back() == '0')
            body.pop_back();
        if (body.size() > 80) {
            body.resize(80);
            while (!body.empty() && body.back() == '0')
                body.pop_back();
        }
        def += body;
    } else {
        def += nodeOf(dev) + "@" + host;
    }
    def = upper(def);

    if (vendor == "3PARdata" && product == "VV" && p80.size() > 11 && p83.size() >= 16) {
        std::string serial = field(p80, 4, 8);
        return upper("UDID##HP##3PAR##" + serial + "##" + hex(p83, 8, 8, true));
    }
    if (vendor == "DGC" && product.find("RAID") != std::string::npos && p83.size() > 22 &&
        p80.size() > 4 && p80[3] + 4u <= p80.size()) {
        std::string serial = field(p80, 4, 14);
        std::string wwn = hex(p83, 8, 16, false, ":");
        wwn.pop_back();
        return upper("UDID##DGC##CLARIION##" + serial + "##" + wwn);
    }
    return def;
}

bool parseJson(const std::string& name, nlohmann::json& j)
{
    try {
        j = nlohmann::json::parse(text(name));
        return true;
    } catch (const std::exception& e) {
        verdict(name, false,
                std::string("not JSON: ") + e.what() + " [" + text(name).substr(0, 200) + "]");
        return false;
    }
}

// The verdict on a run's exit code file `run`.rc, with its `errors` file as the detail.
void exitVerdict(const std::string& name, const std::string& run, const std::string& errors)
{
    std::string rc = exitCode(run + ".rc");
    verdict(name, rc == "0", "exit " + rc + " " + text(errors));
}

// ---- groups ----

void checkBoot()
{
    std::string guest = text("guest-checks");
    for (const char* name : {"modules", "virtio_disks", "scsi_debug", "dm_map"}) {
        std::string mark = std::string("@@CHECK ") + name + " ";
        size_t at = guest.find(mark);
        std::string line =
            at == std::string::npos ? "" : guest.substr(at, guest.find('\n', at) - at);
        verdict(std::string("guest_") + name, line.find(" PASS ") != std::string::npos,
                line.empty() ? "no report from the guest" : line.substr(mark.size()));
    }
}

// The kernel and QEMU must present the disks as configured, or every later check is moot.
void checkSg3(const std::vector<Disk>& disks)
{
    for (const Disk& d : disks) {
        std::string name = "sg3_" + d.generator;
        if (d.dev.empty()) {
            verdict(name, false, "no disk at address of " + d.vendor);
            continue;
        }
        Bytes inq = bytes(d.dev + ".inquiry");
        std::string id(inq.begin() + std::min<size_t>(8, inq.size()),
                       inq.begin() + std::min<size_t>(32, inq.size()));
        std::string want = (d.vendor + std::string(8, ' ')).substr(0, 8) +
                           (d.product + std::string(16, ' ')).substr(0, 16);
        verdict(name + "_inquiry", id == want, d.dev + " [" + id + "]");
        Bytes p80 = page(d.dev, 0x80);
        std::string serial(p80.begin() + std::min<size_t>(4, p80.size()), p80.end());
        verdict(name + "_serial", serial == d.serial, d.dev + " [" + serial + "]");
        std::string naa = "01030008" + d.wwn.substr(2);
        std::string p83 = hex(page(d.dev, 0x83), 0, 4096, false);
        bool first = d.deviceId != "-";
        verdict(name + "_naa",
                first ? p83.compare(8, naa.size(), naa) == 0 : p83.find(naa) != std::string::npos,
                d.dev + " page 0x83 " + p83);
    }
    std::vector<std::string> paths = mapPaths();
    bool two = paths.size() == 2;
    verdict("sg3_paths_share_identity",
            two && bytes(paths[0] + ".inquiry") == bytes(paths[1] + ".inquiry") &&
                page(paths[0], 0x80) == page(paths[1], 0x80),
            "paths [" + text("dm_paths") + "]");
    verdict("sg3_map_passes_inquiry",
            two && (page("mpatha", 0x83) == page(paths[0], 0x83) ||
                    page("mpatha", 0x83) == page(paths[1], 0x83)),
            "page 0x83 through /dev/mapper/mpatha is that of one path");
}

void checkMap()
{
    exitVerdict("map_exit", "map", "map.err");
    nlohmann::json map;
    if (!parseJson("map.json", map))
        return;
    std::map<std::string, nlohmann::json> byName;
    for (const auto& e : map)
        byName[e.value("DeviceName", "")] = e;

    std::set<std::string> expected{"/dev/mapper/control"};
    for (const std::string& dev : guestDevices()) {
        std::string node = nodeOf(dev);
        expected.insert(node);
        auto it = byName.find(node);
        if (it == byName.end()) {
            verdict("map_" + dev, false, "missing from the map");
            continue;
        }
        const nlohmann::json& e = it->second;
        int level = dev == "mpatha" ? 16 : 2;
        std::string udid = expectedUdid(dev, "vmguest");
        bool ok = e.value("dmpClaimLevel", -1) == level && e.value("Uid", "") == udid &&
                  e.value("NativePath", nlohmann::json::array()) == nlohmann::json::array();
        verdict("map_" + dev, ok,
                e.dump() + " expected level " + std::to_string(level) + " and " + udid);
    }
    // The map's pseudo-device is the same logical unit as each of its paths.
    std::vector<std::string> paths = mapPaths();
    if (paths.size() == 2 && byName.count("/dev/mapper/mpatha"))
        verdict("map_mpatha_same_unit_as_paths",
                byName["/dev/mapper/mpatha"]["Uid"] == byName[nodeOf(paths[0])]["Uid"] &&
                    byName["/dev/mapper/mpatha"]["Uid"] == byName[nodeOf(paths[1])]["Uid"],
                "mpatha, " + paths[0] + " and " + paths[1]);
    // The device-mapper control node opens but answers no INQUIRY: it stays in the map with the
    // host-local id of a device without identity.
    auto control = byName.find("/dev/mapper/control");
    verdict("map_control",
            control != byName.end() && control->second.value("dmpClaimLevel", -1) == 16 &&
                control->second.value("Uid", "") == "UDID######/DEV/MAPPER/CONTROL@VMGUEST",
            control == byName.end() ? "missing" : control->second.dump());
    std::string extra;
    for (const auto& kv : byName)
        if (!expected.count(kv.first))
            extra += " " + kv.first;
    verdict("map_nothing_else", extra.empty() && map.size() == byName.size(), "extra:" + extra);
}

void checkPages()
{
    static const int fixed[] = {0x83, 0x80, 0xC0, 0xC8, 0x10, 0x11, 0xD0};
    std::vector<std::string> paths = mapPaths();
    for (const std::string& dev : guestDevices()) {
        std::string name = "pages_" + dev;
        nlohmann::json show;
        if (exitCode(dev + ".show.rc") != "0") {
            exitVerdict(name, dev + ".show", dev + ".show.err");
            continue;
        }
        if (!parseJson(dev + ".show.json", show))
            continue;
        // Through the map, the kernel hands each query to one of the paths.
        std::vector<std::string> sources{dev};
        if (dev == "mpatha")
            sources.insert(sources.end(), paths.begin(), paths.end());
        auto fromAny = [&](const std::function<std::string(const std::string&)>& get,
                           const std::string& have) {
            return std::any_of(sources.begin(), sources.end(),
                               [&](const std::string& s) { return get(s) == have; });
        };
        auto inquiryHex = [](const std::string& s) {
            return hex(kept(bytes(s + ".inquiry"), true), 0, 4096, false);
        };
        std::string inq = show.value("inquiry", "");
        verdict(name + "_inquiry", fromAny(inquiryHex, inq), inq);
        Bytes raw = kept(bytes(dev + ".inquiry"), true);
        verdict(
            name + "_strings",
            show.value("vendor", "") == field(raw, 8, 8) &&
                show.value("product", "") == field(raw, 16, 16) &&
                show.value("firmware", "") ==
                    std::string(raw.begin() + 32, raw.begin() + std::min<size_t>(36, raw.size())),
            show.value("vendor", "") + "|" + show.value("product", "") + "|" +
                show.value("firmware", ""));

        std::vector<int> sup = supportedPages(dev);
        verdict(name + "_supported",
                show.value("supported_pages", nlohmann::json()) == nlohmann::json(sup),
                show.value("supported_pages", nlohmann::json()).dump());

        nlohmann::json vpd = show.value("vpd", nlohmann::json::object());
        std::set<std::string> want;
        for (int code : fixed)
            for (int s : sup)
                if (s == code) {
                    char key[4];
                    std::snprintf(key, sizeof key, "%02x", code);
                    want.insert(key);
                    std::string got = vpd.value(key, "");
                    auto pageHex = [code](const std::string& s) {
                        return hex(page(s, code), 0, 4096, false);
                    };
                    verdict(name + "_vpd_" + key, fromAny(pageHex, got),
                            got.empty() ? "not cached" : got);
                }
        std::string extra;
        for (auto it = vpd.begin(); it != vpd.end(); ++it)
            if (!want.count(it.key()))
                extra += " " + it.key();
        verdict(name + "_vpd_set", extra.empty(), "pages cached beyond the listed ones:" + extra);

        nlohmann::json addr = show.value("address", nlohmann::json());
        std::string hctl = addr.is_array() && addr.size() == 4
                               ? addr[0].dump() + ":" + addr[1].dump() + ":" + addr[2].dump() +
                                     ":" + addr[3].dump()
                               : addr.dump();
        verdict(name + "_address",
                fromAny([](const std::string& s) { return text(s + ".hctl"); }, hctl), hctl);
    }
}

void checkCapture()
{
    exitVerdict("capture_exit", "capture", "capture.out");
    exitVerdict("capture_replay_exit", "replay", "replay.err");
    nlohmann::json guest, replay;
    if (!parseJson("map.json", guest) || !parseJson("replay.json", replay))
        return;
    verdict("capture_replay_same_map", guest == replay, replay.dump());
}

// The time stamp of the first trace line that holds `what` ("" when none does).
std::string stampOf(const std::string& trace, const std::string& what)
{
    size_t at = trace.find(what);
    if (at == std::string::npos)
        return "";
    size_t begin = trace.rfind('\n', at);
    begin = begin == std::string::npos ? 0 : begin + 1;
    return trace.substr(begin, 23);  // "2026-11-22 10:15:02.123"
}

void checkLock()
{
    nlohmann::json guest;
    if (!parseJson("map.json", guest))
        return;
    for (const char* run : {"lock1", "lock2"}) {
        exitVerdict(std::string(run) + "_exit", run, std::string(run) + ".err");
        nlohmann::json j;
        if (parseJson(std::string(run) + ".json", j))
            verdict(std::string(run) + "_same_map", j == guest, j.dump());
    }
    // Each run holds the host-wide lock from "Got the lock ." to "Releasing the lock ."; the two
    // spans must not overlap.
    std::string t1 = text("lock1.trace"), t2 = text("lock2.trace");
    std::string got1 = stampOf(t1, "Got the lock ."), rel1 = stampOf(t1, "Releasing the lock .");
    std::string got2 = stampOf(t2, "Got the lock ."), rel2 = stampOf(t2, "Releasing the lock .");
    bool traced = !got1.empty() && !rel1.empty() && !got2.empty() && !rel2.empty();
    verdict("lock_spans_apart", traced && (rel1 <= got2 || rel2 <= got1),
            "run 1 held it " + got1 + " .. " + rel1 + ", run 2 " + got2 + " .. " + rel2);
}

void checkRescan()
{
    exitVerdict("rescan_exit", "rescan", "rescan.err");
    std::string before, after = text("rescan.devices");
    for (const std::string& dev : guestDevices())
        if (dev != "mpatha")
            before += " /dev/" + dev;
    verdict("rescan_kept_every_disk", after == before,
            "before [" + before + "] after [" + after + "]");
    std::string trace = text("rescan.trace");
    // Kernels built without SCSI_PROC_FS (Debian's among them) have no /proc/scsi/scsi: the dead
    // device pass then sees no kernel disk, says so, and must still remove nothing.
    if (text("proc_scsi").empty()) {
        verdict("rescan_no_proc_scsi_reported",
                trace.find("failed to open /proc/scsi/scsi for reading.") != std::string::npos,
                "this kernel has no /proc/scsi/scsi");
    }
    for (const std::string& dev : guestDevices()) {
        if (dev == "mpatha" || text("proc_scsi").empty())
            continue;
        std::vector<std::string> a = split(text(dev + ".hctl"), ':');
        if (a.size() != 4)
            continue;
        std::string match = "INFO: found match comparing devices a[" + a[0] + "," + a[0] + "] b[" +
                            a[1] + "," + a[1] + "] t[" + a[2] + "," + a[2] + "] l[" + a[3] + "," +
                            a[3] + "]";
        verdict("rescan_matched_" + dev, trace.find(match) != std::string::npos, match);
    }
    verdict("rescan_removed_nothing", trace.find("INFO: removing device") == std::string::npos,
            "no \"INFO: removing device\" in the trace");
    // The disks keep their entries; records whose query failed may leave the map on this path.
    nlohmann::json guest, rescan;
    if (!parseJson("map.json", guest) || !parseJson("rescan.json", rescan))
        return;
    std::string differ;
    for (const auto& e : guest) {
        if (e.value("DeviceName", "") == "/dev/mapper/control")
            continue;
        bool found = false;
        for (const auto& r : rescan)
            found = found || r == e;
        if (!found)
            differ += " " + e.value("DeviceName", "");
    }
    verdict("rescan_same_disks_in_map", differ.empty(), "changed or missing:" + differ);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::cerr << "usage: vm_check WORK DISKS_CONF GROUP\n";
        return 2;
    }
    std::string work = argv[1], group = argv[3];
    outDir = work + "/out";
    bool stopped = false;
    std::string skipped = readFile(work + "/status", &stopped);
    if (stopped || !have("guest-checks")) {
        std::cout << "vm: SKIP: the guest did not run (see the vm_guest test)\n";
        return skipped.rfind("77", 0) == 0 ? 77 : 1;
    }
    if (group != "boot" && group != "sg3" && !have("map.json")) {
        std::cout << "vm: SKIP: the guest ran without scsitool\n";
        return 77;
    }
    std::vector<Disk> disks = readDisks(argv[2]);
    const std::map<std::string, std::function<void()>> groups = {
        {"boot", checkBoot},    {"sg3", [&] { checkSg3(disks); }}, {"map", checkMap},
        {"pages", checkPages},  {"capture", checkCapture},         {"lock", checkLock},
        {"rescan", checkRescan}};
    auto check = groups.find(group);
    if (check == groups.end()) {
        std::cerr << "vm_check: unknown group " << group << "\n";
        return 2;
    }
    check->second();
    return failures == 0 ? 0 : 1;
}
