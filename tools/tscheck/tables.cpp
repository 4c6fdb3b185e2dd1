#include <fmt/format.h>
#include <fmt/ranges.h>

#include <stdexcept>

#include "checks.h"

// libdvbpsi's headers need those before them.
// clang-format off
extern "C" {
#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/demux.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/pat.h>
#include <dvbpsi/cat.h>
#include <dvbpsi/pmt.h>
#include <dvbpsi/nit.h>
#include <dvbpsi/sdt.h>
#include <dvbpsi/bat.h>
}
// clang-format on

namespace tscheck {

struct TableDecoder::Decoder {
  TableDecoder* owner;
  uint16_t pid;
  dvbpsi_t* handle;
  void (*detach)(dvbpsi_t*);
};

namespace {

// The texts of all nodes of a list of the library.
template <typename Node, typename TextOf>
std::string each(const Node* node, const TextOf& textOf) {
  std::string text;
  for (; node != nullptr; node = node->p_next) text += textOf(*node);
  return text;
}

std::string descriptors(const dvbpsi_descriptor_t* first) {
  return '[' +
         each(first,
              [](const dvbpsi_descriptor_t& d) {
                return fmt::format("{:02x}:{:02x} ", d.i_tag, fmt::join(d.p_data, d.p_data + d.i_length, ""));
              }) +
         ']';
}

// A table's name and content.
using Described = std::pair<std::string, std::string>;

Described described(const dvbpsi_pat_t& pat) {
  return {fmt::format("PAT ts {}", pat.i_ts_id), each(pat.p_first_program, [](const auto& p) {
            return fmt::format(" {}->{:#x}", p.i_number, p.i_pid);
          })};
}
Described described(const dvbpsi_cat_t& cat) {
  return {"CAT", ' ' + descriptors(cat.p_first_descriptor)};
}
Described described(const dvbpsi_pmt_t& pmt) {
  return {fmt::format("PMT programme {}", pmt.i_program_number),
          fmt::format(" pcr {:#x} {}", pmt.i_pcr_pid, descriptors(pmt.p_first_descriptor)) +
              each(pmt.p_first_es, [](const auto& e) {
                return fmt::format(" {}:{:#x}{}", e.i_type, e.i_pid, descriptors(e.p_first_descriptor));
              })};
}
Described described(const dvbpsi_sdt_t& sdt) {
  return {fmt::format("SDT {:#x} ts {}", sdt.i_table_id, sdt.i_extension),
          fmt::format(" network {}", sdt.i_network_id) + each(sdt.p_first_service, [](const auto& s) {
            return fmt::format(" {}:{}{}{}{}{}", s.i_service_id, s.b_eit_schedule, s.b_eit_present,
                               s.i_running_status, s.b_free_ca, descriptors(s.p_first_descriptor));
          })};
}
template <typename Table>  // NIT or BAT
std::string streams(const Table& table) {
  return ' ' + descriptors(table.p_first_descriptor) + each(table.p_first_ts, [](const auto& s) {
           return fmt::format(" {}/{}{}", s.i_ts_id, s.i_orig_network_id, descriptors(s.p_first_descriptor));
         });
}
Described described(const dvbpsi_nit_t& nit) {
  return {fmt::format("NIT {:#x} network {}", nit.i_table_id, nit.i_network_id), streams(nit)};
}
Described described(const dvbpsi_bat_t& bat) {
  return {fmt::format("BAT {:#x}", bat.i_extension), streams(bat)};
}

// Called by the library for a whole table, which it owns no longer.
template <typename Table, void (*release)(Table*)>
void report(void* to, Table* table) {
  if (table->b_current_next) {
    const auto [name, content] = described(*table);
    TableDecoder::Versions& versions = static_cast<TableDecoder*>(to)->tables[name];
    versions.last = fmt::format("v{}{}", table->i_version, content);
    versions.all.insert(versions.last);
  }
  release(table);
}

// Attaches the decoder of a sub-table of the network, service and bouquet tables when it first occurs.
void onSubtable(dvbpsi_t* handle, uint8_t tableId, uint16_t extension, void* to) {
  if (tableId == 0x40 || tableId == 0x41)
    dvbpsi_nit_attach(handle, tableId, extension, report<dvbpsi_nit_t, dvbpsi_nit_delete>, to);
  else if (tableId == 0x42 || tableId == 0x46)
    dvbpsi_sdt_attach(handle, tableId, extension, report<dvbpsi_sdt_t, dvbpsi_sdt_delete>, to);
  else if (tableId == 0x4A)
    dvbpsi_bat_attach(handle, tableId, extension, report<dvbpsi_bat_t, dvbpsi_bat_delete>, to);
}

}  // namespace

dvbpsi_t* TableDecoder::add(uint16_t pid, void (*detach)(dvbpsi_t*)) {
  const auto onMessage = [](dvbpsi_t* handle, dvbpsi_msg_level_t, const char* message) {
    const auto& decoder = *static_cast<Decoder*>(handle->p_sys);
    std::string line = message;
    std::erase(line, '\n');
    decoder.owner->errors.push_back(fmt::format("PID {:#x}: {}", decoder.pid, line));
  };
  dvbpsi_t* handle = dvbpsi_new(onMessage, DVBPSI_MSG_ERROR);
  if (handle == nullptr) throw std::runtime_error("libdvbpsi gives no decoder");
  decoders_.push_back(std::make_unique<Decoder>(Decoder{this, pid, handle, detach}));
  handle->p_sys = decoders_.back().get();
  return handle;
}

TableDecoder::TableDecoder(const Programmes& programmes) {
  dvbpsi_pat_attach(add(0x0000, dvbpsi_pat_detach), report<dvbpsi_pat_t, dvbpsi_pat_delete>, this);
  dvbpsi_cat_attach(add(0x0001, dvbpsi_cat_detach), report<dvbpsi_cat_t, dvbpsi_cat_delete>, this);
  for (const auto& [pid, programme] : programmes)
    dvbpsi_pmt_attach(add(pid, dvbpsi_pmt_detach), programme, report<dvbpsi_pmt_t, dvbpsi_pmt_delete>, this);
  for (const uint16_t pid : {uint16_t{0x0010}, uint16_t{0x0011}})
    dvbpsi_AttachDemux(add(pid, dvbpsi_DetachDemux), onSubtable, this);
}

TableDecoder::~TableDecoder() {
  for (const auto& decoder : decoders_) {
    decoder->detach(decoder->handle);
    dvbpsi_delete(decoder->handle);
  }
}

void TableDecoder::push(Packet packet) {
  const size_t pid = (packet[1] & 0x1FU) << 8 | packet[2];
  for (const auto& decoder : decoders_)
    if (decoder->pid == pid) dvbpsi_packet_push(decoder->handle, packet.data());
}

}  // namespace tscheck
