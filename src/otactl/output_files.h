// Writes files so that each has either its old or its new content after a failure or power cut.
#ifndef OTACTL_OUTPUT_FILES_H
#define OTACTL_OUTPUT_FILES_H

#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

// Each file is first written to a part file, which has the name of the final file and ".part". No
// file is replaced before all part files are flushed, since a file system may store a rename before
// the data. The destructor removes the part files that have not replaced their file. On failure
// every procedure prints the reason and returns OTACTL_FAILED, otherwise OTACTL_OK. All procedures
// may block on the storage.
class OutputFiles {
  public:
    OutputFiles() = default;
    ~OutputFiles();
    OutputFiles(const OutputFiles&) = delete;
    OutputFiles& operator=(const OutputFiles&) = delete;

    // Returns the path of the part file of `path`.
    static std::string part_of(const std::string& path);
    // Creates an empty part file of `path`. Removes the part file that an earlier run may have
    // left. Fails if the same file is already one of those to be written.
    int create(const std::string& path, corvo::UniqueFd& file);
    // Flushes the part file of `path`, which is open as `file`.
    static int flush(const std::string& path, const corvo::UniqueFd& file);
    // Creates the part file of `path`, writes the text and flushes it.
    int write(const std::string& path, std::string_view text);
    // Renames the part files to their final names, in the order in which they were created. Then
    // removes the file `stale` (which may be empty, or name a missing file), and flushes the
    // directories.
    int put_in_place(const std::string& stale);

  private:
    std::vector<std::string> paths_;
};

#endif  // OTACTL_OUTPUT_FILES_H
