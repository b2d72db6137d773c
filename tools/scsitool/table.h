// SPDX-License-Identifier: Apache-2.0
// Tables for people through util-linux's libsmartcols, as lsblk and findmnt draw them: aligned
// columns, a tree, or one line a row for scripts (--raw, --pairs). Widths are counted in
// characters, and control characters (an INQUIRY field may hold any byte) are written as \xHH,
// never sent to the terminal.
#ifndef SCSITOOL_CLI_TABLE_H
#define SCSITOOL_CLI_TABLE_H

#include <string>
#include <vector>

struct libscols_table;
struct libscols_line;

namespace scsitool_cli {

struct TableStyle {
    bool raw = false;         // one blank between cells, special characters escaped
    bool pairs = false;       // NAME="value" pairs, one row a line
    bool noHeadings = false;  // no line of column names
};

class Table {
public:
    // `treeColumn`: the column drawn as a tree (-1: none, a plain list).
    Table(const std::vector<std::string>& headers, const TableStyle& style, int treeColumn = -1);
    ~Table();
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    // Adds a row under `parent` (a value addRow returned, or -1 for a top-level row); returns it.
    int addRow(const std::vector<std::string>& cells, int parent = -1);
    std::string text() const;

private:
    libscols_table* m_table;
    std::vector<libscols_line*> m_lines;
    size_t m_columns;
    bool m_raw;  // raw or pairs: every cell kept as it is, an empty last one included
};

}  // namespace scsitool_cli

#endif
