// The built-in white-box table set, embedded from src/crypto/data/whitebox_builtin.bin (made once
// by `wbgen builtin`) with the assembler's .incbin, so the megabyte of tables never passes through
// the C++ front end. CMake passes the file's path as CORVANE_WB_BUILTIN_PATH and rebuilds this
// file when the blob changes. The data sits in a read-only section; every section of it is
// 64-byte aligned because the blob's offsets are multiples of 64.
#include <bit>
#include <cstdint>

#include "crypto/whitebox_tables.h"

#ifndef CORVANE_WB_BUILTIN_PATH
#error "CORVANE_WB_BUILTIN_PATH must name the built-in table blob"
#endif

static_assert(std::endian::native == std::endian::little,
              "the built-in blob stores little-endian words that are used in place");

// Section offsets inside the blob, spelled out for the assembler; checked against the C++ layout.
#define CORVANE_WB_XOR_OFFSET 64
#define CORVANE_WB_TYBOXES_OFFSET 319552
#define CORVANE_WB_TBOXESLAST_OFFSET 532544
#define CORVANE_WB_MBL_OFFSET 536640
#define CORVANE_WB_AUTHXOR_OFFSET 749632
#define CORVANE_WB_STR2(x) #x
#define CORVANE_WB_STR(x) CORVANE_WB_STR2(x)

namespace blob = corvane::whitebox::blob;
static_assert(CORVANE_WB_XOR_OFFSET == blob::kXorOffset);
static_assert(CORVANE_WB_TYBOXES_OFFSET == blob::kTyboxesOffset);
static_assert(CORVANE_WB_TBOXESLAST_OFFSET == blob::kTboxesLastOffset);
static_assert(CORVANE_WB_MBL_OFFSET == blob::kMblOffset);
static_assert(CORVANE_WB_AUTHXOR_OFFSET == blob::kAuthXorOffset);
static_assert(blob::kTyboxesOffset % 64 == 0 && blob::kMblOffset % 64 == 0);

// clang-format off
__asm__(
    ".pushsection .rodata.corvane_wb_builtin,\"a\",@progbits\n"
    ".balign 64\n"
    ".globl corvane_wb_builtin\n"
    ".hidden corvane_wb_builtin\n"
    "corvane_wb_builtin:\n"
    ".incbin \"" CORVANE_WB_BUILTIN_PATH "\"\n"
    ".globl corvane_wb_builtin_end\n"
    ".hidden corvane_wb_builtin_end\n"
    "corvane_wb_builtin_end:\n"
    ".globl corvane_wb_builtin_xor\n.hidden corvane_wb_builtin_xor\n"
    ".set corvane_wb_builtin_xor, corvane_wb_builtin + " CORVANE_WB_STR(CORVANE_WB_XOR_OFFSET) "\n"
    ".globl corvane_wb_builtin_tyboxes\n.hidden corvane_wb_builtin_tyboxes\n"
    ".set corvane_wb_builtin_tyboxes, corvane_wb_builtin + " CORVANE_WB_STR(CORVANE_WB_TYBOXES_OFFSET) "\n"
    ".globl corvane_wb_builtin_tboxes_last\n.hidden corvane_wb_builtin_tboxes_last\n"
    ".set corvane_wb_builtin_tboxes_last, corvane_wb_builtin + " CORVANE_WB_STR(CORVANE_WB_TBOXESLAST_OFFSET) "\n"
    ".globl corvane_wb_builtin_mbl\n.hidden corvane_wb_builtin_mbl\n"
    ".set corvane_wb_builtin_mbl, corvane_wb_builtin + " CORVANE_WB_STR(CORVANE_WB_MBL_OFFSET) "\n"
    ".globl corvane_wb_builtin_auth_xor\n.hidden corvane_wb_builtin_auth_xor\n"
    ".set corvane_wb_builtin_auth_xor, corvane_wb_builtin + " CORVANE_WB_STR(CORVANE_WB_AUTHXOR_OFFSET) "\n"
    ".popsection\n");
// clang-format on

#define CORVANE_WB_HIDDEN __attribute__((visibility("hidden")))
extern "C" {
CORVANE_WB_HIDDEN extern const uint8_t corvane_wb_builtin[];
CORVANE_WB_HIDDEN extern const uint8_t corvane_wb_builtin_end[];
CORVANE_WB_HIDDEN extern const uint8_t corvane_wb_builtin_xor[corvane::whitebox::kXorEntryCount];
CORVANE_WB_HIDDEN extern const uint32_t
    corvane_wb_builtin_tyboxes[corvane::whitebox::kRoundWordCount];
CORVANE_WB_HIDDEN extern const uint8_t
    corvane_wb_builtin_tboxes_last[corvane::whitebox::kLastRoundCount];
CORVANE_WB_HIDDEN extern const uint32_t corvane_wb_builtin_mbl[corvane::whitebox::kRoundWordCount];
CORVANE_WB_HIDDEN extern const uint8_t
    corvane_wb_builtin_auth_xor[corvane::whitebox::kXorEntryCount];
}

namespace corvane::whitebox {

namespace {

struct Builtin {
  std::optional<XorTables> authXor;
  std::optional<WhiteboxNetwork> network;
};

// Checked once: a blob of the wrong size (a truncated file is accepted silently by some
// assemblers), a wrong header or a non-nibble Xor entry leaves both parts absent.
const Builtin& builtin() {
  static const Builtin checked = [] {
    Builtin b;
    if (!blob::isValid(builtinBlob())) return b;
    b.authXor = XorTables::validate(std::span(corvane_wb_builtin_auth_xor, kXorEntryCount));
    const auto xorTables = XorTables::validate(std::span(corvane_wb_builtin_xor, kXorEntryCount));
    if (xorTables) {
      b.network = WhiteboxNetwork::make(*xorTables, std::span(corvane_wb_builtin_tyboxes),
                                        std::span(corvane_wb_builtin_tboxes_last),
                                        std::span(corvane_wb_builtin_mbl));
    }
    return b;
  }();
  return checked;
}

}  // namespace

ByteView builtinBlob() {
  // The two labels belong to one assembler object; compare addresses, not C++ pointers.
  const auto begin = reinterpret_cast<uintptr_t>(corvane_wb_builtin);
  const auto end = reinterpret_cast<uintptr_t>(corvane_wb_builtin_end);
  return ByteView(corvane_wb_builtin, static_cast<size_t>(end - begin));
}

const WhiteboxNetwork* builtinNetwork() {
  const auto& b = builtin();
  return b.network ? &*b.network : nullptr;
}

const XorTables* builtinAuthXor() {
  const auto& b = builtin();
  return b.authXor ? &*b.authXor : nullptr;
}

}  // namespace corvane::whitebox
