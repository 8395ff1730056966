// `tolvane`: keeps SIP addresses of record registered, through the plug-in on the bus.
#include <cstdio>
#include <exception>

#include "host/config_check.h"
#include "host/demo.h"
#include "host/options.h"
#include "host/session.h"

int main(int argc, char** argv) {
  try {
    const host::CommandLine line = host::ParseCommandLine(argc, argv);
    switch (line.verb) {
      case host::CommandLine::Verb::kRegister:
        return host::RunRegister(line.options);
      case host::CommandLine::Verb::kCheckConfig:
        return host::RunCheckConfig(line.options.work_dir);
      case host::CommandLine::Verb::kDemo:
        return host::RunDemo();
      default:
        return line.exit_status;
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tolvane: ended by an unexpected failure: %s\n", error.what());
    return host::kExitFailed;
  }
}
