// The reports of `qamctl psi` about tables: numbers and names, as JSON and as text for users.
#pragma once

#include <optional>
#include <string>

#include "client/channel_state.h"
#include "commands/json_fields.h"

namespace commands {

// The content of a section of one of the eight tables as names and numbers. An object with, by table:
//   PAT    transport_stream_id, network_pid (if named), programmes [{number, pid}]
//   CAT    ca_systems [{system_id, pid}]
//   PMT    programme, pcr_pid, ca_systems, streams [{pid, type, kind, language (if present; "eng,deu")}]
//   SDT_*  transport_stream_id, original_network_id, services [{service_id, name, provider}]
//   NIT_*  network_id, name, transport_streams [{transport_stream_id, original_network_id}]
//   BAT    bouquet_id, name, transport_streams
// Null if lengths in it do not match. All texts are printable UTF-8.
Json decodeSection(const mpeg::Section& section);

// Such content in words, by the table's name: "network 1 "Cable"", and a line for each of its items.
std::string contentTitle(const std::string& table, const Json& content);
std::string contentLines(const std::string& table, const Json& content);

// An object with channel, locked, packets, packets_out_of_reach and tables: a list of objects with
//   table, packets, packets_out_of_reach, interval_ticks, interval_ms, whole_table_ticks, whole_table_ms,
//   sections: [{pid, extension, version, section, last_section, packets, content (as decodeSection)}]
// The whole_table_ members are null for a table that is stopped (interval 0) or empty; those in milliseconds
// exist if auxHz is given.
Json psiReport(const client::PsiStore& tables, const protocol::Channel& channel, std::optional<double> auxHz);

// The report of psiReport as text lines.
std::string psiText(const Json& report);

}  // namespace commands
