#include "commands/psi_decode.h"

#include <dvbpsi/dvbpsi.h>

// These need what dvbpsi.h declares, and the later ones what the earlier ones do.
#include <dvbpsi/psi.h>

#include <dvbpsi/descriptor.h>

#include <dvbpsi/bat.h>
#include <dvbpsi/cat.h>
#include <dvbpsi/demux.h>
#include <dvbpsi/dr_09.h>
#include <dvbpsi/dr_0a.h>
#include <dvbpsi/dr_40.h>
#include <dvbpsi/dr_47.h>
#include <dvbpsi/dr_48.h>
#include <dvbpsi/nit.h>
#include <dvbpsi/pat.h>
#include <dvbpsi/pmt.h>
#include <dvbpsi/sdt.h>

#include <memory>

#include "base/text.h"
#include "platform/wire.h"

namespace commands {
namespace {

using mpeg::Section;

constexpr u8 kCaTag = 0x09;
constexpr u8 kLanguageTag = 0x0A;
constexpr u8 kNetworkNameTag = 0x40;
constexpr u8 kBouquetNameTag = 0x47;
constexpr u8 kServiceTag = 0x48;

// A linked list of libdvbpsi, for range loops.
template <typename Node>
class List {
 public:
  class Iterator {
   public:
    explicit Iterator(Node* node) : node_(node) {}
    Node& operator*() const { return *node_; }
    Iterator& operator++() {
      node_ = node_->p_next;
      return *this;
    }
    bool operator!=(const Iterator& other) const { return node_ != other.node_; }

   private:
    Node* node_;
  };

  explicit List(Node* first) : first_(first) {}
  Iterator begin() const { return Iterator(first_); }
  Iterator end() const { return Iterator(nullptr); }

 private:
  Node* first_;
};

std::string text(const u8* bytes, std::size_t size) {
  return base::dvbText({bytes, size});
}

const char* streamKind(u8 type) {
  switch (type) {
    case 0x01:
    case 0x02:
      return "MPEG-2 video";
    case 0x03:
    case 0x04:
      return "MPEG audio";
    case 0x05:
      return "private sections";
    case 0x06:
      return "private data";
    case 0x0B:
      return "DSM-CC";
    case 0x0F:
    case 0x11:
      return "AAC audio";
    case 0x10:
      return "MPEG-4 video";
    case 0x1B:
      return "H.264 video";
    case 0x24:
      return "H.265 video";
    case 0x42:
      return "AVS video";
    case 0x81:
      return "AC-3 audio";
    default:
      return "other";
  }
}

Json caSystems(dvbpsi_descriptor_t* descriptors) {
  Json systems = Json::array();
  for (dvbpsi_descriptor_t& d : List(descriptors)) {
    if (d.i_tag != kCaTag) continue;
    if (const auto* ca = dvbpsi_DecodeCADr(&d)) {
      systems.push_back({{"system_id", ca->i_ca_system_id}, {"pid", ca->i_ca_pid}});
    }
  }
  return systems;
}

void add(Json& out, const dvbpsi_pat_t& pat) {
  out["transport_stream_id"] = pat.i_ts_id;
  Json programmes = Json::array();
  for (const auto& p : List(pat.p_first_program)) {
    if (p.i_number == 0)
      out["network_pid"] = p.i_pid;
    else
      programmes.push_back({{"number", p.i_number}, {"pid", p.i_pid}});
  }
  out["programmes"] = std::move(programmes);
}

void add(Json& out, const dvbpsi_cat_t& cat) {
  out["ca_systems"] = caSystems(cat.p_first_descriptor);
}

void add(Json& out, const dvbpsi_pmt_t& pmt) {
  out["programme"] = pmt.i_program_number;
  out["pcr_pid"] = pmt.i_pcr_pid;
  out["ca_systems"] = caSystems(pmt.p_first_descriptor);
  Json streams = Json::array();
  for (const auto& es : List(pmt.p_first_es)) {
    Json stream = {{"pid", es.i_pid}, {"type", es.i_type}, {"kind", streamKind(es.i_type)}};
    for (dvbpsi_descriptor_t& d : List(es.p_first_descriptor)) {
      const auto* language = d.i_tag == kLanguageTag ? dvbpsi_DecodeISO639Dr(&d) : nullptr;
      if (language == nullptr || language->i_code_count == 0) continue;
      stream["language"] = text(language->code[0].iso_639_code, sizeof language->code[0].iso_639_code);
    }
    streams.push_back(std::move(stream));
  }
  out["streams"] = std::move(streams);
}

void add(Json& out, const dvbpsi_sdt_t& sdt) {
  out["transport_stream_id"] = sdt.i_extension;
  out["original_network_id"] = sdt.i_network_id;
  Json services = Json::array();
  for (const auto& s : List(sdt.p_first_service)) {
    Json service = {{"service_id", s.i_service_id}, {"name", ""}, {"provider", ""}};
    for (dvbpsi_descriptor_t& d : List(s.p_first_descriptor)) {
      const auto* names = d.i_tag == kServiceTag ? dvbpsi_DecodeServiceDr(&d) : nullptr;
      if (names == nullptr) continue;
      service["name"] = text(names->i_service_name, names->i_service_name_length);
      service["provider"] = text(names->i_service_provider_name, names->i_service_provider_name_length);
    }
    services.push_back(std::move(service));
  }
  out["services"] = std::move(services);
}

template <typename Stream>
Json transportStreams(Stream* first) {
  Json streams = Json::array();
  for (const auto& ts : List(first)) {
    streams.push_back({{"transport_stream_id", ts.i_ts_id}, {"original_network_id", ts.i_orig_network_id}});
  }
  return streams;
}

void add(Json& out, const dvbpsi_nit_t& nit) {
  out["network_id"] = nit.i_extension;
  out["name"] = "";
  for (dvbpsi_descriptor_t& d : List(nit.p_first_descriptor)) {
    const auto* name = d.i_tag == kNetworkNameTag ? dvbpsi_DecodeNetworkNameDr(&d) : nullptr;
    if (name != nullptr) out["name"] = text(name->i_name_byte, name->i_name_length);
  }
  out["transport_streams"] = transportStreams(nit.p_first_ts);
}

void add(Json& out, const dvbpsi_bat_t& bat) {
  out["bouquet_id"] = bat.i_extension;
  out["name"] = "";
  for (dvbpsi_descriptor_t& d : List(bat.p_first_descriptor)) {
    const auto* name = d.i_tag == kBouquetNameTag ? dvbpsi_DecodeBouquetNameDr(&d) : nullptr;
    if (name != nullptr) out["name"] = text(name->i_char, name->i_name_length);
  }
  out["transport_streams"] = transportStreams(bat.p_first_ts);
}

// libdvbpsi hands a whole table to a callback, with the pointer given to its attach call.
template <typename Table, void (*deleteTable)(Table*)>
void onTable(void* out, Table* table) {
  const std::unique_ptr<Table, decltype(deleteTable)> owner(table, deleteTable);
  Json decoded = Json::object();
  add(decoded, *table);
  *static_cast<Json*>(out) = std::move(decoded);
}

// Tables that share a PID hang below a demultiplexer, which asks for their decoders when it meets them.
void onSubtable(dvbpsi_t* handle, u8 tableId, u16 extension, void* out) {
  switch (mpeg::tableOfId(tableId).value_or(PAT)) {
    case SDT_C:
    case SDT_O:
      dvbpsi_sdt_attach(handle, tableId, extension, onTable<dvbpsi_sdt_t, dvbpsi_sdt_delete>, out);
      break;
    case NIT_C:
    case NIT_O:
      dvbpsi_nit_attach(handle, tableId, extension, onTable<dvbpsi_nit_t, dvbpsi_nit_delete>, out);
      break;
    case BAT:
      dvbpsi_bat_attach(handle, tableId, extension, onTable<dvbpsi_bat_t, dvbpsi_bat_delete>, out);
      break;
    default:
      break;
  }
}

class Decoder {
 public:
  Decoder(const Section& section, Json& out) : handle_(dvbpsi_new(nullptr, DVBPSI_MSG_NONE)) {
    switch (mpeg::tableOfId(section.tableId()).value()) {
      case PAT:
        dvbpsi_pat_attach(handle_, onTable<dvbpsi_pat_t, dvbpsi_pat_delete>, &out);
        detach_ = dvbpsi_pat_detach;
        break;
      case CAT:
        dvbpsi_cat_attach(handle_, onTable<dvbpsi_cat_t, dvbpsi_cat_delete>, &out);
        detach_ = dvbpsi_cat_detach;
        break;
      case PMT:
        dvbpsi_pmt_attach(handle_, section.extension(), onTable<dvbpsi_pmt_t, dvbpsi_pmt_delete>, &out);
        detach_ = dvbpsi_pmt_detach;
        break;
      default:
        dvbpsi_AttachDemux(handle_, onSubtable, &out);
        detach_ = dvbpsi_DetachDemux;
    }
  }
  ~Decoder() {
    detach_(handle_);
    dvbpsi_delete(handle_);
  }
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  void push(mpeg::Packet& packet) { dvbpsi_packet_push(handle_, packet.data()); }

 private:
  dvbpsi_t* handle_;
  void (*detach_)(dvbpsi_t*) = nullptr;
};

// Walks through the body of a section by the lengths that stand in it.
class Body {
 public:
  explicit Body(const Section& section)
      : rest_(std::span(section.bytes).first(section.bytes.size() - mpeg::kCrcSize)) {
    rest_ = rest_.subspan(mpeg::kSectionHeaderSize);
  }

  bool atEnd() const { return rest_.empty(); }

  bool skip(std::size_t size) {
    if (size > rest_.size()) return false;
    rest_ = rest_.subspan(size);
    return true;
  }

  // A loop of descriptors after its 12-bit length.
  bool skipDescriptorLoop() {
    if (rest_.size() < kLoopLengthSize) return false;
    const std::size_t length = wire::get16(rest_.data()) & 0x0FFFu;
    rest_ = rest_.subspan(kLoopLengthSize);
    return length <= rest_.size() && areDescriptors(rest_.first(length)) && skip(length);
  }

  // All the remaining bytes.
  bool restIsDescriptors() const { return areDescriptors(rest_); }

  // Entries of `size` bytes and a loop of descriptors each, up to the end.
  bool restIsEntries(std::size_t size) {
    while (!atEnd()) {
      if (!skip(size) || !skipDescriptorLoop()) return false;
    }
    return true;
  }

  // The length of a loop that must fill the remaining bytes.
  bool lengthOfRest() {
    if (rest_.size() < kLoopLengthSize) return false;
    const std::size_t length = wire::get16(rest_.data()) & 0x0FFFu;
    return skip(kLoopLengthSize) && length == rest_.size();
  }

 private:
  static constexpr std::size_t kLoopLengthSize = 2;

  static bool areDescriptors(std::span<const u8> loop) {
    while (!loop.empty()) {
      if (loop.size() < 2 || loop.size() < 2u + loop[1]) return false;
      loop = loop.subspan(2u + loop[1]);
    }
    return true;
  }

  std::span<const u8> rest_;
};

// libdvbpsi trusts the lengths in a section, and reads beyond it where they are wrong.
bool isWellFormed(const Section& section) {
  Body body(section);
  switch (mpeg::tableOfId(section.tableId()).value()) {
    case PAT:
      return (section.bytes.size() - mpeg::kSectionHeaderSize - mpeg::kCrcSize) % 4 == 0;
    case CAT:
      return body.restIsDescriptors();
    case PMT:
      return body.skip(2) && body.skipDescriptorLoop() && body.restIsEntries(3);
    case SDT_C:
    case SDT_O:
      return body.skip(3) && body.restIsEntries(3);
    case NIT_C:
    case NIT_O:
    case BAT:
      return body.skipDescriptorLoop() && body.lengthOfRest() && body.restIsEntries(4);
    default:
      return false;
  }
}

// libdvbpsi waits for all sections of a table; told that this one is all, it decodes what there is of it.
Section alone(Section section) {
  section.bytes[6] = 0;
  section.bytes[7] = 0;
  const std::size_t body = section.bytes.size() - mpeg::kCrcSize;
  wire::put32(&section.bytes[body], mpeg::crc32(std::span(section.bytes).first(body)));
  return section;
}

}  // namespace

Json decodeSection(const Section& section) {
  Json out;
  if (!isWellFormed(section)) return out;
  Decoder decoder(section, out);
  std::vector<mpeg::Packet> packets;
  u8 continuity = 0;
  mpeg::packSection(alone(section), continuity, packets);
  for (mpeg::Packet& packet : packets) decoder.push(packet);
  return out;
}

}  // namespace commands
