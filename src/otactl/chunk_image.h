// Writes the two files of a chunked image.
#ifndef OTACTL_CHUNK_IMAGE_H
#define OTACTL_CHUNK_IMAGE_H

#include <stdint.h>

#include <string>

#include "otactl/output_files.h"
#include "package/manifest.h"

// Cuts the image `path` into chunks, compresses them with all processors, and writes the part files
// of PATH.zst and PATH.chunks. Sets size, sha256 and chunked of the module, of which `file` is set.
// The image is to have `size` bytes, which is for the progress only. Prints the reason for a
// failure. Returns OTACTL_OK, OTACTL_FAILED, or OTACTL_WRONG_USE if the image became too large.
int chunk_image(const std::string& path, uint64_t size, OutputFiles& files, ManifestModule& module);

#endif  // OTACTL_CHUNK_IMAGE_H
