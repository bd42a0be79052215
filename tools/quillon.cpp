// quillon: command-line front end to the Quillon32 library.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "quillon32/version.h"

namespace {

constexpr const char kUsage[] =
    "usage: quillon [options] <command> [arguments]\n"
    "\n"
    "Options:\n"
    "  --version         print the library version and exit\n"
    "  --help            print this help and exit\n"
    "\n"
    "Commands:\n"
    "  version           print the library version\n"
    "  help              print this help\n";

int PrintVersion() {
  std::printf("%s\n", QUILLON32_VERSION);
  return 0;
}

int PrintHelp(FILE* out) {
  std::fputs(kUsage, out);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    PrintHelp(stderr);
    return 2;
  }
  const std::string& cmd = args[0];
  if (cmd == "--version" || cmd == "version") return PrintVersion();
  if (cmd == "--help" || cmd == "-h" || cmd == "help") return PrintHelp(stdout);
  std::fprintf(stderr, "quillon: unknown command '%s'\n", cmd.c_str());
  PrintHelp(stderr);
  return 2;
}
