#include "package_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "hal/flash_result.h"

int open_package_file(ReportSource source, const char* operation, const char* path, int flags,
                      corvo::UniqueFd& file, int64_t& size) {
    file.reset(open(path, flags));
    if (!file.valid()) {
        HAL_ErrorLog(operation, __LINE__, source.tag, source.id, REPORT_LEVEL_ERROR,
                     "failed to open %s.", path);
        return FLASH_NO_PACKAGE;
    }
    struct stat status = {};
    if (fstat(file.get(), &status) != 0) {
        HAL_ErrorLog(operation, __LINE__, source.tag, source.id, REPORT_LEVEL_ERROR,
                     "failed to get file status.");
        return FLASH_NO_PACKAGE_STATUS;
    }
    size = status.st_size;
    return FLASH_OK;
}
