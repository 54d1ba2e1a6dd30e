// Table cells and JSON lines of the client (see row_format.h).
#include "client/row_format.h"

#include <time.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace controlplane {
namespace {

using Json = nlohmann::ordered_json;  // keys in the order a reader expects them

std::string Dump(const Json& object) { return object.dump(-1, ' ', false, Json::error_handler_t::replace); }

// What a terminal shows: UTF-8 continuation bytes take no column.
size_t DisplayWidth(const std::string& text) {
  auto startsACharacter = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; };
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), startsACharacter));
}

std::string OrDash(const std::string& text) { return text.empty() ? "-" : OneLine(text); }

}  // namespace

constexpr size_t kLocalTimeWidth = sizeof("YYYY-MM-DD HH:MM:SS") - 1;

const std::vector<Column> kSampleColumns{
    {"TIME", kLocalTimeWidth}, {"AGENT"}, {"OBJECT"}, {"NAME"}, {"VALUE"}};
const std::vector<Column> kAgentColumns{{"NAME"},      {"LAST HEARTBEAT"}, {"VERSION"},  {"JOBS"},
                                        {"LAST SEEN"}, {"ADDRESS"},        {"NODE PATH"}};
const std::vector<Column> kLineColumns{{"TIME", kLocalTimeWidth}, {"AGENT"}, {"LINE"}};

std::string FormatTenths(int64_t tenths) {
  // Through unsigned, so that the most negative value has a magnitude too.
  const uint64_t magnitude = tenths < 0 ? 0 - static_cast<uint64_t>(tenths) : static_cast<uint64_t>(tenths);
  return std::string(tenths < 0 ? "-" : "") + std::to_string(magnitude / 10) + "." + std::to_string(magnitude % 10);
}

std::string OneLine(const std::string& text) {
  std::string shown;
  shown.reserve(text.size());
  for (char c : text) {
    if (c == '\n') {
      shown += "\\n";
    } else if (c == '\t') {
      shown += "\\t";
    } else {
      shown += c;
    }
  }
  return shown;
}

std::string TextCell(const std::string& text) {
  if (!text.empty() && text.back() == '\n') return OneLine(text.substr(0, text.size() - 1));
  return OneLine(text);
}

std::string FormatLocalTime(int64_t secondsSinceEpoch) {
  const time_t seconds = static_cast<time_t>(secondsSinceEpoch);
  struct tm local;
  char text[32];
  if (localtime_r(&seconds, &local) == nullptr || strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local) == 0) {
    return std::to_string(secondsSinceEpoch);
  }
  return text;
}

std::vector<std::string> Cells(const SampleRow& row) {
  return {FormatLocalTime(row.received_at), OneLine(row.agent),
          row.object_id ? std::to_string(*row.object_id) : std::string("-"), OneLine(row.name),
          row.text ? TextCell(row.text_value) : FormatTenths(row.value)};
}

std::vector<std::string> Cells(const AgentRow& row) {
  return {OneLine(row.name),
          row.last_heartbeat == 0 ? std::string("never") : FormatLocalTime(row.last_heartbeat),
          OrDash(row.version),
          std::to_string(row.job_count),
          FormatLocalTime(row.last_seen),
          OrDash(row.address),
          OrDash(row.node_path)};
}

std::vector<std::string> Cells(const RealTimeLineRow& row) {
  return {FormatLocalTime(row.received_at), OneLine(row.agent), TextCell(row.line)};
}

std::string JsonLine(const SampleRow& row) {
  Json object{{"id", row.id}, {"received_at", row.received_at}, {"agent", row.agent},
              {"kind", row.text ? "text" : "numeric"}};
  object["object_id"] = row.object_id ? Json(*row.object_id) : Json(nullptr);
  object["name"] = row.name;
  if (row.text) {
    object["job_id"] = row.job_id;
    object["text"] = row.text_value;
    object["sample_time"] = row.sample_time;
  } else {
    object["stat_item"] = row.stat_item;
    object["tenths"] = row.value;
    object["value"] = static_cast<double>(row.value) / 10.0;
  }
  return Dump(object);
}

std::string JsonLine(const AgentRow& row) {
  Json object{{"name", row.name}};
  object["last_heartbeat"] = row.last_heartbeat == 0 ? Json(nullptr) : Json(row.last_heartbeat);
  object["version"] = row.version;
  object["job_count"] = row.job_count;
  object["last_seen"] = row.last_seen;
  object["first_seen"] = row.first_seen;
  object["address"] = row.address;
  object["node_path"] = row.node_path;
  return Dump(object);
}

std::string JsonLine(const RealTimeLineRow& row) {
  return Dump(Json{{"id", row.id}, {"received_at", row.received_at}, {"agent", row.agent}, {"line", row.line}});
}

TableWriter::TableWriter(const std::vector<Column>& columns) {
  for (const Column& column : columns) {
    m_vecHeaders.push_back(column.m_strHeader);
    m_vecWidths.push_back(std::max(column.m_iMinWidth, DisplayWidth(column.m_strHeader)));
  }
}

void TableWriter::Print(const std::vector<std::vector<std::string>>& rows, std::ostream& out) {
  for (const std::vector<std::string>& cells : rows) {
    for (size_t i = 0; i < cells.size() && i < m_vecWidths.size(); ++i) {
      m_vecWidths[i] = std::max(m_vecWidths[i], DisplayWidth(cells[i]));
    }
  }
  // The header comes with the first rows: a follow that starts with none
  // would otherwise leave it far above the rows it names.
  if (!m_bHeaderPrinted && !rows.empty()) {
    PrintRow(m_vecHeaders, out);
    m_bHeaderPrinted = true;
  }
  for (const std::vector<std::string>& cells : rows) PrintRow(cells, out);
}

void TableWriter::PrintRow(const std::vector<std::string>& cells, std::ostream& out) const {
  for (size_t i = 0; i < cells.size(); ++i) {
    out << cells[i];
    // The last column is not padded: no trailing blanks.
    if (i + 1 == cells.size()) break;
    const size_t width = DisplayWidth(cells[i]);
    out << std::string(m_vecWidths[i] > width ? m_vecWidths[i] - width + 2 : 2, ' ');
  }
  out << '\n';
}

}  // namespace controlplane
