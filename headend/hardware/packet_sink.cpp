#include "headend/hardware/packet_sink.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "base/address.h"

namespace headend {
namespace {

constexpr mpeg::Packet kNullPacket = mpeg::makePacket(kNullPid, false, 0);

[[noreturn]] void fail(const std::string& target, std::string_view why) {
  throw std::runtime_error(fmt::format("cannot open output {}: {}", target, why));
}

// Gathers packets and writes them in blocks of a fixed number.
class BlockSink : public PacketSink {
 public:
  BlockSink(std::string name, std::size_t packetsABlock)
      : name_(std::move(name)), block_(packetsABlock * kTsPacketSize) {}

  void packet(std::span<const u8> packet) override {
    std::memcpy(block_.data() + used_, packet.data(), kTsPacketSize);
    used_ += kTsPacketSize;
    if (used_ == block_.size()) flush();
  }

  void nullPackets(std::uint64_t count) override {
    for (; count > 0 && error_.empty(); --count) packet(kNullPacket);
  }

  void flush() override {
    if (used_ != 0 && error_.empty() && !write(std::span(block_).first(used_))) {
      error_ = fmt::format("cannot write to output {}: {}", name_, std::strerror(errno));
    }
    used_ = 0;
  }
  const std::string& error() const override { return error_; }

 protected:
  // False if the block could not be written; errno gives the reason.
  virtual bool write(std::span<const u8> block) = 0;

 private:
  std::string name_;
  std::vector<u8> block_;
  std::size_t used_ = 0;
  std::string error_;
};

class FileSink final : public BlockSink {
 public:
  explicit FileSink(const std::string& path) : BlockSink(path, 2048) {
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd_ < 0) fail(path, std::strerror(errno));
  }
  ~FileSink() override { ::close(fd_); }

 private:
  bool write(std::span<const u8> block) override {
    while (!block.empty()) {
      const ssize_t n = ::write(fd_, block.data(), block.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        const int why = errno;
        cutToWholePackets();
        errno = why;
        return false;
      }
      written_ += n;
      block = block.subspan(static_cast<std::size_t>(n));
    }
    return true;
  }

  // A full disk accepts a part of a packet: the file must not contain it.
  void cutToWholePackets() const {
    struct stat info {};
    if (::fstat(fd_, &info) != 0 || !S_ISREG(info.st_mode)) return;
    [[maybe_unused]] const int cut =
        ::ftruncate(fd_, written_ - written_ % static_cast<off_t>(kTsPacketSize));
  }

  int fd_;
  off_t written_ = 0;
};

class UdpSink final : public BlockSink {
 public:
  explicit UdpSink(const std::string& target) : BlockSink(target, 7) {
    const auto address = base::parseAddress(std::string_view(target).substr(kUdpScheme.size()));
    if (!address) fail(target, fmt::format("want udp://{}", base::kAddressForm));
    try {
      fd_ = base::openDatagramSocket(base::resolve(*address), base::SocketUse::kConnect);
    } catch (const std::runtime_error& e) {
      fail(target, e.what());
    }
    if (fd_ < 0) fail(target, std::strerror(errno));
  }
  ~UdpSink() override { ::close(fd_); }

 private:
  bool write(std::span<const u8> block) override {
    if (::send(fd_, block.data(), block.size(), 0) >= 0) return true;
    return errno == ECONNREFUSED || errno == EINTR;  // no receiver: as with any broadcast
  }

  int fd_ = -1;
};

}  // namespace

const char* const kOutputForms = "N.P=FILE or N.P=udp://ADDRESS:PORT";

bool isNetworkTarget(std::string_view target) {
  return target.starts_with(kUdpScheme);
}

std::unique_ptr<PacketSink> openSink(const std::string& target) {
  if (isNetworkTarget(target)) return std::make_unique<UdpSink>(target);
  return std::make_unique<FileSink>(target);
}

}  // namespace headend
