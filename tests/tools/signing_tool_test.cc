// keygen, sign and verify: the secret key's mode, no key overwritten, and
// verify's answer for each way a file can fail.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "SigningTool.h"
#include "support/FileText.h"
#include "support/ScratchDir.h"

namespace quarvel::cli {
namespace {

TEST(SigningTool, KeysSignaturesAndVerdicts) {
  const quarvel::testing::ScratchDir scratch;
  const std::filesystem::path folder = scratch.path();
  const std::string secret = folder / "lists.key", publicKey = folder / "lists.pub";
  std::ostringstream out, err;
  ASSERT_EQ(generateKeyFiles(secret, publicKey, err), 0) << err.str();
  struct stat info {};
  ASSERT_EQ(::stat(secret.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  // A second keygen leaves the first pair as it was.
  const std::string firstSecret = testing::readFile(secret);
  EXPECT_EQ(generateKeyFiles(secret, folder / "other.pub", err), 1);
  EXPECT_EQ(testing::readFile(secret), firstSecret);
  EXPECT_FALSE(std::filesystem::exists(folder / "other.pub"));

  const char* names[] = {"good", "changed", "unsigned"};
  std::vector<std::string> files;
  for (const char* name : names) {
    files.push_back(folder / name);
    std::ofstream(files.back()) << "list " << name;
  }
  ASSERT_EQ(signFiles(secret, files, err), 0) << err.str();
  std::ofstream(files[1], std::ios::app) << ".";
  std::filesystem::remove(files[2] + ".sig");

  EXPECT_EQ(verifyFiles(publicKey, {files[0]}, out, err), 0);
  EXPECT_EQ(verifyFiles(publicKey, files, out, err), 1);
  EXPECT_NE(out.str().find(files[0] + ": good"), std::string::npos) << out.str();
  EXPECT_NE(out.str().find(files[1] + ": BAD"), std::string::npos) << out.str();
  EXPECT_NE(out.str().find(files[2] + ": BAD"), std::string::npos) << out.str();
  // The secret key is no public key.
  EXPECT_EQ(verifyFiles(secret, {files[0]}, out, err), 1);
}

}  // namespace
}  // namespace quarvel::cli
