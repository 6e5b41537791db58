#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <set>

#include "audit/TreeWalker.h"
#include "support/AuditFixtures.h"

namespace quarvel::audit {
namespace {

using quarvel::testing::TempTree;

std::set<std::string> walkNames(TreeWalker& walker, const std::string& root, WalkOptions options) {
  std::set<std::string> seen;
  walker.walk(root, options, [&](const FoundFile& f) {
    std::string path(f.path());
    seen.insert(path.substr(root.size() + 1));
    EXPECT_EQ(lastPathComponent(path), f.name());
  });
  return seen;
}

TEST(TreeWalker, DepthAndHiddenEntriesBoundWhatItLists) {
  TempTree tree;
  for (const char* name : {"top", "a/one", "a/b/two", "a/b/c/three", ".cache/app", ".hidden"})
    tree.file(name);
  struct Case {
    WalkOptions options;
    std::set<std::string> expected;
  } cases[] = {
      {{.maxDepth = 0}, {"top", ".hidden"}},
      {{.maxDepth = 1}, {"top", ".hidden", "a/one", ".cache/app"}},
      {{.maxDepth = 3}, {"top", ".hidden", "a/one", ".cache/app", "a/b/two", "a/b/c/three"}},
      {{.maxDepth = 3, .skipHidden = true}, {"top", "a/one", "a/b/two", "a/b/c/three"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.options.maxDepth << " " << c.options.skipHidden);
    ScanStats stats;
    TreeWalker walker(stats);
    EXPECT_EQ(walkNames(walker, tree.root(), c.options), c.expected);
    EXPECT_EQ(stats.files, c.expected.size());
  }
}

TEST(TreeWalker, BigFoldersAndDeepTreesAreListedWhole) {
  // A folder whose entries take several reads, with deep subfolders met
  // between its reads: each level's listing must survive the walks below.
  TempTree tree;
  std::set<std::string> expected;
  const std::string longName(60, 'n');
  for (int i = 0; i < 1500; ++i) {
    const std::string name = "wide/" + longName + std::to_string(i);
    tree.file(name);
    expected.insert(name);
    if (i % 300 == 0) {
      std::string deep = "wide/sub" + std::to_string(i);
      for (int d = 0; d < 12; ++d) deep += "/d" + std::to_string(d);
      tree.file(deep + "/leaf");
      expected.insert(deep + "/leaf");
    }
  }
  ScanStats stats;
  TreeWalker walker(stats);
  for (int pass = 0; pass < 2; ++pass) {  // the second walk reuses the buffers
    SCOPED_TRACE(pass);
    EXPECT_EQ(walkNames(walker, tree.root(), {.maxDepth = 20}), expected);
  }
  EXPECT_EQ(stats.files, 2 * expected.size());
  EXPECT_EQ(stats.unreadableFolders, 0u);
}

TEST(TreeWalker, FollowsLinksButEndsLinkLoops) {
  TempTree tree;
  tree.file("real/app");
  tree.link("../real/app", "bin/app-link");  // link to a file: reported by its own name
  tree.link("..", "real/up");                // loop back to the root
  tree.link("loop", "real/loop");            // a link to itself
  tree.link("missing", "real/dangling");
  tree.link(tree.path("real"), "bin/real-again");  // a second way into real/

  ScanStats stats;
  TreeWalker walker(stats);
  std::set<std::string> names = walkNames(walker, tree.root(), {.maxDepth = 50});
  // The loop through real/up would repeat forever; it is entered once at
  // most per way down and then refused.
  EXPECT_TRUE(names.count("real/app"));
  EXPECT_TRUE(names.count("bin/app-link"));
  EXPECT_TRUE(names.count("bin/real-again/app"));
  EXPECT_FALSE(names.count("real/dangling"));
  EXPECT_FALSE(names.count("real/loop"));
  EXPECT_GT(stats.loopsAvoided, 0u);
  EXPECT_LT(names.size(), 20u);
}

TEST(TreeWalker, NeverEntersExcludedFoldersHoweverReached) {
  TempTree tree;
  tree.file("keep/file");
  tree.file("private/secret");
  tree.link(tree.path("private"), "keep/door");

  ScanStats stats;
  TreeWalker walker(stats);
  walker.exclude({tree.path("private"), tree.path("no-such-folder")});
  EXPECT_EQ(walkNames(walker, tree.root(), {.maxDepth = 5}), std::set<std::string>{"keep/file"});
  EXPECT_EQ(stats.excludedFolders, 2u);

  // The system's own exclusions: /proc is its own file system, so nothing
  // on it is entered even through another name for it.
  ScanStats procStats;
  TreeWalker procWalker(procStats);
  procWalker.exclude({"/proc"});
  int files = 0;
  procWalker.walk("/proc/self", {.maxDepth = 3}, [&](const FoundFile&) { ++files; });
  EXPECT_EQ(files, 0);
}

TEST(TreeWalker, UnreadableFoldersAreCountedAndSkipped) {
  TempTree tree;
  tree.file("open/a");
  tree.file("locked/b");
  tree.file("open/deeper/locked/c");
  tree.file("open/deeper/d");

  ScanStats stats;
  TreeWalker walker(stats);
  walker.setFolderOpener([](int dirFd, const char* name, const std::string& path) {
    if (lastPathComponent(path) == "locked") {
      errno = EACCES;
      return -1;
    }
    return openFolder(dirFd, name, path);
  });
  EXPECT_EQ(walkNames(walker, tree.root(), {.maxDepth = 5}),
            (std::set<std::string>{"open/a", "open/deeper/d"}));
  EXPECT_EQ(stats.unreadableFolders, 2u);
  EXPECT_EQ(std::set<std::string>(stats.unreadablePaths.begin(), stats.unreadablePaths.end()),
            (std::set<std::string>{tree.path("locked"), tree.path("open/deeper/locked")}));

  // A missing root is not an unreadable one; a file root is reported.
  walker.walk(tree.path("absent"), {}, [](const FoundFile&) {});
  EXPECT_EQ(stats.unreadableFolders, 2u);
  std::vector<std::string> names;
  walker.walk(tree.path("open/a"), {}, [&](const FoundFile& f) {
    struct stat st {};
    EXPECT_TRUE(f.stat(st) && S_ISREG(st.st_mode));
    names.emplace_back(f.name());
  });
  EXPECT_EQ(names, std::vector<std::string>{"a"});

  // Past the first 50, unreadable folders are counted but no longer named.
  for (int i = 0; i <= 50; ++i) tree.file("many/" + std::to_string(i) + "/locked/x");
  walker.walk(tree.path("many"), {.maxDepth = 5}, [](const FoundFile&) {});
  EXPECT_EQ(stats.unreadableFolders, 53u);
  EXPECT_EQ(stats.unreadablePaths.size(), ScanStats::kMaxUnreadableListed);
}

}  // namespace
}  // namespace quarvel::audit
