#include "tools/describe/record_table.h"

namespace describe {

std::string markdown(const Table& table) {
  const auto line = [](std::initializer_list<std::string_view> cells) {
    std::string text = "|";
    for (const auto cell : cells)
      text.append(" ").append(cell).append(" |");
    return text + "\n";
  };
  std::string text = "### `" + table.name + "`\n\n";
  if (table.tagged) {
    text += line({"Data ID", "Wire type", "Member", "Type", "Unit", "Meaning"});
    text += "|---|---|---|---|---|---|\n";
  } else {
    text += line({"Member", "Type", "Unit", "Meaning"});
    text += "|---|---|---|---|\n";
  }
  for (const auto& row : table.rows) {
    text += table.tagged
                ? line({row.data_id, row.wire_type, row.name, row.type, row.unit, row.meaning})
                : line({row.name, row.type, row.unit, row.meaning});
  }
  return text + "\n";
}

}  // namespace describe
