#pragma once
// The work behind `quarvel keygen`, `quarvel sign` and `quarvel verify`:
// the list maintainers' key pair and the detached signatures published
// beside the lists (format/Signature.h has the file formats).

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace quarvel::cli {

// Writes a new key pair: the secret key file with mode 0600, the public key
// file with 0644 (both less the umask). Neither file may exist yet: an
// existing one (or a link) is refused, not replaced. 0 on success; 1 with a
// message on `err` otherwise, and then neither file is left behind.
int generateKeyFiles(const std::string& secretPath, const std::string& publicPath,
                     std::ostream& err);

// Writes "FILE.sig" beside each file, replacing an older one. Files are read
// as they stream past, never held whole. 0 when every file was signed; 1
// otherwise, each failure named on `err` (the other files are still
// signed).
int signFiles(const std::string& secretPath, const std::vector<std::string>& files,
              std::ostream& err);

// Checks each file against "FILE.sig" and prints "FILE: good" or
// "FILE: BAD (why)" on `out`. 0 only when every signature holds; 1
// otherwise, or when the public key file cannot be read.
int verifyFiles(const std::string& publicPath, const std::vector<std::string>& files,
                std::ostream& out, std::ostream& err);

// The text of the public key file at `path`, once it is known to hold a
// key; nothing, after a message on `err`, otherwise.
std::optional<std::string> readPublicKeyFile(const std::string& path, std::ostream& err);

}  // namespace quarvel::cli
