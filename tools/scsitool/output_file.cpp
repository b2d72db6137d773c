#include "output_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "errors.h"

namespace scsitool_cli {

void writeFileInPlace(const std::string& path, const std::string& text, const std::string& what)
{
    std::string pattern = path + ".XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = ::mkstemp(name.data());
    int error = fd < 0 ? errno : 0;
    if (fd >= 0) {
        // The mode a new file gets from the umask, as if it had been created directly.
        const mode_t mask = ::umask(0);
        ::umask(mask);
        ::fchmod(fd, 0666 & ~mask);
        for (size_t done = 0; error == 0 && done < text.size();) {
            const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
            if (written < 0 && errno != EINTR) {
                error = errno;
            } else if (written > 0) {
                done += static_cast<size_t>(written);
            }
        }
        if (error == 0 && ::fsync(fd) != 0) {
            error = errno;
        }
        if (::close(fd) != 0 && error == 0) {
            error = errno;
        }
        if (error == 0 && ::rename(name.data(), path.c_str()) != 0) {
            error = errno;
        }
        if (error != 0) {
            ::unlink(name.data());
        }
    }
    if (error != 0) {
        throw CommandError(kExitBadInput, path + ": " + what + ": " + std::strerror(error));
    }
}

}  // namespace scsitool_cli
