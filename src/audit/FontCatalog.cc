#include "audit/FontCatalog.h"

#include <fontconfig/fontconfig.h>

#include <algorithm>

namespace quarvel::audit {

FontconfigCatalog::FontconfigCatalog(bool useSystemConfig, std::vector<std::string> extraFolders)
    : useSystemConfig_(useSystemConfig), extraFolders_(std::move(extraFolders)) {}

std::vector<std::string> FontconfigCatalog::fontFiles() {
  std::vector<std::string> files;
  // A configuration of our own, destroyed afterwards, so the process-wide
  // one is left as it is.
  FcConfig* config = useSystemConfig_ ? FcInitLoadConfigAndFonts() : FcConfigCreate();
  if (!config) return files;
  for (const std::string& folder : extraFolders_)
    FcConfigAppFontAddDir(config, reinterpret_cast<const FcChar8*>(folder.c_str()));

  FcPattern* pattern = FcPatternCreate();
  FcObjectSet* objects = FcObjectSetBuild(FC_FILE, nullptr);
  FcFontSet* set = (pattern && objects) ? FcFontList(config, pattern, objects) : nullptr;
  if (set) {
    for (int i = 0; i < set->nfont; ++i) {
      FcChar8* file = nullptr;
      if (FcPatternGetString(set->fonts[i], FC_FILE, 0, &file) == FcResultMatch && file)
        files.emplace_back(reinterpret_cast<const char*>(file));
    }
    FcFontSetDestroy(set);
  }
  if (objects) FcObjectSetDestroy(objects);
  if (pattern) FcPatternDestroy(pattern);
  FcConfigDestroy(config);
  // A collection file appears once per face.
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end()), files.end());
  return files;
}

}  // namespace quarvel::audit
