#include "engine/io/device_set.h"

#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "engine/io/superblock.h"

namespace ZorvEngine {
namespace {

// What two nodes of one device have in common; 0 when that cannot be told.
dev_t NumberOf(const Device& device) {
  struct stat node;
  return fstat(device.source->Descriptor(), &node) == 0 ? node.st_rdev : 0;
}

}  // namespace

void DeviceSet::Add(uint64_t devid, Device device) {
  missing_.erase(devid);
  devices_[devid] = std::move(device);
}

void DeviceSet::AddMissing(uint64_t devid, std::string why) {
  devices_.erase(devid);
  missing_[devid] = std::move(why);
}

const Device* DeviceSet::Find(uint64_t devid) const {
  const auto found = devices_.find(devid);
  return found == devices_.end() ? nullptr : &found->second;
}

std::string DeviceSet::WhyMissing(uint64_t devid) const {
  const auto found = missing_.find(devid);
  if (found == missing_.end() || found->second.empty()) return "is missing";
  return "cannot be used (" + found->second + ")";
}

std::vector<uint64_t> DeviceSet::Missing() const {
  std::vector<uint64_t> numbers;
  for (const auto& [devid, why] : missing_) numbers.push_back(devid);
  return numbers;
}

bool DeviceSet::Rotates() const {
  return std::ranges::any_of(devices_,
                             [](const auto& entry) { return entry.second.source->Rotates(); });
}

bool DeviceSet::SameAs(const DeviceSet& other) const {
  return std::ranges::equal(devices_, other.devices_, [](const auto& a, const auto& b) {
    return a.first == b.first && NumberOf(a.second) == NumberOf(b.second);
  });
}

Status DeviceSet::ReadNewestSuperblock(Superblock* out) const {
  bool found = false;
  Status firstFailure;
  for (const auto& [devid, why] : missing_)
    if (firstFailure.Ok() && !why.empty()) firstFailure = Status::Failed(why);

  for (const auto& [devid, device] : devices_) {
    Superblock superblock;
    const Status read = ZorvEngine::ReadNewestSuperblock(*device.source, device.uuid, &superblock);
    if (!read.Ok()) {
      if (firstFailure.Ok()) firstFailure = read;
      continue;
    }
    if (found && superblock.generation.Get() <= out->generation.Get()) continue;
    found = true;
    *out = superblock;
  }
  if (found) return Status();
  return firstFailure.Ok() ? Status::Failed("every device of the file system is missing")
                           : firstFailure;
}

std::vector<std::string> DeviceSet::FindDamage() const {
  std::vector<std::string> damage;
  for (const auto& [devid, why] : missing_)
    if (!why.empty())
      damage.push_back("device " + std::to_string(devid) + " " + WhyMissing(devid) +
                       "; other copies are read where there are any");
  for (const auto& [devid, device] : devices_) {
    const Status checked = CheckSuperblockCopies(*device.source, device.uuid);
    if (!checked.Ok())
      damage.push_back("device " + std::to_string(devid) + ": " + checked.Text() +
                       "; another copy is read; run btrfs scrub");
  }
  return damage;
}

}  // namespace ZorvEngine
