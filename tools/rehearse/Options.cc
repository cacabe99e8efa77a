#include "tools/rehearse/Options.h"

#include <getopt.h>

#include <array>

const char* const pz_Usage =
    "usage: rehearse [--root DIR] [--prepare COMMAND] [--answers FILE]\n"
    "                [--json FILE] [--keep DIR] [--privileged] [--unwatched]\n"
    "                -- PROGRAM [ARG...]\n"
    "       rehearse --this-host [--answers FILE] [--json FILE] [--keep DIR]\n"
    "                -- PROGRAM [ARG...]\n"
    "       rehearse --changes | --mark | --before PATH   (in a rehearsal)\n";

Problem ReadOptions(int argc, char** argv, Options& options) {
  enum : int {
    kRoot = 1,
    kPrepare,
    kAnswers,
    kJson,
    kKeep,
    kPrivileged,
    kUnwatched,
    kThisHost,
    kChanges,
    kMark,
    kBefore,
    kHelp
  };
  static constexpr std::array<option, 13> kLong = {
      {{"root", required_argument, nullptr, kRoot},
       {"prepare", required_argument, nullptr, kPrepare},
       {"answers", required_argument, nullptr, kAnswers},
       {"json", required_argument, nullptr, kJson},
       {"keep", required_argument, nullptr, kKeep},
       {"privileged", no_argument, nullptr, kPrivileged},
       {"unwatched", no_argument, nullptr, kUnwatched},
       {"this-host", no_argument, nullptr, kThisHost},
       {"changes", no_argument, nullptr, kChanges},
       {"mark", no_argument, nullptr, kMark},
       {"before", required_argument, nullptr, kBefore},
       {"help", no_argument, nullptr, kHelp},
       {nullptr, 0, nullptr, 0}}};
  for (int choice = 0;
       (choice = getopt_long(argc, argv, "+", kLong.data(), nullptr)) != -1;) {
    const std::string value = optarg == nullptr ? "" : optarg;
    switch (choice) {
      case kRoot:
        options.root = value;
        break;
      case kPrepare:
        options.prepare = value;
        break;
      case kAnswers:
        options.answers = value;
        break;
      case kJson:
        options.json = value;
        break;
      case kKeep:
        options.keep = value;
        break;
      case kPrivileged:
        options.privileged = true;
        break;
      case kThisHost:
        options.this_host = true;
        break;
      case kUnwatched:
        options.unwatched = true;
        break;
      case kChanges:
        options.action = Options::Action::kShowChanges;
        break;
      case kMark:
        options.action = Options::Action::kMark;
        break;
      case kBefore:
        options.action = Options::Action::kShowBefore;
        options.before = value;
        break;
      case kHelp:
        options.action = Options::Action::kShowHelp;
        break;
      default:
        return "try 'rehearse --help'";  // getopt has named the option
    }
  }
  options.program.assign(argv + optind, argv + argc);
  if (options.action == Options::Action::kRun && options.program.empty()) {
    return "which program? Try 'rehearse --help'";
  }
  if (options.this_host && (options.root != "/" || !options.prepare.empty() ||
                            options.privileged || options.unwatched)) {
    return "--this-host goes with --answers, --json and --keep only";
  }
  return "";
}
