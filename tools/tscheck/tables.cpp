#include <fmt/format.h>

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

std::string descriptors(const dvbpsi_descriptor_t* d) {
  std::string out = "[";
  for (; d != nullptr; d = d->p_next) {
    out += fmt::format("{:02x}:", d->i_tag);
    for (unsigned i = 0; i < d->i_length; ++i) out += fmt::format("{:02x}", d->p_data[i]);
    out += ' ';
  }
  return out + "]";
}

// The name and the content of each kind of table.

std::string nameOf(const dvbpsi_pat_t& pat) {
  return fmt::format("PAT ts {}", pat.i_ts_id);
}
std::string text(const dvbpsi_pat_t& pat) {
  std::string out;
  for (const auto* p = pat.p_first_program; p != nullptr; p = p->p_next)
    out += fmt::format(" {}->{:#x}", p->i_number, p->i_pid);
  return out;
}

std::string nameOf(const dvbpsi_cat_t& /*cat*/) {
  return "CAT";
}
std::string text(const dvbpsi_cat_t& cat) {
  return ' ' + descriptors(cat.p_first_descriptor);
}

std::string nameOf(const dvbpsi_pmt_t& pmt) {
  return fmt::format("PMT programme {}", pmt.i_program_number);
}
std::string text(const dvbpsi_pmt_t& pmt) {
  std::string out = fmt::format(" pcr {:#x} {}", pmt.i_pcr_pid, descriptors(pmt.p_first_descriptor));
  for (const auto* e = pmt.p_first_es; e != nullptr; e = e->p_next)
    out += fmt::format(" {}:{:#x}{}", e->i_type, e->i_pid, descriptors(e->p_first_descriptor));
  return out;
}

std::string nameOf(const dvbpsi_sdt_t& sdt) {
  return fmt::format("SDT {:#x} ts {}", sdt.i_table_id, sdt.i_extension);
}
std::string text(const dvbpsi_sdt_t& sdt) {
  std::string out = fmt::format(" network {}", sdt.i_network_id);
  for (const auto* s = sdt.p_first_service; s != nullptr; s = s->p_next)
    out += fmt::format(" {}:{}{}{}{}{}", s->i_service_id, s->b_eit_schedule, s->b_eit_present,
                       s->i_running_status, s->b_free_ca, descriptors(s->p_first_descriptor));
  return out;
}

std::string nameOf(const dvbpsi_nit_t& nit) {
  return fmt::format("NIT {:#x} network {}", nit.i_table_id, nit.i_network_id);
}
std::string nameOf(const dvbpsi_bat_t& bat) {
  return fmt::format("BAT {:#x}", bat.i_extension);
}
template <typename Table>  // NIT or BAT
std::string text(const Table& table) {
  std::string out = ' ' + descriptors(table.p_first_descriptor);
  for (const auto* s = table.p_first_ts; s != nullptr; s = s->p_next)
    out += fmt::format(" {}/{}{}", s->i_ts_id, s->i_orig_network_id, descriptors(s->p_first_descriptor));
  return out;
}

// Called by the library for a whole table, which it owns no longer.
template <typename Table, void (*release)(Table*)>
void report(void* to, Table* table) {
  if (table->b_current_next) {
    TableDecoder::Versions& versions = static_cast<TableDecoder*>(to)->tables[nameOf(*table)];
    versions.last = fmt::format("v{}{}", table->i_version, text(*table));
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
