#include "tables.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "scan.h"

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

std::string text(const dvbpsi_descriptor_t* d) {
  std::string out = "[";
  for (; d != nullptr; d = d->p_next) {
    out += fmt::format("{:02x}:", d->i_tag);
    for (unsigned i = 0; i < d->i_length; ++i) out += fmt::format("{:02x}", d->p_data[i]);
    out += ' ';
  }
  return out + "]";
}

std::string text(const dvbpsi_pat_t& pat) {
  std::string out = fmt::format("v{}", pat.i_version);
  for (const auto* p = pat.p_first_program; p != nullptr; p = p->p_next)
    out += fmt::format(" {}->{:#x}", p->i_number, p->i_pid);
  return out;
}

std::string text(const dvbpsi_pmt_t& pmt) {
  std::string out =
      fmt::format("v{} pcr {:#x} {}", pmt.i_version, pmt.i_pcr_pid, text(pmt.p_first_descriptor));
  for (const auto* e = pmt.p_first_es; e != nullptr; e = e->p_next)
    out += fmt::format(" {}:{:#x}{}", e->i_type, e->i_pid, text(e->p_first_descriptor));
  return out;
}

std::string text(const dvbpsi_sdt_t& sdt) {
  std::string out = fmt::format("v{} network {}", sdt.i_version, sdt.i_network_id);
  for (const auto* s = sdt.p_first_service; s != nullptr; s = s->p_next)
    out += fmt::format(" {}:{}{}{}{}{}", s->i_service_id, s->b_eit_schedule, s->b_eit_present,
                       s->i_running_status, s->b_free_ca, text(s->p_first_descriptor));
  return out;
}

template <typename Stream>
std::string textOfStreams(const Stream* s) {
  std::string out;
  for (; s != nullptr; s = s->p_next)
    out += fmt::format(" {}/{}{}", s->i_ts_id, s->i_orig_network_id, text(s->p_first_descriptor));
  return out;
}

}  // namespace

TableDecoder::Decoder& TableDecoder::add(uint16_t pid) {
  const auto onMessage = [](dvbpsi_t* handle, dvbpsi_msg_level_t, const char* message) {
    const auto& decoder = *static_cast<Decoder*>(handle->p_sys);
    std::string line = message;
    line.erase(std::remove(line.begin(), line.end(), '\n'), line.end());
    decoder.owner->onError_(fmt::format("PID {:#x}: {}", decoder.pid, line));
  };
  decoders_.push_back(std::make_unique<Decoder>());
  Decoder& decoder = *decoders_.back();
  decoder = {this, pid, dvbpsi_new(onMessage, DVBPSI_MSG_ERROR), nullptr};
  if (decoder.handle == nullptr) throw std::runtime_error("libdvbpsi gives no decoder");
  decoder.handle->p_sys = &decoder;
  byPid_[pid].push_back(&decoder);
  return decoder;
}

namespace {

// What the callbacks of one kind of table have in common: name it, hand it on if it is current, release it.
template <typename Table, typename Owner, typename Name, typename Release>
void report(Owner& onTable, Table* table, Name name, const std::string& content, Release release) {
  if (table->b_current_next) onTable(name, content);
  release(table);
}

// Attaches the decoder of a sub-table of the network, service and bouquet tables as it first shows up.
void onSubtable(dvbpsi_t* handle, uint8_t tableId, uint16_t extension, void* data) {
  switch (tableId) {
    case 0x40:
    case 0x41:
      dvbpsi_nit_attach(
          handle, tableId, extension,
          [](void* to, dvbpsi_nit_t* t) {
            report(*static_cast<TableDecoder::OnTable*>(to), t,
                   fmt::format("NIT {:#x} network {}", t->i_table_id, t->i_network_id),
                   fmt::format("v{} {}{}", t->i_version, text(t->p_first_descriptor),
                               textOfStreams(t->p_first_ts)),
                   dvbpsi_nit_delete);
          },
          data);
      break;
    case 0x42:
    case 0x46:
      dvbpsi_sdt_attach(
          handle, tableId, extension,
          [](void* to, dvbpsi_sdt_t* t) {
            report(*static_cast<TableDecoder::OnTable*>(to), t,
                   fmt::format("SDT {:#x} ts {}", t->i_table_id, t->i_extension), text(*t),
                   dvbpsi_sdt_delete);
          },
          data);
      break;
    case 0x4A:
      dvbpsi_bat_attach(
          handle, tableId, extension,
          [](void* to, dvbpsi_bat_t* t) {
            report(*static_cast<TableDecoder::OnTable*>(to), t, fmt::format("BAT {:#x}", t->i_extension),
                   fmt::format("v{} {}{}", t->i_version, text(t->p_first_descriptor),
                               textOfStreams(t->p_first_ts)),
                   dvbpsi_bat_delete);
          },
          data);
      break;
    default:
      break;
  }
}

}  // namespace

TableDecoder::TableDecoder(const std::set<std::pair<uint16_t, uint16_t>>& programmes, OnTable onTable,
                           OnError onError)
    : byPid_(kPidCount), onTable_(std::move(onTable)), onError_(std::move(onError)) {
  Decoder& pat = add(0x0000);
  pat.detach = dvbpsi_pat_detach;
  dvbpsi_pat_attach(
      pat.handle,
      [](void* to, dvbpsi_pat_t* t) {
        report(*static_cast<OnTable*>(to), t, fmt::format("PAT ts {}", t->i_ts_id), text(*t),
               dvbpsi_pat_delete);
      },
      &onTable_);
  Decoder& cat = add(0x0001);
  cat.detach = dvbpsi_cat_detach;
  dvbpsi_cat_attach(
      cat.handle,
      [](void* to, dvbpsi_cat_t* t) {
        report(*static_cast<OnTable*>(to), t, "CAT",
               fmt::format("v{} {}", t->i_version, text(t->p_first_descriptor)), dvbpsi_cat_delete);
      },
      &onTable_);
  for (const auto& [pid, programme] : programmes) {
    Decoder& pmt = add(pid);
    pmt.detach = dvbpsi_pmt_detach;
    dvbpsi_pmt_attach(
        pmt.handle, programme,
        [](void* to, dvbpsi_pmt_t* t) {
          report(*static_cast<OnTable*>(to), t, fmt::format("PMT programme {}", t->i_program_number),
                 text(*t), dvbpsi_pmt_delete);
        },
        &onTable_);
  }
  for (const uint16_t pid : {uint16_t{0x0010}, uint16_t{0x0011}}) {
    Decoder& demux = add(pid);
    demux.detach = dvbpsi_DetachDemux;
    dvbpsi_AttachDemux(demux.handle, onSubtable, &onTable_);
  }
}

TableDecoder::~TableDecoder() {
  for (const auto& decoder : decoders_) {
    decoder->detach(decoder->handle);
    dvbpsi_delete(decoder->handle);
  }
}

void TableDecoder::push(Packet packet) {
  const size_t pid = (packet[1] & 0x1FU) << 8 | packet[2];
  for (Decoder* decoder : byPid_[pid]) dvbpsi_packet_push(decoder->handle, packet.data());
}

}  // namespace tscheck
