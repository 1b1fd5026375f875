// The development attestation identity: committed material, built-in encipherment, `wbgen`.
#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "crypto/aes_wb_helper.h"
#include "crypto/attestation_material.h"
#include "crypto/openssl_handles.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {
namespace {

using testing::readFile;

const std::filesystem::path kMaterialDir = testing::resourcesDir() / "attestation";

X509Ptr readCertificate(const std::filesystem::path& path) {
  const std::string pem = readFile(path);
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return X509Ptr(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

bool chainVerifies(X509* root, X509* leaf) {
  X509StorePtr store(X509_STORE_new());
  X509StoreCtxPtr context(X509_STORE_CTX_new());
  return store && context && X509_STORE_add_cert(store.get(), root) == 1 &&
         X509_STORE_CTX_init(context.get(), store.get(), leaf, nullptr) == 1 &&
         X509_verify_cert(context.get()) == 1;
}

// The key deciphers to 04 || X || Y || D with D * G the certificate's point, which chains to root.
void expectConsistentMaterial(std::string_view keyHex, X509* root, X509* leaf) {
  ASSERT_TRUE(root != nullptr && leaf != nullptr);
  const auto raw = AesWBHelper::decryptAesWB(keyHex, 97);
  ASSERT_TRUE(raw);
  const auto bytes = raw->exposeSecret();
  ASSERT_EQ(bytes.size(), 97u);
  Bytes point(65);
  size_t length = 0;
  ASSERT_EQ(
      EVP_PKEY_get_octet_string_param(X509_get0_pubkey(leaf), OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY,
                                      point.data(), point.size(), &length),
      1);
  EXPECT_EQ(point, Bytes(bytes.begin(), bytes.begin() + 65));
  GroupPtr group(EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1));
  PointPtr expected(EC_POINT_new(group.get())), product(EC_POINT_new(group.get()));
  BnPtr scalar(BN_bin2bn(bytes.data() + 65, 32, nullptr));
  ASSERT_EQ(EC_POINT_oct2point(group.get(), expected.get(), bytes.data(), 65, nullptr), 1);
  ASSERT_EQ(EC_POINT_mul(group.get(), product.get(), scalar.get(), nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(EC_POINT_cmp(group.get(), product.get(), expected.get(), nullptr), 0);
  EXPECT_TRUE(chainVerifies(root, leaf));
  EXPECT_EQ(X509_check_ca(leaf), 0);
}

TEST(Attestation, CommittedMaterialIsConsistent) {
  X509Ptr root = readCertificate(kMaterialDir / "root.pem");
  X509Ptr leaf = readCertificate(kMaterialDir / "attestation.pem");
  std::string keyHex = readFile(kMaterialDir / "attestation_key.hex");
  ASSERT_FALSE(keyHex.empty());
  keyHex.pop_back();
  expectConsistentMaterial(keyHex, root.get(), leaf.get());
  // The library carries exactly the committed key text and certificate.
  EXPECT_EQ(kEncipheredAttestationKey, keyHex);
  unsigned char* der = nullptr;
  const int size = i2d_X509(leaf.get(), &der);
  const ByteView carried = attestationCertificateDer();
  EXPECT_EQ(Bytes(carried.begin(), carried.end()), Bytes(der, der + std::max(size, 0)));
  OPENSSL_free(der);
}

TEST(Attestation, BuiltinEnciphermentRoundTripsThroughDecryptAesWB) {
  EXPECT_FALSE(encipherWithBuiltinTables({}));
  for (uint32_t length : {1u, 15u, 16u, 17u, 97u}) {
    const auto plain = Utils::randomBytesWithLength(length);
    const auto hex = encipherWithBuiltinTables(*plain);
    ASSERT_TRUE(hex && hex->size() == 2u * length) << length;
    EXPECT_NE(*hex, hexadecimalString(*plain)) << length;
    EXPECT_EQ(AesWBHelper::decryptAesWB(*hex, length), SecretBytes(*plain)) << length;
  }
}

#ifdef CORVANE_WBGEN_PATH
int runWbgen(const std::string& args) {
  const int status =
      std::system((std::string(CORVANE_WBGEN_PATH) + " " + args + " 2>/dev/null").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Attestation, WbgenMakesFreshConsistentMaterial) {
  testing::TempDir dir;
  const std::filesystem::path out = dir.path() / "new";
  ASSERT_EQ(runWbgen("attestation --out-dir " + out.string()), 0);
  X509Ptr leaf = readCertificate(out / "attestation.pem");
  std::string keyHex = readFile(out / "attestation_key.hex");
  ASSERT_EQ(keyHex.size(), 195u);
  keyHex.pop_back();
  expectConsistentMaterial(keyHex, readCertificate(out / "root.pem").get(), leaf.get());
  EXPECT_FALSE(chainVerifies(readCertificate(kMaterialDir / "root.pem").get(), leaf.get()));
  // The root's private key is not written.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(out), {}), 3);
  EXPECT_EQ(runWbgen("attestation --out-dir"), 2);
}
#endif

}  // namespace
}  // namespace corvane
