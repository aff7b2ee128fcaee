#pragma once

namespace veltan_cli {
// The tool's version, printed by --version.
const char* Version();
} // namespace veltan_cli
