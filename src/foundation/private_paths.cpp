#include "foundation/private_paths.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corvane {

namespace {

bool fail(Error* error, const std::string& what, int err) {
  setError(error, Error::corvane(err, what + ": " + std::strerror(err)));
  return false;
}

}  // namespace

bool makePrivateDirectory(const std::filesystem::path& directory, Error* error) {
  if (directory.empty()) return fail(error, "No data directory", EINVAL);
  std::filesystem::path prefix;
  for (const std::filesystem::path& part : directory) {
    prefix /= part;
    struct stat st {};
    if (::stat(prefix.c_str(), &st) == 0) continue;
    if (errno != ENOENT) return fail(error, "Cannot inspect folder " + prefix.string(), errno);
    if (::mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) {
      return fail(error, "Cannot create folder " + prefix.string(), errno);
    }
    // mkdir honours the umask; a folder we created gets its exact mode here.
    if (::chmod(prefix.c_str(), 0700) != 0) {
      return fail(error, "Cannot set mode of folder " + prefix.string(), errno);
    }
  }
  struct stat st {};
  if (::lstat(directory.c_str(), &st) != 0) {
    return fail(error, "Cannot inspect folder " + directory.string(), errno);
  }
  if (!S_ISDIR(st.st_mode)) return fail(error, "Not a folder: " + directory.string(), ENOTDIR);
  if (st.st_uid != ::geteuid()) {
    return fail(error, "Folder owned by another user: " + directory.string(), EPERM);
  }
  if ((st.st_mode & 07777) != 0700 && ::chmod(directory.c_str(), 0700) != 0) {
    return fail(error, "Cannot set mode of folder " + directory.string(), errno);
  }
  return true;
}

bool makeFilePrivate(const std::filesystem::path& file, Error* error) {
  struct stat st {};
  if (::lstat(file.c_str(), &st) != 0) {
    if (errno == ENOENT) return true;
    return fail(error, "Cannot inspect file " + file.string(), errno);
  }
  if (!S_ISREG(st.st_mode)) return fail(error, "Not a regular file: " + file.string(), EINVAL);
  if (st.st_uid != ::geteuid()) {
    return fail(error, "File owned by another user: " + file.string(), EPERM);
  }
  if ((st.st_mode & 07777) != 0600 && ::chmod(file.c_str(), 0600) != 0) {
    return fail(error, "Cannot set mode of file " + file.string(), errno);
  }
  return true;
}

}  // namespace corvane
