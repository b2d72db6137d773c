// SPDX-License-Identifier: Apache-2.0
// `scsitool check --state-dir DIR`: what a scheduler runs. This host is captured into DIR, the
// capture is compared with the one before it, and the findings are printed as `diff` prints them.
#include "check.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "compare.h"
#include "errors.h"

namespace scsitool_cli {

namespace {

const char kPrefix[] = "capture-";
const char kSuffix[] = ".json";
const size_t kDigits = 8;

// The number of a capture the state directory holds ("capture-00000042.json"), 0 for any other
// file: the directory may hold what an administrator put there.
unsigned long captureNumber(const std::string& name)
{
    const size_t prefix = sizeof kPrefix - 1, suffix = sizeof kSuffix - 1;
    if (name.size() != prefix + kDigits + suffix || name.compare(0, prefix, kPrefix) != 0 ||
        name.compare(prefix + kDigits, suffix, kSuffix) != 0) {
        return 0;
    }
    const std::string digits = name.substr(prefix, kDigits);
    if (digits.find_first_not_of("0123456789") != std::string::npos) {
        return 0;
    }
    return std::stoul(digits);
}

std::string captureName(unsigned long number)
{
    char name[64];
    std::snprintf(name, sizeof name, "%s%0*lu%s", kPrefix, static_cast<int>(kDigits), number,
                  kSuffix);
    return name;
}

// The numbers of the captures in `directory`, oldest first; the directory is made when missing.
std::vector<unsigned long> stateCaptures(const std::string& directory)
{
    if (::mkdir(directory.c_str(), 0750) != 0 && errno != EEXIST) {
        throw CommandError(kExitBadInput, directory + ": cannot make the state directory: " +
                                              std::strerror(errno));
    }
    DIR* dir = ::opendir(directory.c_str());
    if (dir == nullptr) {
        throw CommandError(kExitBadInput, directory + ": cannot read the state directory: " +
                                              std::strerror(errno));
    }
    std::vector<unsigned long> numbers;
    while (struct dirent* entry = ::readdir(dir)) {
        if (unsigned long number = captureNumber(entry->d_name)) {
            numbers.push_back(number);
        }
    }
    ::closedir(dir);
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

// The journal's priority of a line of `diff`'s output: the context is information, a name that
// points at another volume is an error, a volume out of reach a warning, the rest a notice.
int priorityOf(const std::string& line)
{
    static const struct {
        const char* kind;
        int priority;
    } kPriorities[] = {{"remapped ", 3}, {"identity-changed ", 3}, {"unavailable ", 4}};
    for (const auto& entry : kPriorities) {
        if (line.compare(0, std::strlen(entry.kind), entry.kind) == 0) {
            return entry.priority;
        }
    }
    if (line.compare(0, 7, "before:") == 0 || line.compare(0, 6, "after:") == 0 ||
        line.compare(0, 6, "first ") == 0) {
        return 6;
    }
    return 5;
}

}  // namespace

std::string withJournalPriorities(const std::string& text)
{
    std::string result;
    size_t start = 0;
    int priority = 5;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end + 1;
        const std::string line = text.substr(start, end - start);
        // An indented line says why the finding above it was made: it goes with that finding,
        // so that an alert on errors carries its explanation.
        if (line.compare(0, 2, "  ") != 0) {
            priority = priorityOf(line);
        }
        result += "<" + std::to_string(priority) + ">" + line;
        start = end;
    }
    return result;
}

std::string runCheck(Session& session, const CheckOptions& options, bool& differ)
{
    differ = false;
    if (options.keep < 1) {
        throw CommandError(kExitUsage, "check: --keep must be at least 1");
    }
    const std::string directory = options.stateDir;
    std::vector<unsigned long> numbers = stateCaptures(directory);
    const unsigned long next = numbers.empty() ? 1 : numbers.back() + 1;
    const std::string file = directory + "/" + captureName(next);
    runCapture(session, file, false);

    std::string output;
    if (numbers.empty()) {
        output = "first capture " + file + ": nothing to compare with yet\n";
    } else {
        output =
            runDiff(session, directory + "/" + captureName(numbers.back()), file, false, differ);
    }
    // The oldest go once the new capture is in place, the last `keep` stay.
    numbers.push_back(next);
    for (size_t i = 0; i + options.keep < numbers.size(); ++i) {
        const std::string old = directory + "/" + captureName(numbers[i]);
        if (::unlink(old.c_str()) != 0 && errno != ENOENT) {
            std::fprintf(stderr, "scsitool: warning: %s: cannot remove: %s\n", old.c_str(),
                         std::strerror(errno));
        }
    }
    return options.journal ? withJournalPriorities(output) : output;
}

}  // namespace scsitool_cli
