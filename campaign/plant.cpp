#include "campaign/plant.h"

#include <filesystem>
#include <fstream>

#include "card/QamCardPara.h"
#include "client/chassis_services.h"
#include "headend/kernel/flash.h"
#include "platform/alarms.h"
#include "platform/memory.h"
#include "ts/qamIntr.h"
#include "ts/qamPsi.h"

namespace campaign {
namespace {

using headend::Headend;

QamCardPara& record(Headend& headend, int slot) {
  return *static_cast<QamCardPara*>(headend.chassis.slot(slot).descriptor->varPtr);
}
// What the send task would write.
void send(Headend& headend, int slot, std::span<const u8> packet) {
  headend.output(slot, 0).insertPsi(headend.kernel.now(), packet);
}
std::string recordFile(int slot) {
  return "para/card" + std::to_string(slot + 1) + ".dat";
}

}  // namespace

const std::vector<Plant>& plants() {
  static const std::vector<Plant> all = {
      {"a stored packet changes", "packets are whole",
       [](Headend& h, int slot) {
         for (outPsiPkt_t& each : record(h, slot).psiPkt[0]) each.psiData[40] ^= 1;
       }},
      {"a packet is sent twice", "continuity",
       [](Headend& h, int slot) {
         const auto& packet = record(h, slot).psiPkt[0][0].psiData;
         send(h, slot, packet);
         send(h, slot, packet);
       }},
      {"the packets of a table change places", "sections are whole",
       [](Headend& h, int slot) {
         auto& store = record(h, slot).psiPkt[0];
         for (std::size_t i = 0; i + 1 < std::size(store) && store[i + 1].pid < kNullPid; ++i) {
           if (store[i].pid == store[i + 1].pid && (store[i + 1].psiData[1] & 0x40) == 0)
             std::swap(store[i], store[i + 1]);
         }
       }},
      {"a record is written in part", "the record is whole",
       [](Headend& h, int slot) {
         const std::vector<u8> half(sizeof(QamCardPara) / 2);
         h.flash.replace("/tffs0/" + recordFile(slot), half);
       }},
      {"a record's file is changed in place", "the record is old or new",
       [](Headend& h, int slot) {
         h.chassis.save(static_cast<u8>(slot));
         std::fstream file("flash/" + recordFile(slot), std::ios::in | std::ios::out);
         file.seekp(100);
         file.put('\x55').put('\xAA');
       }},
      {"a change is not saved", "the record is saved",
       [](Headend& h, int slot) {
         h.chassis.save(static_cast<u8>(slot));
         ++record(h, slot).qam_para.rfreq;
       }},
      {"tables go on the air before they are saved", "what goes on the air is saved",
       [](Headend& h, int slot) {
         h.chassis.save(static_cast<u8>(slot));
         ++record(h, slot).qam_para.rfreq;
         qam_hold_psi(static_cast<u8>(slot), 0, 1);
         QamSetPsiInterval(static_cast<u8>(slot), 0);
         qam_hold_psi(static_cast<u8>(slot), 0, 0);
       }},
      {"the router misses an entry", "the router has the record's map",
       [](Headend& h, int slot) {
         h.router.set(h.kernel.now(), slot, 0, 7, chassis::routerWords(5, 0, 0x123, 0x456));
       }},
      {"an alarm is raised twice", "alarms are raised and cleared in turn",
       [](Headend&, int slot) {
         for (int i = 0; i < 2; ++i)
           chassis::AddAnAlarm(static_cast<u8>(slot), 1, 771, "", "", "", "rate overflow", "", "");
       }},
      {"memory is not freed", "no leak", [](Headend&, int) { os::malloc(8); }},
      {"a semaphore is not given back", "every wait ends",
       [](Headend&, int) { os::semTake(semQamVar, os::WAIT_FOREVER); }},
      {"the watchdog is not kicked", "no violation",
       [](Headend& h, int) { h.kernel.spend(headend::kSecond); }},
      {"a check fails", "no failed check",
       [](Headend& h, int slot) { QamGetPsiPktNumSamePidTid(0, 5, 0, &record(h, slot)); }},
      {"the FPGA loses its configuration", "the card runs",
       [](Headend& h, int slot) { h.card(slot).configuration().lose(h.kernel.now()); }},
      {"an interrupt routine allocates", "no forbidden call",
       [](Headend& h, int slot) {
         h.kernel.at(h.kernel.now() + 1, [&h, slot] {
           h.kernel.interrupt(
               "planted", slot, [](u8) { os::malloc(8); }, 0);
         });
       }},
      {"the bitstream is lost", "the card starts again",
       [](Headend& h, int slot) {
         h.chassis.save(static_cast<u8>(slot));
         std::filesystem::remove("flash/K717_QAM/qam.bin");
       }},
      {"a record is lost while the power is off", "the record is found again",
       [](Headend& h, int slot) { h.chassis.save(static_cast<u8>(slot)); },
       [](int slot) { std::filesystem::remove("flash/" + recordFile(slot)); }},
      {"the processor stops", "the program goes on", [](Headend&, int) { std::abort(); }},
  };
  return all;
}

}  // namespace campaign
