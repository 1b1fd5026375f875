// wbgen: makes white-box AES-256 table sets. Run `wbgen --help` for the commands.
#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvane/secret_bytes.h"
#include "crypto/whitebox.h"
#include "crypto/whitebox_tables.h"
#include "tablegen/whitebox_generator.h"
#include "wbgen/attestation.h"
#include "wbgen/bundle.h"

namespace {

namespace wb = corvane::whitebox;

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // the work itself failed: randomness, tables, files
constexpr int kExitUsage = 2;    // bad command line or key text

constexpr std::string_view kOverview =
    "wbgen - white-box AES-256 table generator\n"
    "\n"
    "Usage: wbgen <command> [options]\n"
    "       wbgen --help | wbgen <command> --help\n"
    "\n"
    "Every table set computes exactly AES-256 encryption under the given key. All randomness\n"
    "(mixing bijections, byte and nibble codes, external encodings, random keys) comes from\n"
    "OpenSSL's RAND_bytes. Each set is checked against OpenSSL's AES-256 before it is written.\n"
    "\n"
    "Exit status: 0 on success, 1 when generation or writing fails, 2 on a usage error\n"
    "(unknown command or option, missing value, key text that is not 64 hex digits).\n"
    "\n"
    "Commands:\n";

struct Options {
  std::optional<corvane::SecretBytes> key;
  bool randomKey = false;
  bool identityEncoding = false;
  std::optional<std::string> builtinPath;
  std::optional<std::string> outPath;
  std::optional<std::string> outDir;
};

struct Command {
  std::string_view name;
  std::string_view summary;
  std::string_view help;
  int (*run)(const Options&);
};

int usageError(const std::string& message) {
  std::cerr << "wbgen: " << message << "\nRun 'wbgen --help' for usage.\n";
  return kExitUsage;
}

int failure(const std::string& message) {
  std::cerr << "wbgen: " << message << "\n";
  return kExitFailure;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// 64 hex digits to the 32 key bytes; absent on any other text.
std::optional<corvane::SecretBytes> parseKey(std::string_view text) {
  if (text.size() != 2 * wb::kAes256KeySize) return std::nullopt;
  corvane::SecretBytes key(wb::kAes256KeySize);
  auto bytes = key.mutableSecret();
  for (size_t i = 0; i < bytes.size(); ++i) {
    const int high = hexValue(text[2 * i]), low = hexValue(text[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes[i] = static_cast<uint8_t>(high * 16 + low);
  }
  return key;
}

std::optional<corvane::Bytes> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  corvane::Bytes data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return data;
}

// Writes through a temporary file and a rename, so a failed run leaves no partial file.
bool writeFile(const std::string& path, corvane::ByteView data) {
  const std::string temporary = path + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    if (!out) return false;
    out.write(reinterpret_cast<const char*>(data.data()),
              static_cast<std::streamsize>(data.size()));
    if (!out.flush()) return false;
  }
  std::error_code ec;
  std::filesystem::rename(temporary, path, ec);
  if (ec) std::filesystem::remove(temporary, ec);
  return !ec;
}

void wipe(std::string& text) {
  OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

int runUserTables(const Options& options) {
  if (!options.key) return usageError("user-tables needs --key HEX");
  if (options.randomKey || options.outPath) {
    return usageError("user-tables takes --key, --identity-encoding and --builtin only");
  }
  std::optional<wb::XorTables> authXor;
  corvane::Bytes builtinFile;
  if (options.builtinPath) {
    auto data = readFile(*options.builtinPath);
    if (!data) return failure("cannot read " + *options.builtinPath);
    builtinFile = std::move(*data);
    authXor = wb::authXorFromBlob(builtinFile);
    if (!authXor) return failure(*options.builtinPath + " is not a built-in table set");
  } else {
    authXor = wb::authXorFromBlob(wb::builtinBlob());
    if (!authXor) return failure("the library's built-in table set is unusable");
  }
  const auto codebook = wb::XorCodebook::recover(*authXor);
  if (!codebook) return failure("the authXor set is not a nibble-coded XOR network");
  const auto tables = wb::generateRoundTables(*options.key, *codebook);
  const auto encoding = wb::generateExternalEncoding(options.identityEncoding);
  if (!tables || !encoding) return failure("table generation failed (random generator)");
  const auto network =
      wb::WhiteboxNetwork::make(*authXor, tables->tyboxes, tables->tboxesLast, tables->mbl);
  if (!network || !wb::networkMatchesAes256(*network, *options.key, 16)) {
    return failure("generated tables do not match AES-256; nothing written");
  }
  std::string json1 = wbgen::data1Json(tables->tyboxes, tables->tboxesLast, tables->mbl);
  std::string json2 = wbgen::data2Json(*encoding);
  const auto data1 = wbgen::packBundleField(json1);
  const auto data2 = wbgen::packBundleField(json2);
  wipe(json1);
  wipe(json2);
  if (!data1 || !data2) return failure("compression failed");
  std::cout << "{\"data1\":\"" << *data1 << "\",\"data2\":\"" << *data2 << "\"}\n";
  std::cout.flush();
  return std::cout ? kExitOk : failure("cannot write to standard output");
}

int runBuiltin(const Options& options) {
  if (options.key.has_value() == options.randomKey) {
    return usageError("builtin needs exactly one of --key HEX and --random-key");
  }
  if (!options.outPath) return usageError("builtin needs --out FILE");
  if (options.identityEncoding || options.builtinPath) {
    return usageError("builtin takes --key or --random-key, and --out only");
  }
  std::optional<corvane::SecretBytes> key = options.key;
  if (options.randomKey) {
    key.emplace(wb::kAes256KeySize);
    if (RAND_bytes(key->mutableSecret().data(), static_cast<int>(key->size())) != 1) {
      return failure("random generator failed");
    }
  }
  const auto blobBytes = wb::generateBuiltinBlob(*key);
  if (!blobBytes) return failure("table generation failed");
  if (!writeFile(*options.outPath, *blobBytes)) return failure("cannot write " + *options.outPath);
  return kExitOk;
}

int runAttestation(const Options& options) {
  if (!options.outDir) return usageError("attestation needs --out-dir DIR");
  if (options.key || options.randomKey || options.identityEncoding || options.builtinPath ||
      options.outPath) {
    return usageError("attestation takes --out-dir only");
  }
  std::string error;
  const auto material = wbgen::makeAttestationMaterial(&error);
  if (!material) return failure(error);
  const std::filesystem::path dir(*options.outDir);
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec) return failure("cannot create " + dir.string());
  const std::string keyLine = material->keyHex + "\n";
  const std::pair<const char*, const std::string*> files[] = {
      {"root.pem", &material->rootPem},
      {"attestation.pem", &material->attestationPem},
      {"attestation_key.hex", &keyLine},
  };
  for (const auto& [name, text] : files) {
    const std::string path = (dir / name).string();
    if (!writeFile(path, corvane::asBytes(*text))) return failure("cannot write " + path);
  }
  return kExitOk;
}

// New commands (for example the attestation material) are added here.
constexpr Command kCommands[] = {
    {"user-tables", "per-user table bundle for a key, as the server sends it",
     "Usage: wbgen user-tables --key HEX [--identity-encoding] [--builtin FILE]\n"
     "\n"
     "Prints one JSON object {\"data1\": \"...\", \"data2\": \"...\"} on standard output.\n"
     "data1 is base64url (no padding) of a gzip member of the JSON object\n"
     "  {\"Tyboxes\": [13][16][256], \"TboxesLast\": [16][256], \"MBL\": [13][16][256]}\n"
     "(Tyboxes and MBL hold unsigned 32-bit integers, TboxesLast bytes); data2 is the same for\n"
     "  {\"permutations\": [16][256]}\n"
     "the external encoding: one byte permutation per position of a 16-byte block.\n"
     "The tables are made for the authXor set of a built-in table set: by default the one\n"
     "compiled into this program's library (which is the one the client library embeds).\n"
     "\n"
     "  --key HEX            the AES-256 key, 64 hexadecimal digits\n"
     "  --identity-encoding  identity permutations instead of random ones\n"
     "  --builtin FILE       take authXor from this built-in set file instead\n",
     runUserTables},
    {"builtin", "the built-in table set in the library's binary form",
     "Usage: wbgen builtin (--key HEX | --random-key) --out FILE\n"
     "\n"
     "Writes the built-in set: fresh random Xor and authXor sets, and Tyboxes, TboxesLast and\n"
     "MBL for the key over the Xor set. Binary form: a 64-byte header (\"CVWBTS01\", format\n"
     "version 1 and header size 64 as little-endian 32-bit integers, zeros), then Xor\n"
     "[13][96][256] bytes, Tyboxes [13][16][256] little-endian words, TboxesLast [16][256]\n"
     "bytes, MBL [13][16][256] little-endian words and authXor [13][96][256] bytes.\n"
     "\n"
     "  --key HEX      the AES-256 key, 64 hexadecimal digits\n"
     "  --random-key   a fresh random key that is used once and never shown or stored\n"
     "  --out FILE     where to write the set (replaced atomically)\n",
     runBuiltin},
    {"attestation", "development attestation key and certificates",
     "Usage: wbgen attestation --out-dir DIR\n"
     "\n"
     "Makes development attestation material for the built-in table set compiled into this\n"
     "program's library, and writes three files into DIR (created if missing):\n"
     "  attestation_key.hex  a fresh P-256 attestation key as 04 || X || Y || D (97 bytes),\n"
     "                       CFB-enciphered with the built-in tables under the fixed IV, as one\n"
     "                       line of 194 lower-case hex digits\n"
     "  attestation.pem      its X.509 v3 certificate (CA:FALSE, digitalSignature, 20 years)\n"
     "  root.pem             the self-signed root that signed it (CA:TRUE, keyCertSign, 20 years)\n"
     "The root's private key is discarded: it is never written or shown. Register root.pem or\n"
     "attestation.pem with the relying party's metadata; copy the key text and the certificate\n"
     "into src/crypto/attestation_material.cpp and rebuild.\n"
     "\n"
     "  --out-dir DIR  where to write the three files (each replaced atomically)\n",
     runAttestation},
};

void printOverview() {
  std::cout << kOverview;
  for (const auto& command : kCommands) {
    std::cout << "  " << command.name << std::string(14 - command.name.size(), ' ')
              << command.summary << "\n";
  }
  std::cout
      << "\nKeys given with --key are visible to other local users through the process list;\n"
         "run wbgen on a machine you control.\n";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usageError("no command given");
  const std::string_view first = argv[1];
  if (first == "--help" || first == "-h" || first == "help") {
    printOverview();
    return kExitOk;
  }
  const Command* command = nullptr;
  for (const auto& c : kCommands) {
    if (c.name == first) command = &c;
  }
  if (command == nullptr) return usageError("unknown command '" + std::string(first) + "'");

  Options options;
  for (int i = 2; i < argc; ++i) {
    const std::string_view arg = argv[i];
    auto value = [&]() -> char* { return i + 1 < argc ? argv[++i] : nullptr; };
    if (arg == "--help" || arg == "-h") {
      std::cout << command->help;
      return kExitOk;
    } else if (arg == "--key") {
      char* text = value();
      if (text == nullptr) return usageError("--key needs a value");
      options.key = parseKey(text);
      // The key text is wiped from the argument vector once read.
      OPENSSL_cleanse(text, std::strlen(text));
      if (!options.key) return usageError("--key must be 64 hexadecimal digits (an AES-256 key)");
    } else if (arg == "--random-key") {
      options.randomKey = true;
    } else if (arg == "--identity-encoding") {
      options.identityEncoding = true;
    } else if (arg == "--out-dir") {
      char* text = value();
      if (text == nullptr) return usageError("--out-dir needs a value");
      options.outDir = text;
    } else if (arg == "--builtin" || arg == "--out") {
      char* text = value();
      if (text == nullptr) return usageError(std::string(arg) + " needs a value");
      (arg == "--out" ? options.outPath : options.builtinPath) = text;
    } else {
      return usageError("unknown option '" + std::string(arg) + "' for " +
                        std::string(command->name));
    }
  }
  return command->run(options);
}
