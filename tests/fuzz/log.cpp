// SPDX-License-Identifier: MIT
// log.cpp: the log reader of corvane-ctl.
//
// The input is the log, parsed both whole and in two pieces. The process table is empty, so no row may run,
// whatever the log says. Text from the log must not control the terminal or end a JSON string when printed.
#include <string>

#include "ctl/ctl.h"
#include "tests/fuzz/harness.h"

static std::string rows_of(Stations* stations) {
  stations_join(stations, {}, 1795262400);
  std::string text;
  for (const auto& [key, row] : stations->rows) {
    expect(row.state != "runs" && row.process.pid == 0, "no row that runs, but display %d does", key.display);
    expect(row.actor->code != 0 && key.display >= 0 && row.starts >= 0, "a row of a known actor");
    text +=
        std::to_string(key.display) + row.actor->name + row.state + row.reason + std::to_string(row.starts);
  }
  const std::string shown = text_escaped(stations->refusal);
  for (size_t i = 0; i < shown.size(); ++i) {
    const auto byte = static_cast<unsigned char>(shown[i]);
    const bool is_c1 = byte == 0xc2 && (shown[i + 1] & 0xe0) == 0x80;  // control characters in UTF-8
    expect(byte >= 0x20 && byte != 0x7f && !is_c1, "a plain text");
  }
  const std::string json = text_escaped(stations->refusal, true);
  for (size_t i = 0; i < json.size(); ++i) {
    const auto byte = static_cast<unsigned char>(json[i]);
    const bool is_escape = byte == '\\' && json[i + 1] == 'u';
    expect(byte >= 0x20 && byte != '"' && (byte != '\\' || is_escape), "a part of a JSON string");
  }
  return text + stations->refusal;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string log(reinterpret_cast<const char*>(data), size);
  Stations whole;
  log_parse(log, &whole);

  Stations in_pieces;
  const size_t middle = log.find('\n', size / 2) + 1;
  log_parse(log.substr(0, middle), &in_pieces);
  log_parse(log.substr(middle), &in_pieces);
  expect(rows_of(&whole) == rows_of(&in_pieces), "the same rows from both pieces");
  return 0;
}
