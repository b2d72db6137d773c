// SPDX-License-Identifier: Apache-2.0
#include "temp_dir.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

TempDir::TempDir()
{
    char pattern[] = "/tmp/scsitool-test-XXXXXX";
    m_path = mkdtemp(pattern);
}

TempDir::~TempDir()
{
    // A directory left behind is only litter in /tmp.
    (void)!std::system(("rm -rf '" + m_path + "'").c_str());
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}
