// Files that otactl writes: a power cut or a failure leaves of each the old content or the new one.
#ifndef TOOLS_OTACTL_OUTPUT_FILES_H
#define TOOLS_OTACTL_OUTPUT_FILES_H

#include <string>
#include <string_view>
#include <vector>

#include "base/owned.h"

// Each file is written beside its final path, with ".part" at the end of its name. Nothing is
// replaced before all of them are flushed, since a file system may store a rename before the data.
// What has not replaced a file when this record goes out of scope is removed. Every procedure
// prints why it failed and returns OTACTL_OK or OTACTL_FAILED; all of them wait for the storage.
class OutputFiles {
  public:
    OutputFiles() = default;
    ~OutputFiles();
    OutputFiles(const OutputFiles&) = delete;
    OutputFiles& operator=(const OutputFiles&) = delete;

    // Where what becomes `path` is written.
    static std::string part_of(const std::string& path);
    // Creates what becomes `path`, empty. A part file that an earlier run left behind is removed.
    int create(const std::string& path, corvo::OwnedFile& file);
    // Flushes and closes what becomes `path`.
    static int close(const std::string& path, corvo::OwnedFile file);
    // All three for a text.
    int write(const std::string& path, std::string_view text);
    // Replaces the files in the order in which they were created, removes `stale`, which may be
    // empty or missing, and flushes the directories.
    int put_in_place(const std::string& stale);

  private:
    std::vector<std::string> paths_;
};

#endif  // TOOLS_OTACTL_OUTPUT_FILES_H
