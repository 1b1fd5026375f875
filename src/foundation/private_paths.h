// Private folders and files for the stores: folders 0700, files 0600, whatever the umask.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "corvane/error.h"

namespace corvane {

// A private folder held open: the descriptor (O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) is the one
// truth about which folder the stores use, and every file beneath it is opened relative to it,
// without following a symbolic link, so renaming or replacing a folder on the path after the
// checks changes nothing.
//
// Opening checks the whole path, from "/" down, on descriptors rather than names: every ancestor
// must be owned by root or this user and closed to writing by group and others, unless it is a
// root-owned folder with the sticky bit (such as /tmp), where others may add names but not move
// or remove ours. A symbolic link in the path is resolved once before the walk; the walk itself
// follows none, so a link swapped in between makes the open fail rather than lead elsewhere.
// Missing folders are created 0700. The folder itself must be owned by this user and is tightened
// to 0700 when wider.
//
// Thread-safety: immutable once open; may be shared between threads.
class PrivateDirectory {
 public:
  // Null and an Error naming the folder at fault when a check or a step fails.
  [[nodiscard]] static std::unique_ptr<PrivateDirectory> open(const std::filesystem::path& path,
                                                              Error* error);
  ~PrivateDirectory();
  PrivateDirectory(const PrivateDirectory&) = delete;
  PrivateDirectory& operator=(const PrivateDirectory&) = delete;

  int fd() const { return fd_; }
  // The path the folder was opened from, for messages.
  const std::filesystem::path& path() const { return path_; }
  // "/proc/self/fd/<fd>/<name>": a path that reaches `name` through the held descriptor, for
  // libraries that open files by name. Valid while this object lives.
  std::string pathThroughDescriptor(std::string_view name) const;
  // openat(fd(), name, flags | O_NOFOLLOW | O_CLOEXEC, mode): -1 and errno on failure.
  int openFile(std::string_view name, int flags, mode_t mode = 0) const;
  // Makes an existing regular file beneath the folder owned by this user 0600; a missing file is
  // fine. False and the error for anything else (a symbolic link, another owner).
  bool makeFilePrivate(std::string_view name, Error* error) const;

 private:
  PrivateDirectory(int fd, std::filesystem::path path) : fd_(fd), path_(std::move(path)) {}
  int fd_;
  std::filesystem::path path_;
};

// Opens `directory` as a PrivateDirectory and closes it again: true when every check passed.
bool makePrivateDirectory(const std::filesystem::path& directory, Error* error);

}  // namespace corvane
