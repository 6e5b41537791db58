#pragma once
// The reports of this machine that wait for their collector: one file per
// report, "<reportId>.json", each written whole, in a folder of the work
// folder. Reports the collector refused for good go to "rejected/" beside
// them, so that none is lost silently. Both places are bounded in count and
// bytes; at a bound the oldest report is dropped, with a warning log line.
//
// Several processes may use one spool. Whoever sends from it holds its lease
// (an flock on ".lock" in the folder), so two audits never send or remove
// the same file; adding a report needs no lease.
//
// Failures are answered (false, nothing) and logged, never thrown. An
// object may be used from one thread at a time.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quarvel::audit {

struct SpoolLimits {
  std::size_t maxReports = 200;
  std::uint64_t maxBytes = std::uint64_t{64} << 20;
  // The same bounds for the rejected place.
  std::size_t maxRejected = 200;
  std::uint64_t maxRejectedBytes = std::uint64_t{64} << 20;
};

class ReportSpool {
 public:
  // The spool in `folder`, which is made (with rejected/) when first needed.
  explicit ReportSpool(std::string folder, SpoolLimits limits = {});

  // The work folder's spool: "<work folder>/CheckOut/Reports". Nothing when
  // the settings know no work folder. Starts the shared settings object.
  static std::optional<std::string> defaultFolder();

  const std::string& folder() const { return folder_; }
  std::string rejectedFolder() const { return folder_ + "/rejected"; }

  // Stores a report whole (through FileReplacement) as "<reportId>.json",
  // stamped with the platform's wall clock so that the order of reports
  // holds to the nanosecond. False when `reportId` is not one or the file
  // could not be written (logged).
  bool add(const std::string& reportId, std::string_view body);

  // The exclusive right to send from the spool and remove from it, held
  // until destroyed. Not copyable; movable.
  class Lease {
   public:
    Lease(Lease&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Lease& operator=(Lease&&) = delete;
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    ~Lease();

   private:
    friend class ReportSpool;
    explicit Lease(int fd) : fd_(fd) {}
    int fd_;
  };
  // Takes the lease, waiting up to `wait` while another process holds it.
  // Nothing when it is still held then, or the folder cannot be made.
  std::optional<Lease> lease(std::chrono::milliseconds wait);

  struct Entry {
    std::string reportId;
    std::string path;
    std::uint64_t bytes = 0;
  };
  // The reports waiting, oldest first (by their stamp, then by id). Files of
  // other names (temporaries, strays) are not reports and are left alone.
  std::vector<Entry> pending() const;

  // Drops the oldest reports until both bounds hold, each with a warning
  // log line. Answers how many were dropped.
  std::size_t trim(const Lease& lease);

  // Reads a waiting report. A file that is gone (taken by the bound) answers
  // nothing; one that is not a report (larger than kMaxReportBytes, not a
  // JSON object naming its own reportId) is moved to rejected and answers
  // nothing.
  std::optional<std::string> read(const Lease& lease, const Entry& entry);

  // The report was delivered: its file goes. False when it could not be
  // removed (logged); a file already gone counts as removed.
  bool remove(const Lease& lease, const Entry& entry);

  // Moves a report to rejected/ with a warning naming `why`, then trims
  // that place to its bounds. False when it could not be moved (logged).
  bool reject(const Lease& lease, const Entry& entry, std::string_view why);

 private:
  bool makeFolders() const;

  std::string folder_;
  SpoolLimits limits_;
};

}  // namespace quarvel::audit
