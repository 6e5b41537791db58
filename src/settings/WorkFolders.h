#pragma once
// The volume test and the work-folder layout behind CVUserDefaults' path
// operations, on their own so that they can be asked with any environment.

#include <optional>
#include <string>

#include "settings/HostEnvironment.h"

namespace quarvel {

// The portable rule: writable AND unmountable AND (type exactly "afpfs" or
// "smbfs", OR removable). Absent facts (a failed query) are not portable.
bool isPortableVolume(const std::optional<VolumeFacts>& facts);

// The volume test on the host program's volume, asked anew at every call.
bool isPortableRun(const HostEnvironment& environment);

// The work-folder base: beside the host program when the run is portable,
// else in the documents folder; "Quarvel" when isLite, else ".Quarvel".
// Absent when the folder it derives from is unknown.
std::optional<std::string> chooseBasePath(const HostEnvironment& environment, bool isLite);

// Creates base + "/CheckOut/{IPT,TLS,RST,TMP_IPT,TMP_TLS,TMP_RST,Logs}" and
// then library + "/Quarvel", in that order, each with its parents, where
// nothing (not even a plain file) exists yet. Failures are ignored.
void createWorkFolders(const std::optional<std::string>& base,
                       const std::optional<std::string>& userLibrary);

}  // namespace quarvel
