// The development attestation identity: the committed material, the constants the library
// carries, the built-in-table encipherment, the attestation signature and `wbgen attestation`.
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "crypto/aes_wb_helper.h"
#include "crypto/attestation_material.h"
#include "crypto/openssl_handles.h"
#include "storage/keychain.h"
#include "storage/keychain_rig.h"
#include "test_support.h"

namespace corvane {
namespace {

using testing::KeychainRig;
using testing::StoreKind;
using testing::TempDir;

const std::filesystem::path kMaterialDir = testing::resourcesDir() / "attestation";

std::string readText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

X509Ptr readCertificate(const std::filesystem::path& path) {
  const std::string pem = readText(path);
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return X509Ptr(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

Bytes derOf(X509* cert) {
  unsigned char* der = nullptr;
  const int length = i2d_X509(cert, &der);
  Bytes bytes;
  if (length > 0) bytes.assign(der, der + length);
  OPENSSL_free(der);
  return bytes;
}

// The uncompressed public point of a certificate's key.
Bytes publicPoint(X509* cert) {
  Bytes point(65);
  size_t length = 0;
  EVP_PKEY* key = X509_get0_pubkey(cert);
  if (key == nullptr || EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY,
                                                        point.data(), point.size(), &length) != 1) {
    return {};
  }
  point.resize(length);
  return point;
}

std::string commonName(X509_NAME* name) {
  char text[256] = {};
  return X509_NAME_get_text_by_NID(name, NID_commonName, text, sizeof(text)) > 0 ? text : "";
}

bool chainVerifies(X509* root, X509* leaf) {
  X509StorePtr store(X509_STORE_new());
  X509StoreCtxPtr context(X509_STORE_CTX_new());
  if (!store || !context || (root != nullptr && X509_STORE_add_cert(store.get(), root) != 1)) {
    return false;
  }
  return X509_STORE_CTX_init(context.get(), store.get(), leaf, nullptr) == 1 &&
         X509_verify_cert(context.get()) == 1;
}

// Checks that 04 || X || Y || D is a P-256 key pair: the point is on the curve, D is in [1, n-1]
// and D * G is the point.
::testing::AssertionResult isP256KeyPair(const SecretBytes& raw) {
  const auto bytes = raw.exposeSecret();
  if (bytes.size() != 97 || bytes[0] != 0x04) return ::testing::AssertionFailure() << "form";
  GroupPtr group(EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1));
  PointPtr point(EC_POINT_new(group.get())), product(EC_POINT_new(group.get()));
  BnPtr scalar(BN_bin2bn(bytes.data() + 65, 32, nullptr));
  if (!group || !point || !product || !scalar) return ::testing::AssertionFailure() << "alloc";
  if (EC_POINT_oct2point(group.get(), point.get(), bytes.data(), 65, nullptr) != 1 ||
      EC_POINT_is_on_curve(group.get(), point.get(), nullptr) != 1) {
    return ::testing::AssertionFailure() << "point not on P-256";
  }
  if (BN_is_zero(scalar.get()) || BN_cmp(scalar.get(), EC_GROUP_get0_order(group.get())) >= 0) {
    return ::testing::AssertionFailure() << "scalar out of range";
  }
  if (EC_POINT_mul(group.get(), product.get(), scalar.get(), nullptr, nullptr, nullptr) != 1 ||
      EC_POINT_cmp(group.get(), product.get(), point.get(), nullptr) != 0) {
    return ::testing::AssertionFailure() << "scalar does not match point";
  }
  return ::testing::AssertionSuccess();
}

bool signatureVerifies(X509* cert, ByteView message, ByteView signature) {
  MdCtxPtr context(EVP_MD_CTX_new());
  return context &&
         EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr,
                              X509_get0_pubkey(cert)) == 1 &&
         EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                          message.size()) == 1;
}

// The checks every attestation bundle must pass: the key deciphers to a P-256 pair whose public
// half is the certificate's, and the certificate chains to the root with the right profile.
void expectConsistentMaterial(std::string_view keyHex, X509* root, X509* leaf) {
  ASSERT_TRUE(root != nullptr && leaf != nullptr);
  EXPECT_EQ(keyHex.size(), 194u);
  EXPECT_EQ(keyHex.find_first_not_of("0123456789abcdef"), std::string_view::npos);
  const auto raw = AesWBHelper::decryptAesWB(keyHex, 97);
  ASSERT_TRUE(raw);
  EXPECT_TRUE(isP256KeyPair(*raw));
  EXPECT_EQ(publicPoint(leaf),
            Bytes(raw->exposeSecret().begin(), raw->exposeSecret().begin() + 65));

  EXPECT_TRUE(chainVerifies(root, leaf));
  EXPECT_FALSE(chainVerifies(nullptr, leaf));
  EXPECT_TRUE(chainVerifies(root, root));
  EXPECT_EQ(X509_get_version(root), X509_VERSION_3);
  EXPECT_EQ(X509_get_version(leaf), X509_VERSION_3);
  EXPECT_EQ(commonName(X509_get_subject_name(root)),
            "Corvane Development Attestation Root (DEVELOPMENT ONLY)");
  EXPECT_EQ(commonName(X509_get_subject_name(leaf)),
            "Corvane Development Attestation (DEVELOPMENT ONLY)");
  EXPECT_EQ(X509_get_signature_nid(leaf), NID_ecdsa_with_SHA256);
  EXPECT_EQ(X509_get_signature_nid(root), NID_ecdsa_with_SHA256);
  EXPECT_EQ(X509_check_ca(root), 1);
  EXPECT_EQ(X509_check_ca(leaf), 0);
  EXPECT_EQ(X509_get_key_usage(root) & (KU_KEY_CERT_SIGN | KU_DIGITAL_SIGNATURE), KU_KEY_CERT_SIGN);
  EXPECT_EQ(X509_get_key_usage(leaf), static_cast<uint32_t>(KU_DIGITAL_SIGNATURE));
  // 20 years: still valid 19 years from now, expired after 21.
  for (X509* cert : {root, leaf}) {
    const time_t now = time(nullptr);
    time_t in19 = now + 19 * 366 * 86400L, in21 = now + 21 * 366 * 86400L;
    EXPECT_GT(X509_cmp_time(X509_get0_notAfter(cert), &in19), 0);
    EXPECT_LT(X509_cmp_time(X509_get0_notAfter(cert), &in21), 0);
  }
}

TEST(Attestation, CommittedMaterialIsConsistent) {
  X509Ptr root = readCertificate(kMaterialDir / "root.pem");
  X509Ptr leaf = readCertificate(kMaterialDir / "attestation.pem");
  std::string keyHex = readText(kMaterialDir / "attestation_key.hex");
  ASSERT_FALSE(keyHex.empty());
  ASSERT_EQ(keyHex.back(), '\n');
  keyHex.pop_back();
  expectConsistentMaterial(keyHex, root.get(), leaf.get());

  // The library carries exactly the committed key text and certificate.
  EXPECT_EQ(kEncipheredAttestationKey, keyHex);
  const ByteView der = attestationCertificateDer();
  EXPECT_EQ(Bytes(der.begin(), der.end()), derOf(leaf.get()));
}

TEST(Attestation, BuiltinEnciphermentRoundTripsThroughDecryptAesWB) {
  EXPECT_FALSE(encipherWithBuiltinTables({}));
  for (uint32_t length = 1; length <= 100; ++length) {
    const auto plain = Utils::randomBytesWithLength(length);
    ASSERT_TRUE(plain);
    const auto hex = encipherWithBuiltinTables(*plain);
    ASSERT_TRUE(hex) << length;
    ASSERT_EQ(hex->size(), 2u * length);
    EXPECT_EQ(hex->find_first_not_of("0123456789abcdef"), std::string::npos);
    const auto back = AesWBHelper::decryptAesWB(*hex, length);
    ASSERT_TRUE(back) << length;
    EXPECT_EQ(*back, SecretBytes(*plain)) << length;
    EXPECT_NE(*hex, hexadecimalString(*plain)) << length;
  }
}

TEST(Attestation, BasicFullSignatureVerifiesWithTheCertificate) {
  KeychainRig rig(StoreKind::fake);
  const WhiteboxAttestationKeySource source;
  Keychain keychain(rig.items(), rig.keys, rig.biometry, rig.configuration, &source);
  X509Ptr leaf = readCertificate(kMaterialDir / "attestation.pem");
  ASSERT_TRUE(leaf);
  for (size_t length : {0, 1, 64, 1000}) {
    Bytes message(length, 0x5a);
    const auto signature = keychain.signSHA256withECDSAX962ForBasicFull(message);
    ASSERT_TRUE(signature) << length;
    EXPECT_TRUE(signatureVerifies(leaf.get(), message, *signature)) << length;
    message.push_back(0);
    EXPECT_FALSE(signatureVerifies(leaf.get(), message, *signature)) << length;
  }
  // Without a key source there is no attestation signature.
  EXPECT_FALSE(rig.keychain->signSHA256withECDSAX962ForBasicFull(asBytes("m")));
}

#ifdef CORVANE_WBGEN_PATH
int runWbgen(const std::string& args) {
  const int status =
      std::system((std::string(CORVANE_WBGEN_PATH) + " " + args + " 2>/dev/null").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Attestation, WbgenMakesFreshConsistentMaterial) {
  TempDir dir;
  const std::filesystem::path out = dir.path() / "new";
  ASSERT_EQ(runWbgen("attestation --out-dir " + out.string()), 0);
  X509Ptr root = readCertificate(out / "root.pem");
  X509Ptr leaf = readCertificate(out / "attestation.pem");
  std::string keyHex = readText(out / "attestation_key.hex");
  ASSERT_EQ(keyHex.size(), 195u);
  keyHex.pop_back();
  expectConsistentMaterial(keyHex, root.get(), leaf.get());
  // Fresh keys: nothing is shared with the committed material.
  X509Ptr committedRoot = readCertificate(kMaterialDir / "root.pem");
  EXPECT_FALSE(chainVerifies(committedRoot.get(), leaf.get()));
  EXPECT_NE(keyHex, kEncipheredAttestationKey);
  // Only the three files are written; the root's private key is not among them.
  size_t files = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(out)) ++files;
  EXPECT_EQ(files, 3u);

  EXPECT_EQ(runWbgen("attestation"), 2);
  EXPECT_EQ(runWbgen("attestation --out-dir"), 2);
  EXPECT_EQ(runWbgen("attestation --out-dir " + out.string() + " --random-key"), 2);
}
#endif

}  // namespace
}  // namespace corvane
