// Enciphers and deciphers a line through the installed library's public
// headers, and names the window class when it was installed.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "quarvel/CommonLib.h"
#include "quarvel/Version.h"
#ifdef HAVE_WINDOW
#include "quarvel/UpdateWindowController.h"
#endif

int main() {
  std::string text = "#HEADER_START\r\n";
  std::vector<unsigned char> bytes(text.begin(), text.end());
  quarvel::CommonLib::Encrypt(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
  std::FILE* file = std::tmpfile();
  std::fwrite(bytes.data(), 1, bytes.size(), file);
  std::rewind(file);
  std::vector<std::string> lines;
  const bool read = quarvel::CommonLib::Decrypt(lines, file);
  std::fclose(file);
  if (!read || lines != std::vector<std::string>{"#HEADER_START"}) {
    std::fprintf(stderr, "consumer: the installed library did not round-trip a line\n");
    return 1;
  }
#ifdef HAVE_WINDOW
  std::printf("window class: %zu bytes\n", sizeof(quarvel::UpdateWindowController));
#endif
  std::printf("quarvel %s\n", quarvel::version());
  return 0;
}
