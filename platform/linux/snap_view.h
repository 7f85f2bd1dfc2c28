// The view of a share whose snapshots do not lie in one directory by names that the library can
// use: a directory of links, one for each snapshot.
#ifndef PLATFORM_LINUX_SNAP_VIEW_H
#define PLATFORM_LINUX_SNAP_VIEW_H

#include <map>
#include <string>

#include "base/unique_fd.h"

namespace ZorvPlatform {

// /run/zorvplatform/snapdirs/<share>
std::string SnapViewPath(const std::string& share);

// Where the link `name` of the view leads.  "": errno says why.
std::string ReadSnapViewLink(const std::string& share, const std::string& name);

// A view while it is renewed.  The lock is held from before the snapshots are read until the view
// is as they are, so that nobody who has read them earlier takes away what is newer.
class SnapView {
 public:
  SnapView() = default;
  ~SnapView();
  SnapView(const SnapView&) = delete;
  SnapView& operator=(const SnapView&) = delete;

  // Makes the view's directory if need be and locks it, which may take as long as others list the
  // same share.  False: `why` says in words why not.
  bool Open(const std::string& share, std::string* why);

  // Makes the view these links, by name: each changes in one step, and one that is right stays as
  // it is.  False: `why` says why not.
  bool Renew(const std::map<std::string, std::string>& links, std::string* why);

 private:
  bool RemoveOthers(const std::map<std::string, std::string>& links);
  bool Link(const std::string& name, const std::string& target);

  std::string path_;
  UniqueFd directory_;
};

}  // namespace ZorvPlatform

#endif
