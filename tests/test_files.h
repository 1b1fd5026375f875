// File helpers shared by the suites that look at what the stores leave on disk, and an OpenSSL-only
// check of the ECDSA P-256 / SHA-256 signatures the key stores make.
#pragma once

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "foundation/utils.h"

namespace corvane::testing {

inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Creates the parent folders and writes a new file rather than truncating the old one, which some
// file systems flush at once.
inline void writeFile(const std::filesystem::path& path, std::string_view content) {
  std::error_code ignored;
  std::filesystem::create_directories(path.parent_path(), ignored);
  std::filesystem::remove(path, ignored);
  std::ofstream(path, std::ios::binary)
      .write(content.data(), static_cast<std::streamsize>(content.size()));
}

// Permission bits of the path itself (a link is not followed).
inline mode_t modeOf(const std::filesystem::path& path) {
  struct stat st {};
  EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

// Verifies with OpenSSL alone, from the SubjectPublicKeyInfo a key store returned.
inline bool verifies(ByteView spki, ByteView message, ByteView signature) {
  const unsigned char* cursor = spki.data();
  EVP_PKEY* key = d2i_PUBKEY(nullptr, &cursor, static_cast<long>(spki.size()));
  if (key == nullptr) return false;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  const bool ok =
      ctx != nullptr && EVP_DigestVerifyInit(ctx, nullptr, EVP_sha256(), nullptr, key) == 1 &&
      EVP_DigestVerify(ctx, signature.data(), signature.size(), message.data(), message.size()) ==
          1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(key);
  return ok;
}

}  // namespace corvane::testing
