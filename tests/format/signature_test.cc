// Detached signatures and key files: what is accepted, and that any change
// to the data, the signature or the key is refused.

#include "format/Signature.h"

#include <gtest/gtest.h>

#include <string>

#include "format/DataFileFormat.h"

namespace quarvel::signing {
namespace {

TEST(SignatureTest, KeyFilesRoundTripAndSignaturesBindDataAndKey) {
  const auto pair = generateKeyPair(), other = generateKeyPair();
  ASSERT_TRUE(pair && other);
  const auto secret = parseSecretKey(formatSecretKey(pair->secretKey));
  ASSERT_TRUE(secret);
  EXPECT_EQ(secret->publicKey(), pair->publicKey);
  EXPECT_EQ(parsePublicKey(formatPublicKey(pair->publicKey)), pair->publicKey);

  const std::string data = "#HEADER_START\r\n1\r\n#HEADER_END\r\n";
  const std::string signature = sign(*secret, data);
  EXPECT_TRUE(verify(pair->publicKey, data, signature));
  // Signed in pieces, verified whole: the stream is the same hash.
  SignatureStream pieces;
  pieces.update(data.substr(0, 5));
  pieces.update(data.substr(5));
  EXPECT_TRUE(verify(pair->publicKey, data, pieces.sign(*secret)));

  std::string flipped = data, badSignature = signature;
  flipped[7] ^= 0x01;
  char& changed = badSignature[kSignaturePrefix.size() + 3];
  changed = changed == 'A' ? 'B' : 'A';
  const struct {
    const char* name;
    const PublicKey& key;
    std::string data, signature;
  } refused[] = {
      {"a flipped bit", pair->publicKey, flipped, signature},
      {"another key", other->publicKey, data, signature},
      {"a changed signature", pair->publicKey, data, badSignature},
      {"no signature", pair->publicKey, data, ""},
      {"a signature twice", pair->publicKey, data, signature + signature},
      {"a key line as signature", pair->publicKey, data, formatPublicKey(pair->publicKey)},
  };
  for (const auto& c : refused) EXPECT_FALSE(verify(c.key, c.data, c.signature)) << c.name;

  // Key file text: one line, its line end optional, nothing around it.
  const std::string line = formatPublicKey(pair->publicKey);
  ASSERT_TRUE(line.ends_with('\n'));
  const std::string bare = line.substr(0, line.size() - 1);
  const std::string base64 = bare.substr(kPublicKeyPrefix.size());
  const std::pair<std::string, bool> cases[] = {
      {line, true},
      {bare, true},
      {bare + "\r\n", true},
      {bare + "\n\n", false},
      {" " + line, false},
      {std::string(kSecretKeyPrefix) + base64, false},
      {bare.substr(0, bare.size() - 4) + "\n", false},  // 29 bytes
      {bare + "AAAA\n", false},                         // 35 bytes
      {bare + "!\n", false},
      {"", false},
  };
  for (const auto& [text, accepted] : cases)
    EXPECT_EQ(parsePublicKey(text).has_value(), accepted) << ::testing::PrintToString(text);
  // A secret key file is never read as a public one, nor the other way.
  EXPECT_FALSE(parseSecretKey(line));
}

TEST(SignatureTest, SignatureAddressOfEveryEndpoint) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"http://h/file/keyfile60/package.dat", "http://h/file/keyfile60/package.dat.sig"},
      {"http://h:8/cmmn/download.nis?type=keyfile&filename=macchecklist.dat",
       "http://h:8/cmmn/download.nis?type=keyfile&filename=macchecklist.dat.sig"},
      {"http://h/cmmn/download.nis?filename=a.dat&type=file",
       "http://h/cmmn/download.nis?filename=a.dat.sig&type=file"},
      {"http://h/d?xfilename=a&filename=b", "http://h/d?xfilename=a&filename=b.sig"},
      {"http://h/d?type=file", "http://h/d.sig?type=file"},
  };
  for (const auto& [url, signature] : cases) EXPECT_EQ(datafile::signatureUrl(url), signature);
}

}  // namespace
}  // namespace quarvel::signing
