#include "csv_reader.h"

#include <csv.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace csv {
namespace {

const std::string kEmpty;

struct ParseState {
  std::vector<std::string> record;
  std::vector<std::vector<std::string>> records;
  size_t width = 0;  // cells of the widest record so far, to size the next one at once
};

void OnField(void* data, size_t len, void* user) {
  auto* state = static_cast<ParseState*>(user);
  if (data == nullptr)
    state->record.emplace_back();
  else
    state->record.emplace_back(static_cast<const char*>(data), len);
}

void OnRecordEnd(int, void* user) {
  auto* state = static_cast<ParseState*>(user);
  state->width = std::max(state->width, state->record.size());
  state->records.push_back(std::move(state->record));
  state->record.clear();
  state->record.reserve(state->width);
}

}  // namespace

const std::string& Row::operator[](const std::string& column) const {
  auto it = columns_->find(column);
  if (it == columns_->end()) throw std::runtime_error("Can't find a column named " + column);
  return (*this)[it->second];
}

const std::string& Row::operator[](size_t position) const {
  return position < cells_.size() ? cells_[position] : kEmpty;
}

bool Row::AllEmpty() const {
  for (const std::string& cell : cells_)
    if (!cell.empty()) return false;
  return true;
}

void Reader::Clear() {
  header_.clear();
  columns_.reset();
  rows_.clear();
  error_.clear();
}

long Reader::ColumnPosition(const std::string& column) const {
  if (!columns_) return -1;
  auto it = columns_->find(column);
  return it == columns_->end() ? -1 : static_cast<long>(it->second);
}

bool Reader::ReadFile(const std::string& path) {
  Clear();
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error_ = "can't open the file";
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) {
    Clear();
    error_ = "can't read the file";
    return false;
  }
  return ReadText(text.str());
}

bool Reader::ReadText(std::string_view text) {
  Clear();
  if (text.size() >= 3 && text.compare(0, 3, "\xEF\xBB\xBF") == 0) text.remove_prefix(3);

  csv_parser parser;
  if (csv_init(&parser, 0) != 0) {
    error_ = "can't start the CSV parser";
    return false;
  }
  ParseState state;
  const size_t used = csv_parse(&parser, text.data(), text.size(), OnField, OnRecordEnd, &state);
  const bool parsed = used == text.size() && csv_fini(&parser, OnField, OnRecordEnd, &state) == 0;
  const int status = csv_error(&parser);
  csv_free(&parser);
  if (!parsed) {
    error_ = std::string("CSV parse error: ") + csv_strerror(status);
    return false;
  }
  if (state.records.empty()) {
    error_ = "the file has no header row";
    return false;
  }

  header_ = std::move(state.records.front());
  auto columns = std::make_shared<ColumnIndex>();
  for (size_t i = 0; i < header_.size(); ++i) columns->emplace(header_[i], i);  // first of equal names wins
  columns_ = columns;
  rows_.reserve(state.records.size() - 1);
  for (size_t i = 1; i < state.records.size(); ++i) rows_.emplace_back(columns_, std::move(state.records[i]));
  return true;
}

}  // namespace csv
