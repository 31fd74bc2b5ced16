#pragma once
// Thin adapter over libcsv (RFC 4180): a header row, then rows whose cells are read by
// column name. Reads the whole file at once; accepts what spreadsheet programs save
// (UTF-8 byte-order mark, CRLF line ends, quoted cells over several lines, a trailing
// empty line). Blanks and tabs around unquoted cells are dropped; quoted cells keep them.

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace csv {

using ColumnIndex = std::unordered_map<std::string, size_t>;

class Row {
 public:
  Row(std::shared_ptr<const ColumnIndex> columns, std::vector<std::string> cells)
      : columns_(std::move(columns)), cells_(std::move(cells)) {}

  // The cell under a header column; empty when the row is shorter than the header.
  // Throws std::runtime_error("Can't find a column named " + column) when the header
  // has no such column.
  const std::string& operator[](const std::string& column) const;
  // The cell at a position; empty beyond the row's end.
  const std::string& operator[](size_t position) const;

  size_t size() const { return cells_.size(); }
  const std::vector<std::string>& cells() const { return cells_; }
  bool AllEmpty() const;

 private:
  std::shared_ptr<const ColumnIndex> columns_;
  std::vector<std::string> cells_;
};

class Reader {
 public:
  // False when the file cannot be read or holds no header row; error() says which.
  bool ReadFile(const std::string& path);
  // Same as ReadFile for text already in memory.
  bool ReadText(std::string_view text);

  const std::vector<std::string>& header() const { return header_; }
  const std::vector<Row>& rows() const { return rows_; }
  bool HasColumn(const std::string& column) const { return columns_ && columns_->count(column) != 0; }
  // Position of a header column, or -1.
  long ColumnPosition(const std::string& column) const;
  const std::string& error() const { return error_; }

 private:
  void Clear();

  std::vector<std::string> header_;
  std::shared_ptr<ColumnIndex> columns_;
  std::vector<Row> rows_;
  std::string error_;
};

}  // namespace csv
