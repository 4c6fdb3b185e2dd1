#include "tools/web/access.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace tools {
namespace {

// Takes the same time wherever the texts differ, so that nobody finds a secret digit by digit.
bool equalInConstantTime(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned differences = 0;
  for (std::size_t i = 0; i < a.size(); ++i) differences |= static_cast<unsigned char>(a[i] ^ b[i]);
  return differences == 0;
}

}  // namespace

std::string randomSecret() {
  std::array<unsigned char, 16> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
    throw std::system_error(errno, std::generic_category(), "no random numbers");
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

Access::Verdict Access::tryToken(const std::string& token) {
  const std::lock_guard lock(mutex_);
  const Clock::time_point now = Clock::now();
  while (!failures_.empty() && now - failures_.front() > std::chrono::minutes(1)) failures_.pop_front();
  if (failures_.size() >= kMostFailures) return Verdict::kTooManyFailures;
  if (equalInConstantTime(token, token_)) return Verdict::kRight;
  failures_.push_back(now);
  return Verdict::kWrong;
}

Access::Session Access::open() {
  const std::lock_guard lock(mutex_);
  if (sessions_.size() >= kMostSessions) sessions_.pop_front();
  return sessions_.emplace_back(Session{.secret = randomSecret(), .number = ++opened_});
}

void Access::close(const std::string& secret) {
  const std::lock_guard lock(mutex_);
  std::erase_if(sessions_, [&](const Session& one) { return equalInConstantTime(one.secret, secret); });
}

std::optional<unsigned> Access::numberOf(const std::string& secret) {
  const std::lock_guard lock(mutex_);
  const auto found = std::ranges::find_if(
      sessions_, [&](const Session& one) { return equalInConstantTime(one.secret, secret); });
  return found == sessions_.end() ? std::nullopt : std::optional(found->number);
}

}  // namespace tools
