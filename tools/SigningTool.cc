#include "SigningTool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <ostream>

#include "common/FileReplacement.h"
#include "format/DataFileFormat.h"
#include "format/Signature.h"

namespace quarvel::cli {
namespace {

constexpr std::size_t kChunkBytes = 1 << 20;

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// A whole small file (a key or a signature), up to `limit` bytes; nothing,
// with the reason in `why`, when it cannot be read or is longer.
std::optional<std::string> readSmallFile(const std::string& path, std::size_t limit,
                                         std::string& why) {
  File file(std::fopen(path.c_str(), "rb"));
  if (!file) {
    why = std::strerror(errno);
    return std::nullopt;
  }
  std::string text(limit + 1, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), file.get()));
  if (std::ferror(file.get())) {
    why = "read error";
    return std::nullopt;
  }
  if (text.size() > limit) {
    why = "longer than " + std::to_string(limit) + " bytes";
    return std::nullopt;
  }
  return text;
}

// Streams the file at `path` through `stream`; false, with the reason in
// `why`, when it cannot be read whole.
bool streamFile(const std::string& path, signing::SignatureStream& stream, std::string& why) {
  File file(std::fopen(path.c_str(), "rb"));
  if (!file) {
    why = std::strerror(errno);
    return false;
  }
  std::string chunk(kChunkBytes, '\0');
  while (const std::size_t read = std::fread(chunk.data(), 1, chunk.size(), file.get()))
    stream.update(std::string_view(chunk.data(), read));
  if (std::ferror(file.get())) {
    why = "read error";
    return false;
  }
  return true;
}

// Creates `path`, which must not exist (nor be a link), holding `text`,
// flushed to disk. False, with the reason in `why`, otherwise; a file
// created part-way is removed.
bool createNewFile(const std::string& path, const std::string& text, mode_t mode,
                   std::string& why) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) {
    why = errno == EEXIST ? "exists already; not replaced" : std::strerror(errno);
    return false;
  }
  std::string_view rest = text;
  bool ok = true;
  while (ok && !rest.empty()) {
    const ssize_t written = ::write(fd, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    ok = written > 0;
    if (ok) rest.remove_prefix(static_cast<std::size_t>(written));
  }
  ok = ok && ::fsync(fd) == 0;
  if (!ok) why = std::strerror(errno);
  if (::close(fd) != 0 && ok) {
    why = std::strerror(errno);
    ok = false;
  }
  if (!ok) ::unlink(path.c_str());
  return ok;
}

}  // namespace

std::optional<std::string> readPublicKeyFile(const std::string& path, std::ostream& err) {
  std::string why;
  std::optional<std::string> text = readSmallFile(path, signing::kMaxKeyFileBytes, why);
  if (!text) {
    err << path << ": cannot read the public key: " << why << "\n";
    return std::nullopt;
  }
  if (!signing::parsePublicKey(*text)) {
    err << path << ": not a public key file\n";
    return std::nullopt;
  }
  return text;
}

int generateKeyFiles(const std::string& secretPath, const std::string& publicPath,
                     std::ostream& err) {
  const std::optional<signing::KeyPair> pair = signing::generateKeyPair();
  if (!pair) {
    err << "keygen: no random source for a key\n";
    return 1;
  }
  std::string why;
  if (!createNewFile(secretPath, signing::formatSecretKey(pair->secretKey), 0600, why)) {
    err << secretPath << ": " << why << "\n";
    return 1;
  }
  if (!createNewFile(publicPath, signing::formatPublicKey(pair->publicKey), 0644, why)) {
    err << publicPath << ": " << why << "\n";
    ::unlink(secretPath.c_str());
    return 1;
  }
  return 0;
}

int signFiles(const std::string& secretPath, const std::vector<std::string>& files,
              std::ostream& err) {
  std::string why;
  std::optional<std::string> text = readSmallFile(secretPath, signing::kMaxKeyFileBytes, why);
  if (!text) {
    err << secretPath << ": cannot read the secret key: " << why << "\n";
    return 1;
  }
  const std::optional<signing::SecretKey> key = signing::parseSecretKey(*text);
  std::fill(text->begin(), text->end(), '\0');
  if (!key) {
    err << secretPath << ": not a secret key file\n";
    return 1;
  }
  int status = 0;
  for (const std::string& path : files) {
    signing::SignatureStream stream;
    if (!streamFile(path, stream, why)) {
      err << path << ": " << why << "\n";
      status = 1;
      continue;
    }
    const std::string signaturePath = path + std::string(datafile::kSignatureSuffix);
    if (!FileReplacement::replace(signaturePath, stream.sign(*key), 0644)) {
      err << signaturePath << ": cannot be written\n";
      status = 1;
    }
  }
  return status;
}

int verifyFiles(const std::string& publicPath, const std::vector<std::string>& files,
                std::ostream& out, std::ostream& err) {
  const std::optional<std::string> keyText = readPublicKeyFile(publicPath, err);
  if (!keyText) return 1;
  const std::optional<signing::PublicKey> key = signing::parsePublicKey(*keyText);
  int status = 0;
  for (const std::string& path : files) {
    std::string why;
    const std::string signaturePath = path + std::string(datafile::kSignatureSuffix);
    const std::optional<std::string> signature =
        readSmallFile(signaturePath, signing::kMaxSignatureFileBytes, why);
    signing::SignatureStream stream;
    const char* where = "";
    if (!signature) {
      where = signaturePath.c_str();
    } else if (!streamFile(path, stream, why)) {
      where = path.c_str();
    } else if (!stream.verify(*key, *signature)) {
      why = "the signature does not match this file and key";
    } else {
      out << path << ": good\n";
      continue;
    }
    out << path << ": BAD (" << where << (*where ? ": " : "") << why << ")\n";
    status = 1;
  }
  return status;
}

}  // namespace quarvel::cli
