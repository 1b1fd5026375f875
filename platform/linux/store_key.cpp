#include "linux/store_key.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

#include <fcntl.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/utils.h"

namespace corvane::linux_platform {

namespace {

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  bool closeNow() {
    const int fd = fd_;
    fd_ = -1;
    return ::close(fd) == 0;
  }

 private:
  int fd_;
};

bool readExactly(int fd, uint8_t* out, size_t size) {
  while (size > 0) {
    const ssize_t n = ::read(fd, out, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    out += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool writeAll(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

Error keyError(const PrivateDirectory& directory, std::string_view name, const std::string& why) {
  return Error::corvane(
      -1, "The store key " + (directory.path() / std::string(name)).string() + " " + why);
}

enum class Read { ok, missing, bad };

Read readKey(const PrivateDirectory& directory, std::string_view name, SecretBytes& key) {
  Fd fd(directory.openFile(name, O_RDONLY));
  if (fd.get() < 0) return errno == ENOENT ? Read::missing : Read::bad;
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != ::geteuid() ||
      (st.st_mode & 077) != 0 || st.st_size != static_cast<off_t>(StoreKey::kSize)) {
    return Read::bad;
  }
  SecretBytes bytes(StoreKey::kSize);
  if (!readExactly(fd.get(), bytes.mutableSecret().data(), StoreKey::kSize)) return Read::bad;
  key = std::move(bytes);
  return Read::ok;
}

// Writes a fresh key under a random temporary name and links it into place; linkat fails when the
// name exists, in which case the key already there wins.
bool createKey(const PrivateDirectory& directory, std::string_view name) {
  std::optional<Bytes> suffix = Utils::randomBytesWithLength(8);
  if (!suffix) return false;
  const std::string temp = "." + std::string(name) + "." + hexadecimalString(*suffix);
  Fd fd(directory.openFile(temp, O_WRONLY | O_CREAT | O_EXCL, 0600));
  if (fd.get() < 0) return false;
  SecretBytes key(StoreKey::kSize);
  const bool written =
      ::fchmod(fd.get(), 0600) == 0 &&
      RAND_bytes(key.mutableSecret().data(), static_cast<int>(StoreKey::kSize)) == 1 &&
      writeAll(fd.get(), key.exposeSecret().data(), StoreKey::kSize) && ::fsync(fd.get()) == 0 &&
      fd.closeNow();
  const std::string target(name);
  const bool linked =
      written && (::linkat(directory.fd(), temp.c_str(), directory.fd(), target.c_str(), 0) == 0 ||
                  errno == EEXIST);
  ::unlinkat(directory.fd(), temp.c_str(), 0);
  return linked && ::fsync(directory.fd()) == 0;
}

}  // namespace

std::shared_ptr<const StoreKey> StoreKey::load(const PrivateDirectory& directory,
                                               std::string_view name, Error* error) {
  SecretBytes key;
  Read read = readKey(directory, name, key);
  if (read == Read::missing) {
    if (!createKey(directory, name)) {
      setError(error, keyError(directory, name, "cannot be created"));
      return nullptr;
    }
    read = readKey(directory, name, key);
  }
  if (read != Read::ok) {
    setError(error,
             keyError(directory, name,
                      "is not a private 32-byte regular file of this user or cannot be read"));
    return nullptr;
  }
  return std::make_shared<const StoreKey>(std::move(key));
}

}  // namespace corvane::linux_platform
