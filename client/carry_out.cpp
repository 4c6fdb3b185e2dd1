#include "client/carry_out.h"

#include <fmt/format.h>

#include "client/change_parts.h"

namespace client {
namespace {

using Parts = std::vector<std::unique_ptr<ChangePart>>;

void prepare(const Parts& parts) {
  try {
    for (const auto& part : parts) part->keep();
    for (const auto& part : parts) part->confirm();
  } catch (const Error&) {
    for (const auto& part : parts) part->dropFile();
    throw;
  }
}

void replace(const Parts& parts) {
  for (const auto& part : parts) {
    part->lock();
    part->write(ChangePart::Content::kNew);
  }
  for (const auto& part : parts) {
    part->compare(ChangePart::Content::kNew);
    part->unlock();
    part->verify();
  }
}

// The parts are independent: if one cannot be put back, the others still are.
std::string putBack(const Parts& parts) {
  std::string text;
  for (const auto& part : parts) {
    if (part->touched()) {
      try {
        part->putBack();
        text += fmt::format("\nThe old {} is in place.", part->name());
      } catch (const Error& e) {
        text +=
            fmt::format("\nThe old {} could not be put back: {}\n{}", part->name(), e.what(), part->rest());
        continue;
      }
    }
    part->dropFile();
  }
  return text;
}

}  // namespace

void carryOut(Link& link, const ChannelChange& change) {
  const Parts parts = partsOf(link, change);
  prepare(parts);
  try {
    replace(parts);
  } catch (const Error& e) {
    throw Error(e.what() + putBack(parts));
  }
  for (const auto& part : parts) part->dropFile();
}

}  // namespace client
