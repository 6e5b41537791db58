#include <gtest/gtest.h>

#include "audit/DesktopEntry.h"
#include "support/AuditFixtures.h"

namespace quarvel::audit {
namespace {

TEST(DesktopEntry, ProgramOfExecSeesThroughQuotingAndWrappers) {
  struct Case {
    const char* exec;
    std::optional<std::string> program;
  } cases[] = {
      {"acme-editor %U", "acme-editor"},
      {"/opt/acme/bin/acme-editor --new-window %F", "acme-editor"},
      {"\"/opt/Acme Suite/bin/Acme Editor\" %f", "Acme Editor"},
      // \s is a space in every string value (and separates unless quoted);
      // \\\" is a quote inside quotes.
      {"\"/opt/Acme\\sSuite/run\"", "run"},
      {"/opt/Acme\\sSuite/run", "Acme"},
      {"\"/opt/odd \\\\\"name\\\\\"/tool\" -x", "tool"},
      {"env BAMF_DESKTOP_FILE_HINT=/var/lib/snapd/desktop/applications/acme.desktop "
       "/snap/bin/acme %U",
       "acme"},
      {"env -u FOO LANG=C acme", "acme"},
      {"/usr/bin/env --unset=FOO -C /tmp acme", "acme"},
      {"/usr/bin/flatpak run --branch=stable --arch=x86_64 --command=acme-bin "
       "--file-forwarding com.acme.Editor @@u %U @@",
       "acme-bin"},
      {"flatpak run --branch=stable com.acme.Editor %U", "com.acme.Editor"},
      // An empty command or app id is passed over, never answered.
      {"flatpak run --command= com.acme.Editor", "com.acme.Editor"},
      {"flatpak run \"\" com.acme.Editor", "com.acme.Editor"},
      {"  spaced   ", "spaced"},
      {"", std::nullopt},
      {"env FOO=1", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.exec);
    EXPECT_EQ(programOfExec(c.exec), c.program);
  }
}

TEST(DesktopEntry, EveryExecLineCountsOnce) {
  const char* text =
      "[Desktop Entry]\r\n"
      "Name=Acme Editor\r\n"
      "Executable=not-this\r\n"
      "TryExec=not-this-either\r\n"
      "Exec = acme-editor %U\r\n"
      "\n"
      "[Desktop Action new-window]\n"
      "Exec=/opt/acme/acme-helper --new\n"
      "[Desktop Action again]\n"
      "Exec=acme-editor --again\n"
      "# Exec=commented-out\n";
  EXPECT_EQ(execPrograms(text), (std::vector<std::string>{"acme-editor", "acme-helper"}));
  EXPECT_TRUE(execProgramsOfFile("/nonexistent/entry.desktop").empty());
}

TEST(DesktopEntry, FileIsReadUpToOneMebibyte) {
  quarvel::testing::TempTree tree;
  const std::size_t limit = 1 << 20;
  const std::string exec = "\nExec=far-tool\n";
  struct Case {
    const char* name;
    std::string text;
    std::vector<std::string> expected;
  } cases[] = {
      {"empty", "", {}},
      {"small", "[Desktop Entry]\nExec=tool\n", {"tool"}},
      {"ends at the limit", std::string(limit - exec.size(), '#') + exec, {"far-tool"}},
      {"cut at the limit", std::string(limit - 3, '#') + exec, {}},  // "\nEx" fits
      {"far past the limit", std::string(3 * limit, '#') + exec, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(execProgramsOfFile(tree.file(std::string(c.name) + ".desktop", c.text)), c.expected);
  }
}

}  // namespace
}  // namespace quarvel::audit
