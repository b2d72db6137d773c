// SPDX-License-Identifier: Apache-2.0
// `scsitool fleet`: the volumes several captured hosts share. A capture records the map its host's
// library gave, which is what the fleet is about: that map is read, without building the JSON
// document or replaying the host, on every core. A snapshot without a recorded map is replayed,
// and so is every capture with --replay, which also says where the replay differs from the record.
#include <fcntl.h>
#include <signal.h>
#include <simdjson.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string_view>
#include <thread>

#include "compare.h"
#include "device_udid_factory.h"
#include "digest.h"
#include "errors.h"
#include "progress.h"
#include "simhost.h"

namespace scsitool_cli {

namespace {

using simdjson::ondemand::object;

// What the fleet takes from one capture file.
struct CaptureRead {
    bool recorded = false;  // the recorded map was read; otherwise the capture is replayed
    std::string hostName;
    std::string machineId;
    std::string captureId;
    std::string contentId;            // "capture ID", or "content DIGEST" of the file's text
    std::vector<SMapVolume> entries;  // the recorded map's disks, with their volume keys
};

// "00 83 00 14 …" as bytes, into `bytes` unless it is null; a simdjson error for anything else,
// so that the file is replayed and its loader names the fault.
void hexInto(std::string_view text, std::vector<unsigned char>* bytes)
{
    int high = -1;
    for (char c : text) {
        int digit;
        if (c >= '0' && c <= '9') {
            digit = c - '0';
        } else if (c >= 'a' && c <= 'f') {
            digit = c - 'a' + 10;
        } else if (c >= 'A' && c <= 'F') {
            digit = c - 'A' + 10;
        } else if (c == ' ' && high < 0) {
            continue;
        } else {
            throw simdjson::simdjson_error(simdjson::INCORRECT_TYPE);
        }
        if (high < 0) {
            high = digit;
        } else {
            if (bytes) {
                bytes->push_back(static_cast<unsigned char>(high << 4 | digit));
            }
            high = -1;
        }
    }
    if (high >= 0) {
        throw simdjson::simdjson_error(simdjson::INCORRECT_TYPE);
    }
}

std::vector<unsigned char> hexBytes(std::string_view text)
{
    std::vector<unsigned char> bytes;
    bytes.reserve(text.size() / 3 + 1);
    hexInto(text, &bytes);
    return bytes;
}

std::string text(simdjson::ondemand::value value)
{
    return std::string(std::string_view(value.get_string()));
}

// The node of one snapshot device and its volume key, from its identification pages as recorded;
// without `keyed` the pages are only checked, and the key is "".
std::pair<std::string, std::string> deviceKey(object device, bool keyed)
{
    std::string name, vendor;
    std::map<unsigned int, std::vector<unsigned char>> pages;
    for (auto field : device) {
        const std::string_view key = field.unescaped_key();
        if (key == "name") {
            name = "/dev/" + text(field.value());
        } else if (key == "inquiry") {
            if (!keyed) {
                hexInto(field.value().get_string(), nullptr);
                continue;
            }
            const std::vector<unsigned char> inquiry = hexBytes(field.value().get_string());
            if (inquiry.size() >= 16) {
                vendor.assign(inquiry.begin() + 8, inquiry.begin() + 16);
            }
        } else if (key == "vpd") {
            for (auto page : field.value().get_object()) {
                const std::string_view code = page.unescaped_key();
                if (code == "80" || code == "83") {
                    if (!keyed) {
                        hexInto(page.value().get_string(), nullptr);
                        continue;
                    }
                    pages[code == "80" ? 0x80 : 0x83] = hexBytes(page.value().get_string());
                }
            }
        }
    }
    if (!keyed) {
        return std::make_pair(name, std::string());
    }
    CScsiDeviceData record("", "", "", 0, 0, 0, 0, vendor, "", "", 0);
    for (const auto& page : pages) {
        record.m_pageCache[page.first] =
            CScsiModePage(page.second.data(), static_cast<unsigned int>(page.second.size()));
    }
    return std::make_pair(name, CDeviceMapCompare::volumeKey(record));
}

// One row of the recorded map: true for a disk with a UDID, whose name, UDID and host-local flag
// are then in `volume`.
bool readDiskRow(object row, SMapVolume& volume)
{
    bool disk = false;
    for (auto column : row) {
        const std::string_view key = column.unescaped_key();
        if (key == "DeviceName") {
            volume.deviceName = text(column.value());
        } else if (key == "Uid") {
            volume.udid = text(column.value());
        } else if (key == "kind") {
            disk = std::string_view(column.value().get_string()) == "disk";
        } else if (key == "host_local") {
            volume.hostLocal = column.value().get_bool();
        }
    }
    return disk && !volume.udid.empty();
}

// Reads what the fleet needs in one pass over the file's text. False (and nothing trusted) when
// the file holds no recorded map or is not what capture writes: it is then replayed. Without
// `volumeKeys` (a replay compares only the UDIDs) the disks' volume keys are left "".
bool readRecorded(const std::string& path, simdjson::ondemand::parser& parser, CaptureRead& read,
                  bool volumeKeys = true)
{
    simdjson::padded_string content;
    if (simdjson::padded_string::load(path).get(content) != simdjson::SUCCESS) {
        return false;
    }
    bool hasHostName = false, hasMap = false;
    std::map<std::string, std::string> keys;  // "/dev/sdc" -> its volume key
    try {
        simdjson::ondemand::document document = parser.iterate(content);
        for (auto field : document.get_object()) {
            const std::string_view key = field.unescaped_key();
            if (key == "hostname") {
                read.hostName = text(field.value());
                hasHostName = true;
            } else if (key == "devices") {
                for (auto device : field.value().get_array()) {
                    keys.insert(deviceKey(device.get_object(), volumeKeys));
                }
            } else if (key == "capture") {
                for (auto entry : field.value().get_object()) {
                    const std::string_view name = entry.unescaped_key();
                    if (name == "machine_id") {
                        read.machineId = text(entry.value());
                    } else if (name == "capture_id") {
                        read.captureId = text(entry.value());
                    } else if (name == "map") {
                        hasMap = true;
                        for (auto row : entry.value().get_array()) {
                            SMapVolume volume;
                            // The fleet is about the disks; the pseudo-devices in front of them
                            // add no volume.
                            if (readDiskRow(row.get_object(), volume)) {
                                read.entries.push_back(std::move(volume));
                            }
                        }
                    }
                }
            }
        }
    } catch (const simdjson::simdjson_error&) {
        return false;
    }
    for (SMapVolume& volume : read.entries) {
        volume.volumeKey = keys[volume.deviceName];
    }
    read.contentId = read.captureId.empty()
                         ? "content " + sha256Hex(std::string(content.data(), content.size()))
                         : "capture " + read.captureId;
    read.recorded = hasHostName && hasMap;
    return read.recorded;
}

// A capture's native disks as the replaying fleet reads them: the disks the kernel lists, queried
// one by one.
SHostMap replayDisks(Session& session, const simhost::SimHost& host)
{
    std::vector<std::string> disks;
    for (const simhost::SimDevice& device : host.devices()) {
        if (device.state != simhost::DeviceState::Latent &&
            device.state != simhost::DeviceState::Removed) {
            disks.push_back(device.name);
        }
    }
    return CDeviceMapCompare::describeDisks(session.factory(), disks);
}

// Where the replay of a capture gives other UDIDs than its record, one warning each.
std::vector<std::string> replayDiffers(const std::string& capture,
                                       const std::vector<SMapVolume>& recorded,
                                       const std::vector<SMapVolume>& replayed)
{
    std::map<std::string, std::pair<std::string, std::string>> udids;
    for (const SMapVolume& volume : recorded) {
        udids[volume.deviceName].first = volume.udid;
    }
    for (const SMapVolume& volume : replayed) {
        udids[volume.deviceName].second = volume.udid;
    }
    std::vector<std::string> warnings;
    for (const auto& entry : udids) {
        if (entry.second.first != entry.second.second) {
            const auto orNone = [](const std::string& udid) {
                return udid.empty() ? std::string("none") : udid;
            };
            warnings.push_back(capture + ": " + entry.first + ": recorded " +
                               orNone(entry.second.first) + ", replayed " +
                               orNone(entry.second.second));
        }
    }
    return warnings;
}

// One capture replayed through the simulated host: what it says of itself, its disks, and with
// --replay the warnings on where the replay differs from its record.
void replayCapture(Session& session, const std::string& capture, bool compareRecord,
                   simdjson::ondemand::parser& parser, CaptureRead& read,
                   std::vector<std::string>& warnings)
{
    std::unique_ptr<simhost::SimHost> host = loadCapture(capture);
    simhost::SimHostInstall install(*host);
    // Of the capture's record the fleet wants two strings, not the text of the whole record
    // (which holds the recorded map) nor its document.
    read.hostName = Session::hostName();
    read.machineId = host->captureString("machine_id");
    const std::string captureId = host->captureString("capture_id");
    read.contentId =
        captureId.empty() ? "content " + sha256Hex(host->toJson()) : "capture " + captureId;
    read.entries = replayDisks(session, *host).entries;
    if (compareRecord) {
        CaptureRead record;
        if (readRecorded(capture, parser, record, false)) {
            warnings = replayDiffers(capture, record.entries, read.entries);
        }
    }
}

// What a worker sends back for one capture: length-prefixed fields, the capture's failure (its
// exit code and message) or what replayCapture gave. Only the disks the fleet counts travel.
void putField(std::string& out, const std::string& field)
{
    const uint32_t size = static_cast<uint32_t>(field.size());
    out.append(reinterpret_cast<const char*>(&size), sizeof size);
    out += field;
}

std::string encodeReplay(const CaptureRead& read, const std::vector<std::string>& warnings)
{
    std::string out;
    putField(out, "ok");
    putField(out, read.hostName);
    putField(out, read.machineId);
    putField(out, read.contentId);
    putField(out, std::to_string(warnings.size()));
    for (const std::string& warning : warnings) {
        putField(out, warning);
    }
    std::vector<const SMapVolume*> counted;
    for (const SMapVolume& volume : read.entries) {
        if (!volume.udid.empty() && !volume.hostLocal) {
            counted.push_back(&volume);
        }
    }
    putField(out, std::to_string(counted.size()));
    for (const SMapVolume* volume : counted) {
        putField(out, volume->deviceName);
        putField(out, volume->udid);
        putField(out, volume->volumeKey);
    }
    return out;
}

std::string encodeFailure(int exitCode, const std::string& message)
{
    std::string out;
    putField(out, "failed");
    putField(out, std::to_string(exitCode));
    putField(out, message);
    return out;
}

// Writes all of `data`; false when the reader has gone.
bool writeAll(int fd, const std::string& data)
{
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t written = ::write(fd, data.data() + done, data.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        done += static_cast<size_t>(written);
    }
    return true;
}

bool readAll(int fd, char* data, size_t size)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t got = ::read(fd, data + done, size - done);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

// The replay is done by worker processes, one per core: the system interface the simulated host
// is installed in is one per process. Worker w replays captures w, w + n, w + 2n…, in order, and
// sends each one back as a record framed by its length; the command reads them back in the order
// of the captures, so the output, the warnings and the first failure are those of one process.
class ReplayWorkers {
public:
    ReplayWorkers(Session& session, const std::vector<std::string>& captures, size_t count)
        : m_total(captures.size())
    {
        // Nothing buffered for standard output or error may be written twice.
        std::fflush(nullptr);
        for (size_t w = 0; w < count; ++w) {
            int fds[2];
            if (::pipe2(fds, O_CLOEXEC) != 0) {
                throw CommandError(kExitFailure, std::string("fleet: cannot start a worker: ") +
                                                     std::strerror(errno));
            }
            const pid_t pid = ::fork();
            if (pid < 0) {
                const int error = errno;
                ::close(fds[0]);
                ::close(fds[1]);
                throw CommandError(kExitFailure, std::string("fleet: cannot start a worker: ") +
                                                     std::strerror(error));
            }
            if (pid == 0) {
                ::close(fds[0]);
                for (int fd : m_fds) {
                    ::close(fd);
                }
                work(session, captures, w, count, fds[1]);
            }
            ::close(fds[1]);
            m_fds.push_back(fds[0]);
            m_pids.push_back(pid);
        }
    }
    ReplayWorkers(const ReplayWorkers&) = delete;
    ReplayWorkers& operator=(const ReplayWorkers&) = delete;

    // The workers are done when every record was read; otherwise the command stopped early and
    // their work is no longer wanted.
    ~ReplayWorkers()
    {
        for (size_t w = 0; w < m_pids.size(); ++w) {
            ::close(m_fds[w]);
            if (!m_complete) {
                ::kill(m_pids[w], SIGKILL);
            }
            while (::waitpid(m_pids[w], nullptr, 0) < 0 && errno == EINTR) {
            }
        }
    }

    // Capture `index`'s replay, as replayCapture gives it; its failure is thrown as it would be
    // in one process.
    void take(size_t index, CaptureRead& read, std::vector<std::string>& warnings)
    {
        const int fd = m_fds[index % m_fds.size()];
        uint32_t size = 0;
        std::string record;
        if (readAll(fd, reinterpret_cast<char*>(&size), sizeof size)) {
            record.resize(size);
            if (!readAll(fd, &record[0], size)) {
                record.clear();
            }
        }
        Fields fields{record, 0};
        const std::string status = fields.next();
        if (status == "failed") {
            const int exitCode = std::atoi(fields.next().c_str());
            throw CommandError(exitCode, fields.next());
        }
        if (status != "ok") {
            throw CommandError(kExitFailure, "fleet: a worker replaying the captures ended early");
        }
        read.hostName = fields.next();
        read.machineId = fields.next();
        read.contentId = fields.next();
        for (size_t n = std::stoul(fields.next()); n > 0; --n) {
            warnings.push_back(fields.next());
        }
        for (size_t n = std::stoul(fields.next()); n > 0; --n) {
            SMapVolume volume;
            volume.deviceName = fields.next();
            volume.udid = fields.next();
            volume.volumeKey = fields.next();
            read.entries.push_back(std::move(volume));
        }
        if (index + 1 == m_total) {
            m_complete = true;
        }
    }

private:
    // The fields of one record; "" past its end.
    struct Fields {
        const std::string& record;
        size_t at;
        std::string next()
        {
            uint32_t size = 0;
            if (record.size() - at < sizeof size) {
                at = record.size();
                return std::string();
            }
            std::memcpy(&size, record.data() + at, sizeof size);
            at += sizeof size;
            const size_t length = std::min<size_t>(size, record.size() - at);
            std::string field = record.substr(at, length);
            at += length;
            return field;
        }
    };

    [[noreturn]] static void work(Session& session, const std::vector<std::string>& captures,
                                  size_t first, size_t step, int fd)
    {
        simdjson::ondemand::parser parser;
        for (size_t i = first; i < captures.size(); i += step) {
            std::string record;
            bool failed = true;
            try {
                CaptureRead read;
                std::vector<std::string> warnings;
                replayCapture(session, captures[i], true, parser, read, warnings);
                record = encodeReplay(read, warnings);
                failed = false;
            } catch (const CommandError& e) {
                record = encodeFailure(e.exitCode(), e.what());
            } catch (const std::exception& e) {
                record =
                    encodeFailure(kExitFailure, std::string("unexpected failure: ") + e.what());
            } catch (...) {
                record = encodeFailure(kExitFailure, "unexpected failure");
            }
            const uint32_t size = static_cast<uint32_t>(record.size());
            // The command stops at the first failure: nothing after it is wanted.
            if (!writeAll(
                    fd, std::string(reinterpret_cast<const char*>(&size), sizeof size) + record) ||
                failed) {
                break;
            }
        }
        // No destructor of the command's runs here: they belong to the process that forked.
        ::_exit(0);
    }

    std::vector<int> m_fds;
    std::vector<pid_t> m_pids;
    size_t m_total;
    bool m_complete = false;
};

// Reads `count` captures from `first` on every core, each into its slot.
void readBatch(const std::vector<std::string>& captures, size_t first, size_t count,
               std::vector<CaptureRead>& reads)
{
    reads.assign(count, CaptureRead());
    std::atomic<size_t> next(0);
    const auto work = [&]() {
        simdjson::ondemand::parser parser;
        for (size_t i = next++; i < count; i = next++) {
            readRecorded(captures[first + i], parser, reads[i]);
        }
    };
    const size_t cores = std::max(1u, std::thread::hardware_concurrency());
    std::vector<std::thread> threads;
    for (size_t t = 1; t < std::min(cores, count); ++t) {
        threads.emplace_back(work);
    }
    work();
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// A thread joined when it goes out of scope, whatever ends the scope.
class JoinedThread {
public:
    JoinedThread() = default;
    JoinedThread(const JoinedThread&) = delete;
    JoinedThread& operator=(const JoinedThread&) = delete;
    ~JoinedThread()
    {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    void start(std::function<void()> work) { m_thread = std::thread(std::move(work)); }

private:
    std::thread m_thread;
};

// Captures read ahead of the fold: enough to keep every core busy, few enough that memory stays
// with the view.
const size_t kBatch = 256;

}  // namespace

std::string runFleet(Session& session, const std::vector<std::string>& captures, bool json,
                     bool replay, bool& conflicts)
{
    if (captures.empty()) {
        throw CommandError(kExitBadInput, "fleet: no captures given");
    }
    if (std::find(captures.begin(), captures.end(), "-") != captures.end()) {
        throw CommandError(kExitBadInput, "fleet: takes capture files, not - (this host)");
    }
    CFleetView fleet;
    std::map<std::string, std::string> seen;    // capture id (or content) -> the first file
    std::map<std::string, std::string> labels;  // host key -> the name the output gives it
    std::map<std::string, std::string> keysByLabel;
    // A trace keeps its lines in the order the library wrote them: with one, the replays run
    // here, one after another.
    const size_t cores = std::max(1u, std::thread::hardware_concurrency());
    std::unique_ptr<ReplayWorkers> workers;
    if (replay && !session.tracing() && cores > 1 && captures.size() > 1) {
        workers.reset(new ReplayWorkers(session, captures, std::min(cores, captures.size())));
    }
    ProgressLine progress("reading captures");
    simdjson::ondemand::parser parser;
    // The next batch is read on the other cores while this one is folded here.
    std::vector<CaptureRead> reads, ahead;
    if (!replay) {
        readBatch(captures, 0, std::min(kBatch, captures.size()), ahead);
    }
    for (size_t first = 0; first < captures.size(); first += kBatch) {
        const size_t count = std::min(kBatch, captures.size() - first);
        reads.swap(ahead);
        if (replay) {
            reads.assign(count, CaptureRead());
        }
        JoinedThread reader;
        const size_t next = first + kBatch;
        if (!replay && next < captures.size()) {
            reader.start([&captures, &ahead, next]() {
                readBatch(captures, next, std::min(kBatch, captures.size() - next), ahead);
            });
        }
        for (size_t i = 0; i < count; ++i) {
            const std::string& capture = captures[first + i];
            progress.setWhat("reading captures " + std::to_string(first + i + 1) + " of " +
                             std::to_string(captures.size()));
            CaptureRead& read = reads[i];
            if (!read.recorded) {
                std::vector<std::string> warnings;
                if (workers) {
                    workers->take(first + i, read, warnings);
                } else {
                    replayCapture(session, capture, replay, parser, read, warnings);
                }
                for (const std::string& warning : warnings) {
                    warn(warning);
                }
            }
            SHostMap map;
            map.entries = std::move(read.entries);
            // A capture is known by its own id; a snapshot that capture did not write by its
            // content.
            auto known = seen.emplace(read.contentId, capture);
            if (!known.second) {
                warn(capture + ": the same capture as " + known.first->second + ", counted once");
                continue;
            }
            // A host is its machine id and name; without a machine id, its name and content.
            const std::string hostKey =
                read.hostName + "\n" + (read.machineId.empty() ? read.contentId : read.machineId);
            std::string label = read.hostName.empty() ? capture : read.hostName;
            auto named = labels.find(hostKey);
            if (named != labels.end()) {
                label = named->second;
            } else {
                // Two hosts of one name are told apart by their machine ids (or their files).
                if (keysByLabel.count(label) != 0) {
                    label += " (" +
                             (read.machineId.empty() ? capture : read.machineId.substr(0, 12)) +
                             ")";
                }
                labels[hostKey] = label;
                keysByLabel[label] = hostKey;
            }
            map.hostName = label;
            map.machineId = read.machineId;
            fleet.addHost(map);
        }
    }
    conflicts = !fleet.conflicts().empty();
    // Written as it is made: the text of a large fleet is many times the view it comes from.
    const TextWriter toStdout = [](const std::string& piece) {
        std::fwrite(piece.data(), 1, piece.size(), stdout);
    };
    return json ? formatFleetJson(fleet, toStdout) : formatFleetTable(fleet, toStdout);
}

}  // namespace scsitool_cli
