#include "engine/io/mounted_devices.h"

#include <dirent.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "engine/io/direct_device.h"
#include "engine/io/ioctls.h"
#include "engine/io/superblock.h"

namespace ZorvEngine {
namespace {

// The first line of a file; empty when it cannot be read.
std::string FirstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  (void)std::getline(file, line);
  return line;
}

// Where the device with this name in sysfs may have its node: by name, by mapper name, by number.
std::vector<std::string> NodesOf(const std::string& directory, const std::string& name) {
  std::string plain = name;
  std::replace(plain.begin(), plain.end(), '!', '/');  // as sysfs writes "cciss/c0d0"
  std::vector<std::string> nodes = {"/dev/" + plain};
  const std::string mapper = FirstLine(directory + "/" + name + "/dm/name");
  if (!mapper.empty()) nodes.push_back("/dev/mapper/" + mapper);
  const std::string number = FirstLine(directory + "/" + name + "/dev");
  if (!number.empty()) nodes.push_back("/dev/block/" + number);
  return nodes;
}

// The nodes of all devices of the file system, as sysfs names them.
std::vector<std::string> NodesInSysfs(const uint8_t* fsid) {
  std::vector<std::string> nodes;
  const std::string path = "/sys/fs/btrfs/" + UuidText(fsid) + "/devices";
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), closedir);
  if (directory == nullptr) return nodes;
  while (const dirent* entry = readdir(directory.get())) {
    if (entry->d_name[0] == '.') continue;
    for (std::string& node : NodesOf(path, entry->d_name)) nodes.push_back(std::move(node));
  }
  return nodes;
}

// Opens the device at `path` if its superblock carries `uuid`.
Status OpenDevice(const std::string& path, const uint8_t* uuid, Device* out) {
  auto source = std::make_unique<DirectDevice>();
  ENGINE_TRY(source->Open(path));
  Superblock superblock;
  ENGINE_TRY(ReadNewestSuperblock(*source, uuid, &superblock));
  memcpy(out->uuid, uuid, kUuidSize);
  memcpy(out->blockFsid, TreeBlockFsid(superblock), kUuidSize);
  out->source = std::move(source);
  return Status();
}

// As OpenDevice, at the kernel's path or wherever else the device is found; the failure is that of
// the kernel's path.
Status FindDevice(const DevInfo& info, const uint8_t* fsid, Device* out) {
  const Status opened = OpenDevice(info.Path(), info.Uuid(), out);
  if (opened.Ok()) return opened;
  for (const std::string& node : NodesInSysfs(fsid))
    if (OpenDevice(node, info.Uuid(), out).Ok()) return Status();
  return opened;
}

}  // namespace

std::string UuidText(const uint8_t* uuid) {
  const char kDigits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < kUuidSize; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kDigits[uuid[i] >> 4];
    text += kDigits[uuid[i] & 15];
  }
  return text;
}

Status OpenMountedDevices(int fd, const uint8_t* fsid, DeviceSet* out) {
  FsInfo filesystem;
  const int unasked = filesystem.Run(fd);
  if (unasked != 0)
    return Status::Failed(std::string("cannot ask for the devices of the file system: ") +
                          strerror(-unasked));

  // Numbers of devices may have holes, so all up to the highest are asked for.
  DeviceSet devices;
  for (uint64_t devid = 1; devid <= filesystem.MaxDevid(); ++devid) {
    DevInfo info(devid);
    const int failed = info.Run(fd);
    if (failed == -ENODEV) continue;
    if (failed != 0)
      return Status::Failed("cannot ask for device " + std::to_string(devid) +
                            " of the file system: " + strerror(-failed));
    // The kernel has no path for a missing device, or a word in its place.
    if (info.Path().empty() || info.Path()[0] != '/') {
      devices.AddMissing(devid, "");
      continue;
    }
    Device device;
    const Status found = FindDevice(info, fsid, &device);
    if (found.Ok())
      devices.Add(devid, std::move(device));
    else
      devices.AddMissing(devid, found.Text());
  }
  *out = std::move(devices);
  return Status();
}

}  // namespace ZorvEngine
