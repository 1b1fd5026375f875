#include "linux/linux_device_info.h"

#include <sys/utsname.h>

#include <cstring>

namespace corvane::linux_platform {

namespace {

// The field up to its terminator (uname fills each with a NUL-terminated text, but the length is
// bounded here as well), "unknown" when uname fails or the field is empty.
template <size_t N>
std::string field(const char (&text)[N]) {
  const size_t length = strnlen(text, N);
  if (length == 0) return LinuxDeviceInfo::kUnknown;
  return std::string(text, length);
}

}  // namespace

std::string LinuxDeviceInfo::modelIdentifier() const {
  struct utsname name {};
  if (::uname(&name) != 0) return kUnknown;
  return field(name.machine);
}

std::string LinuxDeviceInfo::systemVersion() const {
  struct utsname name {};
  if (::uname(&name) != 0) return kUnknown;
  return field(name.release);
}

}  // namespace corvane::linux_platform
