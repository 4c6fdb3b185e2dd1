// Targets with a card that runs: what clients, managers and operators may send to it, and what its flash may
// hold.
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

#include "card/QamCardPara.h"
#include "tests/fuzz/fuzz.h"

namespace fuzz {
namespace {

using headend::Headend;

constexpr unsigned kMostRequests = 16;
constexpr std::uint16_t kPort = 50'000;  // inside the chassis

// Requests of the management socket: operation, with a wrong length if the highest bit is set; variable,
// slot, port; size of the data, and the data.
void takeRequests(Headend& headend, Input input) {
  headend::UdpSocket socket(headend.network, kPort);
  const int patience = 60 * headend.kernel.settings().tickHz;
  auto exchange = [&, sequence = u32{0}](protocol::Request request) mutable {
    request.sequence = ++sequence;
    socket.send({.address = 0, .port = protocol::kDefaultManagementPort}, protocol::encode(request));
    const auto datagram = socket.receive(patience);
    require(datagram.has_value(), "a request is answered");
    const auto reply = protocol::decodeReply(datagram->bytes);
    require(reply && reply->sequence == request.sequence, "a request gets its reply");
  };
  Fields fields(input);
  for (unsigned i = 0; i < kMostRequests && fields.more(); ++i) {
    const u8 operation = fields.byte();
    protocol::Request request = {.operation = static_cast<protocol::Operation>(operation & 0x7FU),
                                 .variable = fields.word(),
                                 .slot = fields.byte(),
                                 .port = fields.byte()};
    const Input data = fields.bytes(fields.word());
    request.data.assign(data.begin(), data.end());
    request.length = static_cast<u16>(data.size() + operation / 0x80);
    exchange(request);
  }
}

// Datagrams of the calibration service, each after its length, and what a client asks at the end.
void takeCalibration(Headend& headend, Input input) {
  headend::UdpSocket socket(headend.network, kPort);
  const auto send = [&](Input datagram) {
    socket.send({.address = 0, .port = client::kDefaultCalibrationPort}, {datagram.begin(), datagram.end()});
    headend.kernel.delay(headend.kernel.settings().tickHz);
  };
  Fields fields(input);
  for (unsigned i = 0; i < kMostRequests && fields.more(); ++i) send(fields.bytes(fields.byte()));
  while (!socket.waiting().empty()) socket.receive(0);
  const Bytes read = {1, 0};
  send(read);
  const auto reply = socket.receive(0);
  require(reply && reply->bytes.size() == 15, "a read is answered");
}

void appendElement(Bytes& message, u8 type, Input content) {
  base::append(message, Bytes{type, 0x82});
  base::append16(message, static_cast<u16>(content.size()));
  base::append(message, content);
}

// Messages to the agent: the type of the PDU, and one variable: its name below the chassis, with the
// components after their number, and the type and octets of its value. A PDU of type 0 is a whole message.
void takeSnmp(Headend& headend, Input input) {
  const int socket = headend::openHostSocket("127.0.0.1", 0);
  sockaddr_in agent{};
  agent.sin_family = AF_INET;
  agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  agent.sin_port = htons(base::parseAddress(headend.snmp->address())->port);
  const auto send = [&](Input message) {
    ::sendto(socket, message.data(), message.size(), 0, reinterpret_cast<sockaddr*>(&agent), sizeof agent);
    headend.kernel.delay(5);
  };
  Fields fields(input);
  for (unsigned i = 0; i < kMostRequests && fields.more(); ++i) {
    const u8 type = fields.byte();
    if (type == 0) {
      send(fields.bytes(fields.word()));
      continue;
    }
    Bytes name = {0x2B, 6, 1, 4, 1, 0xBF, 0x08, 0xCE, 0x0F, 0xCE, 0x0F, 0x1B};
    base::append(name, fields.bytes(fields.byte() % 32));
    const u8 valueType = fields.byte();
    const Input value = fields.bytes(fields.byte());
    Bytes variable, list, variables, pdu, content, message;
    appendElement(variable, 6, name);
    appendElement(variable, valueType, value);
    appendElement(list, 0x30, variable);
    pdu = {2, 1, 1, 2, 1, 0, 2, 1, 0};
    appendElement(pdu, 0x30, list);
    content = {2, 1, 1, 4, 6, 'c', 'h', 'a', 'n', 'g', 'e'};
    appendElement(content, type, pdu);
    appendElement(message, 0x30, content);
    send(message);
  }
  ::close(socket);
}

// Keys of the panel, each in three bits, and the ticks before the next one.
void takeKeys(Headend& headend, Input input) {
  constexpr std::size_t kMostKeys = 64;
  for (const u8 byte : input.first(std::min(input.size(), kMostKeys))) {
    headend.panel.keys.press(static_cast<chassis::PanelKey>(byte & 7U));
    headend.kernel.delay(1 + byte / 8);
  }
}

// The card's parameter file: units of four bytes that are missing at its end, and the places that differ from
// a new record with a packet in the store: unit, number of bytes, bytes.
void takeRecord(Headend& headend, Input input) {
  static QamCardPara record;
  std::memset(&record, 0xFF, sizeof record);
  record.cardType = QAM_CARD_TYPE;
  record.slotNo = 0;
  record.version = kRecordVersion;
  record.qam_para = {.rflevel = 1000, .rfreq = 554'000, .symbolrate = 6875, .qammode = 5, .power = 15};
  std::ranges::copy(TmpData, record.Cd925_para);
  for (std::size_t port = 0; port < MAX_QAM_OUT_NUM; ++port) {
    std::ranges::fill(record.Interval[port], 100);
    std::ranges::fill(record.pktNum[port], 1);
    record.pidMapNum[port] = 0;
    record.psiPkt[port][0] = {
        .pid = 0, .psiType = PAT, .counter = 0, .psiData = {mpeg::kSyncByte, 0x40, 0, 0x10}};
  }
  Bytes file = base::bytesOf(record);
  Fields fields(input);
  const std::size_t missing = fields.word() * std::size_t{4};
  while (fields.more()) {
    const std::size_t at = fields.word() * std::size_t{4} % file.size();
    const Input bytes = fields.bytes(std::min<std::size_t>(fields.byte(), file.size() - at));
    std::ranges::copy(bytes, file.begin() + static_cast<std::ptrdiff_t>(at));
  }
  file.resize(file.size() - std::min(missing, file.size()));
  headend.flash.replace("/tffs0/para/card1.dat", file);
}

}  // namespace

// Packets are sent as they are stored, and so are the registers of the clock generator; a read of a table on
// another PID fails a check.
const std::vector<CardTarget> kCardTargets = {
    {"requests", takeRequests, {"psi_packet_without_sync", "pid == "}},
    {"calibration", takeCalibration},
    {"snmp", takeSnmp},
    {"keys", takeKeys},
    {"record", takeRecord, {"psi_packet_without_sync", "clock_generator_reserved_bits"}, true},
};

}  // namespace fuzz
