#include "cli/Version.h"

namespace veltan_cli {
const char* Version() { return "0.1.0"; }
} // namespace veltan_cli
