// How the client shows what the store holds: cells of a table that stays one
// row per line, and one JSON object per line for scripts.
#ifndef OVITA2_CONTROLPLANE_ROW_FORMAT_H
#define OVITA2_CONTROLPLANE_ROW_FORMAT_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "store/sample_store.h"

namespace controlplane {

// A value kept in tenths as a decimal with one digit: 123 -> "12.3", -5 -> "-0.5".
std::string FormatTenths(int64_t tenths);
// Text on one table row: newlines and tabs shown as \n and \t.
std::string OneLine(const std::string& text);
// A text sample on one table row: its final newline, which nearly every
// command prints, is dropped first.
std::string TextCell(const std::string& text);
// Seconds since the epoch as local "YYYY-MM-DD HH:MM:SS".
std::string FormatLocalTime(int64_t secondsSinceEpoch);

// A table column: its header, and the width its cells always need (a time),
// so that a table whose header is printed before any row still lines up.
struct Column {
  std::string m_strHeader;
  size_t m_iMinWidth = 0;
};

extern const std::vector<Column> kSampleColumns;
extern const std::vector<Column> kAgentColumns;
extern const std::vector<Column> kLineColumns;
std::vector<std::string> Cells(const SampleRow& row);
std::vector<std::string> Cells(const AgentRow& row);
std::vector<std::string> Cells(const RealTimeLineRow& row);

// One JSON object, without a newline. Bytes that are not UTF-8 (a command's
// output may hold any) become U+FFFD rather than failing the whole listing.
std::string JsonLine(const SampleRow& row);
std::string JsonLine(const AgentRow& row);
std::string JsonLine(const RealTimeLineRow& row);

// A table printed in pieces (a follower prints a few rows at a time): the
// header goes out with the first piece, and a column widens to fit a wider
// cell but never narrows, so later rows line up with earlier ones.
class TableWriter {
 public:
  explicit TableWriter(const std::vector<Column>& columns);
  void Print(const std::vector<std::vector<std::string>>& rows, std::ostream& out);

 private:
  void PrintRow(const std::vector<std::string>& cells, std::ostream& out) const;

  std::vector<std::string> m_vecHeaders;
  std::vector<size_t> m_vecWidths;
  bool m_bHeaderPrinted = false;
};

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_ROW_FORMAT_H
