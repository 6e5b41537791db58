#pragma once
// Detached signatures of published lists, and the files that carry keys and
// signatures, in one place so that the signing tool, the verifying tool and
// the update run cannot drift apart.
//
// Scheme: Ed25519ph (libsodium's crypto_sign_init/update/final): the data is
// hashed with SHA-512 as it streams past, and the 64-byte hash is signed.
// Memory stays flat however large the list, and verifying costs one SHA-512
// pass plus one signature check of a few tens of microseconds.
//
// Files, each one line of ASCII text ending in LF (a CR before the LF, and
// a missing LF, are accepted when read):
//   public key  "quarvel-ed25519ph-public " + base64 of the 32-byte key
//   secret key  "quarvel-ed25519ph-secret " + base64 of the 32-byte seed
//               (the public key is derived from it; keep the file 0600)
//   signature   "quarvel-ed25519ph-signature " + base64 of the 64 bytes
// Base64 is the standard alphabet with padding. A list's signature lies
// beside it as "<name>.sig" (datafile::kSignatureSuffix).
//
// Thread-safe: every function may be called from any thread.

#include <sodium.h>

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quarvel::signing {

inline constexpr std::string_view kPublicKeyPrefix = "quarvel-ed25519ph-public ";
inline constexpr std::string_view kSecretKeyPrefix = "quarvel-ed25519ph-secret ";
inline constexpr std::string_view kSignaturePrefix = "quarvel-ed25519ph-signature ";
// The longest key or signature file read: a few times the longest valid
// one, so that whatever answers in its place (an error page) is bounded.
inline constexpr std::size_t kMaxSignatureFileBytes = 512;
inline constexpr std::size_t kMaxKeyFileBytes = 512;

struct PublicKey {
  std::array<unsigned char, crypto_sign_PUBLICKEYBYTES> bytes{};
  bool operator==(const PublicKey&) const = default;
};

// libsodium's 64-byte secret key (seed and public key). Wiped when
// destroyed.
class SecretKey {
 public:
  SecretKey() = default;
  ~SecretKey();
  SecretKey(const SecretKey& other) = default;
  SecretKey& operator=(const SecretKey& other) = default;

  std::array<unsigned char, crypto_sign_SECRETKEYBYTES> bytes{};
  PublicKey publicKey() const;
};

struct KeyPair {
  PublicKey publicKey;
  SecretKey secretKey;
};

// A fresh key pair from the system's random source; nothing when libsodium
// cannot start (no random source), as every call here then fails.
std::optional<KeyPair> generateKeyPair();

// The key files' text, LF-terminated.
std::string formatPublicKey(const PublicKey& key);
std::string formatSecretKey(const SecretKey& key);

// The key a key file's text holds; nothing when the text is not exactly one
// such line (wrong prefix, bad base64, wrong length, longer than
// kMaxKeyFileBytes).
std::optional<PublicKey> parsePublicKey(std::string_view text);
std::optional<SecretKey> parseSecretKey(std::string_view text);

// Hashes data as it streams past; then signs or verifies. Not thread-safe:
// one object per stream.
class SignatureStream {
 public:
  SignatureStream();
  void update(std::string_view bytes);
  // The signature file's text for what was streamed; empty when libsodium
  // cannot start. Ends the stream.
  std::string sign(const SecretKey& key);
  // Whether `signatureText` (a signature file's whole text) is the
  // signature of what was streamed by `key`'s holder. False for a text that
  // is not a signature file. Ends the stream.
  bool verify(const PublicKey& key, std::string_view signatureText);

 private:
  bool ready_;
  crypto_sign_state state_{};
};

// The signature file's text for `bytes`.
std::string sign(const SecretKey& key, std::string_view bytes);
// Whether `signatureText` is `key`'s signature of `bytes`. Pure: looks at
// nothing but its arguments.
bool verify(const PublicKey& key, std::string_view bytes, std::string_view signatureText);

}  // namespace quarvel::signing
