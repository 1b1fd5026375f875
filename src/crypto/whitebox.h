// White-box AES-256 as a table network (13 table rounds and a final round), and CFB mode with full
// 128-bit feedback on top of it. Per-user encryption runs the server's tables with the built-in
// authXor set and passes each ciphertext byte through the user's external encoding; decryption
// runs the built-in set with no external encoding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "corvane/error.h"
#include "crypto/whitebox_tables.h"
#include "foundation/utils.h"

namespace corvane {

// The AES ShiftRows on a column-major state: state[i] becomes old state[P[i]] with
// P = 0, 5, 10, 15, 4, 9, 14, 3, 8, 13, 2, 7, 12, 1, 6, 11.
void ShiftRows(std::span<uint8_t, 16> state);

// The block function: passes the 16-byte state through the network in place (per round ShiftRows,
// the Tybox layer, the MBL layer, each followed by the round's nibble-XOR trees; then ShiftRows and
// TboxesLast).
void CipherDetail(std::span<uint8_t, 16> state, const whitebox::WhiteboxNetwork& network);

namespace whitebox {

// CFB-128 encryption through `network`. Ciphertext byte i goes out through the permutation
// externalEncoding[i mod 16] (no encoding when the span is empty; otherwise it must hold
// kExternalEncodingCount bytes); the feedback register keeps the unencoded byte. `output` must be
// at least as long as `input`; it may be the same buffer. False, with nothing written, on a wrong
// size.
[[nodiscard]] bool cfbEncrypt(const WhiteboxNetwork& network, std::span<const uint8_t, 16> iv,
                              ByteView input, std::span<uint8_t> output,
                              std::span<const uint8_t> externalEncoding);
// CFB-128 decryption through `network`; no external decoding. Same size rules as cfbEncrypt.
[[nodiscard]] bool cfbDecrypt(const WhiteboxNetwork& network, std::span<const uint8_t, 16> iv,
                              ByteView input, std::span<uint8_t> output);

}  // namespace whitebox

// Per-user encryption: the user's Tyboxes, TboxesLast, MBL and external encoding with the built-in
// authXor. False, with `output` untouched, when a table has the wrong size, the encoding is not 16
// permutations, `output` is shorter than `input`, or the built-in set is unusable.
[[nodiscard]] bool aes_whitebox_encrypt_cfb(std::span<const uint8_t, 16> iv, ByteView input,
                                            std::span<uint8_t> output,
                                            std::span<const uint32_t> tyboxes,
                                            std::span<const uint8_t> tboxesLast,
                                            std::span<const uint32_t> mbl,
                                            std::span<const uint8_t> externalEncoding);

// Decryption with the built-in table set. False, with `output` untouched, when `output` is shorter
// than `input` or the built-in set is unusable.
[[nodiscard]] bool aes_whitebox_decrypt_cfb(std::span<const uint8_t, 16> iv, ByteView input,
                                            std::span<uint8_t> output);

// Reads `count` bytes written as 2 * count hexadecimal digits (either case) into the start of
// `output`. When the text has another length, the count is 0, `output` is shorter than `count` or a
// character is not a hex digit, `output` is left untouched and the result is false; `label` names
// the value in the error message ("iv-or-nonce", "cipherHexString").
[[nodiscard]] bool read_hex(std::string_view hex, std::span<uint8_t> output, size_t count,
                            std::string_view label, Error* error = nullptr);

}  // namespace corvane
