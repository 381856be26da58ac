// Restores chunked images from their two files, because the service reads whole images.
#ifndef OTACTL_RESTORE_H
#define OTACTL_RESTORE_H

#include <string>

#include "package/manifest.h"

// Restores each chunked image that is not in `directory`, which ends in "/", with the content of
// the manifest. Each file there is the old one or the whole image, also after a power cut. Shows
// the progress if standard output is a terminal. Prints the reason for a failure. Returns
// OTACTL_OK, or the exit status for the reason as refuse() does.
int restore_images(const Manifest& manifest, const std::string& directory, bool needsSignature);

#endif  // OTACTL_RESTORE_H
