#include <stdio.h>

#include "cli/error_line.h"
#include "otactl/commands.h"
#include "package/modules.h"

int list_modules() {
    fputs(describe_modules().c_str(), stdout);
    return flush_output(OTACTL) ? OTACTL_OK : OTACTL_FAILED;
}
