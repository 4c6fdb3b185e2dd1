// The parts of a channel that a change replaces: PID map, tables, intervals. Each has the same steps, which
// carry_out calls in this order: keep, confirm, lock, write, compare, unlock, verify; after a failure
// putBack. All throw Error.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "client/channel_change.h"
#include "client/channel_variables.h"

namespace client {

class ChangePart {
 public:
  enum class Content { kOld, kNew };

  ChangePart(Link& link, const ChannelChange& change, const char* name, std::filesystem::path rescueFile)
      : link_(link),
        change_(change),
        card_(link, change.before.channel),
        name_(name),
        file_(std::move(rescueFile)) {}
  ChangePart(const ChangePart&) = delete;
  ChangePart& operator=(const ChangePart&) = delete;
  virtual ~ChangePart() = default;

  std::string name() const;  // "PID map of channel 1.2"
  // Writes the old content to the rescue file, if there is to be one.
  void keep();
  void dropFile();
  virtual void confirm() = 0;  // still as it was read, and not locked
  virtual void lock();
  virtual void write(Content content) = 0;
  virtual void compare(Content) {}  // with what the card holds; before the unlock
  // Also if the reply is lost.
  void unlock();
  virtual void verify() = 0;  // the new content is in place
  // Nothing to do if the lock was never tried. Does not overwrite what another client has loaded.
  void putBack();
  bool touched() const { return touched_; }
  // After a failed putBack: the state of the channel, and the commands that mend it.
  std::string rest() const;

 protected:
  enum class Lock { kOff, kOn, kUnknown };

  virtual bool readCardLock() = 0;
  virtual void writeCardLock(bool on) = 0;
  virtual bool holds(Content content) = 0;             // of an unlocked channel
  virtual std::string obstacle() const { return ""; }  // why the old content cannot be put back
  virtual Bytes fileContent() const { return {}; }
  virtual std::string stateText() const = 0;

  Channel channel() const { return change_.before.channel; }
  bool readLock();
  void setLock(bool on);
  std::string fileOr(const char* other) const { return kept_ ? file_.string() : other; }

  Link& link_;
  const ChannelChange& change_;
  ChannelVariables card_;
  Lock lock_ = Lock::kOff;

 private:
  const char* name_;
  std::filesystem::path file_;
  bool kept_ = false;
  bool touched_ = false;
};

// In the order in which they are locked and unlocked.
std::vector<std::unique_ptr<ChangePart>> partsOf(Link& link, const ChannelChange& change);

}  // namespace client
