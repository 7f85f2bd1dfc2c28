// A world in which nothing but the volumes tells of shares, and helpers to ask the platform.
#ifndef TESTS_PLATFORM_SOURCES_WORLD_H
#define TESTS_PLATFORM_SOURCES_WORLD_H

#include <gtest/gtest.h>
#include <zorvplatform/share.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/platform/platform_error.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"

namespace ZorvTest {

inline constexpr char kSmbConf[] = "/etc/samba/smb.conf";
inline constexpr char kSharesFile[] = "/etc/zorv-snapusage.conf";
inline constexpr char kSnapperConfigs[] = "/etc/snapper/configs";
inline constexpr char kOwnRoot[] = "/run/zorvplatform";

using Names = std::vector<std::string>;

struct ShareFree {
  void operator()(ZORVSHARE* share) const { ZORVShareFree(share); }
};
using SharePtr = std::unique_ptr<ZORVSHARE, ShareFree>;

struct SnapInfoFree {
  void operator()(ZORVSHARESNAPINFO* info) const { ZORVShareSnapInfoFree(info); }
};
using SnapInfoPtr = std::unique_ptr<ZORVSHARESNAPINFO, SnapInfoFree>;

// A new volume for each test, and no configuration of anybody before and after it.
class Sources : public testing::Test {
 protected:
  Sources() { Forget(); }
  ~Sources() override { Forget(); }

  static void Forget() {
    namespace fs = std::filesystem;
    for (const char* path : {kSmbConf, kSharesFile, kSnapperConfigs, kOwnRoot})
      fs::remove_all(path);
    fs::create_directories("/etc/samba");
    fs::create_directories(kSnapperConfigs);
    WriteFile("/etc/default/snapper", "SNAPPER_CONFIGS=\"\"\n");
    WriteFile("/etc/fstab", "");
  }

  // The shares of all sources; {"failed"}: Problem() says why.
  static Names Shares() {
    PLATSZLIST* list = PLATCSzListAlloc(4);
    ClearError();
    const int count = ZORVShareEnum(&list, ZORV_SHARE_ENUM_ALL);
    const Names names = Texts(list);
    PLATCSzListFree(list);
    EXPECT_EQ(count < 0 ? 0u : static_cast<size_t>(count), names.size());
    return count < 0 ? Names{"failed"} : names;
  }

  // Null: Problem() says why.
  static SharePtr Find(const std::string& name) {
    ZORVSHARE* share = nullptr;
    ClearError();
    const int result = ZORVShareGet(name.c_str(), &share);
    EXPECT_EQ(result == 0, share != nullptr);
    EXPECT_EQ(result == 0, PLATCErrGet() == 0);
    return SharePtr(share);
  }

  static ZORVSHAREINFO InfoOf(const SharePtr& share) {
    ZORVSHAREINFO info = {};
    EXPECT_EQ(0, ZORVShareInfoGet(share.get(), &info));
    return info;
  }

  // The snapshots of a share that is there; {"failed"}: Problem() says why.
  static Names List(const std::string& name, const std::string& condition = "") {
    const SharePtr share = Find(name);
    if (share == nullptr) return {"no share"};
    ZORVSHARESNAPSELECTOR* selectors = nullptr;
    if (!condition.empty()) {
      EXPECT_EQ(0,
                ZORVShareSnapSelectorAdd(&selectors, ZORVShareSnapTimeSelector, condition.c_str()));
    }
    PLATSZLIST* list = PLATCSzListAlloc(4);
    const int result = ZORVShareSnapList(share.get(), &list, selectors);
    const Names names = result == 0 ? Texts(list) : Names{"failed"};
    PLATCSzListFree(list);
    ZORVShareSnapEnumFree(selectors);
    return names;
  }

  static SnapInfoPtr SnapInfo(const std::string& name, const std::string& snapshot) {
    const SharePtr share = Find(name);
    ZORVSHARESNAPINFO* info = nullptr;
    if (share != nullptr) (void)ZORVShareSnapInfoGet(share.get(), snapshot.c_str(), &info);
    return SnapInfoPtr(info);
  }

  static std::string Problem() { return PLATCErrorGetText(); }

  // What is in the view of a share, and where it leads.
  static std::map<std::string, std::string> View(const std::string& share) {
    namespace fs = std::filesystem;
    std::map<std::string, std::string> links;
    const std::string view = std::string(kOwnRoot) + "/snapdirs/" + share;
    if (!fs::exists(view)) return links;
    for (const auto& entry : fs::directory_iterator(view))
      links[entry.path().filename()] =
          entry.is_symlink() ? fs::read_symlink(entry.path()).string() : "no link";
    return links;
  }

  const BtrfsVolume volume{"/volume1"};
};

}  // namespace ZorvTest

#endif
