// The scsitool command, run as a program: golden device maps of the example hosts, capture and
// replay, one device's report, and the one-line errors with their exit codes.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace {

const std::string kBinary = std::string(SCSITOOL_BINARY_DIR) + "/tools/scsitool/scsitool";
const std::string kSource = SCSITOOL_SOURCE_DIR;
const std::string kExamples = kSource + "/examples/hosts/";
const std::string kGolden = kSource + "/tests/golden/";

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

class TempDir {
public:
    TempDir()
    {
        char pattern[] = "/tmp/scsitool-test-XXXXXX";
        m_path = mkdtemp(pattern);
    }
    ~TempDir() { std::system(("rm -rf '" + m_path + "'").c_str()); }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Runs the command with `args`; stdout and stderr are kept apart, stdin is empty.
Result run(const std::vector<std::string>& args)
{
    TempDir dir;
    const std::string outPath = dir.file("out"), errPath = dir.file("err");
    pid_t pid = fork();
    if (pid == 0) {
        int in = open("/dev/null", O_RDONLY);
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        std::vector<char*> argv{const_cast<char*>(kBinary.c_str())};
        for (const std::string& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        execv(kBinary.c_str(), argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    Result result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = readFile(outPath);
    result.err = readFile(errPath);
    return result;
}

std::string describe(const std::vector<std::string>& args)
{
    std::string text = "scsitool";
    for (const std::string& arg : args) {
        text += " " + arg;
    }
    return text;
}

// The example hosts, by file stem.
std::vector<std::string> exampleHosts()
{
    std::vector<std::string> names;
    if (DIR* dir = opendir(kExamples.c_str())) {
        while (struct dirent* entry = readdir(dir)) {
            std::string name = entry->d_name;
            if (name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0) {
                names.push_back(name.substr(0, name.size() - 5));
            }
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Compares `actual` with a golden file and shows a unified diff when they differ. With
// SCSITOOL_UPDATE_GOLDEN set the golden file is rewritten instead.
void expectGolden(const std::string& name, const std::string& actual)
{
    const std::string path = kGolden + name;
    if (std::getenv("SCSITOOL_UPDATE_GOLDEN") != nullptr) {
        writeFile(path, actual);
        return;
    }
    const std::string expected = readFile(path);
    if (expected == actual) {
        return;
    }
    TempDir dir;
    writeFile(dir.file("actual"), actual);
    std::string diff;
    if (FILE* pipe = popen(("diff -u '" + path + "' '" + dir.file("actual") + "'").c_str(), "r")) {
        char buffer[4096];
        size_t count;
        while ((count = fread(buffer, 1, sizeof buffer, pipe)) > 0) {
            diff.append(buffer, count);
        }
        pclose(pipe);
    }
    ADD_FAILURE() << name << " differs from its golden file:\n" << diff;
}

}  // namespace

TEST(CommandGolden, MapOfEveryExampleHostAsTableAndJson)
{
    std::vector<std::string> hosts = exampleHosts();
    ASSERT_FALSE(hosts.empty()) << "no example hosts in " << kExamples;
    for (const std::string& host : hosts) {
        for (bool json : {false, true}) {
            std::vector<std::string> args{"--host", kExamples + host + ".json", "map"};
            if (json) {
                args.push_back("--json");
            }
            Result result = run(args);
            EXPECT_EQ(result.status, 0) << describe(args) << "\n" << result.err;
            // No progress line either: stderr is not a terminal here.
            EXPECT_EQ(result.err, "") << describe(args);
            expectGolden(host + (json ? ".map.json" : ".map.txt"), result.out);
        }
    }
}
