// Private folders and files for the stores: folders 0700, files 0600, whatever the umask.
#pragma once

#include <filesystem>

#include "corvane/error.h"

namespace corvane {

// Creates `directory` and its missing parents with mode 0700, then makes sure `directory` itself is
// a real folder (not a symbolic link) owned by this user and exactly 0700, tightening it when it
// is wider. False and the error when any step fails.
bool makePrivateDirectory(const std::filesystem::path& directory, Error* error);

// Sets an existing regular file owned by this user to 0600; a missing file is fine. False and the
// error for anything else (a symbolic link, another owner, a failing chmod).
bool makeFilePrivate(const std::filesystem::path& file, Error* error);

}  // namespace corvane
