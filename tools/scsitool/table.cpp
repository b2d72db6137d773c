// SPDX-License-Identifier: Apache-2.0
#include "table.h"

#include <libsmartcols/libsmartcols.h>

#include <cstdlib>
#include <new>

#include "errors.h"

namespace scsitool_cli {

Table::Table(const std::vector<std::string>& headers, const TableStyle& style, int treeColumn)
    : m_table(scols_new_table()), m_columns(headers.size()), m_raw(style.raw || style.pairs)
{
    if (m_table == nullptr) {
        throw std::bad_alloc();
    }
    scols_table_enable_raw(m_table, style.raw ? 1 : 0);
    scols_table_enable_export(m_table, style.pairs ? 1 : 0);
    scols_table_enable_noheadings(m_table, style.noHeadings ? 1 : 0);
    // The text goes to a string, not to a terminal: never cut to a terminal's width.
    scols_table_set_termforce(m_table, SCOLS_TERMFORCE_NEVER);
    for (size_t i = 0; i < headers.size(); ++i) {
        const int flags = static_cast<int>(i) == treeColumn ? SCOLS_FL_TREE : 0;
        if (scols_table_new_column(m_table, headers[i].c_str(), 0, flags) == nullptr) {
            scols_unref_table(m_table);
            throw std::bad_alloc();
        }
    }
}

Table::~Table()
{
    scols_unref_table(m_table);
}

int Table::addRow(const std::vector<std::string>& cells, int parent)
{
    libscols_line* line =
        scols_table_new_line(m_table, parent >= 0 ? m_lines[static_cast<size_t>(parent)] : nullptr);
    if (line == nullptr) {
        throw std::bad_alloc();
    }
    for (size_t i = 0; i < cells.size() && i < m_columns; ++i) {
        scols_line_set_data(line, i, cells[i].c_str());
    }
    m_lines.push_back(line);
    return static_cast<int>(m_lines.size()) - 1;
}

std::string Table::text() const
{
    char* data = nullptr;
    if (scols_print_table_to_string(m_table, &data) != 0 || data == nullptr) {
        throw CommandError(kExitFailure, "the table could not be drawn");
    }
    std::string drawn = data;
    std::free(data);
    // The last column is padded to its width, or an empty cell leaves its separator behind:
    // no line ends in blanks.
    std::string text;
    size_t start = 0;
    while (start < drawn.size()) {
        size_t end = drawn.find('\n', start);
        end = end == std::string::npos ? drawn.size() : end;
        std::string line = drawn.substr(start, end - start);
        if (!m_raw) {
            line.erase(line.find_last_not_of(' ') + 1);
        }
        text += line + "\n";
        start = end + 1;
    }
    return text;
}

}  // namespace scsitool_cli
