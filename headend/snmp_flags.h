// The flags of the SNMP agent: --snmp and what goes with it. As flag_values.h, for the command line alone.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

#include "headend/options.h"

namespace headend {

// As they come.
struct SnmpTexts {
  std::optional<std::string> listen;
  std::string trapSink;
  std::string base;
};

void addSnmpFlags(CLI::App& app, Options::Snmp& options, SnmpTexts& texts);
void parseSnmp(const SnmpTexts& texts, Options::Snmp& options);

}  // namespace headend
