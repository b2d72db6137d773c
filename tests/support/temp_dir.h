// SPDX-License-Identifier: Apache-2.0
// A fresh directory under /tmp, removed with everything in it when the object goes, and whole
// files read and written in one call.
#ifndef TESTS_TEMP_DIR_H
#define TESTS_TEMP_DIR_H

#include <string>

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// The file's bytes ("" when it cannot be read).
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

#endif
