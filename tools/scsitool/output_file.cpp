// SPDX-License-Identifier: Apache-2.0
#include "output_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "errors.h"

namespace scsitool_cli {

StagedFile::StagedFile(const std::string& path, const std::string& what)
    : m_path(path), m_what(what)
{
    std::string pattern = path + ".XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = ::mkstemp(name.data());
    if (fd < 0) {
        fail(errno);
    }
    m_temporary = name.data();
    // The mode a new file gets from the umask, as if it had been created directly.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);
    m_stream = ::fdopen(fd, "w");
    if (m_stream == nullptr) {
        const int error = errno;
        ::close(fd);
        fail(error);
    }
}

StagedFile::~StagedFile()
{
    if (m_stream != nullptr) {
        std::fclose(m_stream);
    }
    if (!m_temporary.empty()) {
        ::unlink(m_temporary.c_str());
    }
}

void StagedFile::noteWrite()
{
    if (m_error == 0 && std::ferror(m_stream)) {
        m_error = errno != 0 ? errno : EIO;
    }
}

void StagedFile::commit(int error)
{
    if (error == 0) {
        error = m_error;
    }
    errno = 0;
    if (error == 0 && (std::fflush(m_stream) != 0 || std::ferror(m_stream))) {
        // A write that failed before left the stream's error mark but no errno.
        error = errno != 0 ? errno : EIO;
    }
    if (error == 0 && ::fsync(::fileno(m_stream)) != 0) {
        error = errno;
    }
    if (std::fclose(m_stream) != 0 && error == 0) {
        error = errno;
    }
    m_stream = nullptr;
    if (error == 0 && ::rename(m_temporary.c_str(), m_path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        fail(error);
    }
    m_temporary.clear();
}

void StagedFile::fail(int error)
{
    if (m_stream != nullptr) {
        std::fclose(m_stream);
        m_stream = nullptr;
    }
    if (!m_temporary.empty()) {
        ::unlink(m_temporary.c_str());
        m_temporary.clear();
    }
    throw CommandError(kExitBadInput, m_path + ": " + m_what + ": " + std::strerror(error));
}

void writeFileInPlace(const std::string& path, const std::string& text, const std::string& what)
{
    StagedFile file(path, what);
    const size_t written = std::fwrite(text.data(), 1, text.size(), file.stream());
    file.commit(written == text.size() ? 0 : errno);
}

}  // namespace scsitool_cli
