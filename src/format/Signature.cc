#include "format/Signature.h"

#include <cstring>

namespace quarvel::signing {
namespace {

// sodium_init is idempotent and thread-safe; it fails only when the
// system's random source cannot be opened, and then nothing is signed or
// verified.
bool startSodium() { return sodium_init() >= 0; }

constexpr int kBase64 = sodium_base64_VARIANT_ORIGINAL;

std::string line(std::string_view prefix, const unsigned char* bytes, std::size_t size) {
  std::string text(prefix);
  std::string encoded(sodium_base64_encoded_len(size, kBase64), '\0');
  sodium_bin2base64(encoded.data(), encoded.size(), bytes, size, kBase64);
  encoded.resize(std::strlen(encoded.c_str()));
  return text + encoded + "\n";
}

// The bytes a one-line file with `prefix` carries, when there are exactly
// `size` of them.
bool parseLine(std::string_view text, std::string_view prefix, unsigned char* out,
               std::size_t size) {
  if (text.size() > kMaxKeyFileBytes) return false;
  if (text.ends_with('\n')) text.remove_suffix(1);
  if (text.ends_with('\r')) text.remove_suffix(1);
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  std::size_t decoded = 0;
  const char* end = nullptr;
  if (sodium_base642bin(out, size, text.data(), text.size(), nullptr, &decoded, &end, kBase64) != 0)
    return false;
  return decoded == size && end == text.data() + text.size();
}

}  // namespace

SecretKey::~SecretKey() { sodium_memzero(bytes.data(), bytes.size()); }

PublicKey SecretKey::publicKey() const {
  PublicKey key;
  crypto_sign_ed25519_sk_to_pk(key.bytes.data(), bytes.data());
  return key;
}

std::optional<KeyPair> generateKeyPair() {
  if (!startSodium()) return std::nullopt;
  KeyPair pair;
  if (crypto_sign_keypair(pair.publicKey.bytes.data(), pair.secretKey.bytes.data()) != 0)
    return std::nullopt;
  return pair;
}

std::string formatPublicKey(const PublicKey& key) {
  return line(kPublicKeyPrefix, key.bytes.data(), key.bytes.size());
}

std::string formatSecretKey(const SecretKey& key) {
  std::array<unsigned char, crypto_sign_SEEDBYTES> seed{};
  crypto_sign_ed25519_sk_to_seed(seed.data(), key.bytes.data());
  std::string text = line(kSecretKeyPrefix, seed.data(), seed.size());
  sodium_memzero(seed.data(), seed.size());
  return text;
}

std::optional<PublicKey> parsePublicKey(std::string_view text) {
  if (!startSodium()) return std::nullopt;
  PublicKey key;
  if (!parseLine(text, kPublicKeyPrefix, key.bytes.data(), key.bytes.size())) return std::nullopt;
  return key;
}

std::optional<SecretKey> parseSecretKey(std::string_view text) {
  if (!startSodium()) return std::nullopt;
  std::array<unsigned char, crypto_sign_SEEDBYTES> seed{};
  std::optional<SecretKey> key;
  if (parseLine(text, kSecretKeyPrefix, seed.data(), seed.size())) {
    key.emplace();
    PublicKey derived;
    crypto_sign_seed_keypair(derived.bytes.data(), key->bytes.data(), seed.data());
  }
  sodium_memzero(seed.data(), seed.size());
  return key;
}

SignatureStream::SignatureStream() : ready_(startSodium()) { crypto_sign_init(&state_); }

void SignatureStream::update(std::string_view bytes) {
  crypto_sign_update(&state_, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::string SignatureStream::sign(const SecretKey& key) {
  if (!ready_) return {};
  std::array<unsigned char, crypto_sign_BYTES> signature{};
  crypto_sign_final_create(&state_, signature.data(), nullptr, key.bytes.data());
  return line(kSignaturePrefix, signature.data(), signature.size());
}

bool SignatureStream::verify(const PublicKey& key, std::string_view signatureText) {
  std::array<unsigned char, crypto_sign_BYTES> signature{};
  if (!ready_ || signatureText.size() > kMaxSignatureFileBytes ||
      !parseLine(signatureText, kSignaturePrefix, signature.data(), signature.size()))
    return false;
  return crypto_sign_final_verify(&state_, signature.data(), key.bytes.data()) == 0;
}

std::string sign(const SecretKey& key, std::string_view bytes) {
  SignatureStream stream;
  stream.update(bytes);
  return stream.sign(key);
}

bool verify(const PublicKey& key, std::string_view bytes, std::string_view signatureText) {
  SignatureStream stream;
  stream.update(bytes);
  return stream.verify(key, signatureText);
}

}  // namespace quarvel::signing
