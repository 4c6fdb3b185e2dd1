// The content of a section, decoded with libdvbpsi into names and numbers. Used by psi_report.
#pragma once

#include "commands/json_fields.h"

#include "mpeg/section.h"

namespace commands {

// An object with, by table:
//   PAT    transport_stream_id, network_pid (if named), programmes [{number, pid}]
//   CAT    ca_systems [{system_id, pid}]
//   PMT    programme, pcr_pid, ca_systems, streams [{pid, type, kind, language (if present)}]
//   SDT_*  transport_stream_id, original_network_id, services [{service_id, name, provider}]
//   NIT_*  network_id, name, transport_streams [{transport_stream_id, original_network_id}]
//   BAT    bouquet_id, name, transport_streams
// Null if the section's body cannot be decoded. All texts are printable UTF-8.
Json decodeSection(const mpeg::Section& section);

}  // namespace commands
