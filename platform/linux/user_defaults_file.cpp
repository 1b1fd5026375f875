#include "linux/user_defaults_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <nlohmann/json.hpp>
#include <system_error>
#include <vector>

#include "corvane/status_codes.h"
#include "foundation/private_paths.h"
#include "foundation/utils.h"

namespace corvane::linux_platform {

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

// Flags are small; anything larger is not a file this class wrote.
constexpr size_t kMaxFileSize = 4 * 1024 * 1024;

Error ioError(const std::string& what, const fs::path& path, int err) {
  return Error::corvane(code(CorvaneStatusCode::UNKNOWN),
                        what + " " + path.string() + ": " + std::strerror(err));
}

Error damaged(const fs::path& path, std::string_view why) {
  return Error::corvane(code(CorvaneStatusCode::UNKNOWN),
                        "The user defaults file " + path.string() + " is damaged: " +
                            std::string(why) + ". Move it away to start with default settings.");
}

enum class ReadResult { Missing, Read, Unreadable };

ReadResult readSmallFile(const PrivateDirectory& folder, const std::string& name,
                         std::string& out) {
  int fd = folder.openFile(name, O_RDONLY | O_NONBLOCK);
  if (fd < 0) return errno == ENOENT ? ReadResult::Missing : ReadResult::Unreadable;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    return ReadResult::Unreadable;
  }
  char buffer[8192];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 || out.size() + static_cast<size_t>(std::max<ssize_t>(n, 0)) > kMaxFileSize) {
      ::close(fd);
      return ReadResult::Unreadable;
    }
    if (n == 0) break;
    out.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  return ReadResult::Read;
}

bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

struct UserDefaultsFile::State {
  std::shared_ptr<const PrivateDirectory> folder;
  std::string name;
  mutable std::mutex mutex;
  Json values = Json::object();
  bool dirty = false;
  std::optional<Error> loadError;
};

UserDefaultsFile::UserDefaultsFile(fs::path path, std::unique_ptr<State> state)
    : path_(std::move(path)), state_(std::move(state)) {}

UserDefaultsFile::~UserDefaultsFile() {
  std::lock_guard lock(state_->mutex);
  // A destructor cannot report; a failed write leaves the file as it was.
  if (state_->dirty) static_cast<void>(writeLocked(nullptr));
}

std::unique_ptr<UserDefaultsFile> UserDefaultsFile::open(const fs::path& path, Error* error) {
  if (path.filename().empty()) {
    setError(error, Error::corvane(code(CorvaneStatusCode::UNKNOWN),
                                   "user defaults path has no file name: " + path.string()));
    return nullptr;
  }
  std::shared_ptr<const PrivateDirectory> folder =
      PrivateDirectory::open(path.has_parent_path() ? path.parent_path() : fs::path("."), error);
  if (!folder) return nullptr;
  return open(std::move(folder), path.filename().string(), error);
}

std::unique_ptr<UserDefaultsFile> UserDefaultsFile::open(
    std::shared_ptr<const PrivateDirectory> folder, std::string_view name, Error* error) {
  if (!folder || name.empty() || name.find('/') != std::string_view::npos) {
    setError(error, Error::corvane(code(CorvaneStatusCode::UNKNOWN),
                                   "user defaults need a folder and a file name"));
    return nullptr;
  }
  const fs::path path = folder->path() / std::string(name);
  auto state = std::make_unique<State>();
  state->folder = std::move(folder);
  state->name = std::string(name);
  std::string text;
  switch (readSmallFile(*state->folder, state->name, text)) {
    case ReadResult::Missing:
      break;
    case ReadResult::Unreadable:
      state->loadError = damaged(path, "it cannot be read or is over 4 MiB");
      break;
    case ReadResult::Read: {
      Json parsed;
      try {
        parsed = Json::parse(text, nullptr, /*allow_exceptions=*/false);
      } catch (...) {
        parsed = Json::value_t::discarded;
      }
      if (!parsed.is_object()) {
        state->loadError = damaged(path, "it is not a JSON object");
        break;
      }
      // Only scalar members are kept: the flags are booleans and texts.
      for (auto& [key, value] : parsed.items()) {
        if (value.is_primitive()) state->values[key] = std::move(value);
      }
      break;
    }
  }
  return std::unique_ptr<UserDefaultsFile>(new UserDefaultsFile(path, std::move(state)));
}

bool UserDefaultsFile::getBool(std::string_view key) const {
  std::lock_guard lock(state_->mutex);
  auto it = state_->values.find(std::string(key));
  return it != state_->values.end() && it->is_boolean() && it->get<bool>();
}

void UserDefaultsFile::setBool(std::string_view key, bool value) {
  std::lock_guard lock(state_->mutex);
  Json& slot = state_->values[std::string(key)];
  if (slot.is_boolean() && slot.get<bool>() == value) return;
  slot = value;
  state_->dirty = true;
}

std::optional<std::string> UserDefaultsFile::getString(std::string_view key) const {
  std::lock_guard lock(state_->mutex);
  auto it = state_->values.find(std::string(key));
  if (it == state_->values.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

void UserDefaultsFile::setString(std::string_view key, std::string_view value) {
  std::lock_guard lock(state_->mutex);
  Json& slot = state_->values[std::string(key)];
  if (slot.is_string() && slot.get_ref<const std::string&>() == value) return;
  slot = std::string(value);
  state_->dirty = true;
}

void UserDefaultsFile::remove(std::string_view key) {
  std::lock_guard lock(state_->mutex);
  if (state_->values.erase(std::string(key)) > 0) state_->dirty = true;
}

bool UserDefaultsFile::synchronize(Error* error) {
  std::lock_guard lock(state_->mutex);
  if (!state_->dirty) return true;
  return writeLocked(error);
}

std::optional<Error> UserDefaultsFile::loadError() const {
  std::lock_guard lock(state_->mutex);
  return state_->loadError;
}

bool UserDefaultsFile::writeLocked(Error* error) {
  std::string text;
  try {
    // Invalid UTF-8 in a stored text is written as U+FFFD rather than failing the whole file.
    text = state_->values.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  } catch (...) {
    setError(error,
             Error::corvane(code(CorvaneStatusCode::UNKNOWN), "cannot encode user defaults"));
    return false;
  }

  const PrivateDirectory& folder = *state_->folder;
  std::optional<Bytes> suffix = Utils::randomBytesWithLength(8);
  const std::string temp =
      "." + state_->name + ".tmp-" + (suffix ? hexadecimalString(*suffix) : std::string());
  int fd = suffix ? folder.openFile(temp, O_WRONLY | O_CREAT | O_EXCL, 0600) : -1;
  if (fd < 0) {
    setError(error, ioError("cannot create temporary file in", folder.path(), errno));
    return false;
  }
  auto fail = [&](const char* what, int err) {
    ::unlinkat(folder.fd(), temp.c_str(), 0);
    setError(error, ioError(what, path_, err));
    return false;
  };
  if (::fchmod(fd, 0600) != 0 || !writeAll(fd, text) || ::fsync(fd) != 0) {
    int err = errno;
    ::close(fd);
    return fail("cannot write", err);
  }
  if (::close(fd) != 0) return fail("cannot write", errno);
  if (::renameat(folder.fd(), temp.c_str(), folder.fd(), state_->name.c_str()) != 0) {
    return fail("cannot replace", errno);
  }

  // Make the rename itself durable.
  ::fsync(folder.fd());
  state_->dirty = false;
  state_->loadError.reset();
  return true;
}

}  // namespace corvane::linux_platform
