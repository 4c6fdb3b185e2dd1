// The flags of the SNMP agent: --snmp and related flags. Like flag_values.h, only for the command line.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

#include "headend/options.h"

namespace headend {

// The unparsed texts.
struct SnmpTexts {
  std::optional<std::string> listen;
  std::string trapSink;
  std::string base;
};

void addSnmpFlags(CLI::App& app, Options::Snmp& options, SnmpTexts& texts);
void parseSnmp(const SnmpTexts& texts, Options::Snmp& options);

}  // namespace headend
