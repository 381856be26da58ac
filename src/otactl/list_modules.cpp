#include <stdio.h>

#include "otactl/commands.h"
#include "package/modules.h"

int list_modules() {
    fputs(describe_modules().c_str(), stdout);
    return fflush(stdout) == 0 ? OTACTL_OK : OTACTL_FAILED;
}
