#pragma once
// Where the audit learns which font files the system knows.

#include <memory>
#include <string>
#include <vector>

namespace quarvel::audit {

class FontCatalog {
 public:
  virtual ~FontCatalog() = default;
  // Full paths of the font files known; empty when the catalog cannot be had.
  virtual std::vector<std::string> fontFiles() = 0;
};

// The fonts fontconfig knows. With `useSystemConfig` the system and user
// configuration is loaded (what applications see); without it the catalog
// holds only the fonts of `extraFolders`, which tests use.
class FontconfigCatalog : public FontCatalog {
 public:
  explicit FontconfigCatalog(bool useSystemConfig = true,
                             std::vector<std::string> extraFolders = {});
  std::vector<std::string> fontFiles() override;

 private:
  bool useSystemConfig_;
  std::vector<std::string> extraFolders_;
};

}  // namespace quarvel::audit
