// Placeholder so the core library is never empty while the tool grows.
namespace veltan_cli {
const char* Version() { return "0.1.0"; }
}
