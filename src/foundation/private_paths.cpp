#include "foundation/private_paths.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corvane {

namespace {

namespace fs = std::filesystem;

bool fail(Error* error, const std::string& what, int err) {
  setError(error, Error::corvane(err, what + ": " + std::strerror(err)));
  return false;
}

std::string octal(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

// A folder above the data folder is safe when nobody but root and this user can change what it
// holds: owned by one of them and not writable by group or others, or owned by root with the
// sticky bit, where others may add names but cannot rename or remove ours.
bool isSafeAncestor(const struct stat& st) {
  const bool trustedOwner = st.st_uid == 0 || st.st_uid == ::geteuid();
  if (!trustedOwner) return false;
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) == 0) return true;
  return st.st_uid == 0 && (st.st_mode & S_ISVTX) != 0;
}

bool isPlainName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

// A descriptor closed at scope end unless released.
class HeldFd {
 public:
  explicit HeldFd(int fd = -1) : fd_(fd) {}
  ~HeldFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  HeldFd(const HeldFd&) = delete;
  HeldFd& operator=(const HeldFd&) = delete;
  void reset(int fd) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

}  // namespace

std::unique_ptr<PrivateDirectory> PrivateDirectory::open(const fs::path& path, Error* error) {
  if (path.empty()) {
    fail(error, "No data directory", EINVAL);
    return nullptr;
  }
  // Symbolic links in the part that exists are resolved here, once; the walk below follows none.
  std::error_code ec;
  const fs::path absolute = fs::absolute(path, ec);
  struct stat link {};
  if (!ec && ::lstat(absolute.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
    fail(error, "Not a folder: " + path.string(), ENOTDIR);
    return nullptr;
  }
  const fs::path resolved = ec ? fs::path() : fs::weakly_canonical(absolute, ec);
  if (ec) {
    fail(error, "Cannot resolve folder " + path.string(), ec.value());
    return nullptr;
  }

  HeldFd current(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (current.get() < 0) {
    fail(error, "Cannot open folder /", errno);
    return nullptr;
  }
  fs::path walked = "/";
  std::vector<std::string> names;
  for (const fs::path& part : resolved.relative_path()) {
    if (!part.empty() && part != ".") names.push_back(part.string());
  }
  for (size_t i = 0; i <= names.size(); ++i) {
    struct stat st {};
    if (::fstat(current.get(), &st) != 0) {
      fail(error, "Cannot inspect folder " + walked.string(), errno);
      return nullptr;
    }
    if (i == names.size()) {
      // The data folder itself: this user's, and exactly 0700.
      if (st.st_uid != ::geteuid()) {
        fail(error, "Folder owned by another user: " + walked.string(), EPERM);
        return nullptr;
      }
      if ((st.st_mode & 07777) != 0700 && ::fchmod(current.get(), 0700) != 0) {
        fail(error, "Cannot set mode of folder " + walked.string(), errno);
        return nullptr;
      }
      break;
    }
    if (!isSafeAncestor(st)) {
      fail(error,
           "Folder " + walked.string() + " (owner " + std::to_string(st.st_uid) + ", mode " +
               octal(st.st_mode) + ") above the data folder can be changed by another user",
           EPERM);
      return nullptr;
    }
    const std::string& name = names[i];
    if (!isPlainName(name)) {
      fail(error, "Cannot use folder " + resolved.string(), EINVAL);
      return nullptr;
    }
    walked /= name;
    const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    int next = ::openat(current.get(), name.c_str(), flags);
    if (next < 0 && errno == ENOENT) {
      if (::mkdirat(current.get(), name.c_str(), 0700) != 0 && errno != EEXIST) {
        fail(error, "Cannot create folder " + walked.string(), errno);
        return nullptr;
      }
      next = ::openat(current.get(), name.c_str(), flags);
      // mkdir honours the umask; a folder made here gets its exact mode.
      if (next >= 0 && ::fchmod(next, 0700) != 0) {
        const int err = errno;
        ::close(next);
        fail(error, "Cannot set mode of folder " + walked.string(), err);
        return nullptr;
      }
    }
    if (next < 0) {
      const int err = errno;
      if (err == ELOOP || err == ENOTDIR) {
        fail(error, "Not a folder: " + walked.string(), ENOTDIR);
      } else {
        fail(error, "Cannot open folder " + walked.string(), err);
      }
      return nullptr;
    }
    current.reset(next);
  }
  return std::unique_ptr<PrivateDirectory>(new PrivateDirectory(current.release(), path));
}

PrivateDirectory::~PrivateDirectory() {
  if (fd_ >= 0) ::close(fd_);
}

std::string PrivateDirectory::pathThroughDescriptor(std::string_view name) const {
  return "/proc/self/fd/" + std::to_string(fd_) + "/" + std::string(name);
}

int PrivateDirectory::openFile(std::string_view name, int flags, mode_t mode) const {
  if (!isPlainName(name)) {
    errno = EINVAL;
    return -1;
  }
  return ::openat(fd_, std::string(name).c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode);
}

bool PrivateDirectory::makeFilePrivate(std::string_view name, Error* error) const {
  const std::string shown = (path_ / std::string(name)).string();
  HeldFd fd(openFile(name, O_RDONLY | O_NONBLOCK));
  if (fd.get() < 0) {
    if (errno == ENOENT) return true;
    if (errno == ELOOP) return fail(error, "Not a regular file: " + shown, EINVAL);
    return fail(error, "Cannot inspect file " + shown, errno);
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) return fail(error, "Cannot inspect file " + shown, errno);
  if (!S_ISREG(st.st_mode)) return fail(error, "Not a regular file: " + shown, EINVAL);
  if (st.st_uid != ::geteuid()) return fail(error, "File owned by another user: " + shown, EPERM);
  if ((st.st_mode & 07777) != 0600 && ::fchmod(fd.get(), 0600) != 0) {
    return fail(error, "Cannot set mode of file " + shown, errno);
  }
  return true;
}

bool makePrivateDirectory(const fs::path& directory, Error* error) {
  return PrivateDirectory::open(directory, error) != nullptr;
}

}  // namespace corvane
